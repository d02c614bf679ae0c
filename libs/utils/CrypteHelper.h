// AES-CBC encryption with PKCS#7 padding. The key size selects the variant: 16, 24 and 32-byte
// keys give AES-128, AES-192 and AES-256. No IV, length or MAC is added to the cipher text.
#pragma once

#include "utils_export.h"

#include <QByteArray>

class UTILS_EXPORT CrypteHelper {
public:
    // Pads data as pkcs7_padding does and encrypts it in CBC mode with the first 16 bytes of iv
    // (the caller's iv is never changed). A key of another size than 16, 24 or 32 bytes, or an iv
    // shorter than 16 bytes, gives an empty result.
    static QByteArray AESEncrypt(const QByteArray& data, const QByteArray& key, const QByteArray& iv);

    // Decrypts data (a non-empty multiple of 16 bytes) in CBC mode and cuts the padding off as
    // pcks7_remove does. The padding is not validated: a wrong key or iv gives garbage. Input of
    // another size, a bad key size or a short iv gives an empty result.
    static QByteArray AESDecrypt(const QByteArray& data, const QByteArray& key, const QByteArray& iv);
};

// Appends 1 to 16 bytes, each holding the count of added bytes, up to the next multiple of 16
// (a whole block when data is already a multiple of 16).
UTILS_EXPORT QByteArray pkcs7_padding(const QByteArray& data);

// Takes the last byte as a signed count and returns the data without that many trailing bytes.
// The padding is not checked, so the input must be well-formed padded data.
UTILS_EXPORT QByteArray pcks7_remove(const QByteArray& data);
