// Reads the legacy binary backup index (signature "mbdb"): one record per backed-up file,
// each with the name under which the backup stores the file's contents (fileId).
#pragma once

#include "utils_export.h"

#include <QByteArray>
#include <QDataStream>
#include <QFile>
#include <QList>
#include <QMap>
#include <QSharedPointer>
#include <QString>

// One file record of the index, as read; nothing in it is validated.
struct UTILS_EXPORT MbdbRecord {
    QString domain;
    QString path;
    QString linkTarget;
    QByteArray dataHash;
    QByteArray encryptionKey; // the key field without its first four bytes
    QString fileId;           // lower-case hex SHA-1 of "domain-path"; empty when path is empty
    quint16 mode = 0;
    quint64 inode = 0;
    qint32 userId = 0;
    qint32 groupId = 0;
    qint32 lastModified = 0; // Unix seconds
    qint32 lastAccessed = 0;
    qint32 created = 0;
    qint64 size = 0;
    quint8 protectionClass = 0;
    quint8 propertyCount = 0;
    QMap<QString, QString> properties;
    int type = 0; // 1 when size is non-zero, 2 otherwise (directories and empty files alike)
};

class UTILS_EXPORT MbdbUtil {
public:
    MbdbUtil();

    // Opens the index read-only and checks its signature; on success the stream stands at
    // the first record.
    bool loadDb(const QString& path);
    // Seeks to 0 and checks the 4-byte signature; leaves the position at 4.
    bool parseHeader();
    bool seek(int pos);
    // Every record from the current position to the end of the file. A truncated last
    // record is returned with what could be read (the rest empty or zero).
    QList<QSharedPointer<MbdbRecord>> fetchRecords();

    // A 16-bit length and that many bytes; the length 0xFFFF marks an empty field.
    QString readString();
    // n bytes as UTF-8 text up to the first zero byte; empty when fewer than n arrive.
    QString readString(unsigned long n);
    QByteArray readData();
    QByteArray readBytes(unsigned long n);
    // Up to n bytes: shortened to what arrived, empty when the read fails.
    static QByteArray readBytes(QDataStream* stream, unsigned long n);

private:
    QSharedPointer<QFile> m_file;
    QSharedPointer<QDataStream> m_stream;
    QList<QSharedPointer<MbdbRecord>> m_records; // not filled by any operation
};
