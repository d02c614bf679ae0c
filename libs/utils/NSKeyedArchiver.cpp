#include "NSKeyedArchiver.h"

#include "PlistCompat.h"
#include "PlistUtils.h"

#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QSet>

#include <cstdlib>

namespace {

// Nesting of conversions beyond which a branch is cut (it stands as null). Only cyclic or
// hostile archives come near it; it keeps them from exhausting the stack.
constexpr unsigned kMaxDepth = 2000;

// One conversion. An object referred to more than once converts to the same value each
// time, so it is converted once and the value shared (a graph with much sharing would
// otherwise take exponential time). The objects on the current path detect cycles.
class Resolver {
public:
    explicit Resolver(plist_t objects)
        : m_objects(objects), m_count(typeOf(objects) == PLIST_ARRAY ? plist_array_get_size(objects) : 0) {}

    QJsonValue convert(plist_t node, unsigned depth) {
        if (depth >= kMaxDepth) return QJsonValue(QJsonValue::Null);
        // Follow a chain of UIDs to the node that it ends at. A chain longer than the
        // table goes round in a loop.
        plist_t target = node;
        uint32_t steps = 0;
        while (typeOf(target) == PLIST_UID) {
            if (steps++ > m_count) return QJsonValue(QJsonValue::Null);
            const uint32_t index = uint32_t(PlistUtils::getUidValue(target));
            target = index < m_count ? plist_array_get_item(m_objects, index) : nullptr;
        }
        if (target == node) return convertNode(node, depth);   // not a reference
        if (!target) return QJsonValue(QJsonValue::Undefined); // dangling
        const auto known = m_done.constFind(target);
        if (known != m_done.constEnd()) return known.value();
        if (m_path.contains(target)) return QJsonValue(QJsonValue::Null);
        m_path.insert(target);
        const QJsonValue value = convertNode(target, depth);
        m_path.remove(target);
        m_done.insert(target, value);
        return value;
    }

private:
    static plist_type typeOf(plist_t node) { return node ? plist_get_node_type(node) : PLIST_NONE; }

    QJsonValue convertNode(plist_t node, unsigned depth) {
        switch (typeOf(node)) {
        case PLIST_ARRAY: {
            QJsonArray array;
            const uint32_t size = plist_array_get_size(node);
            for (uint32_t i = 0; i < size; ++i)
                array.append(convert(plist_array_get_item(node, i), depth + 1));
            return array;
        }
        case PLIST_DICT: {
            QJsonObject object;
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            if (!it) return object;
            for (;;) {
                char* key = nullptr;
                plist_t value = nullptr;
                plist_dict_next_item(node, it, &key, &value);
                if (!key || !value) {
                    std::free(key);
                    break;
                }
                // Assigning an undefined value removes the key.
                object[QString::fromUtf8(key)] = convert(value, depth + 1);
                std::free(key);
            }
            std::free(it);
            return object;
        }
        default: // scalars read exactly as in a plain property list
            return PlistUtils::toJson(node);
        }
    }

    plist_t m_objects;
    uint32_t m_count;
    QHash<plist_t, QJsonValue> m_done;
    QSet<plist_t> m_path;
};

} // namespace

NSKeyedArchiver::NSKeyedArchiver() : m_json(QJsonValue::Null) {}

bool NSKeyedArchiver::loadFromFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return false;
    const bool ok = loadFromData(file.readAll());
    file.close();
    return ok;
}

bool NSKeyedArchiver::loadFromData(const QByteArray& data) {
    return loadBytes(data, true);
}

bool NSKeyedArchiver::loadRootFromFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return false;
    const bool ok = loadRootFromData(file.readAll());
    file.close();
    return ok;
}

bool NSKeyedArchiver::loadRootFromData(const QByteArray& data) {
    return loadBytes(data, false);
}

const QJsonValue& NSKeyedArchiver::json() const {
    return m_json;
}

QJsonValue NSKeyedArchiver::parse(void* node, void* objects) {
    Resolver resolver(static_cast<plist_t>(objects));
    return resolver.convert(static_cast<plist_t>(node), 0);
}

bool NSKeyedArchiver::loadBytes(const QByteArray& data, bool archive) {
    void* root = nullptr;
    if (!PlistUtils::loadFromData(data, root)) return false;
    QJsonValue converted;
    if (archive) {
        void* objects = PlistUtils::getNode(root, "$objects");
        void* top = PlistUtils::getNode(root, "$top");
        converted = parse(top, objects);
    } else {
        converted = parse(root, nullptr);
    }
    plist_free(static_cast<plist_t>(root));
    m_json = QJsonValue(converted.toObject());
    return true;
}
