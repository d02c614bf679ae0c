#include "SQliteDbUtil.h"

#include "ByteCursor.h"
#include "SQliteCodec.h"
#include "SQliteFormat.h"
#include "SQliteScanner.h"
#include "SQliteSource.h"

#include <QRegExp>
#include <QSet>

#include <algorithm>
#include <vector>

// The reader trusts the header as the file states it and keeps a few 32-bit wraps on
// purpose (the size check, seekInPage, freeblock offsets). Those are computed in unsigned
// arithmetic and converted, so no signed overflow ever happens. What it never trusts is a
// page number or offset taken from the file as the next step of a walk: every chain (overflow
// pages, b-tree children, free-list trunks, freeblocks) stops on a page or offset already seen
// or outside the file, which changes nothing for a well-formed file.
//
// Pages are read through the reader's SQliteSource (each stretch of the file once, by
// position) and decoded from memory with the same results as reading the stream field by
// field: the positioning and the short reads at the end of the file are those of the stream.

using namespace sqliteio;

namespace {

// The stop flag is a plain bool shared with the thread that calls stopSearch(); access it
// atomically so that the compiler neither caches nor tears it.
void storeFlag(bool& flag) {
    __atomic_store_n(&flag, true, __ATOMIC_RELAXED);
}

// Absolute seek of the stream's device. A closed or missing file fails quietly, so that every
// read after close() comes back short.
bool seekStream(QDataStream* s, qint64 pos) {
    if (!s || !s->device() || !s->device()->isOpen() || pos < 0) return false;
    s->resetStatus();
    return s->device()->seek(pos);
}

QByteArray copyOf(const uchar* p, qint64 n) {
    return QByteArray(reinterpret_cast<const char*>(p), int(n));
}

} // namespace

SQliteDbUtil::SourceHolder::SourceHolder() : m_source(new SQliteSource) {}
SQliteDbUtil::SourceHolder::SourceHolder(const SourceHolder&) : m_source(new SQliteSource) {}
SQliteDbUtil::SourceHolder& SQliteDbUtil::SourceHolder::operator=(const SourceHolder&) {
    m_source->reset();
    return *this;
}
SQliteDbUtil::SourceHolder::~SourceHolder() = default;

SQliteSource& sqliteSource(SQliteDbUtil& db) {
    SQliteSource& source = *db.m_source.get();
    source.attach(db.stream ? db.stream->device() : nullptr);
    return source;
}

bool stopRequested(const SQliteDbUtil& db) {
    return __atomic_load_n(&db.stopRequested, __ATOMIC_RELAXED);
}

sqlitefmt::Geometry sqliteGeometry(SQliteDbUtil& db) {
    sqlitefmt::Geometry g;
    g.pageSize =
        sqliteSource(db).largePages ? sqlitefmt::pageSizeOfField(db.header.pageSize) : db.header.pageSize;
    g.usable = g.pageSize - db.header.reservedSpace;
    g.encoding = db.header.textEncoding;
    return g;
}

SQliteDbUtil::SQliteDbUtil() : stopRequested(false) {}

// ---------------------------------------------------------------------------------------------
// Loading

bool SQliteDbUtil::loadDb(const QString& path) {
    m_source.get()->largePages = false;
    return loadFile(QSharedPointer<QFile>(new QFile(path)));
}

bool SQliteDbUtil::openFile(QSharedPointer<QFile> device, LoadStep* failed) {
    m_source.get()->reset();
    file = std::move(device);
    if (!file->open(QIODevice::ReadOnly)) return *failed = Opening, false;
    stream = QSharedPointer<QDataStream>(new QDataStream(file.data()));
    stream->setByteOrder(QDataStream::BigEndian);
    if (!parseDbHeader()) return *failed = Header, false;
    return true;
}

bool SQliteDbUtil::loadFile(QSharedPointer<QFile> device, LoadStep* failed) {
    LoadStep ignored;
    LoadStep& step = failed ? *failed : ignored;
    if (!openFile(std::move(device), &step)) return false;
    if (!parsePages()) return step = Pages, false;
    if (!parseFreeListPages(quint32(header.firstFreeListTrunk))) return step = FreeList, false;
    parseTables();
    step = Loaded;
    return true;
}

void SQliteDbUtil::close() {
    m_source.get()->reset();
    if (file) file->close();
}

