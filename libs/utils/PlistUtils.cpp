#include "PlistUtils.h"

#include "PlistCompat.h"

#include <QDebug>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

using plistcompat::PLIST_ERR_SUCCESS;

namespace {

constexpr int32_t kUnixTo2001 = 978307200;

plist_type nodeType(void* node) {
    return node ? plist_get_node_type(static_cast<plist_t>(node)) : PLIST_NONE;
}

bool parseBytes(const QByteArray& data, void*& root) {
    if (data.isEmpty() || uint64_t(data.size()) > std::numeric_limits<uint32_t>::max()) return false;
    plist_t parsed = nullptr;
    if (plistcompat::plist_from_memory(data.constData(), uint32_t(data.size()), &parsed) != PLIST_ERR_SUCCESS)
        return false;
    root = parsed;
    return true;
}

using Serialiser = plistcompat::Error (*)(plist_t, char**, uint32_t*);

bool saveWith(Serialiser serialise, const QString& path, void* node) {
    char* buffer = nullptr;
    uint32_t length = 0;
    if (serialise(static_cast<plist_t>(node), &buffer, &length) != PLIST_ERR_SUCCESS) return false;
    QFile file(path);
    const bool opened = file.open(QIODevice::ReadWrite | QIODevice::Truncate);
    if (opened) {
        file.write(buffer, qint64(length));
        file.close();
    }
    plistcompat::plist_mem_free(buffer);
    return opened;
}

// Recursive. Loaded trees nest at most plistcompat::kMaxDepth containers deep (the parser
// refuses deeper lists); a tree built in memory is followed to whatever depth it has.
QJsonValue toJsonAt(void* node) {
    switch (nodeType(node)) {
    case PLIST_NONE:
        return QJsonValue(QJsonValue::Undefined);
    case PLIST_BOOLEAN:
        return PlistUtils::getBoolValue(node);
    case PLIST_UINT:
        return QJsonValue(qint64(PlistUtils::getUint64Value(node)));
    case PLIST_REAL:
        return PlistUtils::getRealValue(node);
    case PLIST_STRING:
        return PlistUtils::getQStringValue(node);
    case PLIST_DATE:
        return PlistUtils::getDateValue(node);
    case PLIST_DATA:
        return QString::fromLatin1(PlistUtils::getByteArrayValue(node).toBase64());
    case PLIST_KEY:
        return PlistUtils::getKey(node);
    case PLIST_UID:
        PlistUtils::getUidValue(node); // read, then deliberately dropped
        return QJsonValue(QJsonValue::Null);
    case PLIST_ARRAY: {
        QJsonArray array;
        for (plist_t item : plistcompat::arrayItems(static_cast<plist_t>(node)))
            array.append(toJsonAt(item));
        return array;
    }
    case PLIST_DICT: {
        QJsonObject object;
        for (const auto& [key, value] : plistcompat::dictItems(static_cast<plist_t>(node)))
            object.insert(QString::fromUtf8(key.c_str()), toJsonAt(value));
        return object;
    }
    default:
        return QJsonValue(QJsonValue::Null);
    }
}

} // namespace

bool PlistUtils::loadFromFile(const QString& path, void*& root) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return false;
    const QByteArray data = file.readAll();
    file.close();
    return parseBytes(data, root);
}

bool PlistUtils::loadFromData(const QByteArray& data, void*& root) {
    return parseBytes(data, root);
}

bool PlistUtils::saveToXml(const QString& path, void* node) {
    return saveWith(&plistcompat::plist_to_xml, path, node);
}

bool PlistUtils::saveToBin(const QString& path, void* node) {
    return saveWith(&plistcompat::plist_to_bin, path, node);
}

QByteArray PlistUtils::savaToBinFromByteArray(void* node) {
    char* buffer = nullptr;
    uint32_t length = 0;
    if (plistcompat::plist_to_bin(static_cast<plist_t>(node), &buffer, &length) != PLIST_ERR_SUCCESS ||
        !buffer)
        return QByteArray();
    const QByteArray bytes(buffer, int(length));
    std::free(buffer);
    return bytes;
}

void* PlistUtils::getNode(void* dict, const QString& key) {
    if (!dict) return nullptr;
    return plist_dict_get_item(static_cast<plist_t>(dict), key.toUtf8().constData());
}

QString PlistUtils::getQStringValue(void* dict, const QString& key) {
    void* node = getNode(dict, key);
    return node ? getQStringValue(node) : QString("");
}

QString PlistUtils::getQStringValue(void* node) {
    if (nodeType(node) != PLIST_STRING) return QString("");
    uint64_t length = 0;
    const char* text = plist_get_string_ptr(static_cast<plist_t>(node), &length);
    if (!text) return QString("");
    return QString::fromUtf8(text, int(std::min<uint64_t>(length, std::numeric_limits<int>::max())));
}

void PlistUtils::setQStringValue(void* dict, const QString& key, const QString& value) {
    void* node = getNode(dict, key);
    if (node) setQStringValue(node, value);
}

void PlistUtils::setQStringValue(void* node, const QString& value) {
    if (nodeType(node) != PLIST_STRING) return;
    plist_set_string_val(static_cast<plist_t>(node), value.toUtf8().constData());
}

