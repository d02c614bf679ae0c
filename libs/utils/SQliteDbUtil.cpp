#include "SQliteDbUtil.h"

#include <QRegExp>
#include <QSet>
#include <QTextCodec>

#include <algorithm>
#include <vector>

// The reader trusts the header as the file states it and keeps a few 32-bit wraps on
// purpose (the size check, seekInPage, freeblock offsets). Those are computed in unsigned
// arithmetic and converted, so no signed overflow ever happens. What it never trusts is a
// page number or offset taken from the file as the next step of a walk: every chain (overflow
// pages, b-tree children, free-list trunks, freeblocks) stops on a page or offset already seen
// or outside the file, which changes nothing for a well-formed file.

namespace {

// The stop flag is a plain bool shared with the thread that calls stopSearch(); access it
// atomically so that the compiler neither caches nor tears it.
bool loadFlag(const bool& flag) { return __atomic_load_n(&flag, __ATOMIC_RELAXED); }
void storeFlag(bool& flag) { __atomic_store_n(&flag, true, __ATOMIC_RELAXED); }

// 32-bit two's-complement narrowing without implementation-defined conversions.
int narrow32(qint64 v) {
    const quint32 u = quint32(quint64(v));
    return u <= quint32(INT32_MAX) ? int(u) : int(qint64(u) - (qint64(1) << 32));
}

// pageSize × (page − 1) + offset in 32-bit signed arithmetic, widened: kept as the format
// reader always did (it wraps for positions past 2 GiB).
qint64 wrapped32Position(quint32 pageSize, int page, int offset) {
    return narrow32(qint64(pageSize * (quint32(page) - 1u) + quint32(offset)));
}

qint64 pagePosition(quint32 pageSize, qint64 page) { return (page - 1) * qint64(pageSize); }

// Absolute seek of the stream's device. A closed or missing file fails quietly, so that every
// read after close() comes back short.
bool seekStream(QDataStream* s, qint64 pos) {
    if (!s || !s->device() || !s->device()->isOpen() || pos < 0) return false;
    s->resetStatus();
    return s->device()->seek(pos);
}

// Varint as the format defines it, read from memory: up to nine bytes, the ninth whole.
// Past the end of the block it behaves like the stream reader: 0 with length 0, or the
// value built so far with the bytes actually read.
qint64 varintAt(const uchar* data, qint64 size, qint64 pos, int* len) {
    if (pos < 0 || pos >= size) {
        *len = 0;
        return 0;
    }
    quint64 value = 0;
    int n = 0;
    while (true) {
        const uchar b = data[pos + n];
        ++n;
        if (n == 9) {
            value = (value << 8) | b;
            break;
        }
        value = (value << 7) | (b & 0x7F);
        if (!(b & 0x80) || pos + n >= size) break;
    }
    *len = n;
    return qint64(value);
}

QTextCodec* codecForEncoding(qint32 encoding) {
    static QTextCodec* const utf8 = QTextCodec::codecForName("UTF-8");
    static QTextCodec* const utf16le = QTextCodec::codecForName("UTF-16LE");
    static QTextCodec* const utf16be = QTextCodec::codecForName("UTF-16BE");
    switch (encoding) {
    case 3:
        return utf16be;
    case 2:
        return utf16le;
    default:
        return utf8;
    }
}

} // namespace

SQliteDbUtil::SQliteDbUtil() : stopRequested(false) {}

// ---------------------------------------------------------------------------------------------
// Loading

bool SQliteDbUtil::loadDb(const QString& path) {
    file = QSharedPointer<QFile>(new QFile(path));
    if (!file->open(QIODevice::ReadOnly)) return false;
    stream = QSharedPointer<QDataStream>(new QDataStream(file.data()));
    stream->setByteOrder(QDataStream::BigEndian);
    if (!parseDbHeader()) return false;
    if (!parsePages()) return false;
    if (!parseFreeListPages(quint32(header.firstFreeListTrunk))) return false;
    parseTables();
    return true;
}

void SQliteDbUtil::close() {
    if (file) file->close();
}

