// Decodes keyed archives: property lists whose objects lie flat in the array "$objects" and
// refer to each other by UID. Every reference is resolved in place, so the archive becomes
// one nested JSON value; class names and collection encodings are kept as they are.
#pragma once

#include "utils_export.h"

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

// The inherited object stays empty; the decoded archive is json().
class UTILS_EXPORT NSKeyedArchiver : public QJsonObject {
public:
    NSKeyedArchiver();

    // Keyed-archive loads: the result is the object form of "$top" with all references
    // resolved. False only when the file cannot be opened or the bytes are not a property
    // list; the previous result is kept then.
    bool loadFromFile(const QString& path);
    bool loadFromData(const QByteArray& data);

    // Converts the whole property list without an objects table (UIDs become undefined).
    bool loadRootFromFile(const QString& path);
    bool loadRootFromData(const QByteArray& data);

    // The latest successful result; Null before the first one.
    const QJsonValue& json() const;

    // Converts node, resolving UIDs through objects (the "$objects" array, or null).
    // Undefined values drop their key from an object and stand as null in an array.
    // A reference back to an object that is still being converted (a cycle) gives null.
    QJsonValue parse(void* node, void* objects);

private:
    bool loadBytes(const QByteArray& data, bool archive);

    QJsonValue m_json;
};
