// Reads an SQLite write-ahead log (the -wal file beside a database in WAL mode) without the
// engine: its header and every frame, and which frames are valid (their salts match and the
// cumulative checksum holds), which are committed (a valid commit frame ends their
// transaction), and which belong to an older generation of the log (frames of an earlier
// checkpoint that a restarted log has not yet overwritten). It only reads the file.
#pragma once

#include "utils_export.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

class UTILS_EXPORT SQliteWal {
public:
    struct Header {
        quint32 magic = 0;         // 0x377f0682: checksums over little-endian words; 0x377f0683: big-endian
        quint32 formatVersion = 0; // 3007000
        quint32 pageSize = 0;
        quint32 checkpointSequence = 0;
        quint32 salt1 = 0;
        quint32 salt2 = 0;
        quint32 checksum1 = 0;
        quint32 checksum2 = 0;
        bool checksumValid = false; // the header's own checksum holds
    };
    struct Frame {
        int index = 0;     // 1 for the first frame of the file
        qint64 offset = 0; // of the frame's 24-byte header in the file
        quint32 page = 0;
        quint32 databaseSize = 0; // the database's size in pages after this commit; 0 when no commit
        quint32 salt1 = 0;
        quint32 salt2 = 0;
        quint32 checksum1 = 0;
        quint32 checksum2 = 0;
        int generation = 0;     // 0 the log's current one (the header's salts), 1 the one before, ...
        bool valid = false;     // its salts and checksum follow from the frames before it
        bool committed = false; // valid, and a valid commit frame of its generation ends its transaction
        bool isCommit() const { return databaseSize != 0; }
    };

    // Reads the log at path. False, with error() saying why, when the file cannot be read or
    // is no write-ahead log (too short, another magic, a page size no database has).
    bool load(const QString& path);
    QString error() const { return m_error; }
    QString path() const { return m_path; }

    Header header;
    QList<Frame> frames;
    qint64 trailingBytes = 0; // bytes after the last whole frame: a frame cut off in the middle

    bool bigEndianChecksums() const { return header.magic == 0x377f0683; }
    // The page image a frame carries, read from the file (shorter when the file ends first).
    QByteArray pageData(const Frame& frame) const;
    // The database as the log's last valid commit leaves it: its size in pages (0 when the
    // log commits nothing) and, for each page, the index in frames of its last committed version.
    quint32 committedSize() const;
    QMap<quint32, int> committedPages() const;
    int committedFrames() const; // how many frames are committed, in every generation

    // The checksum of data (a multiple of 8 bytes) continued from s1 and s2, as the log computes
    // it: words of the given byte order, two at a time.
    static void checksum(const uchar* data, qint64 size, bool bigEndian, quint32* s1, quint32* s2);

private:
    QString m_path;
    QString m_error;
};
