// Conversions between QString and locale-encoded std::string, and text masking.
#pragma once

#include "utils_export.h"

#include <QString>

#include <string>

class UTILS_EXPORT StringUtil {
public:
    StringUtil() = default;

    // Encodes with the locale's codec; embedded zero bytes are kept.
    static std::string toCString(const QString& text);
    // Decodes with the locale's codec, up to the first zero byte.
    static QString fromCString(const std::string& text);
    // Keeps the first `visible` characters of the first 30 and masks the rest of those 30 with
    // asterisks; anything beyond 30 characters is dropped.
    static QString hideTextTail(const QString& text, int visible);
};
