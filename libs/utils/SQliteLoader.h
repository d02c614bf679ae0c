// Loads an SQliteDbUtil and says how it went, as a value a caller can show: why a load failed,
// or what it read past.
//
// Documented: exactly SQliteDbUtil::loadDb, with the reason when it returns false.
// LikeTheEngine: reads what the engine reads. The page size stored as 1 is 65,536; every offset
// is formed in 64 bits, so files past 2 and 4 GiB load; the database's size is the header's page
// count when that count is valid (not 0, and written with the change counter it holds), else
// the file's length, as the engine takes it, and bytes after the last page are left alone; a
// free list whose trunk chain runs out of the file or loops is read up to there. Each of these
// is listed in tolerated. The documented loadDb keeps refusing such files.
#pragma once

#include "utils_export.h"

#include <QSharedPointer>
#include <QString>
#include <QStringList>

class QFile;
class SQliteDbUtil;

class UTILS_EXPORT SQliteLoader {
public:
    enum Mode { Documented, LikeTheEngine };
    enum Failure {
        NoFailure,
        CannotOpen,     // the file cannot be opened for reading
        NotADatabase,   // shorter than a database header, or another magic
        BadPageSize,    // a page size no database has, or too many reserved bytes
        SizeMismatch,   // documented: the file's size is not page size × page count
        FreeListBroken, // documented: a free-list trunk page outside the file
        NoPages,        // no whole page
    };
    struct Report {
        Failure failure = NoFailure;
        QString reason;        // why it failed; empty on success
        QStringList tolerated; // what a load like the engine's read past
        qint64 pageSize = 0;   // in bytes, as the load took it
        qint64 pageCount = 0;  // pages the load took the database to have
        bool ok() const { return failure == NoFailure; }
    };

    static Report load(SQliteDbUtil& db, const QString& path, Mode mode);
    // The same on a file object of any kind (the live view's overlay of a log or journal).
    static Report load(SQliteDbUtil& db, QSharedPointer<QFile> file, Mode mode);
};
