// Walks a loaded SQliteDbUtil one record at a time instead of building whole lists: the live
// records of a table, and the candidates of the deleted-record scan together with where each
// was found. Records, their values and their order are exactly those of fetchRecordsInTable,
// searchLostRecord and searchLostRecordInFreeSpace, which are built on it, so a caller can read
// a table of any size in constant memory. Pages are read once and decoded from memory.
//
// The reader's stop flag ends a walk before its next page, as it ends those operations; a
// callback that returns false ends it at once. Callbacks may use the reader, but not the
// scanner that calls them.
#pragma once

#include "utils_export.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>

class SQliteDbUtil;

class UTILS_EXPORT SQliteScanner {
public:
    // Where the deleted-record scan looks: the unallocated gap of a table leaf page, one of its
    // freeblocks, a page on the free list, or a block handed to searchBlock.
    enum Region { Gap, Freeblock, FreePage, Block };

    // A block of the scan: its bytes as the documented scan takes them (a freeblock runs on 4
    // bytes past its end) and the file offset of its first byte.
    struct Area {
        Region region = Block;
        int page = 0;
        qint64 start = 0;
        QByteArray bytes;
    };

    // Where a candidate was found: its block, and its offset in that block.
    struct Location {
        Region region = Block;
        int page = 0;
        qint64 blockStart = 0;
        qint64 offset = 0;
        qint64 fileOffset() const { return blockStart + offset; }
    };

    using RecordCallback = std::function<bool(const QList<QVariant>& record)>;
    using FoundCallback = std::function<bool(const QList<QVariant>& record, const Location& where)>;
    // Called after each page of a walk with the pages done and the pages to do.
    using ProgressCallback = std::function<void(int done, int total)>;

    explicit SQliteScanner(SQliteDbUtil& db);
    ~SQliteScanner();
    SQliteScanner(const SQliteScanner&) = delete;
    SQliteScanner& operator=(const SQliteScanner&) = delete;

    void setProgress(ProgressCallback progress);

    // Each walk returns false when it was ended early (the stop flag or a callback).
    bool forEachRecord(const QString& table, const RecordCallback& callback);
    bool forEachRecordInPage(int page, const RecordCallback& callback);
    // The record of the cell at offset in a table leaf page, as fetchRecordInPage reads it.
    QList<QVariant> recordAt(int page, unsigned short offset);

    bool forEachLostRecord(const QString& table, const QString& pattern, bool withHeader,
                           const FoundCallback& callback);
    bool forEachLostRecordInFreeSpace(const QString& pattern, bool withHeader, const FoundCallback& callback);
    bool searchBlock(const QByteArray& block, const QString& pattern, bool withHeader,
                     const FoundCallback& callback);
    // The gap, then the freeblocks, of a table leaf page.
    QList<Area> areasInPage(int page);

private:
    struct Private;
    std::unique_ptr<Private> d;
};
