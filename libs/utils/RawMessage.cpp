#include "RawMessage.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/message.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/unknown_field_set.h>

#include <cstdint>
#include <fstream>
#include <limits>
#include <memory>
#include <vector>

using google::protobuf::UnknownField;
using google::protobuf::UnknownFieldSet;

RawMessage::RawMessage() = default;

RawMessage::~RawMessage() {
    release();
}

void RawMessage::release() {
    delete m_message;
    m_message = nullptr;
    delete m_factory;
    m_factory = nullptr;
    delete m_pool;
    m_pool = nullptr;
}

bool RawMessage::merge(const char* data, int size) {
    release();
    m_pool = new google::protobuf::DescriptorPool();

    // A message type without fields: everything parsed lands in its unknown-field set.
    google::protobuf::FileDescriptorProto file;
    file.set_name("empty_message.proto");
    file.add_message_type()->set_name("EmptyMessage");
    if (m_pool->BuildFile(file) == nullptr) {
        // The fixed schema always builds; failing here means the protobuf library is broken.
        google::protobuf::internal::LogFinisher() =
            google::protobuf::internal::LogMessage(google::protobuf::LOGLEVEL_FATAL, "libs/utils/RawMessage",
                                                   115)
            << "CHECK failed: m_pool->BuildFile(file) != NULL: ";
    }

    const google::protobuf::Descriptor* descriptor = m_pool->FindMessageTypeByName("EmptyMessage");
    if (descriptor == nullptr) return false;
    m_factory = new google::protobuf::DynamicMessageFactory(m_pool);
    const google::protobuf::Message* prototype = m_factory->GetPrototype(descriptor);
    if (prototype == nullptr) return false;
    m_message = prototype->New();
    if (m_message == nullptr) return false;

    if (size >= 0 && m_message->ParseFromArray(data, size)) return true;
    delete m_message;
    m_message = nullptr;
    return false;
}

bool RawMessage::mergeFile(const std::string& path) {
    release();
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in.is_open()) return false;
    const std::streamoff size = in.tellg();
    if (size < 0 || size > std::numeric_limits<int>::max()) return false;
    std::vector<char> buffer(static_cast<size_t>(size));
    in.seekg(0);
    in.read(buffer.data(), size);
    if (in.gcount() != size) return false;
    return merge(buffer.data(), static_cast<int>(size));
}

template <typename T> bool RawMessage::parseValue(const std::string& path, T& out) const {
    if (m_message == nullptr) return false;

    // Split at "."; std::stoi accepts leading blanks and a sign, stops at the first non-digit and
    // throws on a part that does not start with a number, which callers get to see.
    std::vector<int> numbers;
    std::string::size_type start = 0;
    for (;;) {
        const std::string::size_type dot = path.find('.', start);
        const std::string part = path.substr(start, dot == std::string::npos ? dot : dot - start);
        if (part.empty()) return false;
        numbers.push_back(std::stoi(part));
        if (dot == std::string::npos) break;
        start = dot + 1;
    }

    const UnknownFieldSet* current = &m_message->GetReflection()->GetUnknownFields(*m_message);
    std::vector<std::unique_ptr<UnknownFieldSet>> nested; // alive until the lookup ends
    for (size_t i = 0; i < numbers.size(); ++i) {
        if (current->field_count() == 0) return false;
        const UnknownField* field = nullptr;
        for (int j = 0; j < current->field_count(); ++j) {
            if (current->field(j).number() == numbers[i]) {
                field = &current->field(j);
                break;
            }
        }
        if (field == nullptr) return false;
        if (i + 1 == numbers.size()) return convertUnknownField(*field, out);

        switch (field->type()) {
        case UnknownField::TYPE_LENGTH_DELIMITED: {
            // Bytes that are not a message leave the lookup in the current set; callers rely on it.
            auto set = std::make_unique<UnknownFieldSet>();
            if (set->ParseFromString(field->length_delimited())) {
                current = set.get();
                nested.push_back(std::move(set));
            }
            break;
        }
        case UnknownField::TYPE_GROUP:
            current = &field->group();
            break;
        default:
            // Scalars have nothing inside: the next number is looked up beside them.
            break;
        }
    }
    return false;
}

QString RawMessage::parseStr(const QString& path, const QString& defaultValue) {
    std::string value;
    if (parseValue(path.toUtf8().toStdString(), value)) return QString::fromUtf8(value.c_str());
    return defaultValue;
}

int RawMessage::parseInt(const QString& path, int defaultValue) {
    int value = 0;
    if (parseValue(path.toUtf8().toStdString(), value)) return value;
    return defaultValue;
}

qint64 RawMessage::parseInt64(const QString& path, int defaultValue) {
    long long value = 0;
    if (parseValue(path.toUtf8().toStdString(), value)) return value;
    return defaultValue;
}

bool convertUnknownField(const UnknownField& field, std::string& out) {
    switch (field.type()) {
    case UnknownField::TYPE_VARINT:
        out = std::to_string(field.varint());
        return true;
    case UnknownField::TYPE_FIXED32:
        out = std::to_string(field.fixed32());
        return true;
    case UnknownField::TYPE_FIXED64:
        out = std::to_string(field.fixed64());
        return true;
    case UnknownField::TYPE_LENGTH_DELIMITED:
        out = field.length_delimited();
        return true;
    default:
        return false;
    }
}

bool convertUnknownField(const UnknownField& field, int& out) {
    switch (field.type()) {
    case UnknownField::TYPE_VARINT:
        out = static_cast<int32_t>(static_cast<uint32_t>(field.varint()));
        return true;
    case UnknownField::TYPE_FIXED32:
        out = static_cast<int32_t>(field.fixed32());
        return true;
    case UnknownField::TYPE_FIXED64:
        out = static_cast<int32_t>(static_cast<uint32_t>(field.fixed64()));
        return true;
    default:
        return false;
    }
}

bool convertUnknownField(const UnknownField& field, long long& out) {
    switch (field.type()) {
    case UnknownField::TYPE_VARINT:
        out = static_cast<long long>(field.varint());
        return true;
    case UnknownField::TYPE_FIXED32:
        out = static_cast<long long>(field.fixed32());
        return true;
    case UnknownField::TYPE_FIXED64:
        out = static_cast<long long>(field.fixed64());
        return true;
    default:
        return false;
    }
}
