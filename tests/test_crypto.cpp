// AES-CBC with PKCS#7 padding: CrypteHelper, pkcs7_padding and pcks7_remove.
#include "CrypteHelper.h"

#include <gtest/gtest.h>

#include <openssl/evp.h>

namespace {

QByteArray bytes(int size, int seed) {
    QByteArray b(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        b[i] = char(i * 31 + seed * 7 + (i >> 3));
    return b;
}

// Reference: OpenSSL with its own PKCS#7 padding switched on.
QByteArray referenceEncrypt(const QByteArray& data, const QByteArray& key, const QByteArray& iv) {
    const auto in = [](const QByteArray& b) { return reinterpret_cast<const uchar*>(b.constData()); };
    const std::string name = "aes-" + std::to_string(key.size() * 8) + "-cbc";
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, EVP_get_cipherbyname(name.c_str()), nullptr, in(key), in(iv));
    QByteArray out(data.size() + 16, Qt::Uninitialized);
    uchar* to = reinterpret_cast<uchar*>(out.data());
    int n = 0, tail = 0;
    EVP_EncryptUpdate(ctx, to, &n, in(data), data.size());
    EVP_EncryptFinal_ex(ctx, to + n, &tail);
    EVP_CIPHER_CTX_free(ctx);
    return out.left(n + tail);
}

} // namespace

TEST(Pkcs7, PaddingAndUncheckedRemoval) {
    for (int size = 0; size <= 33; ++size) {
        const QByteArray padded = pkcs7_padding(bytes(size, size));
        const int added = 16 - size % 16; // a whole block when already aligned
        EXPECT_EQ(padded, bytes(size, size) + QByteArray(added, char(added))) << size;
        EXPECT_EQ(pcks7_remove(padded), bytes(size, size)) << size;
    }
    // The last byte is a signed count; the other padding bytes are not looked at.
    EXPECT_EQ(pcks7_remove("ab\x09"), QByteArray());
    EXPECT_EQ(pcks7_remove("ab\xff"), "ab\xff");
    EXPECT_EQ(pcks7_remove(QByteArray()), QByteArray());
}

TEST(CrypteHelper, MatchesOpenSslForAllKeySizes) {
    const QByteArray iv = bytes(16, 99);
    for (int keySize : {16, 24, 32}) {
        for (int size : {0, 1, 15, 16, 17, 1000}) {
            const QByteArray data = bytes(size, keySize), key = bytes(keySize, size);
            const QByteArray cipher = CrypteHelper::AESEncrypt(data, key, iv);
            EXPECT_EQ(cipher, referenceEncrypt(data, key, iv)) << keySize << " " << size;
            EXPECT_EQ(CrypteHelper::AESDecrypt(cipher, key, iv), data) << keySize << " " << size;
            EXPECT_EQ(CrypteHelper::AESEncrypt(data, key, iv + "longer iv"), cipher); // first 16 bytes only
        }
    }
}

TEST(CrypteHelper, WrongKeysAndUnusableInput) {
    const QByteArray key(16, 'k'), iv(16, 'i'), plain(40, 'x');
    const QByteArray cipher = CrypteHelper::AESEncrypt(plain, key, iv);
    // A wrong key is not reported: it decrypts to garbage.
    EXPECT_NE(CrypteHelper::AESDecrypt(cipher, QByteArray(16, 'K'), iv), plain);
    // Key sizes other than 16/24/32, short ivs and partial blocks are refused with an empty result.
    EXPECT_TRUE(CrypteHelper::AESEncrypt(plain, QByteArray(15, 'k'), iv).isEmpty());
    EXPECT_TRUE(CrypteHelper::AESEncrypt(plain, key, QByteArray(15, 'i')).isEmpty());
    EXPECT_TRUE(CrypteHelper::AESDecrypt(cipher, QByteArray(20, 'k'), iv).isEmpty());
    EXPECT_TRUE(CrypteHelper::AESDecrypt(QByteArray(), key, iv).isEmpty());
    EXPECT_TRUE(CrypteHelper::AESDecrypt(cipher.left(17), key, iv).isEmpty());
}