bool SQliteDbUtil::parseDbHeader() {
    if (!stream || !seek(0) || bytesAvailable() < 100) return false;
    const QString magic = readString(16);
    if (magic != QLatin1String("SQLite format 3")) return false;
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
    const qint64 size = file->size();
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

bool SQliteDbUtil::seek(int pos) { return seekStream(stream.data(), pos); }

qint64 SQliteDbUtil::bytesAvailable() {
    if (!stream || !stream->device()) return 0;
    return stream->device()->bytesAvailable();
}

bool SQliteDbUtil::seekToPage(int page) { return seekStream(stream.data(), pagePosition(header.pageSize, page)); }

bool SQliteDbUtil::seekInPage(int page, int offset) {
    return seekStream(stream.data(), wrapped32Position(header.pageSize, page, offset));
}

QByteArray SQliteDbUtil::readPageData(int page) {
    if (!seekToPage(page)) return QByteArray();
    return readBytes(header.pageSize);
}

QByteArray SQliteDbUtil::readBytes(unsigned long n) { return readBytes(stream.data(), n); }

QByteArray SQliteDbUtil::readBytes(QDataStream* s, unsigned long n) {
    if (!s || !s->device() || !s->device()->isReadable()) return QByteArray();
    // A length from the file is never trusted: allocate only what can still be read.
    const qint64 available = std::max<qint64>(0, s->device()->bytesAvailable());
    const qint64 wanted = qint64(std::min<unsigned long>(n, static_cast<unsigned long>(std::min<qint64>(available, INT32_MAX))));
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

qint64 SQliteDbUtil::readVarInt(int* len) { return readVarInt(stream.data(), len); }

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

QVariant SQliteDbUtil::readValue(qint64 serialType, int* len) { return readValue(stream.data(), serialType, len); }

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
    QByteArray content;
    QSet<qint64> seen;
    const qint64 fileSize = file ? file->size() : 0;
    qint64 current = page;
    while (current != 0) {
        if (seen.contains(current) || current < 1 || pagePosition(header.pageSize, current) >= fileSize) break;
        seen.insert(current);
        if (!seekToPage(int(current))) break;
        quint32 next = 0;
        *stream >> next;
        content += readBytes((unsigned long)std::max<qint64>(0, qint64(header.pageSize) - header.reservedSpace - 4));
        current = next;
    }
    return content;
}

QString SQliteDbUtil::cellData2String(const QByteArray& bytes) {
    return codecForEncoding(header.textEncoding)->toUnicode(bytes);
}

// ---------------------------------------------------------------------------------------------
// Schema and table traversal

bool SQliteDbUtil::parsePage(unsigned int page) {
    if (!seekToPage(int(page)) || bytesAvailable() < header.pageSize) return false;
    if (page == 1 && !seek(100)) return false;
    QDataStream& s = *stream;
    SQlitePage p;
    p.pageNumber = int(page);
    quint8 type = 0;
    s >> type;
    if (type != 2 && type != 5 && type != 10 && type != 13) {
        p.type = 0;
        pages.insert(p.pageNumber, p);
        return true;
    }
    p.type = type;
    s >> p.firstFreeblock >> p.cellCount >> p.cellContentStart >> p.fragmentedBytes;
    if (type == 2 || type == 5) {
        s >> p.rightMostPointer;
        p.headerSize = 12;
    } else {
        p.rightMostPointer = 0;
        p.headerSize = 8;
    }
    p.cellOffsets.reserve(p.cellCount);
    for (int i = 0; i < p.cellCount; ++i) {
        quint16 offset = 0;
        s >> offset;
        p.cellOffsets.append(offset);
    }
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
    QRegExp statement(QStringLiteral("CREATE TABLE\\s+(\\S+)\\s?\\((.*)\\)"), Qt::CaseSensitive, QRegExp::RegExp);
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

QList<SQliteTable> SQliteDbUtil::fetchAllTable() { return tables.values(); }

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
        if (it->type == 13) {
            leaves.append(pageNo);
            continue;
        }
        if (it->type != 5) continue;
        std::vector<int> children;
        children.reserve(size_t(it->cellOffsets.size()) + 1);
        for (quint16 offset : it->cellOffsets) {
            if (!seekStream(stream.data(), pagePosition(header.pageSize, pageNo) + offset)) continue;
            quint32 child = 0;
            *stream >> child;
            children.push_back(int(child));
        }
        children.push_back(int(it->rightMostPointer));
        todo.insert(todo.end(), children.rbegin(), children.rend());
    }
    return leaves;
}

QList<QList<QVariant>> SQliteDbUtil::fetchRecordsInTable(const QString& name) {
    QList<QList<QVariant>> records;
    const auto it = tables.constFind(name);
    if (it == tables.constEnd()) return records;
    for (int page : it->pages) {
        if (loadFlag(stopRequested)) break;
        records += fetchRecordsInPage(page);
    }
    return records;
}

QList<QList<QVariant>> SQliteDbUtil::fetchRecordsInPage(int page) {
    QList<QList<QVariant>> records;
    const auto it = pages.constFind(page);
    if (it == pages.constEnd() || it->type != 13) return records;
    for (quint16 offset : it->cellOffsets) {
        QList<QVariant> record = fetchRecordInPage(page, offset);
        if (record.size() >= 2) records.append(record);
    }
    return records;
}

