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
#include <QMap>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>
#include <vector>

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

    // One live record as it lies in the file, decoded only on request. Its values read exactly
    // as the record's elements do (the documented readings: NULL as integer 0, the 24- and
    // 48-bit quirks, values cut at the end of the payload); it lives during the callback only.
    class UTILS_EXPORT RecordView {
    public:
        qint64 rowid() const { return m_rowid; }
        int size() const { return int(m_types.size()); }
        // The serial type of value i, narrowed to 32 bits as the record header is read.
        int serialType(int i) const { return m_types[size_t(i)]; }
        // The bytes that reading value i takes (fewer when the payload ends first).
        const uchar* bytes(int i, qint64* n) const;
        QVariant value(int i) const;
        // The record as fetchRecordsInTable returns it: the rowid, then the values.
        QList<QVariant> record() const;
        qint32 textEncoding() const { return m_encoding; }

    private:
        friend class SQliteScanner;
        qint64 m_rowid = 0;
        qint32 m_encoding = 1;
        const uchar* m_payload = nullptr;
        qint64 m_payloadSize = 0;
        std::vector<int> m_types;
        std::vector<qint64> m_starts; // where each value's reading begins; one more for the end
    };

    using RecordCallback = std::function<bool(const QList<QVariant>& record)>;
    using ViewCallback = std::function<bool(const RecordView& record)>;
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
    // The same walk with views: no value is decoded unless asked for.
    bool forEachRecordView(const QString& table, const ViewCallback& callback);
    // The record of the cell at offset in a table leaf page, as fetchRecordInPage reads it.
    QList<QVariant> recordAt(int page, unsigned short offset);

    bool forEachLostRecord(const QString& table, const QString& pattern, bool withHeader,
                           const FoundCallback& callback);
    bool forEachLostRecordInFreeSpace(const QString& pattern, bool withHeader, const FoundCallback& callback);
    bool searchBlock(const QByteArray& block, const QString& pattern, bool withHeader,
                     const FoundCallback& callback);
    // The gap, then the freeblocks, of a table leaf page.
    QList<Area> areasInPage(int page);

    // Which table or index owns each page in use: its b-tree pages and its overflow pages.
    QMap<int, QString> pageOwners();
    // The leaf pages of the b-tree (of a table or an index) under root, left to right.
    QList<int> leafPages(qint64 root);

private:
    struct Private;
    std::unique_ptr<Private> d;
};
