// Every documented result of the reader over a few hundred damaged databases, folded into
// digests: the databases under fuzz/seeds/sqlite/ cut short, with flipped bytes, with edited
// headers and cell pointers, and with chains that point at themselves, plus the block scan over
// a few thousand odd blocks. Each value enters its digest with its type, so a reading that
// changes a value, an integer's width or a null string shows. The record was taken from the
// reader when it still decoded everything through its stream; UTILS_WRITE_DIGESTS=1 rewrites it,
// which is only ever right for a deliberate change of a documented result.
#include "SqliteFixtures.h"

#include "SQliteDbUtil.h"

#include <QCryptographicHash>
#include <QDir>
#include <QTemporaryDir>
#include <QTextStream>

#include <cstring>

using namespace fixtures;

namespace {

const QString kSeeds = QString(UTILS_SOURCE_DIR) + "/fuzz/seeds/sqlite";
const QString kRecord = QString(UTILS_SOURCE_DIR) + "/tests/data/sqlite-digests.txt";

class Digest {
public:
    Digest& operator<<(qint64 v) {
        m_hash.addData(reinterpret_cast<const char*>(&v), sizeof v);
        return *this;
    }
    Digest& operator<<(const QByteArray& b) {
        *this << qint64(b.isNull() ? -1 : b.size());
        m_hash.addData(b);
        return *this;
    }
    Digest& operator<<(const QString& s) {
        *this << qint64(s.isNull() ? -1 : s.size());
        m_hash.addData(reinterpret_cast<const char*>(s.utf16()), s.size() * 2);
        return *this;
    }
    Digest& operator<<(const QVariant& v) {
        m_hash.addData(v.isValid() ? v.typeName() : "invalid");
        switch (int(v.type())) {
        case QMetaType::Int:
        case QMetaType::LongLong:
            return *this << v.toLongLong();
        case QMetaType::Double: {
            const double d = v.toDouble();
            qint64 bits = 0;
            std::memcpy(&bits, &d, sizeof bits);
            return *this << bits;
        }
        case QMetaType::QString:
            return *this << v.toString();
        case QMetaType::QByteArray:
            return *this << v.toByteArray();
        default:
            return *this;
        }
    }
    template <typename T> Digest& operator<<(const QList<T>& list) {
        *this << qint64(list.size());
        for (const T& item : list)
            *this << item;
        return *this;
    }
    QByteArray hex() const { return m_hash.result().toHex(); }

private:
    QCryptographicHash m_hash{QCryptographicHash::Sha1};
};

Digest& operator<<(Digest& d, int v) {
    return d << qint64(v);
}
Digest& operator<<(Digest& d, quint16 v) {
    return d << qint64(v);
}

const QList<QPair<QString, bool>> kPatterns = {{"isbd", true}, {"nsf", false},     {"s", false},
                                               {"i", true},    {"isiissi", false}, {"iissii", true},
                                               {"b", false},   {"d7s", false},     {"2s", true}};

// Everything a caller can ask of a reader, in a fixed order.
void digestReader(const QString& path, Digest& d) {
    SQliteDbUtil r;
    const bool loaded = r.loadDb(path);
    const SQliteDbHeader& h = r.header;
    d << qint64(loaded) << h.magic << h.pageSize << qint64(h.writeVersion) << qint64(h.readVersion)
      << qint64(h.reservedSpace) << qint64(h.maxPayloadFraction) << qint64(h.minPayloadFraction)
      << qint64(h.leafPayloadFraction) << h.changeCounter << h.pageCount << h.firstFreeListTrunk
      << h.freeListPageCount << h.schemaCookie << h.schemaFormat << h.defaultCacheSize << h.largestRootPage
      << h.textEncoding << h.userVersion << h.incrementalVacuum << h.applicationId << h.versionValidFor
      << h.sqliteVersion;
    for (const SQlitePage& p : r.pages)
        d << qint64(p.type) << p.firstFreeblock << p.cellCount << p.cellContentStart
          << qint64(p.fragmentedBytes) << qint64(p.rightMostPointer) << p.headerSize << p.pageNumber
          << p.cellOffsets;
    for (const SQliteTable& t : r.fetchAllTable()) {
        d << t.name << t.pages << t.rootPage << t.columns.keys() << t.columns.values();
        d << r.fetchRecordsInTable(t.name);
        for (const auto& pattern : kPatterns)
            d << r.searchLostRecord(t.name, pattern.first, pattern.second);
    }
    d << r.freeListPages;
    if (!loaded) return;
    const int pageSize = h.pageSize;
    QList<int> numbers = r.pages.keys();
    numbers << 0 << -1 << h.pageCount + 1 << 65537;
    for (int page : numbers) {
        d << r.fetchRecordsInPage(page) << r.fetchFragmentBlockInPage(page) << r.getUnAllocSpaceInPage(page)
          << r.getFragmentSpaceInPage(page) << r.fetchTablePagesByRootPage(page) << r.readOverFlowData(page)
          << r.readPageData(page);
        QList<quint16> offsets = r.pages.value(page).cellOffsets;
        offsets << 0 << 1 << quint16(pageSize - 1) << 65535;
        for (quint16 offset : offsets)
            d << r.fetchRecordInPage(page, offset);
    }
    for (const auto& pattern : kPatterns)
        d << r.searchLostRecordInFreeSpace(pattern.first, pattern.second);

    // A second load on the same reader lists the free pages again.
    d << qint64(r.loadDb(path)) << r.freeListPages << r.pages.keys();
    // After close the indexes stay and every read comes back short.
    r.close();
    for (const SQliteTable& t : r.fetchAllTable())
        d << r.fetchRecordsInTable(t.name) << r.searchLostRecord(t.name, "is", true);
    for (int page : numbers)
        d << r.fetchRecordsInPage(page) << r.fetchFragmentBlockInPage(page) << r.readOverFlowData(page);
    d << r.searchLostRecordInFreeSpace("s", false);
}

class Random {
public:
    explicit Random(quint32 seed) : m_state(seed) {}
    quint32 next(quint32 bound) {
        m_state = m_state * 1664525u + 1013904223u;
        return bound ? (m_state >> 8) % bound : 0;
    }

private:
    quint32 m_state;
};

void put32(QByteArray& b, qint64 at, quint32 v) {
    if (at >= 0 && at + 4 <= b.size()) b.replace(int(at), 4, be32(v));
}
void put16(QByteArray& b, qint64 at, int v) {
    if (at >= 0 && at + 2 <= b.size()) b.replace(int(at), 2, be16(v));
}

// One damaged copy of a database; kind picks the damage.
QByteArray damage(const QByteArray& original, int kind, Random& rnd) {
    QByteArray b = original;
    const int pageSize = (uchar(b[16]) << 8) | uchar(b[17]);
    const int pageCount = b.size() / pageSize;
    auto pageStart = [&](int page) { return qint64(page - 1) * pageSize; };
    auto headerAt = [&](int page) { return pageStart(page) + (page == 1 ? 100 : 0); };
    auto typeOf = [&](int page) { return int(uchar(b[int(headerAt(page))])); };
    const int page = 1 + int(rnd.next(quint32(pageCount)));
    const qint64 hdr = headerAt(page);
    switch (kind) {
    case 0: // flipped bytes, mostly in page headers and cell pointers
        for (int n = 1 + int(rnd.next(8)); n > 0; --n) {
            const int p = 1 + int(rnd.next(quint32(pageCount)));
            const qint64 at =
                rnd.next(3) == 0 ? pageStart(p) + rnd.next(quint32(pageSize)) : headerAt(p) + rnd.next(24);
            b[int(at)] = char(rnd.next(4) == 0 ? 0xFF : rnd.next(256));
        }
        break;
    case 1: { // cut to fewer whole pages, the count patched to match
        const int keep = 1 + int(rnd.next(quint32(pageCount)));
        b.truncate(keep * pageSize);
        put32(b, 28, quint32(keep));
        break;
    }
    case 2: // header fields
        switch (rnd.next(6)) {
        case 0: {
            static const int sizes[] = {0, 1, 256, 512, 1000, 1024, 2048, 4096, 65535};
            put16(b, 16, sizes[rnd.next(9)]);
            break;
        }
        case 1:
            b[20] = char(rnd.next(256)); // reserved bytes
            break;
        case 2:
            put32(b, 56, quint32(rnd.next(8))); // text encoding
            break;
        case 3: // a page count whose product with the page size wraps to the file's size
            put32(b, 28, quint32(pageCount) + quint32((quint64(1) << 32) / quint32(pageSize)));
            break;
        case 4:
            put32(b, 32, rnd.next(2) ? quint32(page) : quint32(pageCount + 1 + int(rnd.next(100))));
            break;
        default:
            put32(b, 36, rnd.next(0xFFFFFFFFu));
            break;
        }
        break;
    case 3: { // chains that point at themselves
        const int type = typeOf(page);
        if (type == 2 || type == 5) {
            put32(b, hdr + 8, quint32(page));
        } else if (type == 13 || type == 10) {
            const int freeblock = rnd.next(2) ? ((uchar(b[int(hdr + 1)]) << 8) | uchar(b[int(hdr + 2)])) : 0;
            if (freeblock) {
                put16(b, pageStart(page) + freeblock, freeblock);
            } else {
                const int at = 200 + int(rnd.next(quint32(pageSize - 204)));
                put16(b, hdr + 1, at);
                put16(b, pageStart(page) + at, at);
                put16(b, pageStart(page) + at + 2, 4 + int(rnd.next(64)));
            }
        } else {
            put32(b, pageStart(page), quint32(page)); // an overflow or free-list page
            if (rnd.next(2)) put32(b, pageStart(page) + 4, 0xFFFFFFFFu);
        }
        if (rnd.next(3) == 0) { // and a free-list trunk that lists itself
            put32(b, 32, quint32(page));
            put32(b, pageStart(page), quint32(page));
        }
        break;
    }
    case 4: { // cell pointers and the cell area
        const int cells = (uchar(b[int(hdr + 3)]) << 8) | uchar(b[int(hdr + 4)]);
        const int pointers = int(hdr) + ((typeOf(page) == 2 || typeOf(page) == 5) ? 12 : 8);
        const int odd[] = {0, 1, 7, pageSize - 1, pageSize, 65535, int(rnd.next(65536))};
        switch (rnd.next(4)) {
        case 0:
            if (cells) put16(b, pointers + 2 * int(rnd.next(quint32(cells))), odd[rnd.next(7)]);
            break;
        case 1:
            put16(b, hdr + 3, rnd.next(2) ? 0xFFFF : cells + 5);
            break;
        case 2:
            put16(b, hdr + 5, rnd.next(2) ? 0 : odd[rnd.next(7)]);
            break;
        default:
            put16(b, hdr + 1, odd[rnd.next(7)]);
            break;
        }
        break;
    }
    default: // garbage over part of a page, or a cut at any byte
        if (rnd.next(2)) {
            const qint64 from = pageStart(page) + rnd.next(quint32(pageSize));
            for (qint64 i = from; i < std::min<qint64>(b.size(), from + 1 + rnd.next(600)); ++i)
                b[int(i)] = char(rnd.next(256));
        } else {
            b.truncate(int(rnd.next(quint32(b.size()))));
        }
        break;
    }
    return b;
}

QMap<QString, QByteArray> computeDigests() {
    QMap<QString, QByteArray> digests;
    QTemporaryDir dir;
    const QString path = dir.filePath("damaged.db");
    const QStringList seeds = QDir(kSeeds).entryList({"*.db"}, QDir::Files, QDir::Name);
    EXPECT_GE(seeds.size(), 5);
    quint32 salt = 1;
    for (const QString& seed : seeds) {
        const QByteArray original = readFile(QDir(kSeeds).filePath(seed));
        Random rnd(salt++ * 7919u);
        Digest intact;
        digestReader(QDir(kSeeds).filePath(seed), intact);
        digests[seed + " intact"] = intact.hex();
        for (int kind = 0; kind < 6; ++kind) {
            Digest d;
            for (int round = 0; round < 12; ++round) {
                writeFile(path, damage(original, kind, rnd));
                digestReader(path, d);
            }
            digests[QString("%1 damage-%2").arg(seed).arg(kind)] = d.hex();
        }
    }

    // The block scan over slices of the seeds and over small-valued noise.
    Random rnd(4242);
    QByteArray pool;
    for (const QString& seed : seeds)
        pool += readFile(QDir(kSeeds).filePath(seed));
    SQliteDbUtil reader;
    for (int encoding : {1, 2, 3}) {
        reader.header.textEncoding = encoding;
        Digest d;
        for (int i = 0; i < 1500; ++i) {
            QByteArray block;
            if (i % 3) {
                block = pool.mid(int(rnd.next(quint32(pool.size()))), int(rnd.next(700)));
            } else {
                for (int n = int(rnd.next(200)); n > 0; --n)
                    block += char(rnd.next(4) ? rnd.next(40) : rnd.next(256));
            }
            const auto& pattern = kPatterns.at(int(rnd.next(quint32(kPatterns.size()))));
            d << reader.searchInBlock(block, pattern.first, pattern.second);
        }
        digests[QString("searchInBlock encoding-%1").arg(encoding)] = d.hex();
    }
    return digests;
}

} // namespace

TEST(Digests, DocumentedResultsOnDamagedDatabasesAreUnchanged) {
    const QMap<QString, QByteArray> digests = computeDigests();
    if (qEnvironmentVariableIntValue("UTILS_WRITE_DIGESTS")) {
        QByteArray text;
        for (auto it = digests.constBegin(); it != digests.constEnd(); ++it)
            text += it.key().toUtf8() + ' ' + it.value() + '\n';
        writeFile(kRecord, text);
        GTEST_SKIP() << "rewrote " << kRecord.toStdString();
    }
    QMap<QString, QByteArray> recorded;
    for (const QByteArray& line : readFile(kRecord).split('\n')) {
        const int space = line.lastIndexOf(' ');
        if (space > 0) recorded[QString::fromUtf8(line.left(space))] = line.mid(space + 1);
    }
    ASSERT_EQ(recorded.keys(), digests.keys());
    for (auto it = digests.constBegin(); it != digests.constEnd(); ++it)
        EXPECT_EQ(it.value().toStdString(), recorded.value(it.key()).toStdString()) << it.key().toStdString();
}
