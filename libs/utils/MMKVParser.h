// Reader of plain (unencrypted) MMKV key-value files: keys as text, values as raw bytes.
#pragma once

#include "utils_export.h"

#include <QByteArray>
#include <QMap>
#include <QString>

class UTILS_EXPORT MMKVParser {
public:
    // Starts empty and loads the file at path.
    explicit MMKVParser(const QString& path);

    // Adds the entries of the file; an unreadable file adds nothing.
    void loadFromFile(const QString& path);
    // Adds the entries of the buffer to the map (earlier entries stay; the last value of a key wins).
    void loadFromData(const QByteArray& data);

    // The value of key read as a varint; 0 when the key is absent or its value is empty.
    int getInt(const QString& key);
    // The value of key read as a length-prefixed UTF-8 string; empty when absent or unreadable.
    QString getString(const QString& key);

    // Decodes a varint of at most five bytes, never reading at or past end. The fifth byte ends the
    // varint and only its low four bits count. When p is not before end, stores 0 and returns p.
    static const char* readVarint32(const char* p, const char* end, int* out);
    // Reads a varint length and that many bytes of UTF-8. On a length that is not positive or that
    // runs past end, stores an empty string and returns the position just after the length.
    static const char* readString(const char* p, const char* end, QString* out);
    // As readString, but keeps the bytes raw; a bad length stores a null array.
    static const char* readData(const char* p, const char* end, QByteArray* out);

    // Key to raw value bytes, ordered by key.
    QMap<QString, QByteArray> m_entries;
};