QList<QVariant> SQliteDbUtil::fetchRecordInPage(int page, unsigned short offset) {
    QList<QVariant> record;
    const auto it = pages.constFind(page);
    if (it == pages.constEnd() || it->type != 13) return record;
    if (!seekInPage(page, offset)) return record;

    int n = 0;
    const int payloadSize = narrow32(readVarInt(&n));
    const qint64 rowid = readVarInt(&n);

    // Local part and overflow as the file format defines them.
    const qint64 usable = qint64(header.pageSize) - header.reservedSpace;
    const qint64 maxLocal = usable - 35;
    const qint64 minLocal = ((usable - 12) * 32 / 255) - 23;
    QByteArray payload;
    if (payloadSize <= maxLocal) {
        payload = readBytes((unsigned long)qint64(payloadSize));
    } else {
        const qint64 k = usable - 4 > 0 ? minLocal + (payloadSize - minLocal) % (usable - 4) : minLocal;
        const qint64 local = k > maxLocal ? minLocal : k;
        payload = readBytes((unsigned long)std::max<qint64>(0, local));
        quint32 overflowPage = 0;
        *stream >> overflowPage;
        payload += readOverFlowData(int(overflowPage));
    }

    record.append(QVariant(qlonglong(rowid)));
    QDataStream ps(payload);
    ps.setByteOrder(QDataStream::BigEndian);
    if (ps.atEnd()) return record;

    int consumed = 0;
    const qint64 headerSize = readVarInt(&ps, &consumed);
    QList<int> types;
    while (consumed < headerSize && !ps.atEnd()) {
        int len = 0;
        types.append(narrow32(readVarInt(&ps, &len)));
        consumed += len;
    }
    // Values follow the serial types directly; the header size is not used to reposition.
    for (int type : types) record.append(readValue(&ps, type, nullptr));
    return record;
}

// ---------------------------------------------------------------------------------------------
// Deleted-record recovery

bool SQliteDbUtil::parseFreeListPages(unsigned int trunk) {
    QSet<unsigned int> seen;
    while (trunk != 0) {
        if (!pages.contains(int(trunk))) return false;
        if (seen.contains(trunk)) return true; // a trunk chain that loops: keep what was listed
        seen.insert(trunk);
        freeListPages.append(int(trunk));
        if (!seekToPage(int(trunk))) return true;
        quint32 next = 0;
        quint32 count = 0;
        *stream >> next >> count;
        // A trunk page holds at most (page size − 8) / 4 leaf numbers; a larger count can
        // only come from a corrupt page and would read past it.
        const quint32 capacity = header.pageSize > 8 ? (quint32(header.pageSize) - 8) / 4 : 0;
        count = std::min(count, capacity);
        for (quint32 i = 0; i < count; ++i) {
            quint32 leaf = 0;
            *stream >> leaf;
            freeListPages.append(int(leaf));
        }
        trunk = next;
    }
    return true;
}

QList<QByteArray> SQliteDbUtil::getUnAllocSpaceInPage(int page) {
    QList<QByteArray> blocks;
    const auto it = pages.constFind(page);
    if (it == pages.constEnd() || it->type != 13) return blocks;
    const qint64 start = pagePosition(header.pageSize, page) + 8 + 2 * qint64(it->cellCount);
    const qint64 contentStart = it->cellContentStart == 0 ? 65536 : it->cellContentStart;
    const qint64 length = contentStart - 8 - 2 * qint64(it->cellCount);
    if (length > 0 && seekStream(stream.data(), start)) {
        blocks.append(readBytes((unsigned long)length));
    }
    return blocks;
}

QList<QByteArray> SQliteDbUtil::getFragmentSpaceInPage(int page) {
    QList<QByteArray> blocks;
    const auto it = pages.constFind(page);
    if (it == pages.constEnd() || it->type != 13 || it->firstFreeblock == 0) return blocks;
    QSet<int> seen;
    int offset = it->firstFreeblock;
    while (offset != 0 && !seen.contains(offset)) {
        seen.insert(offset);
        // Computed unsigned in 32 bits: an offset past the page end wraps and does not stop.
        if (quint32(header.pageSize) - (quint32(header.reservedSpace) + quint32(offset)) < 4) break;
        if (!seekInPage(page, offset)) break;
        qint16 next = 0;
        qint16 size = 0;
        *stream >> next >> size;
        // The size counts the 4-byte freeblock header, yet the block is read from after that
        // header: every block runs 4 bytes past the freeblock's end, as it always has.
        blocks.append(size > 0 ? readBytes((unsigned long)size) : QByteArray(0, '\0'));
        offset = next;
    }
    return blocks;
}

