#include "NSKeyedArchiver.h"

#include "PlistCompat.h"
#include "PlistUtils.h"

#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QSet>

#include <vector>

namespace {

// One conversion. An object referred to more than once converts to the same value each
// time, so it is converted once and the value shared (a graph with much sharing would
// otherwise take exponential time). The objects on the current path detect cycles.
// Containers are converted with a stack of their own rather than by recursion, so that no
// nesting, however deep, can exhaust the thread's stack; nothing is cut.
class Resolver {
public:
    explicit Resolver(plist_t objects)
        : m_objects(plistcompat::arrayItems(objects)), m_count(uint32_t(m_objects.size())) {}

    QJsonValue convert(plist_t root) {
        QJsonValue value;
        if (begin(root, &value)) return value;
        while (!m_stack.empty()) {
            plist_t child = nextChild(m_stack.back());
            if (child) {
                if (begin(child, &value)) deliver(value);
                continue;
            }
            Frame& done = m_stack.back();
            value = done.isArray ? QJsonValue(done.array) : QJsonValue(done.object);
            const plist_t reference = done.reference;
            m_stack.pop_back();
            if (reference) {
                m_path.remove(reference);
                m_done.insert(reference, value);
            }
            if (m_stack.empty()) return value;
            deliver(value);
        }
        return value;
    }

private:
    struct Frame {
        plist_t reference = nullptr; // the object reached through a UID, remembered once done
        bool isArray = false;
        std::vector<plist_t> items;                           // of an array
        std::vector<std::pair<std::string, plist_t>> entries; // of a dictionary
        size_t index = 0;
        QString key; // the key whose value is being converted
        QJsonArray array;
        QJsonObject object;
    };

    static plist_type typeOf(plist_t node) { return node ? plist_get_node_type(node) : PLIST_NONE; }

    // Starts the conversion of node: true with *value set when it is done at once (a scalar,
    // a reference already converted, dangling or cyclic), false when a container was pushed.
    bool begin(plist_t node, QJsonValue* value) {
        // Follow a chain of UIDs to the node that it ends at. A chain longer than the table
        // goes round in a loop.
        plist_t target = node;
        uint32_t steps = 0;
        while (typeOf(target) == PLIST_UID) {
            if (steps++ > m_count) return *value = QJsonValue(QJsonValue::Null), true;
            const uint32_t index = uint32_t(PlistUtils::getUidValue(target));
            target = index < m_count ? m_objects[index] : nullptr;
        }
        if (!target) return *value = QJsonValue(QJsonValue::Undefined), true; // dangling
        const plist_t reference = target == node ? nullptr : target;
        if (reference) {
            const auto known = m_done.constFind(reference);
            if (known != m_done.constEnd()) return *value = known.value(), true;
            if (m_path.contains(reference)) return *value = QJsonValue(QJsonValue::Null), true;
        }
        const plist_type type = typeOf(target);
        if (type != PLIST_ARRAY && type != PLIST_DICT) {
            // Scalars read exactly as in a plain property list.
            *value = PlistUtils::toJson(target);
            if (reference) m_done.insert(reference, *value);
            return true;
        }
        if (reference) m_path.insert(reference);
        Frame frame;
        frame.reference = reference;
        frame.isArray = type == PLIST_ARRAY;
        if (frame.isArray)
            frame.items = plistcompat::arrayItems(target);
        else
            frame.entries = plistcompat::dictItems(target);
        m_stack.push_back(std::move(frame));
        return false;
    }

    // The next child of a container, or null when it has none left.
    static plist_t nextChild(Frame& frame) {
        if (frame.isArray) return frame.index < frame.items.size() ? frame.items[frame.index++] : nullptr;
        if (frame.index >= frame.entries.size()) return nullptr;
        const auto& [key, value] = frame.entries[frame.index++];
        frame.key = QString::fromUtf8(key.c_str());
        return value;
    }

    void deliver(const QJsonValue& value) {
        Frame& parent = m_stack.back();
        if (parent.isArray)
            parent.array.append(value); // undefined stands as null
        else
            parent.object[parent.key] = value; // assigning undefined removes the key
    }

    std::vector<plist_t> m_objects;
    uint32_t m_count;
    QHash<plist_t, QJsonValue> m_done;
    QSet<plist_t> m_path;
    std::vector<Frame> m_stack;
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
    return resolver.convert(static_cast<plist_t>(node));
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
