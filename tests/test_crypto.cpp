// AES-CBC with PKCS#7 padding: CrypteHelper, pkcs7_padding and pcks7_remove.
#include "CrypteHelper.h"

#include <gtest/gtest.h>

#include <QRandomGenerator>

#include <openssl/evp.h>

namespace {

QByteArray randomBytes(int size, quint32 seed) {
    QRandomGenerator gen(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char(gen.bounded(256));
    return bytes;
}

// Reference: OpenSSL with its own PKCS#7 padding switched on.
QByteArray referenceEncrypt(const QByteArray& data, const QByteArray& key, const QByteArray& iv) {
    const EVP_CIPHER* cipher = key.size() == 16   ? EVP_aes_128_cbc()
                               : key.size() == 24 ? EVP_aes_192_cbc()
                                                  : EVP_aes_256_cbc();
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, cipher, nullptr, reinterpret_cast<const unsigned char*>(key.constData()),
                       reinterpret_cast<const unsigned char*>(iv.constData()));
    QByteArray out(data.size() + 16, Qt::Uninitialized);
    int n = 0, tail = 0;
    EVP_EncryptUpdate(ctx, reinterpret_cast<unsigned char*>(out.data()), &n,
                      reinterpret_cast<const unsigned char*>(data.constData()), data.size());
    EVP_EncryptFinal_ex(ctx, reinterpret_cast<unsigned char*>(out.data()) + n, &tail);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(n + tail);
    return out;
}

} // namespace

TEST(Pkcs7, PaddingAddsOneToSixteenBytes) {
    for (int size = 0; size <= 48; ++size) {
        const QByteArray data = randomBytes(size, quint32(size + 1));
        const QByteArray padded = pkcs7_padding(data);
        const int added = 16 - size % 16;
        ASSERT_EQ(padded.size(), size + added) << size;
        EXPECT_TRUE(padded.startsWith(data));
        EXPECT_EQ(padded.mid(size), QByteArray(added, char(added))) << size;
        EXPECT_EQ(pcks7_remove(padded), data) << size;
    }
    EXPECT_EQ(pkcs7_padding(QByteArray(15, 'a')), QByteArray(15, 'a') + '\x01');

    // The last byte is read as a signed count and not checked against the rest.
    EXPECT_EQ(pcks7_remove(QByteArray("abcdef\x03")), QByteArray("abcd"));
    EXPECT_EQ(pcks7_remove(QByteArray("abc\x00", 4)), QByteArray("abc\x00", 4));
    EXPECT_EQ(pcks7_remove(QByteArray("ab\x09")), QByteArray());
    EXPECT_EQ(pcks7_remove(QByteArray("ab\xff")), QByteArray("ab\xff")); // -1 asks for more than there is
    EXPECT_EQ(pcks7_remove(QByteArray()), QByteArray());
}

TEST(CrypteHelper, MatchesOpenSslForAllKeySizes) {
    const QByteArray iv = randomBytes(16, 99);
    for (int keySize : {16, 24, 32}) {
        const QByteArray key = randomBytes(keySize, quint32(keySize));
        for (int size : {0, 1, 15, 16, 17, 31, 32, 33, 1000, 4096}) {
            const QByteArray data = randomBytes(size, quint32(size * 7 + keySize));
            const QByteArray cipher = CrypteHelper::AESEncrypt(data, key, iv);
            EXPECT_EQ(cipher.size(), (size / 16 + 1) * 16) << keySize << " " << size;
            EXPECT_EQ(cipher, referenceEncrypt(data, key, iv)) << keySize << " " << size;
            EXPECT_EQ(CrypteHelper::AESDecrypt(cipher, key, iv), data) << keySize << " " << size;
        }
    }
}

TEST(CrypteHelper, KnownAnswerAndIvHandling) {
    // First block of the AES-128-CBC example vector of NIST SP 800-38A (F.2.1).
    const QByteArray key = QByteArray::fromHex("2b7e151628aed2a6abf7158809cf4f3c");
    const QByteArray iv = QByteArray::fromHex("000102030405060708090a0b0c0d0e0f");
    const QByteArray plain = QByteArray::fromHex("6bc1bee22e409f96e93d7e117393172a");
    const QByteArray ivCopy = iv;
    const QByteArray cipher = CrypteHelper::AESEncrypt(plain, key, iv);
    ASSERT_EQ(cipher.size(), 32);
    EXPECT_EQ(cipher.left(16).toHex(), QByteArray("7649abac8119b246cee98e9b12e9197d"));
    EXPECT_EQ(iv, ivCopy);

    // Only the first 16 bytes of a longer iv count.
    EXPECT_EQ(CrypteHelper::AESEncrypt(plain, key, iv + "extra"), cipher);
    EXPECT_EQ(CrypteHelper::AESDecrypt(cipher, key, iv + "extra"), plain);

    // A wrong iv only garbles the first block; a wrong key garbles everything, without an error.
    const QByteArray text = QByteArray(40, 'x');
    const QByteArray c2 = CrypteHelper::AESEncrypt(text, key, iv);
    QByteArray otherIv = iv;
    otherIv[0] = 'Z';
    const QByteArray wrongIv = CrypteHelper::AESDecrypt(c2, key, otherIv);
    EXPECT_EQ(wrongIv.mid(16), text.mid(16));
    EXPECT_NE(wrongIv.left(16), text.left(16));
    QByteArray otherKey = key;
    otherKey[3] = char(otherKey[3] ^ 1);
    EXPECT_NE(CrypteHelper::AESDecrypt(c2, otherKey, iv), text);
}

TEST(CrypteHelper, RejectsInputItCannotProcess) {
    const QByteArray iv(16, '\x01');
    EXPECT_TRUE(CrypteHelper::AESEncrypt("data", QByteArray(15, 'k'), iv).isEmpty());
    EXPECT_TRUE(CrypteHelper::AESEncrypt("data", QByteArray(), iv).isEmpty());
    EXPECT_TRUE(CrypteHelper::AESEncrypt("data", QByteArray(16, 'k'), QByteArray(15, 'i')).isEmpty());
    EXPECT_TRUE(CrypteHelper::AESDecrypt(QByteArray(32, 'c'), QByteArray(20, 'k'), iv).isEmpty());
    EXPECT_TRUE(CrypteHelper::AESDecrypt(QByteArray(32, 'c'), QByteArray(16, 'k'), QByteArray()).isEmpty());
    EXPECT_TRUE(CrypteHelper::AESDecrypt(QByteArray(), QByteArray(16, 'k'), iv).isEmpty());
    EXPECT_TRUE(CrypteHelper::AESDecrypt(QByteArray(17, 'c'), QByteArray(16, 'k'), iv).isEmpty());
}
