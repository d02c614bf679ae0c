// Reads SQLite 3 database files page by page, without the SQLite engine, and recovers the
// remains of deleted records from unallocated space, freeblocks and free-list pages.
// The file is only ever opened read-only.
#pragma once

#include "utils_export.h"

#include <QDataStream>
#include <QFile>
#include <QList>
#include <QMap>
#include <QSharedPointer>
#include <QString>
#include <QVariant>

#include <memory>

class SQliteSource;

// The 100-byte database header, as read (nothing in it is validated beyond the magic).
struct UTILS_EXPORT SQliteDbHeader {
    QString magic;
    quint16 pageSize = 0;
    quint8 writeVersion = 0;
    quint8 readVersion = 0;
    quint8 reservedSpace = 0;
    quint8 maxPayloadFraction = 0;
    quint8 minPayloadFraction = 0;
    quint8 leafPayloadFraction = 0;
    qint32 changeCounter = 0;
    qint32 pageCount = 0;
    qint32 firstFreeListTrunk = 0;
    qint32 freeListPageCount = 0;
    qint32 schemaCookie = 0;
    qint32 schemaFormat = 0;
    qint32 defaultCacheSize = 0;
    qint32 largestRootPage = 0;
    qint32 textEncoding = 0;
    qint32 userVersion = 0;
    qint32 incrementalVacuum = 0;
    qint32 applicationId = 0;
    qint32 versionValidFor = 0;
    qint32 sqliteVersion = 0;
};

// The header of one b-tree page. Pages of any other kind are kept with type 0.
struct UTILS_EXPORT SQlitePage {
    quint8 type = 0; // 2 index interior, 5 table interior, 10 index leaf, 13 table leaf
    quint16 firstFreeblock = 0;
    quint16 cellCount = 0;
    quint16 cellContentStart = 0;
    quint8 fragmentedBytes = 0;
    quint32 rightMostPointer = 0;
    quint16 headerSize = 0;
    int pageNumber = 0;
    QList<quint16> cellOffsets; // offsets from the start of the page
};

// A table registered from the schema: its column names by position and its leaf pages.
struct UTILS_EXPORT SQliteTable {
    QString name;
    QMap<QString, int> columns;
    QList<int> pages;
    int rootPage = 0;
};

// A record: element 0 is the rowid (qlonglong), element i + 1 the value of column i.
// Recovered records carry the rowid (as int) only when searched with the header flag.
class UTILS_EXPORT SQliteDbUtil {
public:
    SQliteDbUtil();

    QSharedPointer<QFile> file;
    QSharedPointer<QDataStream> stream;
    SQliteDbHeader header;
    QMap<QString, SQliteTable> tables;
    QMap<int, SQlitePage> pages;
    QList<int> freeListPages;
    bool stopRequested;

    // Loading
    bool loadDb(const QString& path);
    void close();
    bool parseDbHeader();
    bool parsePages();

    // Positioning and raw reads
    bool seek(int pos);
    qint64 bytesAvailable();
    bool seekToPage(int page);
    bool seekInPage(int page, int offset);
    QByteArray readPageData(int page);
    QByteArray readBytes(unsigned long n);
    QByteArray readBytes(QDataStream* s, unsigned long n);
    QString readString(unsigned long n);
    qint64 readVarInt(int* len);
    qint64 readVarInt(QDataStream* s, int* len);
    QVariant readValue(qint64 serialType, int* len);
    QVariant readValue(QDataStream* s, qint64 serialType, int* len);
    QByteArray readOverFlowData(int page);
    QString cellData2String(const QByteArray& bytes);

    // Schema and table traversal
    bool parsePage(unsigned int page);
    bool parseMasterTable();
    bool parseTables();
    QList<SQliteTable> fetchAllTable();
    QList<int> fetchTablePagesByRootPage(int rootPage);
    QList<QList<QVariant>> fetchRecordsInTable(const QString& name);
    QList<QList<QVariant>> fetchRecordsInPage(int page);
    QList<QVariant> fetchRecordInPage(int page, unsigned short offset);

    // Deleted-record recovery
    bool parseFreeListPages(unsigned int trunk);
    QList<QByteArray> getUnAllocSpaceInPage(int page);
    QList<QByteArray> getFragmentSpaceInPage(int page);
    QList<QByteArray> fetchFragmentBlockInPage(int page);
    bool fieldsMatch(int serialType, const QString& pattern, int index);
    QList<QList<QVariant>> searchInBlock(const QByteArray& block, const QString& pattern, bool withHeader);
    QList<QList<QVariant>> searchLostRecord(const QString& table, const QString& pattern, bool withHeader);
    QList<QList<QVariant>> searchLostRecordInFreeSpace(const QString& pattern, bool withHeader);
    void stopSearch();

private:
    // The cached page access behind the operations above; a copy of a reader starts afresh.
    class UTILS_EXPORT SourceHolder {
    public:
        SourceHolder();
        SourceHolder(const SourceHolder&);
        SourceHolder& operator=(const SourceHolder&);
        ~SourceHolder();
        SQliteSource* get() const { return m_source.get(); }

    private:
        std::unique_ptr<SQliteSource> m_source;
    };
    SourceHolder m_source;
    friend SQliteSource& sqliteSource(SQliteDbUtil& db);
    // loadDb on a file of any kind: the loader opens the live view's overlay this way. The step
    // that failed, when one did, for the loader to say why.
    enum LoadStep { Loaded, Opening, Header, Pages, FreeList };
    bool loadFile(QSharedPointer<QFile> device, LoadStep* failed = nullptr);
    // Its first steps: the file opened and its header read.
    bool openFile(QSharedPointer<QFile> device, LoadStep* failed);
    friend class SQliteLoader;
};
