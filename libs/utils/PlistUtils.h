// Loading, saving, querying and converting property lists (binary or XML) held as libplist
// node trees. Nodes travel as untyped pointers so that callers need not see libplist.
//
// Ownership: a tree made by loadFromFile or loadFromData belongs to the caller, who releases
// it with plist_free. Nodes returned by getNode, by the iterations or handed to a callback
// are borrowed from their parent and must not be freed.
//
// Dates count seconds (plus microseconds) since 2001-01-01 00:00:00 UTC; the getters and
// toJson return that count unconverted.
#pragma once

#include "utils_export.h"

#include <QByteArray>
#include <QJsonValue>
#include <QString>

#include <cstdint>
#include <functional>

class UTILS_EXPORT PlistUtils {
public:
    PlistUtils() = default;

    // Reads the whole file and parses it (binary or XML). On any failure root is untouched.
    static bool loadFromFile(const QString& path, void*& root);
    static bool loadFromData(const QByteArray& data, void*& root);

    // Writes the tree as XML / binary. False when serialising fails (no file is touched) or
    // the file cannot be opened.
    static bool saveToXml(const QString& path, void* node);
    static bool saveToBin(const QString& path, void* node);
    // The binary form of the tree, or an empty array.
    static QByteArray savaToBinFromByteArray(void* node);

    // Dictionary look-up by key; null when absent or when dict is not a dictionary.
    static void* getNode(void* dict, const QString& key);

    static QString getQStringValue(void* dict, const QString& key);
    static QString getQStringValue(void* node);
    // Setters change existing nodes of the right type only; they never create entries.
    static void setQStringValue(void* dict, const QString& key, const QString& value);
    static void setQStringValue(void* node, const QString& value);

    // Stores a date node under key (always, replacing any previous value) from Unix seconds.
    static void setDateValue(void* dict, const QString& key, const long& unixSeconds);

    static bool getBoolValue(void* dict, const QString& key);
    static bool getBoolValue(void* node);
    static void setBoolValue(void* dict, const QString& key, bool value);
    static void setBoolValue(void* node, bool value);

    static uint64_t getUint64Value(void* dict, const QString& key);
    static uint64_t getUint64Value(void* node);

    static QByteArray getByteArrayValue(void* dict, const QString& key);
    static QByteArray getByteArrayValue(void* node);

    // Text of a key node; a null string for any other node.
    static QString getKey(void* node);
    // Seconds since 2001-01-01 (not Unix time); 0.0 unless a date node.
    static double getDateValue(void* node);
    static uint64_t getUidValue(void* node);
    static double getRealValue(void* node);

    static QString toXml(void* node);
    // The whole tree as JSON. UIDs become null; data becomes Base64 text; dates stay 2001-based.
    static QJsonValue toJson(void* node);

    // Calls fn for every (key, value) of a dictionary / every item of an array, in order.
    // Nothing happens for a node of another type. An empty fn throws std::bad_function_call.
    static void foreachDict(void* node, std::function<void(const char*, void*)> fn);
    static void foreachArray(void* node, std::function<void(void*)> fn);
};