QList<QByteArray> SQliteDbUtil::fetchFragmentBlockInPage(int page) {
    return getUnAllocSpaceInPage(page) + getFragmentSpaceInPage(page);
}

bool SQliteDbUtil::fieldsMatch(int serialType, const QString& pattern, int index) {
    if (index < 0 || index >= pattern.size()) return false;
    const ushort code = pattern.at(index).unicode();
    if (code >= 256) return false;
    const char c = char(code);
    if (c >= '0' && c <= '9') return serialType == c - '0';
    switch (c) {
    case 'b':
        return serialType == 0 || (serialType >= 12 && serialType % 2 == 0);
    case 'd':
        return serialType <= 9;
    case 'f':
        return serialType == 0 || serialType == 7;
    case 'i':
        return serialType <= 11 && serialType != 7;
    case 'n':
        return serialType == 0;
    case 's':
        return serialType == 0 || (serialType >= 13 && serialType % 2 == 1);
    default:
        return false;
    }
}

QList<QList<QVariant>> SQliteDbUtil::searchInBlock(const QByteArray& block, const QString& pattern,
                                                   bool withHeader) {
    QList<QList<QVariant>> results;
    if (block.isEmpty()) return results;
    const int fields = pattern.size();
    const uchar* data = reinterpret_cast<const uchar*>(block.constData());
    const qint64 size = block.size();
    // Serial types are tested straight from memory; only accepted candidates are decoded,
    // through a stream over the block, exactly as the value reader reads any record.
    QDataStream values(block);
    values.setByteOrder(QDataStream::BigEndian);
    std::vector<int> types(size_t(std::max(fields, 0)));

    qint64 pos = 0;
    while (pos < size) {
        qint64 consumed = 0;
        int len = 0;
        int rowid = 0;
        if (withHeader) {
            rowid = narrow32(varintAt(data, size, pos, &len));
            consumed += len;
            varintAt(data, size, pos + consumed, &len); // header size: read, never checked
            consumed += len;
        }
        bool accepted = true;
        bool allNull = true;
        for (int i = 0; i < fields; ++i) {
            types[size_t(i)] = narrow32(varintAt(data, size, pos + consumed, &len));
            consumed += len;
            if (!fieldsMatch(types[size_t(i)], pattern, i)) {
                accepted = false;
                break;
            }
            if (types[size_t(i)] != 0) allNull = false;
        }
        if (!accepted || allNull) {
            ++pos;
            continue;
        }
        bool tooLarge = false;
        for (int i = 0; i < fields && !tooLarge; ++i) {
            const int t = types[size_t(i)];
            if (t >= 12 && t % 2 == 0 && t - 12 >= 4194306) tooLarge = true; // BLOB over 2 MiB
            if (t >= 13 && t % 2 == 1 && t - 12 > 4097) tooLarge = true;     // text over 2048 bytes
        }
        if (tooLarge) {
            ++pos;
            continue;
        }

        QList<QVariant> record;
        record.reserve(fields + (withHeader ? 1 : 0));
        if (withHeader) record.append(QVariant(rowid));
        values.device()->seek(pos + consumed);
        values.resetStatus();
        // One byte count shared by the values of a candidate: a reserved type leaves it
        // unwritten and so counts the previous value's length again.
        int valueLen = 0;
        for (int i = 0; i < fields; ++i) {
            record.append(readValue(&values, types[size_t(i)], &valueLen));
            consumed += valueLen;
        }
        results.append(record);
        pos = pos + consumed + 1;
    }
    return results;
}

QList<QList<QVariant>> SQliteDbUtil::searchLostRecord(const QString& table, const QString& pattern,
                                                      bool withHeader) {
    QList<QList<QVariant>> results;
    const auto it = tables.constFind(table);
    if (it == tables.constEnd()) return results;
    for (int page : it->pages) {
        if (loadFlag(stopRequested)) break;
        for (const QByteArray& block : fetchFragmentBlockInPage(page))
            results += searchInBlock(block, pattern, withHeader);
    }
    return results;
}

QList<QList<QVariant>> SQliteDbUtil::searchLostRecordInFreeSpace(const QString& pattern, bool withHeader) {
    QList<QList<QVariant>> results;
    const qint64 length = qint64(header.pageSize) - header.reservedSpace - 12;
    for (int page : freeListPages) {
        if (loadFlag(stopRequested)) break;
        // The first 12 bytes of every free page (trunk or leaf) are skipped.
        if (page < 1 || length <= 0 || !seekStream(stream.data(), pagePosition(header.pageSize, page) + 12))
            continue;
        results += searchInBlock(readBytes((unsigned long)length), pattern, withHeader);
    }
    return results;
}

void SQliteDbUtil::stopSearch() { storeFlag(stopRequested); }
