// One value of an SQLite record as the file stores it, the way the engine hands it back: NULL,
// a 64-bit integer of whatever width it was stored in (with its sign), a float, text in the
// database's encoding, or a blob. Text and blob bytes point into the reader's buffer and are
// valid only while the callback that received the value runs; text() and bytes() copy them.
#pragma once

#include "utils_export.h"

#include <QByteArray>
#include <QString>
#include <QVariant>

struct UTILS_EXPORT SQliteValue {
    enum Type { Null, Integer, Real, Text, Blob };

    Type type = Null;
    qint64 integer = 0;
    double real = 0;
    const uchar* data = nullptr; // text or blob bytes
    qint64 size = 0;
    qint32 encoding = 1; // of text: 1 UTF-8, 2 UTF-16le, 3 UTF-16be

    bool isNull() const { return type == Null; }
    // Text decoded from its encoding: invalid UTF-8 becomes replacement characters, an odd last
    // byte of UTF-16 is dropped, and a byte-order mark is kept as the character it is.
    QString text() const;
    QByteArray bytes() const;
    // NULL as an invalid QVariant, integers as qlonglong, floats as double, text as QString,
    // blobs as QByteArray.
    QVariant toVariant() const;

    static SQliteValue null() { return SQliteValue(); }
    static SQliteValue fromInteger(qint64 v) {
        SQliteValue value;
        value.type = Integer;
        value.integer = v;
        return value;
    }
    static SQliteValue fromReal(double v) {
        SQliteValue value;
        value.type = Real;
        value.real = v;
        return value;
    }
};