void PlistUtils::setDateValue(void* dict, const QString& key, const long& unixSeconds) {
    const int32_t low = int32_t(uint32_t(uint64_t(unixSeconds)));
    const int32_t seconds = int32_t(uint32_t(low) - uint32_t(kUnixTo2001));
    qDebug() << "now" << low;
    // libplist ignores a store into anything but a dictionary; do not leak the node then.
    if (nodeType(dict) != PLIST_DICT) return;
    plist_t date = plist_new_date(seconds, 0);
    const std::string name = key.toUtf8().toStdString();
    plist_dict_set_item(static_cast<plist_t>(dict), name.c_str(), date);
}

bool PlistUtils::getBoolValue(void* dict, const QString& key) {
    return getBoolValue(getNode(dict, key));
}

bool PlistUtils::getBoolValue(void* node) {
    if (nodeType(node) != PLIST_BOOLEAN) return false;
    uint8_t value = 0;
    plist_get_bool_val(static_cast<plist_t>(node), &value);
    return value != 0;
}

void PlistUtils::setBoolValue(void* dict, const QString& key, bool value) {
    void* node = getNode(dict, key);
    if (node) setBoolValue(node, value);
}

void PlistUtils::setBoolValue(void* node, bool value) {
    if (nodeType(node) != PLIST_BOOLEAN) return;
    plist_set_bool_val(static_cast<plist_t>(node), value ? 1 : 0);
}

uint64_t PlistUtils::getUint64Value(void* dict, const QString& key) {
    return getUint64Value(getNode(dict, key));
}

uint64_t PlistUtils::getUint64Value(void* node) {
    if (nodeType(node) != PLIST_UINT) return 0;
    uint64_t value = 0;
    plist_get_uint_val(static_cast<plist_t>(node), &value);
    return value;
}

QByteArray PlistUtils::getByteArrayValue(void* dict, const QString& key) {
    return getByteArrayValue(getNode(dict, key));
}

QByteArray PlistUtils::getByteArrayValue(void* node) {
    if (nodeType(node) != PLIST_DATA) return QByteArray();
    uint64_t length = 0;
    const char* bytes = plist_get_data_ptr(static_cast<plist_t>(node), &length);
    if (!bytes || length > uint64_t(std::numeric_limits<int>::max())) return QByteArray();
    return QByteArray(bytes, int(length));
}

QString PlistUtils::getKey(void* node) {
    if (nodeType(node) != PLIST_KEY) return QString();
    char* text = nullptr;
    plist_get_key_val(static_cast<plist_t>(node), &text);
    if (!text) return QString();
    const QString key = QString::fromUtf8(text, int(std::strlen(text)));
    std::free(text);
    return key;
}

double PlistUtils::getDateValue(void* node) {
    if (nodeType(node) != PLIST_DATE) return 0.0;
    int32_t seconds = 0;
    int32_t micros = 0;
    plist_get_date_val(static_cast<plist_t>(node), &seconds, &micros);
    return double(seconds) + double(micros) / 1e6;
}

uint64_t PlistUtils::getUidValue(void* node) {
    if (nodeType(node) != PLIST_UID) return 0;
    uint64_t value = 0;
    plist_get_uid_val(static_cast<plist_t>(node), &value);
    return value;
}

double PlistUtils::getRealValue(void* node) {
    if (nodeType(node) != PLIST_REAL) return 0.0;
    double value = 0.0;
    plist_get_real_val(static_cast<plist_t>(node), &value);
    return value;
}

QString PlistUtils::toXml(void* node) {
    char* buffer = nullptr;
    uint32_t length = 0;
    if (plistcompat::plist_to_xml(static_cast<plist_t>(node), &buffer, &length) != PLIST_ERR_SUCCESS ||
        !buffer)
        return QString("");
    const QString text = QString::fromUtf8(buffer, int(length));
    plistcompat::plist_mem_free(buffer);
    return text;
}

QJsonValue PlistUtils::toJson(void* node) {
    return toJsonAt(node);
}

void PlistUtils::foreachDict(void* node, std::function<void(const char*, void*)> fn) {
    if (nodeType(node) != PLIST_DICT) return;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(static_cast<plist_t>(node), &it);
    if (!it) return;
    struct IterGuard {
        plist_dict_iter it;
        ~IterGuard() { std::free(it); }
    } guard{it};
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(static_cast<plist_t>(node), it, &key, &value);
        if (!key || !value) {
            std::free(key);
            return;
        }
        struct KeyGuard {
            char* key;
            ~KeyGuard() { std::free(key); }
        } keyGuard{key};
        fn(key, value);
    }
}

void PlistUtils::foreachArray(void* node, std::function<void(void*)> fn) {
    if (nodeType(node) != PLIST_ARRAY) return;
    plist_array_iter it = nullptr;
    plist_array_new_iter(static_cast<plist_t>(node), &it);
    if (!it) return;
    struct IterGuard {
        plist_array_iter it;
        ~IterGuard() { std::free(it); }
    } guard{it};
    for (;;) {
        plist_t item = nullptr;
        plist_array_next_item(static_cast<plist_t>(node), it, &item);
        if (!item) return;
        fn(item);
    }
}
