// Reads protocol-buffer messages without their schema: every field is kept as an unknown field
// and values are looked up by a dotted path of field numbers ("2.1.3").
#pragma once

#include "utils_export.h"

#include <QString>

#include <string>

namespace google {
namespace protobuf {
class DescriptorPool;
class DynamicMessageFactory;
class Message;
class UnknownField;
} // namespace protobuf
} // namespace google

class UTILS_EXPORT RawMessage {
public:
    RawMessage();
    ~RawMessage();
    RawMessage(const RawMessage&) = delete;
    RawMessage& operator=(const RawMessage&) = delete;

    // Deletes the message, the factory and the pool, in that order.
    void release();
    // Drops whatever was loaded and parses size bytes at data; true when they parsed.
    bool merge(const char* data, int size);
    // Drops whatever was loaded and parses the whole file; false when it cannot be opened or parsed.
    bool mergeFile(const std::string& path);

    // The field at path, or defaultValue when it is missing or cannot be converted. A path part
    // that is not a number throws std::invalid_argument or std::out_of_range.
    QString parseStr(const QString& path, const QString& defaultValue);
    int parseInt(const QString& path, int defaultValue);
    qint64 parseInt64(const QString& path, int defaultValue);

    google::protobuf::DescriptorPool* m_pool = nullptr;
    google::protobuf::DynamicMessageFactory* m_factory = nullptr;
    google::protobuf::Message* m_message = nullptr;

private:
    template <typename T> bool parseValue(const std::string& path, T& out) const;
};

// Conversions of one unknown field: varint and fixed fields to decimal text or to integers (no
// ZigZag decoding), length-delimited fields to their raw bytes. False when the type does not fit.
UTILS_EXPORT bool convertUnknownField(const google::protobuf::UnknownField& field, std::string& out);
UTILS_EXPORT bool convertUnknownField(const google::protobuf::UnknownField& field, int& out);
UTILS_EXPORT bool convertUnknownField(const google::protobuf::UnknownField& field, long long& out);
