#include "CrypteHelper.h"

#include <openssl/evp.h>

#include <algorithm>
#include <memory>

namespace {

constexpr int kBlockSize = 16;

const EVP_CIPHER* cipherForKey(const QByteArray& key) {
    switch (key.size()) {
    case 16:
        return EVP_aes_128_cbc();
    case 24:
        return EVP_aes_192_cbc();
    case 32:
        return EVP_aes_256_cbc();
    default:
        return nullptr;
    }
}

// Runs raw CBC over whole blocks; the padding is ours, so OpenSSL's own is switched off.
QByteArray runCbc(const QByteArray& data, const QByteArray& key, const QByteArray& iv, bool encrypt) {
    const EVP_CIPHER* cipher = cipherForKey(key);
    if (!cipher || iv.size() < kBlockSize || data.isEmpty() || data.size() % kBlockSize != 0) return {};

    // A local copy of the first 16 bytes: the caller's iv stays as it was.
    unsigned char vector[kBlockSize];
    std::copy(iv.constData(), iv.constData() + kBlockSize, vector);

    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                        &EVP_CIPHER_CTX_free);
    if (!ctx) return {};
    const auto* keyBytes = reinterpret_cast<const unsigned char*>(key.constData());
    if (EVP_CipherInit_ex(ctx.get(), cipher, nullptr, keyBytes, vector, encrypt ? 1 : 0) != 1) return {};
    EVP_CIPHER_CTX_set_padding(ctx.get(), 0);

    QByteArray result(data.size(), Qt::Uninitialized);
    auto* out = reinterpret_cast<unsigned char*>(result.data());
    int written = 0;
    if (EVP_CipherUpdate(ctx.get(), out, &written, reinterpret_cast<const unsigned char*>(data.constData()),
                         data.size()) != 1)
        return {};
    int tail = 0;
    if (EVP_CipherFinal_ex(ctx.get(), out + written, &tail) != 1) return {};
    result.resize(written + tail);
    return result;
}

} // namespace

QByteArray pkcs7_padding(const QByteArray& data) {
    const int size = data.size();
    const int padded = size / kBlockSize * kBlockSize + kBlockSize;
    const int count = padded - size;
    QByteArray result = data;
    result.append(QByteArray(count, char(count)));
    return result;
}

QByteArray pcks7_remove(const QByteArray& data) {
    if (data.isEmpty()) return data;
    // Read as a signed byte on purpose. QByteArray::left() clamps, so a count beyond either end
    // gives the whole array or an empty one instead of reading out of bounds.
    const int count = static_cast<signed char>(data.at(data.size() - 1));
    return data.left(data.size() - count);
}

QByteArray CrypteHelper::AESEncrypt(const QByteArray& data, const QByteArray& key, const QByteArray& iv) {
    return runCbc(pkcs7_padding(data), key, iv, true);
}

QByteArray CrypteHelper::AESDecrypt(const QByteArray& data, const QByteArray& key, const QByteArray& iv) {
    const QByteArray plain = runCbc(data, key, iv, false);
    if (plain.isEmpty()) return plain;
    return pcks7_remove(plain);
}
