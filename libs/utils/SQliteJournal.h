// Reads an SQLite rollback journal (the -journal file beside a database in rollback mode)
// without the engine: its header (magic, record count, checksum nonce, the database's size
// before the transaction, sector and page size) and its page records, each the image of a
// page as it was before the last transaction, with whether its checksum holds. A journal whose
// header is whole is hot: the transaction it belongs to never finished, and the engine would
// roll the database back with it. A journal whose header was zeroed (a finished transaction in
// persistent mode) still holds its records; they are read with the database's page size, and
// their checksums cannot be checked. It only reads the file.
#pragma once

#include "utils_export.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

class UTILS_EXPORT SQliteJournal {
public:
    struct Header {
        bool magicValid = false; // d9 d5 05 f9 20 a1 63 d7
        quint32 recordCount = 0; // 0xFFFFFFFF: as many as the file holds
        quint32 nonce = 0;       // the checksums' starting value
        quint32 initialSize = 0; // the database's size in pages before the transaction
        quint32 sectorSize = 0;
        quint32 pageSize = 0;
    };
    struct Record {
        int index = 0;     // 1 for the first record of the file
        qint64 offset = 0; // of the record (its page number) in the file
        quint32 page = 0;
        quint32 checksum = 0;
        bool valid = false; // its checksum holds (never, when the header is gone)
    };

    // Reads the journal at path; pageSize, the database's, serves when the journal's header is
    // gone. False, with error(), when the file cannot be read or holds no page record.
    bool load(const QString& path, quint32 pageSize);
    QString error() const { return m_error; }
    QString path() const { return m_path; }

    Header header;
    QList<Record> records;

    bool isHot() const { return header.magicValid && !records.isEmpty(); }
    QByteArray pageData(const Record& record) const;
    // The pages a rollback would write back: for each page, the index in records of its first
    // valid image (the one taken before the page first changed).
    QMap<quint32, int> rollbackPages() const;

    // The checksum of a page image: the nonce plus every 200th byte counted back from the end.
    static quint32 checksum(const uchar* data, quint32 pageSize, quint32 nonce);

private:
    QString m_path;
    QString m_error;
};