bool SQliteDbUtil::parseDbHeader() {
    if (!stream || !seek(0) || bytesAvailable() < 100) return false;
    const QString magic = readString(16);
    if (magic != QLatin1String(sqlitefmt::kMagic)) return false;
    header.magic = magic;
    QDataStream& s = *stream;
    s >> header.pageSize >> header.writeVersion >> header.readVersion >> header.reservedSpace >>
        header.maxPayloadFraction >> header.minPayloadFraction >> header.leafPayloadFraction;
    s >> header.changeCounter >> header.pageCount >> header.firstFreeListTrunk >> header.freeListPageCount >>
        header.schemaCookie >> header.schemaFormat >> header.defaultCacheSize >> header.largestRootPage >>
        header.textEncoding >> header.userVersion >> header.incrementalVacuum >> header.applicationId;
    readBytes(20);
    s >> header.versionValidFor >> header.sqliteVersion;
    return true;
}

bool SQliteDbUtil::parsePages() {
    if (!file) return false;
    const qint64 expected = narrow32(qint64(quint32(header.pageSize) * quint32(header.pageCount)));
    // The device the pages are read from: the file itself, or a view built over it.
    const qint64 size = stream && stream->device() ? stream->device()->size() : file->size();
    if (size != expected) return false;
    // A page that starts past the end of the file is never whole, so parsePage would store
    // nothing for it: stop there instead of trying every number of a wrapped page count.
    for (qint64 n = 1; n <= header.pageCount; ++n) {
        if (pagePosition(header.pageSize, n) >= size) break;
        parsePage(quint32(n));
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Positioning and raw reads

bool SQliteDbUtil::seek(int pos) {
    return seekStream(stream.data(), pos);
}

qint64 SQliteDbUtil::bytesAvailable() {
    if (!stream || !stream->device()) return 0;
    return stream->device()->bytesAvailable();
}

bool SQliteDbUtil::seekToPage(int page) {
    return seekStream(stream.data(), pagePosition(sqliteGeometry(*this).pageSize, page));
}

bool SQliteDbUtil::seekInPage(int page, int offset) {
    return seekStream(stream.data(), wrapped32Position(sqliteGeometry(*this).pageSize, page, offset));
}

QByteArray SQliteDbUtil::readPageData(int page) {
    const sqlitefmt::Geometry g = sqliteGeometry(*this);
    SQliteSource& src = sqliteSource(*this);
    const qint64 pos = g.pagePosition(page);
    if (!src.canSeek(pos)) return QByteArray();
    qint64 got = 0;
    const uchar* p = src.bytes(pos, g.pageSize, &got);
    return copyOf(p, got);
}

QByteArray SQliteDbUtil::readBytes(unsigned long n) {
    return readBytes(stream.data(), n);
}

QByteArray SQliteDbUtil::readBytes(QDataStream* s, unsigned long n) {
    if (!s || !s->device() || !s->device()->isReadable()) return QByteArray();
    // A length from the file is never trusted: allocate only what can still be read.
    const qint64 available = std::max<qint64>(0, s->device()->bytesAvailable());
    const qint64 wanted = qint64(
        std::min<unsigned long>(n, static_cast<unsigned long>(std::min<qint64>(available, INT32_MAX))));
    QByteArray bytes(int(wanted), '\0');
    const int read = s->readRawData(bytes.data(), int(wanted));
    if (read < 0) return QByteArray();
    if (read < wanted) bytes.truncate(read);
    return bytes;
}

QString SQliteDbUtil::readString(unsigned long n) {
    const QByteArray bytes = readBytes(n);
    if (quint64(bytes.size()) < n) return QString(QLatin1String("")); // empty, not null
    if (bytes.isNull()) return QString();
    const int zero = bytes.indexOf('\0');
    return QString::fromUtf8(bytes.constData(), zero < 0 ? bytes.size() : zero);
}

qint64 SQliteDbUtil::readVarInt(int* len) {
    return readVarInt(stream.data(), len);
}

qint64 SQliteDbUtil::readVarInt(QDataStream* s, int* len) {
    if (!s || s->atEnd()) {
        if (len) *len = 0;
        return 0;
    }
    quint64 value = 0;
    int n = 0;
    while (true) {
        quint8 b = 0;
        *s >> b;
        ++n;
        if (n == 9) {
            value = (value << 8) | b;
            break;
        }
        value = (value << 7) | (b & 0x7F);
        if (!(b & 0x80) || s->atEnd()) break;
    }
    if (len) *len = n;
    return qint64(value);
}

QVariant SQliteDbUtil::readValue(qint64 serialType, int* len) {
    return readValue(stream.data(), serialType, len);
}

QVariant SQliteDbUtil::readValue(QDataStream* s, qint64 serialType, int* len) {
    auto setLen = [len](qint64 n) {
        if (len) *len = narrow32(n);
    };
    if (!s) {
        setLen(0);
        return QVariant();
    }
    s->setByteOrder(QDataStream::BigEndian);
    switch (serialType) {
    case 0:
        setLen(0);
        return QVariant(int(0)); // NULL reads as integer 0
    case 1: {
        qint8 v = 0;
        *s >> v;
        setLen(1);
        return QVariant(int(v));
    }
    case 2: {
        qint16 v = 0;
        *s >> v;
        setLen(2);
        return QVariant(int(v));
    }
    case 3: {
        // One byte, then a 16-bit word; the byte is shifted by 8 only and nothing is
        // sign-extended. This is how the reader has always decoded 24-bit integers.
        quint8 b = 0;
        quint16 w = 0;
        *s >> b >> w;
        setLen(3);
        return QVariant(int((quint32(b) << 8) | w));
    }
    case 4: {
        qint32 v = 0;
        *s >> v;
        setLen(4);
        return QVariant(int(v));
    }
    case 5: {
        // 48-bit integer read unsigned: no sign extension.
        quint16 h = 0;
        quint32 l = 0;
        *s >> h >> l;
        setLen(6);
        return QVariant(qlonglong((quint64(h) << 32) | l));
    }
    case 6: {
        qint64 v = 0;
        *s >> v;
        setLen(8);
        return QVariant(qlonglong(v));
    }
    case 7: {
        double v = 0;
        s->setFloatingPointPrecision(QDataStream::DoublePrecision);
        *s >> v;
        setLen(8);
        return QVariant(v);
    }
    case 8:
        setLen(0);
        return QVariant(int(0));
    case 9:
        setLen(0);
        return QVariant(int(1));
    default:
        break;
    }
    if (serialType < 12) return QVariant(); // 10, 11 and negative: reserved, len untouched
    if (serialType % 2 == 0) {
        const qint64 n = (serialType - 12) / 2;
        setLen(n);
        return QVariant(readBytes(s, (unsigned long)n));
    }
    const qint64 n = (serialType - 13) / 2;
    setLen(n);
    return QVariant(cellData2String(readBytes(s, (unsigned long)n)));
}

QByteArray SQliteDbUtil::readOverFlowData(int page) {
    // Each page of the chain contributes its whole usable content, the last one included.
    return documentedOverflow(sqliteSource(*this), sqliteGeometry(*this), page);
}

QString SQliteDbUtil::cellData2String(const QByteArray& bytes) {
    return SQliteCodec::text(reinterpret_cast<const uchar*>(bytes.constData()), bytes.size(),
                             header.textEncoding);
}

// ---------------------------------------------------------------------------------------------
// Schema and table traversal

bool SQliteDbUtil::parsePage(unsigned int page) {
    using namespace sqlitefmt;
    const Geometry g = sqliteGeometry(*this);
    SQliteSource& src = sqliteSource(*this);
    const qint64 pos = g.pagePosition(page);
    if (!src.canSeek(pos) || std::max<qint64>(0, src.size() - pos) < g.pageSize) return false;
    const qint64 at = pos + btreeHeaderOffset(page);
    // The header and, as a rule, the whole cell pointer array in one small read.
    constexpr qint64 kHead = 64;
    ByteCursor c = src.peek(at, kHead);
    SQlitePage p;
    p.pageNumber = int(page);
    const quint8 type = c.u8();
    if (!isBtreePage(type)) {
        p.type = 0;
        pages.insert(p.pageNumber, p);
        return true;
    }
    p.type = type;
    p.firstFreeblock = c.u16();
    p.cellCount = c.u16();
    p.cellContentStart = c.u16();
    p.fragmentedBytes = c.u8();
    p.rightMostPointer = isInterior(type) ? c.u32() : 0;
    p.headerSize = quint16(btreeHeaderSize(type));
    // Cell pointers that run past the end of the file read as 0.
    const qint64 pointers = at + c.pos();
    ByteCursor cells =
        c.pos() + 2 * qint64(p.cellCount) <= kHead ? c : src.peek(pointers, 2 * qint64(p.cellCount));
    p.cellOffsets.reserve(p.cellCount);
    for (int i = 0; i < p.cellCount; ++i)
        p.cellOffsets.append(cells.u16());
    pages.insert(p.pageNumber, p);
    return true;
}

bool SQliteDbUtil::parseMasterTable() {
    SQliteTable master;
    master.name = QStringLiteral("sqlite_master");
    master.rootPage = 1;
    master.columns.insert(QStringLiteral("type"), 0);
    master.columns.insert(QStringLiteral("name"), 1);
    master.columns.insert(QStringLiteral("tbl_name"), 2);
    master.columns.insert(QStringLiteral("rootpage"), 3);
    master.columns.insert(QStringLiteral("sql"), 4);
    master.pages = fetchTablePagesByRootPage(1);
    tables.insert(master.name, master);
    return true;
}

bool SQliteDbUtil::parseTables() {
    parseMasterTable();
    QRegExp statement(QStringLiteral("CREATE TABLE\\s+(\\S+)\\s?\\((.*)\\)"), Qt::CaseSensitive,
                      QRegExp::RegExp);
    QRegExp word(QStringLiteral("[^ ]*"), Qt::CaseSensitive, QRegExp::RegExp);
    // The statement pattern cannot match a statement that kept IF NOT EXISTS (the engine drops
    // those words, other writers keep them); such a table is registered without columns.
    const QRegExp ifNotExists(QStringLiteral("CREATE TABLE\\s+IF\\s+NOT\\s+EXISTS\\s"), Qt::CaseSensitive,
                              QRegExp::RegExp);
    const QRegExp whitespace(QStringLiteral("\\s"));
    const QList<QList<QVariant>> rows = fetchRecordsInTable(QStringLiteral("sqlite_master"));
    for (const QList<QVariant>& row : rows) {
        if (row.size() != 6) continue;
        const QString type = row.at(1).toString();
        QString sql = row.at(5).toString();
        sql.remove(QLatin1Char('\'')).remove(QLatin1Char('"'));
        sql.replace(whitespace, QStringLiteral(" "));
        if (type != QLatin1String("table")) continue;
        const bool matched = statement.indexIn(sql) >= 0;
        if (!matched && ifNotExists.indexIn(sql) < 0) continue;

        SQliteTable table;
        table.name = row.at(2).toString();
        table.rootPage = row.at(4).toInt();
        table.pages = fetchTablePagesByRootPage(table.rootPage);
        // The column map holds the first word of every comma-separated part, table
        // constraints included; a statement whose name capture is not the table's name
        // registers the table without columns.
        if (matched && statement.cap(1) == table.name) {
            const QStringList parts = statement.cap(2).trimmed().split(QLatin1Char(','), Qt::KeepEmptyParts);
            for (int i = 0; i < parts.size(); ++i) {
                const QString part = parts.at(i).trimmed();
                word.indexIn(part);
                table.columns[word.cap(0)] = i;
            }
        }
        tables.insert(table.name, table);
    }
    return true;
}

QList<SQliteTable> SQliteDbUtil::fetchAllTable() {
    return tables.values();
}

QList<int> SQliteDbUtil::fetchTablePagesByRootPage(int rootPage) {
    // Depth-first, left to right, without recursion; a page met twice is a cycle in a
    // corrupt file and is not followed again.
    QList<int> leaves;
    QSet<int> seen;
    std::vector<int> todo{rootPage};
    while (!todo.empty()) {
        const int pageNo = todo.back();
        todo.pop_back();
        if (seen.contains(pageNo)) continue;
        seen.insert(pageNo);
        const auto it = pages.constFind(pageNo);
        if (it == pages.constEnd()) continue;
        if (it->type == sqlitefmt::TableLeaf) {
            leaves.append(pageNo);
            continue;
        }
        if (it->type != sqlitefmt::TableInterior) continue;
        std::vector<int> children;
        children.reserve(size_t(it->cellOffsets.size()) + 1);
        const qint64 pageSize = sqliteGeometry(*this).pageSize;
        SQliteSource& src = sqliteSource(*this);
        for (quint16 offset : it->cellOffsets) {
            const qint64 at = pagePosition(pageSize, pageNo) + offset;
            if (!src.canSeek(at)) continue;
            ByteCursor c = src.cursor(at, 4);
            children.push_back(int(c.u32()));
        }
        children.push_back(int(it->rightMostPointer));
        todo.insert(todo.end(), children.rbegin(), children.rend());
    }
    return leaves;
}

QList<QList<QVariant>> SQliteDbUtil::fetchRecordsInTable(const QString& name) {
    QList<QList<QVariant>> records;
    SQliteScanner(*this).forEachRecord(name, [&records](const QList<QVariant>& record) {
        records.append(record);
        return true;
    });
    return records;
}

QList<QList<QVariant>> SQliteDbUtil::fetchRecordsInPage(int page) {
    QList<QList<QVariant>> records;
    SQliteScanner(*this).forEachRecordInPage(page, [&records](const QList<QVariant>& record) {
        records.append(record);
        return true;
    });
    return records;
}

QList<QVariant> SQliteDbUtil::fetchRecordInPage(int page, unsigned short offset) {
    return SQliteScanner(*this).recordAt(page, offset);
}

// ---------------------------------------------------------------------------------------------
// Deleted-record recovery

bool SQliteDbUtil::parseFreeListPages(unsigned int trunk) {
    // A trunk chain that loops ends where it comes back, with what was listed.
    const qint64 outside = walkFreeList(
        sqliteSource(*this), sqliteGeometry(*this), trunk,
        [this](qint64 t) { return pages.contains(int(t)); },
        [this](qint64 t, qint64, const std::vector<quint32>& leaves) {
            freeListPages.append(int(t));
            for (quint32 leaf : leaves)
                freeListPages.append(int(leaf));
        });
    return outside == 0;
}

namespace {

QList<QByteArray> areaBytes(SQliteDbUtil& db, int page, bool gap, bool freeblocks) {
    QList<QByteArray> blocks;
    for (const SQliteScanner::Area& area : SQliteScanner(db).areasInPage(page))
        if (area.region == SQliteScanner::Gap ? gap : freeblocks) blocks.append(area.bytes);
    return blocks;
}

} // namespace

QList<QByteArray> SQliteDbUtil::getUnAllocSpaceInPage(int page) {
    return areaBytes(*this, page, true, false);
}

QList<QByteArray> SQliteDbUtil::getFragmentSpaceInPage(int page) {
    return areaBytes(*this, page, false, true);
}

QList<QByteArray> SQliteDbUtil::fetchFragmentBlockInPage(int page) {
    return areaBytes(*this, page, true, true);
}

bool SQliteDbUtil::fieldsMatch(int serialType, const QString& pattern, int index) {
    if (index < 0 || index >= pattern.size()) return false;
    return SQliteCodec::letterAccepts(pattern.at(index).unicode(), serialType);
}

namespace {

QList<QList<QVariant>> collect(const std::function<bool(const SQliteScanner::FoundCallback&)>& walk) {
    QList<QList<QVariant>> results;
    walk([&results](const QList<QVariant>& record, const SQliteScanner::Location&) {
        results.append(record);
        return true;
    });
    return results;
}

} // namespace

QList<QList<QVariant>> SQliteDbUtil::searchInBlock(const QByteArray& block, const QString& pattern,
                                                   bool withHeader) {
    return collect([&](const SQliteScanner::FoundCallback& found) {
        return SQliteScanner(*this).searchBlock(block, pattern, withHeader, found);
    });
}

QList<QList<QVariant>> SQliteDbUtil::searchLostRecord(const QString& table, const QString& pattern,
                                                      bool withHeader) {
    return collect([&](const SQliteScanner::FoundCallback& found) {
        return SQliteScanner(*this).forEachLostRecord(table, pattern, withHeader, found);
    });
}

QList<QList<QVariant>> SQliteDbUtil::searchLostRecordInFreeSpace(const QString& pattern, bool withHeader) {
    return collect([&](const SQliteScanner::FoundCallback& found) {
        return SQliteScanner(*this).forEachLostRecordInFreeSpace(pattern, withHeader, found);
    });
}

void SQliteDbUtil::stopSearch() {
    storeFlag(stopRequested);
}
