#include "PlistJson.h"

#include "Command.h"
#include "PlistUtils.h"

#include <plist/plist.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

namespace inspect {

namespace {

constexpr qint64 kAppleEpoch = 978307200; // 2001-01-01 00:00:00 UTC

plist_type typeOf(void* node) {
    return node ? plist_get_node_type(static_cast<plist_t>(node)) : PLIST_NONE;
}

// A node serialised alone as a binary list: its one object starts after the 8-byte signature.
// That form keeps what the node getters of the installed libplist cannot give: a date's full
// range and fraction, and whether an integer above 2^63 - 1 was stored unsigned.
QByteArray binaryObject(void* node) {
    char* buffer = nullptr;
    uint32_t length = 0;
    plist_to_bin(static_cast<plist_t>(node), &buffer, &length);
    const QByteArray object = length > 8 + 32 ? QByteArray(buffer + 8, int(length - 8 - 32)) : QByteArray();
    if (buffer) plist_to_bin_free(buffer);
    return object;
}

void writeInteger(JsonText& json, void* node) {
    const quint64 v = PlistUtils::getUint64Value(node);
    if (v <= quint64(std::numeric_limits<qint64>::max()))
        json.value(qint64(v));
    else if (binaryObject(node).startsWith('\x14')) // a 16-byte integer: stored unsigned
        json.value(v);
    else
        json.value(qint64(v));
}

const QStringList kStrings = {"NSString", "NSMutableString"};
const QStringList kData = {"NSData", "NSMutableData"};
const QStringList kArrays = {"NSArray",      "NSMutableArray", "NSSet",
                             "NSMutableSet", "NSOrderedSet",   "NSMutableOrderedSet"};
const QStringList kDictionaries = {"NSDictionary", "NSMutableDictionary"};

} // namespace

struct PlistJson::Member {
    QString key;          // in an object
    void* node = nullptr; // the value; without one, text is
    QString text;
};

struct PlistJson::Frame {
    bool object = false;
    std::vector<Member> members;
    size_t next = 0;
    qint64 uid = -1; // the archived object written, if any
};

PlistJson::PlistJson(void* objects) : m_resolve(objects != nullptr) {
    PlistUtils::foreachArray(objects, [this](void* item) { m_objects.push_back(item); });
    m_active.assign(m_objects.size(), false);
}

QString PlistJson::appleTimeText(double seconds) {
    if (!std::isfinite(seconds) || std::fabs(seconds) > 2e11) // beyond the years 1 to 9999
        return QString::number(seconds, 'g', 17) + " s from 2001-01-01T00:00:00Z";
    const double whole = std::floor(seconds);
    qint64 micros = std::llround((seconds - whole) * 1e6);
    qint64 secs = qint64(whole);
    if (micros == 1000000) ++secs, micros = 0;
    return isoDateTime(secs + kAppleEpoch, int(micros * 1000));
}

QString PlistJson::dateText(void* node) {
    const QByteArray object = binaryObject(node);
    if (object.size() < 9 || object.at(0) != '\x33') return appleTimeText(PlistUtils::getDateValue(node));
    quint64 bits = 0;
    for (int i = 1; i < 9; ++i)
        bits = (bits << 8) | uchar(object.at(i));
    double seconds = 0;
    std::memcpy(&seconds, &bits, sizeof seconds);
    return appleTimeText(seconds);
}

void* PlistJson::object(qint64 uid) const {
    return uid >= 0 && uid < qint64(m_objects.size()) ? m_objects[size_t(uid)] : nullptr;
}

QString PlistJson::className(void* node) const {
    void* ref = PlistUtils::getNode(node, "$class");
    return typeOf(ref) == PLIST_UID
               ? PlistUtils::getQStringValue(object(qint64(PlistUtils::getUidValue(ref))), "$classname")
               : QString();
}

// A dictionary key of an archive: a string or an NSString, else its reference as text.
QString PlistJson::keyText(void* node) const {
    for (size_t steps = 0; typeOf(node) == PLIST_UID && steps <= m_objects.size(); ++steps) {
        void* target = object(qint64(PlistUtils::getUidValue(node)));
        if (!target) break;
        node = target;
    }
    if (typeOf(node) == PLIST_STRING) return PlistUtils::getQStringValue(node);
    if (typeOf(node) == PLIST_UINT) return QString::number(PlistUtils::getUint64Value(node));
    if (typeOf(node) == PLIST_DICT && kStrings.contains(className(node)))
        return PlistUtils::getQStringValue(node, "NS.string");
    return QString("{\"UID\": %1}").arg(PlistUtils::getUidValue(node));
}

bool PlistJson::write(JsonText& json, void* node, qint64 limit) {
    std::vector<Frame> stack;
    writeNode(json, node, stack);
    while (!stack.empty() && json.values() <= limit) {
        Frame& f = stack.back();
        if (f.next == f.members.size()) {
            f.object ? json.endObject() : json.endArray();
            if (f.uid >= 0) m_active[size_t(f.uid)] = false;
            stack.pop_back();
            continue;
        }
        const Member m = f.members[f.next++]; // writeNode may grow the stack
        if (f.object) json.key(m.key);
        m.node ? writeNode(json, m.node, stack) : json.value(m.text);
    }
    return json.values() <= limit;
}

void PlistJson::writeNode(JsonText& json, void* node, std::vector<Frame>& stack) {
    qint64 uid = -1;
    if (m_resolve && typeOf(node) == PLIST_UID) {
        // Follow the reference, and a chain of them, to the object.
        std::vector<qint64> chain;
        while (typeOf(node) == PLIST_UID) {
            const quint64 ref = PlistUtils::getUidValue(node);
            if (ref >= m_objects.size()) {
                json.beginObject();
                json.member("UID", ref);
                json.endObject();
                return;
            }
            uid = qint64(ref);
            if (m_active[size_t(uid)] || std::find(chain.begin(), chain.end(), uid) != chain.end()) {
                json.beginObject();
                json.key("$cycle");
                json.beginObject();
                json.member("UID", uid);
                json.endObject();
                json.endObject();
                return;
            }
            chain.push_back(uid);
            node = m_objects[size_t(uid)];
        }
        if (uid == 0 && PlistUtils::getQStringValue(node) == "$null") return json.null();
    }
    Frame frame;
    frame.uid = uid;
    switch (typeOf(node)) {
    case PLIST_BOOLEAN:
        return json.value(PlistUtils::getBoolValue(node));
    case PLIST_UINT:
        return writeInteger(json, node);
    case PLIST_REAL:
        return json.value(PlistUtils::getRealValue(node));
    case PLIST_STRING:
        return json.value(PlistUtils::getQStringValue(node));
    case PLIST_KEY:
        return json.value(PlistUtils::getKey(node));
    case PLIST_DATE:
        return json.value(dateText(node));
    case PLIST_DATA:
        return json.value(QString::fromLatin1(PlistUtils::getByteArrayValue(node).toBase64()));
    case PLIST_UID:
        json.beginObject();
        json.member("UID", quint64(PlistUtils::getUidValue(node)));
        return json.endObject();
    case PLIST_ARRAY:
        PlistUtils::foreachArray(node, [&frame](void* item) {
            frame.members.push_back({QString(), item, {}});
        });
        break;
    case PLIST_DICT:
        if (m_resolve && typeOf(PlistUtils::getNode(node, "$class")) == PLIST_UID)
            return writeArchived(json, node, uid, stack);
        frame.object = true;
        PlistUtils::foreachDict(node, [&frame](const char* key, void* value) {
            frame.members.push_back({QString::fromUtf8(key), value, {}});
        });
        break;
    default:
        return json.null();
    }
    if (uid >= 0) m_active[size_t(uid)] = true;
    frame.object ? json.beginObject() : json.beginArray();
    stack.push_back(std::move(frame));
}

void PlistJson::writeArchived(JsonText& json, void* node, qint64 uid, std::vector<Frame>& stack) {
    const QString name = className(node);
    void* const string = PlistUtils::getNode(node, "NS.string");
    void* const bytes = PlistUtils::getNode(node, "NS.bytes");
    void* const data = PlistUtils::getNode(node, "NS.data");
    void* const time = PlistUtils::getNode(node, "NS.time");
    void* const keys = PlistUtils::getNode(node, "NS.keys");
    void* const objects = PlistUtils::getNode(node, "NS.objects");
    if (kStrings.contains(name) && typeOf(string) == PLIST_STRING)
        return json.value(PlistUtils::getQStringValue(string));
    if (kStrings.contains(name) && typeOf(bytes) == PLIST_DATA)
        return json.value(QString::fromUtf8(PlistUtils::getByteArrayValue(bytes)));
    if (kData.contains(name) && typeOf(data) == PLIST_DATA) return writeNode(json, data, stack);
    if (name == "NSDate" && typeOf(time) == PLIST_REAL)
        return json.value(appleTimeText(PlistUtils::getRealValue(time)));
    if (name == "NSNull") return json.null();

    Frame frame;
    frame.uid = uid;
    if (kArrays.contains(name) && typeOf(objects) == PLIST_ARRAY) {
        PlistUtils::foreachArray(objects, [&frame](void* item) {
            frame.members.push_back({QString(), item, {}});
        });
    } else {
        frame.object = true;
        frame.members.push_back({"$class", nullptr, name});
        std::vector<void*> keyNodes, valueNodes;
        PlistUtils::foreachArray(keys, [&keyNodes](void* item) { keyNodes.push_back(item); });
        PlistUtils::foreachArray(objects, [&valueNodes](void* item) { valueNodes.push_back(item); });
        if (kDictionaries.contains(name) && typeOf(keys) == PLIST_ARRAY &&
            keyNodes.size() == valueNodes.size()) {
            for (size_t i = 0; i < keyNodes.size(); ++i)
                frame.members.push_back({keyText(keyNodes[i]), valueNodes[i], {}});
        } else {
            PlistUtils::foreachDict(node, [&frame](const char* key, void* value) {
                if (std::strcmp(key, "$class") != 0)
                    frame.members.push_back({QString::fromUtf8(key), value, {}});
            });
        }
    }
    if (uid >= 0) m_active[size_t(uid)] = true;
    frame.object ? json.beginObject() : json.beginArray();
    stack.push_back(std::move(frame));
}

} // namespace inspect
