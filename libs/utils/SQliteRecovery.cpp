#include "SQliteRecovery.h"

#include "SQliteBtree.h"
#include "SQliteCodec.h"
#include "SQliteDbUtil.h"
#include "SQliteFormat.h"
#include "SQliteLiveView.h"
#include "SQliteSchema.h"
#include "SQliteSource.h"
#include "SQliteValue.h"

#include <QHash>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using namespace sqlitefmt;

const QString SQliteRecovery::kLive = QStringLiteral("live");
const QString SQliteRecovery::kDuplicate = QStringLiteral("duplicate");
const QString SQliteRecovery::kEncoding = QStringLiteral("encoding");
const QString SQliteRecovery::kLayout = QStringLiteral("layout");
const QString SQliteRecovery::kAffinity = QStringLiteral("affinity");
const QString SQliteRecovery::kEmpty = QStringLiteral("empty");
const QString SQliteRecovery::kSuperseded = QStringLiteral("superseded");
const QString SQliteRecovery::kAmbiguous = QStringLiteral("ambiguous");

namespace {

using Column = SQliteSchema::Column;

// ---------------------------------------------------------------------------------------------
// What text and numbers a column could have held

// Strict UTF-8: no overlong forms, surrogates or code points past U+10FFFF.
bool validUtf8(const uchar* p, qint64 n) {
    qint64 i = 0;
    while (i < n) {
        const uchar c = p[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        int len = 0;
        quint32 cp = 0;
        if ((c & 0xE0) == 0xC0) {
            len = 2;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > n) return false;
        for (int k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        static const quint32 least[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < least[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp < 0xE000)) return false;
        i += len;
    }
    return true;
}

bool validUtf16(const QString& s) {
    for (int i = 0; i < s.size(); ++i) {
        const ushort c = s.at(i).unicode();
        if (c >= 0xD800 && c < 0xDC00) {
            if (i + 1 >= s.size() || s.at(i + 1).unicode() < 0xDC00 || s.at(i + 1).unicode() >= 0xE000)
                return false;
            ++i;
        } else if (c >= 0xDC00 && c < 0xE000) {
            return false;
        }
    }
    return true;
}

bool mostlyControl(const QString& s) {
    if (s.isEmpty()) return false;
    int control = 0;
    for (const QChar c : s) {
        const ushort u = c.unicode();
        if ((u < 0x20 && u != '\t' && u != '\n' && u != '\r') || (u >= 0x7F && u < 0xA0) || u == 0xFFFD)
            ++control;
    }
    return control * 2 > s.size();
}

// Text that SQLite's numeric affinities would have turned into a number.
bool looksNumeric(const QString& s) {
    static const QRegularExpression number(
        QStringLiteral("^\\s*[+-]?(\\d+\\.?\\d*|\\.\\d+)([eE][+-]?\\d+)?\\s*$"));
    return number.match(s).hasMatch();
}

// ---------------------------------------------------------------------------------------------
// Keys of records

quint64 mix(quint64 h, quint64 v) {
    h ^= v + 0x9E3779B97F4A7C15ULL + (h << 6) + (h >> 2);
    return h * 0xFF51AFD7ED558CCDULL;
}

// A key for a record's values (and, when given, its rowid), the alias column left out.
quint64 valuesKey(const QList<QVariant>& values, int alias, const qint64* rowid) {
    quint64 h = rowid ? mix(1, quint64(*rowid)) : 2;
    for (int i = 0; i < values.size(); ++i) {
        if (i == alias) continue;
        const QVariant& v = values.at(i);
        h = mix(h, quint64(v.type()));
        switch (int(v.type())) {
        case QMetaType::LongLong:
            h = mix(h, quint64(v.toLongLong()));
            break;
        case QMetaType::Double: {
            const double d = v.toDouble();
            quint64 bits;
            std::memcpy(&bits, &d, sizeof bits);
            h = mix(h, bits);
            break;
        }
        case QMetaType::QString:
            h = mix(h, qHash(v.toString(), 7));
            break;
        case QMetaType::QByteArray:
            h = mix(h, qHash(v.toByteArray(), 7));
            break;
        default:
            break;
        }
    }
    return h;
}

// The live rows of a table, by the hashes of their values (32 bits each), looked up by rowid
// (rows come in rowid order), by all their values, or by either half of them: a row that
// differs from a live one in one value at most equals it in one half.
class LiveRows {
public:
    void reset(int columns, int alias) {
        *this = LiveRows();
        m_columns = columns;
        m_alias = alias;
        for (int i = 0; i < columns; ++i)
            if (i != alias) m_informative.push_back(i);
        const size_t half = m_informative.size() / 2;
        m_a.assign(m_informative.begin(), m_informative.begin() + qint64(half));
        m_b.assign(m_informative.begin() + qint64(half), m_informative.end());
    }
    void add(qint64 rowid, const std::vector<quint64>& hashes) {
        const quint32 row = quint32(m_rowids.size());
        m_rowids.push_back(rowid);
        m_sorted = m_sorted && (m_rowids.size() < 2 || m_rowids[row - 1] < rowid);
        for (int i = 0; i < m_columns; ++i)
            m_hashes.push_back(fold(hashes[size_t(i)]));
        m_all.insert(key(hashes, m_informative), row);
        if (m_a.size() && m_b.size()) {
            m_byA.insert(key(hashes, m_a), row);
            m_byB.insert(key(hashes, m_b), row);
        }
    }
    int size() const { return int(m_rowids.size()); }
    // Ready for matching once every live row was added.
    void freeze() {
        m_all.freeze();
        m_byA.freeze();
        m_byB.freeze();
    }

    // How a record stands to the live rows: Same (a live row, the rowid too when it is known),
    // Near (a live row but for one value, with the same rowid when it is known) or None. Only
    // the values known marks are compared.
    enum Match { None, Near, Same };
    Match match(const std::vector<quint64>& hashes, const std::vector<bool>& known,
                const qint64* rowid) const {
        Match best = None;
        auto consider = [&](quint32 row) {
            int differ = 0;
            for (int i : m_informative)
                if (known[size_t(i)] &&
                    fold(hashes[size_t(i)]) != m_hashes[size_t(row) * size_t(m_columns) + size_t(i)])
                    ++differ;
            if (differ == 0)
                best = Same;
            else if (differ == 1 && best == None)
                best = Near;
        };
        if (rowid) {
            const auto range = rowRange(*rowid);
            for (size_t row = range.first; row < range.second && best != Same; ++row)
                consider(quint32(row));
            return best;
        }
        const bool whole =
            std::all_of(m_informative.begin(), m_informative.end(), [&](int i) { return known[size_t(i)]; });
        if (whole) m_all.lookup(key(hashes, m_informative), consider);
        for (const auto* half : {&m_a, &m_b}) {
            if (best == Same || half->empty() || (whole && m_b.empty())) continue;
            if (std::all_of(half->begin(), half->end(), [&](int i) { return known[size_t(i)]; }))
                (half == &m_a ? m_byA : m_byB).lookup(key(hashes, *half), consider);
        }
        return best;
    }

private:
    // Rows by a 32-bit key: pairs gathered, then sorted once.
    struct RowMap {
        std::vector<quint64> pairs; // key << 32 | row
        bool sorted = true;
        void insert(quint32 k, quint32 row) {
            pairs.push_back(quint64(k) << 32 | row);
            sorted = false;
        }
        void freeze() {
            if (!sorted) std::sort(pairs.begin(), pairs.end());
            sorted = true;
        }
        // Visits the rows of key k, the first 64 of them: a key that many rows share (a value
        // most rows hold) is looked at no further.
        template <typename F> void lookup(quint32 k, F visit) const {
            auto it = std::lower_bound(pairs.begin(), pairs.end(), quint64(k) << 32);
            for (int visited = 0; it != pairs.end() && quint32(*it >> 32) == k && visited < 64;
                 ++it, ++visited)
                visit(quint32(*it));
        }
    };
    static quint32 fold(quint64 h) { return quint32(h >> 32) ^ quint32(h); }
    static quint32 key(const std::vector<quint64>& hashes, const std::vector<int>& columns) {
        quint64 h = 5;
        for (int i : columns)
            h = mix(h, hashes[size_t(i)]);
        return fold(h) | 1;
    }
    std::pair<size_t, size_t> rowRange(qint64 rowid) const {
        if (m_sorted) {
            const auto range = std::equal_range(m_rowids.begin(), m_rowids.end(), rowid);
            return {size_t(range.first - m_rowids.begin()), size_t(range.second - m_rowids.begin())};
        }
        for (size_t i = 0; i < m_rowids.size(); ++i)
            if (m_rowids[i] == rowid) return {i, i + 1};
        return {0, 0};
    }
    int m_columns = 0, m_alias = -1;
    std::vector<int> m_informative, m_a, m_b;
    std::vector<qint64> m_rowids;
    bool m_sorted = true;
    std::vector<quint32> m_hashes;
    RowMap m_all, m_byA, m_byB;
};

// A value's hash: equal values as stored give equal hashes.
quint64 valueHash(const SQliteValue& v) {
    switch (v.type) {
    case SQliteValue::Integer:
        return mix(11, quint64(v.integer));
    case SQliteValue::Real: {
        quint64 bits;
        std::memcpy(&bits, &v.real, sizeof bits);
        return mix(12, bits);
    }
    case SQliteValue::Text:
    case SQliteValue::Blob:
        return mix(v.type == SQliteValue::Text ? 13 : 14,
                   qHashBits(v.data, size_t(std::max<qint64>(0, v.size)), 7));
    default:
        return 10;
    }
}

// A varint read from memory, bounded: false when it runs past end.
bool varint(const uchar* data, qint64 pos, qint64 end, qint64* value, int* len) {
    if (pos >= end) return false;
    const Varint v = readVarint(data + pos, end - pos);
    *value = qint64(v.value);
    *len = v.length;
    return v.complete;
}

int varintLength(quint64 v) {
    int n = 1;
    while (n < 9 && v > (quint64(1) << (7 * n)) - 1)
        ++n;
    return n;
}

// The serial type SQLite gives an integer: the narrowest that holds it, or with constants the
// types 8 and 9 for 0 and 1 (schema format 4).
qint64 smallestIntegerType(qint64 v, bool constants) {
    if (constants && (v == 0 || v == 1)) return 8 + v;
    const quint64 u = v < 0 ? ~quint64(v) : quint64(v);
    return u <= 127                ? 1
           : u <= 32767            ? 2
           : u <= 8388607          ? 3
           : u <= 2147483647       ? 4
           : u <= 0x7FFFFFFFFFFFLL ? 5
                                   : 6;
}

qint64 be16(const uchar* p) {
    return qint64(get16(p));
}

// A table whose records are looked for: a live one, or a dropped one whose schema was found.
struct Target {
    QString name;
    bool dropped = false;
    bool wanted = false; // its records are passed on
    SQliteSchema::Table schema;
    qint64 root = 0;
    std::vector<Column> columns; // those a record holds, in its order
    std::vector<bool> notNull;   // columns that cannot hold NULL in a record
    std::vector<int> declared;   // the declared position of each, among declaredCount columns
    int declaredCount = 0;
    int alias = -1;                   // the rowid alias among them
    bool table = true;                // a rowid table; false: a table without rowid
    QString pattern, declaredPattern; // the pattern searched for, and the one the schema gives
    std::unique_ptr<SQliteCodec::Pattern> compiled;
    void setPattern(const QString& letters) {
        pattern = letters;
        compiled.reset(new SQliteCodec::Pattern(letters, true));
        chooseLost();
    }
    bool live = false; // live rows are known
    // The serial types a lost one-byte varint can have been, for the first two columns.
    std::vector<std::vector<qint64>> lostChoices;
    void chooseLost() {
        lostChoices.assign(2, {});
        for (int col = 0; col < std::min(size(), 2); ++col)
            for (qint64 type = 0; type < 128; ++type)
                if (type != 10 && type != 11 && keeps(col, type)) lostChoices[size_t(col)].push_back(type);
    }
    // The classes of serial types (NULL, each integer width, float, 0, 1, text, blob) that each
    // column's live values have, one bit per class, and how many live rows there were.
    std::vector<quint16> seen;
    static int typeClass(qint64 type) { return type <= 9 ? int(type) : type % 2 ? 10 : 11; }
    // Whether every value of a reading has a class its column's live values have, when there are
    // enough live rows to tell.
    bool usual(const std::vector<qint64>& types) const {
        if (liveRows.size() < 16 || seen.size() < types.size()) return false;
        for (size_t i = 0; i < types.size(); ++i)
            if (int(i) != alias && !(seen[i] & (1u << typeClass(types[i])))) return false;
        return true;
    }
    // The one serial type each column's live values other than NULL all have (text or blobs of
    // one length: codes, keys, identifiers), -1 when they differ, -2 when there are none.
    std::vector<qint64> fixedType;
    void tally(int column, qint64 type) {
        seen[size_t(column)] |= quint16(1u << typeClass(type));
        qint64& fixed = fixedType[size_t(column)];
        if (type != 0 && fixed != -1) fixed = fixed == -2 || fixed == type ? type : -1;
    }
    // A usual reading whose values also have their column's one serial type, where it has one.
    bool typical(const std::vector<qint64>& types) const {
        if (!usual(types)) return false;
        for (size_t i = 0; i < types.size(); ++i)
            if (int(i) != alias && fixedType[i] >= 0 && types[i] != 0 && types[i] != fixedType[i])
                return false;
        return true;
    }
    LiveRows liveRows;
    int index = 0;

    int size() const { return int(columns.size()); }
    // An earlier version of a row is told by its rowid, or, when the rowid is lost, by all but
    // one of its values; the latter only for tables of four values or more.
    int informative() const { return int(columns.size()) - (alias >= 0 ? 1 : 0); }
    bool nearMatches() const { return informative() >= 4; }
    // A REAL column keeps integral values as integers in the file and reads them as floats.
    void realify(int column, SQliteValue& v) const {
        if (columns[size_t(column)].affinity == SQliteSchema::RealAffinity && v.type == SQliteValue::Integer)
            v = SQliteValue::fromReal(double(v.integer));
    }
    bool accepts(int column, qint64 type) const {
        return type <= INT32_MAX && compiled->matches(column, int(type)) &&
               !(type == 0 && notNull[size_t(column)]);
    }
    // Whether a serial type that is lost can be guessed for a column: one it accepts, of a class
    // its affinity keeps as it is (text, not a blob, in a TEXT column; a number in an INTEGER or
    // REAL one).
    bool keeps(int column, qint64 type) const {
        if (!accepts(column, type)) return false;
        switch (columns[size_t(column)].affinity) {
        case SQliteSchema::TextAffinity:
            return type == 0 || (type >= 13 && type % 2 == 1);
        case SQliteSchema::IntegerAffinity:
        case SQliteSchema::RealAffinity:
            return type <= 9;
        default:
            return true;
        }
    }
};

// The pattern letters a column's declared type allows: n the rowid alias, d INTEGER and REAL
// affinity (NULL, an integer or a float), t TEXT (NULL, text or blob), a anything else.
QChar letterOf(const SQliteSchema::Table& t, int declared) {
    if (declared == t.rowidAlias) return 'n';
    switch (t.columns.at(declared).affinity) {
    case SQliteSchema::IntegerAffinity:
    case SQliteSchema::RealAffinity:
        return 'd';
    case SQliteSchema::TextAffinity:
        return 't';
    default:
        return 'a';
    }
}

} // namespace

struct SQliteRecovery::Private {
    explicit Private(SQliteDbUtil& reader) : db(reader) {}

    SQliteDbUtil& db;
    QString error, tableName;
    bool all = false;
    bool chosen = false; // setTable or setAllTables succeeded
    bool freePages = true;
    bool includeHeld = false;
    ProgressCallback progress;
    Summary summary;
    std::vector<std::unique_ptr<Target>> targets;
    Target* single = nullptr; // the live table of setTable, for its pattern and columns

    // The file.
    qint64 pageSize = 0, usable = 0, lastPage = 0;
    std::vector<uchar> owned;  // by page: a live b-tree or overflow chain uses it
    std::vector<uchar> trunks; // by page: a free-list trunk
    std::vector<int> oldTree;  // by page: the dropped table (index + 1) whose old b-tree held it
    bool pagesKnown = false;
    QList<SQliteSchema::Object> live;
    bool droppedKnown = false;
    QList<SQliteSchema::Object> dropped;

    // What was reported.
    QSet<quint64> reported;
    QHash<QString, QVector<QPair<qint64, qint64>>> claimed; // per page version: byte ranges reported
    QString version; // of the page being searched: empty for the database as it is
    const SQliteLiveView* view = nullptr;
    QSet<quint64> heldFromVersions;

    // A record being read: where its serial types and values lie in the page.
    struct Candidate {
        qint64 start = 0;      // the first byte of the record that survives
        qint64 cellStart = -1; // where its cell starts when the payload length and rowid survive
        qint64 rowid = 0;
        qint64 valuesAt = 0;   // where its values start
        qint64 headerSize = 0; // as the record states it, or as worked out when it is lost
        std::vector<qint64> types;
        qint64 length = 0;   // header and values: the payload
        bool strong = false; // its cell's start survived, or the freeblock it fills says where it was
    };
    struct Found {
        Record record;
        std::vector<qint64> types; // of a rebuilt record
        const Target* target = nullptr;
        // 4 a whole cell a cell pointer leads to; 3 its payload length and rowid, or a start
        // rebuilt to fill its freeblock exactly; 2 its header alone; 1 a start rebuilt to end where
        // another cell starts.
        int strength = 0;
    };

    // What can start a record of some table, worked out before a search: a one-byte header
    // size, then a one-byte first serial type.
    std::vector<uchar> headerSizeOk, firstTypeOk;
    // One table of each shape (pattern, columns that cannot be NULL, rowid or not): where a
    // cell may start, tables of one shape answer alike.
    std::vector<const Target*> shapes;
    bool longHeaders = false; // a table has columns enough for a header of 128 bytes or more
    void prepareScan();
    // What finish() learnt of the record it read, for check(): kept for each thread that
    // searches pages.
    struct Reading {
        bool textOk = true;          // its text is valid in the database's encoding
        std::vector<quint64> hashes; // of its values as stored
        std::vector<bool> intact;    // which of them were read whole
        // Whether a cell of some table starts right after each offset, in the block searched
        // last: asked again and again for the readings of lost starts. An entry holds when its
        // stamp is the block's.
        const uchar* boundaryPage = nullptr;
        qint64 boundaryEnd = -1;
        quint32 boundaryStamp = 0;
        std::vector<quint32> boundaryStamps;
        std::vector<bool> boundary;
        // The sums of lost values' lengths that let a rebuilt cell end where it must.
        std::vector<qint64> sums;
        std::vector<std::pair<qint64, qint64>> second; // (length, serial type)
        // The work done on the page searched now, in rough steps, against its budget: a page
        // crafted to look like freed cells everywhere could otherwise keep the search of lost
        // starts busy for minutes. Past the budget, no more lost starts are rebuilt on it.
        qint64 work = 0;
    };
    // Work allowed on a page for rebuilding lost starts: far more than any page of a real
    // database takes (one reading read whole counts 64 steps).
    qint64 workBudget() const { return qint64(usable) * 1024; }
    static void startPage() { reading().work = 0; }
    bool overBudget() const { return reading().work > workBudget(); }
    static Reading& reading() {
        static thread_local Reading r;
        return r;
    }
    std::mutex reads; // the reader's page cache, for the threads that search pages

    // Tables
    void addTarget(const QString& name, const SQliteSchema::Table& schema, qint64 root, bool isDropped);
    void addIndexTarget(const SQliteSchema::Object& index);
    void buildTargets();
    void loadPages();
    void findOldTrees();
    QByteArray readPage(int pageNo);
    bool overflowPage(qint64 pageNo) const {
        return pageNo >= 1 && pageNo <= lastPage && !owned[size_t(pageNo)] && !trunks[size_t(pageNo)];
    }
    bool isFree(qint64 pageNo) const { return pageNo >= 1 && pageNo <= lastPage && !owned[size_t(pageNo)]; }

    // Reading candidates
    bool headerAt(const uchar* data, qint64 pos, qint64 areaStart, qint64 areaEnd, const Target& t,
                  Candidate& c) const;
    void rebuild(const uchar* data, qint64 f, qint64 end, bool exact, const Target& t,
                 std::vector<Found>& out);
    void readLost(const uchar* data, qint64 f, qint64 end, bool exact, const Target& t, Candidate& c, int p,
                  int r, int h, int lost, qint64 headerSize, qint64 payload, std::vector<Found>& out);
    bool cellBoundary(const uchar* data, qint64 e, qint64 blockEnd) const;
    qint64 formerFreeblockEnd(const uchar* data, qint64 pos) const;
    void finish(const uchar* data, qint64 areaEnd, const Candidate& c, const Target& t, Record& r);
    void check(const Candidate& c, const Target& t, Record& r);
    void place(const Candidate& c, const Target& t, int pageNo, Region region, qint64 offset, Record& r);
    int fitScore(const Record& r, const Target& t) const;

    // Searching pages
    // leaf: the area lies in a page that is, or was, a b-tree leaf, where freed cells leave
    // freeblock headers.
    void searchArea(const uchar* data, int pageNo, Region region, qint64 start, qint64 end,
                    const QVector<QPair<qint64, qint64>>& heads, const Target* owner,
                    std::vector<Found>& found, bool leaf = true);
    void searchCells(const uchar* data, int pageNo, Region region, const Target* owner,
                     std::vector<Found>& found);
    void searchPage(const uchar* data, int pageNo, bool leafOfOwner, const Target* owner,
                    std::vector<Found>& found);
    bool report(std::vector<Found>& found, const Callback& callback, const Target* owner = nullptr);
    bool report(Record& r, const Target& t, const Callback& callback);
    // The values of a record as its table declares its columns: a table without rowid keeps its
    // key first, and a virtual generated column (NULL here) lies in no record.
    static void toDeclaredOrder(Record& r, const Target& t) {
        if (t.declaredCount == r.values.size() && std::is_sorted(t.declared.begin(), t.declared.end()))
            return;
        QList<QVariant> values;
        for (int i = 0; i < t.declaredCount; ++i)
            values.append(QVariant());
        for (int i = 0; i < r.values.size() && size_t(i) < t.declared.size(); ++i)
            values[t.declared[size_t(i)]] = r.values.at(i);
        r.values = values;
    }
    void liveCells(const uchar* data, qint64 header, int type, QVector<QPair<qint64, qint64>>* used) const;
    void freeblocks(const uchar* data, qint64 header, qint64 from,
                    QVector<QPair<qint64, qint64>>* blocks) const;

    // Schemas in free space
    void findDropped();
};

SQliteRecovery::SQliteRecovery(SQliteDbUtil& db) : d(new Private(db)) {}
SQliteRecovery::~SQliteRecovery() = default;

QString SQliteRecovery::error() const {
    return d->error;
}
QString SQliteRecovery::table() const {
    return d->tableName;
}
QString SQliteRecovery::pattern() const {
    return d->single ? d->single->pattern : QString();
}
int SQliteRecovery::rowidAlias() const {
    return d->single ? d->single->schema.rowidAlias : -1;
}
void SQliteRecovery::setFreePagesSearched(bool searched) {
    d->freePages = searched;
}
void SQliteRecovery::setHeldIncluded(bool included) {
    d->includeHeld = included;
}
void SQliteRecovery::setProgress(ProgressCallback progress) {
    d->progress = std::move(progress);
}
void SQliteRecovery::setLiveView(const SQliteLiveView* view) {
    d->view = view;
}
SQliteRecovery::Summary SQliteRecovery::summary() const {
    return d->summary;
}

QStringList SQliteRecovery::columnNames() const {
    return d->single ? columnNames(d->single->name) : QStringList();
}

QStringList SQliteRecovery::columnNames(const QString& table) const {
    QStringList names;
    for (const auto& t : d->targets)
        if (t->name == table) return t->schema.columnNames();
    for (const QList<SQliteSchema::Object>* objects : {&d->live, &d->dropped})
        for (const SQliteSchema::Object& o : *objects)
            if (o.type == QLatin1String("table") && o.name == table) return o.table.columnNames();
    return names;
}

QStringList SQliteRecovery::declaredTypes() const {
    QStringList types;
    if (d->single)
        for (const Column& c : d->single->schema.columns)
            types << c.declaredType;
    return types;
}

namespace {

template <size_t N> QString nameOf(const char* const (&names)[N], int i) {
    return i >= 0 && i < int(N) ? QString::fromLatin1(names[i]) : QString();
}

} // namespace

QString SQliteRecovery::regionName(Region region) {
    static const char* const names[] = {"gap", "freeblock", "free page", "cell"};
    return nameOf(names, region);
}

QString SQliteRecovery::verdictName(Verdict verdict) {
    static const char* const names[] = {"recovered", "partial", "held"};
    return nameOf(names, verdict);
}

QString SQliteRecovery::overflowName(Overflow overflow) {
    static const char* const names[] = {"", "reassembled", "broken"};
    return nameOf(names, overflow);
}

// ---------------------------------------------------------------------------------------------
// The tables

void SQliteRecovery::Private::addTarget(const QString& name, const SQliteSchema::Table& schema, qint64 root,
                                        bool isDropped) {
    auto t = std::make_unique<Target>();
    t->name = name;
    t->dropped = isDropped;
    t->schema = schema;
    t->root = root;
    t->table = !schema.withoutRowid;
    std::vector<int> declared;
    for (int i = 0; i < schema.columns.size(); ++i)
        if (schema.columns.at(i).storage >= 0) declared.push_back(i);
    std::stable_sort(declared.begin(), declared.end(), [&schema](int a, int b) {
        return schema.columns.at(a).storage < schema.columns.at(b).storage;
    });
    t->declared = declared;
    t->declaredCount = schema.columns.size();
    for (int i : declared) {
        if (i == schema.rowidAlias) t->alias = int(t->columns.size());
        t->columns.push_back(schema.columns.at(i));
        t->notNull.push_back(
            i != schema.rowidAlias &&
            (schema.columns.at(i).notNull || (schema.withoutRowid && schema.columns.at(i).primaryKey)));
        t->pattern += letterOf(schema, i);
    }
    if (t->columns.empty()) return;
    t->declaredPattern = t->pattern;
    t->setPattern(t->pattern);
    t->index = int(targets.size());
    targets.push_back(std::move(t));
}

// An index as a table of its own, never reported: its columns, then the rowid (or the key of a
// table without rowid), as its records hold them.
void SQliteRecovery::Private::addIndexTarget(const SQliteSchema::Object& index) {
    const SQliteSchema::Object* owner = nullptr;
    for (const SQliteSchema::Object& o : live)
        if (o.type == QLatin1String("table") && o.name == index.tableName && o.table.ok) owner = &o;
    const QStringList names = SQliteSchema::indexColumns(index.sql);
    if (!owner || names.isEmpty()) return;
    SQliteSchema::Table shape;
    shape.name = index.name;
    shape.ok = true;
    shape.withoutRowid = true; // index b-tree cells: a payload, no rowid of their own
    QList<int> used;
    auto add = [&](int column) {
        SQliteSchema::Column c;
        if (column >= 0) c = owner->table.columns.at(column);
        c.primaryKey = false;
        c.notNull = false;
        c.generated = SQliteSchema::NotGenerated;
        c.storage = shape.columns.size();
        if (column >= 0) used << column;
        shape.columns.append(c);
    };
    for (const QString& name : names)
        add(name.isEmpty() ? -1 : owner->table.columnIndex(name));
    if (owner->table.withoutRowid) {
        for (int key : owner->table.primaryKey)
            if (!used.contains(key)) add(key);
    } else {
        SQliteSchema::Column rowid;
        rowid.name = QStringLiteral("rowid");
        rowid.declaredType = QStringLiteral("INTEGER");
        rowid.affinity = SQliteSchema::IntegerAffinity;
        rowid.notNull = true;
        rowid.storage = shape.columns.size();
        shape.columns.append(rowid);
    }
    addTarget(index.name, shape, index.rootPage, false);
}

// Every table a record may belong to: the live ones, then the dropped ones.
void SQliteRecovery::Private::buildTargets() {
    targets.clear();
    single = nullptr;
    droppedKnown = false;
    live = SQliteSchema::read(db);
    for (const SQliteSchema::Object& o : live)
        if (o.type == QLatin1String("table") && o.name != QLatin1String("sqlite_master") && o.table.ok &&
            !o.table.isVirtual && o.rootPage > 0)
            addTarget(o.name, o.table, o.rootPage, false);
    for (const auto& t : targets)
        t->wanted = all || t->name == tableName;
    // The indexes too: a freed index page holds their records, which are no table's rows.
    for (const SQliteSchema::Object& o : live)
        if (o.type == QLatin1String("index") && o.rootPage > 0 && !o.sql.isEmpty()) addIndexTarget(o);
    loadPages();
    findDropped();
    for (const SQliteSchema::Object& o : dropped)
        if (o.type == QLatin1String("table") && o.table.ok && !o.table.isVirtual) {
            addTarget(o.name, o.table, o.rootPage, true);
            if (!targets.empty() && targets.back()->name == o.name)
                targets.back()->wanted = all || o.name == tableName;
        }
    findOldTrees();
}

bool SQliteRecovery::setTable(const QString& name, const QString& givenPattern) {
    d->error.clear();
    d->chosen = false;
    // The tables, their pages and live rows are worked out once for a table name.
    if (d->all || d->tableName != name || d->targets.empty()) {
        d->all = false;
        d->tableName = name;
        d->buildTargets();
    }
    d->single = nullptr;
    bool found = false;
    for (const auto& t : d->targets) {
        found = found || t->wanted;
        if (t->wanted && !t->dropped && !d->single) d->single = t.get();
    }
    if (!found) {
        d->single = nullptr;
        for (const SQliteSchema::Object& o : d->live)
            if (o.type == QLatin1String("table") && o.name == name) {
                d->error =
                    o.table.isVirtual
                        ? QString("'%1' is a virtual table: its rows are kept in other tables").arg(name)
                    : !o.table.ok ? QString("cannot read the statement that created table '%1'").arg(name)
                                  : QString("table '%1' declares no columns").arg(name);
                return false;
            }
        d->error = QString("no table named '%1'").arg(name);
        return false;
    }
    if (!d->single) // only a dropped table of that name
        for (const auto& t : d->targets)
            if (t->wanted && !d->single) d->single = t.get();
    Target& t = *d->single;
    if (!givenPattern.isEmpty()) {
        if (givenPattern.size() != t.size()) {
            d->error = QString("the pattern has %1 letters, table '%2' has %3 columns")
                           .arg(givenPattern.size())
                           .arg(name)
                           .arg(t.size());
            d->single = nullptr;
            return false;
        }
        for (QChar c : givenPattern)
            if (!QString("0123456789bdfinsta").contains(c)) {
                d->error = QString("bad pattern letter '%1'").arg(c);
                d->single = nullptr;
                return false;
            }
    }
    // The tables are kept from one call to the next: a pattern given before is not kept.
    const QString& letters = givenPattern.isEmpty() ? t.declaredPattern : givenPattern;
    if (t.pattern != letters) t.setPattern(letters);
    d->chosen = true;
    return true;
}

bool SQliteRecovery::setAllTables() {
    d->error.clear();
    d->tableName.clear();
    d->all = true;
    d->buildTargets();
    d->single = nullptr;
    d->chosen = true;
    return true;
}

QByteArray SQliteRecovery::Private::readPage(int pageNo) {
    const std::lock_guard<std::mutex> lock(reads);
    SQliteSource& src = sqliteSource(db);
    qint64 got = 0;
    const uchar* p = src.bytes(sqliteio::pagePosition(pageSize, pageNo), pageSize, &got);
    QByteArray bytes(reinterpret_cast<const char*>(p), int(got));
    bytes.append(QByteArray(SQliteSource::kPadding, '\0')); // a scan may look a little past the end
    bytes.chop(SQliteSource::kPadding);
    return bytes;
}

// Which pages the live b-trees and their overflow chains use, which are free-list trunks, and
// the live rows of the tables whose records are passed on, all in one walk of each tree.
void SQliteRecovery::Private::loadPages() {
    const Geometry g = sqliteGeometry(db);
    pageSize = g.pageSize;
    usable = g.usable;
    SQliteBtree tree(db);
    lastPage = tree.lastPage();
    owned.assign(size_t(lastPage + 1), 0);
    trunks.assign(size_t(lastPage + 1), 0);
    oldTree.assign(size_t(lastPage + 1), 0);
    if (lastPage >= 1) owned[1] = 1;
    // An auto-vacuum database keeps pointer-map pages: page 2, then one after every usable / 5
    // pages they map. They belong to no b-tree and hold no records.
    if (db.header.largestRootPage != 0 && usable >= 5)
        for (qint64 p = 2; p <= lastPage; p += usable / 5 + 1)
            owned[size_t(p)] = 1;
    const qint32 encoding = g.encoding;
    std::vector<uchar> payload;
    std::vector<qint64> overflow;
    std::vector<quint64> hashes;
    RecordHeader header;
    auto mark = [this](qint64 page) {
        if (page >= 1 && page <= lastPage) owned[size_t(page)] = 1;
    };
    for (const SQliteSchema::Object& o : live) {
        if (o.rootPage < 1) continue;
        Target* t = nullptr;
        for (const auto& candidate : targets)
            if (!candidate->dropped && candidate->wanted && candidate->root == o.rootPage)
                t = candidate.get();
        if (t) {
            t->liveRows.reset(t->size(), t->alias);
            t->seen.assign(size_t(t->size()), 0);
            t->fixedType.assign(size_t(t->size()), -2);
        }
        const int n = t ? t->size() : 0;
        tree.walk(
            o.rootPage,
            [&](const SQliteBtree::Entry& e) {
                overflow.clear();
                const bool wanted = t && isTablePage(e.type) == t->table;
                if (wanted)
                    tree.readPayload(e.image, e.cell, payload, &overflow);
                else if (e.cell.overflow)
                    tree.overflowPages(e.cell, overflow);
                for (qint64 page : overflow)
                    mark(page);
                if (!wanted) return true;
                // The live row by its values as stored, with and without its rowid.
                readRecordHeader(payload.data(), qint64(payload.size()), header);
                hashes.assign(size_t(n), 0);
                qint64 at = header.size;
                for (int i = 0; i < n; ++i) {
                    SQliteValue v;
                    const qint64 type = size_t(i) < header.types.size() ? header.types[size_t(i)] : 0;
                    const qint64 left = qint64(payload.size()) - at;
                    if (i != t->alias && left >= 0 &&
                        SQliteCodec::stored(type, payload.data() + at, left, encoding, &v))
                        t->realify(i, v);
                    else
                        v = SQliteValue();
                    hashes[size_t(i)] = valueHash(v);
                    at += valueLength(type);
                    if (size_t(i) < header.types.size() && i != t->alias)
                        t->tally(i, header.types[size_t(i)]);
                }
                t->liveRows.add(t->table ? e.cell.rowid : 0, hashes);
                return true;
            },
            [&](qint64 page, int) { mark(page); });
        if (t) {
            t->liveRows.freeze();
            t->live = true;
        }
    }
    // The trunks of the free list, as far as its chain can be followed.
    sqliteio::walkFreeList(
        sqliteSource(db), g, quint32(db.header.firstFreeListTrunk),
        [this](qint64 p) { return p >= 1 && p <= lastPage && !owned[size_t(p)]; },
        [this](qint64 p, qint64, const std::vector<quint32>&) { trunks[size_t(p)] = 1; });
    pagesKnown = true;
}

// The old b-trees of dropped tables, over the free pages they left.
void SQliteRecovery::Private::findOldTrees() {
    SQliteBtree tree(db);
    std::vector<uchar> image;
    for (const auto& t : targets) {
        if (!t->dropped) continue;
        std::vector<qint64> todo{t->root};
        SeenSet seen;
        while (!todo.empty()) {
            const qint64 page = todo.back();
            todo.pop_back();
            if (!isFree(page) || oldTree[size_t(page)] || !seen.insert(page)) continue;
            // A leaf freed first became the free list's trunk: past the trunk's header and page
            // numbers it still holds the table's cells.
            if (trunks[size_t(page)]) {
                oldTree[size_t(page)] = t->index + 1;
                continue;
            }
            if (!tree.readPage(page, image)) continue;
            const int type = image[0];
            if (!isBtreePage(type) || isTablePage(type) != t->table) continue;
            oldTree[size_t(page)] = t->index + 1;
            if (!isInterior(type)) continue;
            forEachChild(image.data(), usable, 0, [&](qint64 child) { todo.push_back(child); });
        }
    }
}

void SQliteRecovery::Private::prepareScan() {
    headerSizeOk.assign(128, 0);
    firstTypeOk.assign(128, 0);
    longHeaders = false;
    shapes.clear();
    for (const auto& t : targets) {
        if (t->size() == 0) continue;
        bool known = false;
        for (const Target* s : shapes)
            known = known || (s->pattern == t->pattern && s->notNull == t->notNull && s->table == t->table);
        if (!known) shapes.push_back(t.get());
    }
    for (const auto& t : targets) {
        const int n = t->size();
        longHeaders = longHeaders || 1 + 9 * n >= 128;
        for (int h = n + 1; h < 128 && h <= 1 + 9 * n; ++h)
            headerSizeOk[size_t(h)] = 1;
        for (int type = 0; type < 128; ++type)
            if (t->accepts(0, type)) firstTypeOk[size_t(type)] = 1;
    }
}

// ---------------------------------------------------------------------------------------------
// Candidates

// A record whose header starts at pos: its size, then serial types that fill it exactly, each
// accepted by its column of t.
bool SQliteRecovery::Private::headerAt(const uchar* data, qint64 pos, qint64 areaStart, qint64 areaEnd,
                                       const Target& t, Candidate& c) const {
    qint64 headerSize = 0;
    int len = 0;
    const qint64 n = t.size();
    // Most places fail on sight: a one-byte header size too small for the columns, or a first
    // serial type the first column refuses.
    const uchar first = data[pos];
    if (first < 0x80 &&
        (first < n + 1 || pos + 1 >= areaEnd || t.compiled->firstRefuses(data + pos + 1, areaEnd - pos - 1)))
        return false;
    if (!varint(data, pos, areaEnd, &headerSize, &len)) return false;
    if (headerSize < len + n || headerSize > len + 9 * n) return false;
    c.types.clear();
    qint64 at = pos + len;
    for (int i = 0; i < n; ++i) {
        qint64 type = 0;
        int l = 0;
        if (!varint(data, at, areaEnd, &type, &l) || !t.accepts(i, type)) return false;
        c.types.push_back(type);
        at += l;
    }
    if (at - pos != headerSize) return false;
    c.start = pos;
    c.headerSize = headerSize;
    c.valuesAt = pos + headerSize;
    c.length = headerSize;
    c.strong = false;
    for (qint64 type : c.types)
        c.length += valueLength(type);
    // The cell's payload length and rowid (a table's) or payload length alone (an index's), when
    // they survive right in front of the header.
    c.cellStart = -1;
    for (int rowidLen = t.table ? 1 : 0; rowidLen <= (t.table ? 9 : 0) && c.cellStart < 0; ++rowidLen) {
        for (int payloadLen = 1; payloadLen <= 3; ++payloadLen) {
            const qint64 s = pos - rowidLen - payloadLen;
            qint64 payload = 0, rowid = 0;
            int l1 = 0, l2 = 0;
            if (s < areaStart || !varint(data, s, pos, &payload, &l1) || l1 != payloadLen ||
                payload != c.length)
                continue;
            if (t.table && (!varint(data, s + l1, pos, &rowid, &l2) || l2 != rowidLen)) continue;
            c.cellStart = s;
            c.rowid = rowid;
            c.strong = true;
            break;
        }
    }
    return true;
}

// A record whose cell started at f, where a freeblock header has since overwritten its first four
// bytes: its payload length, its rowid (in a table) and, when they are short, its header size
// and first serial types. Every way the lost varints and serial types can have been that fits
// what survives, the columns of t and the freeblock (the cell ends exactly at end when exact,
// else before it, where another cell can start) is read; the readings that pass every check of
// what t's columns can hold are kept.
void SQliteRecovery::Private::rebuild(const uchar* data, qint64 f, qint64 end, bool exact, const Target& t,
                                      std::vector<Found>& out) {
    const int n = t.size();
    if (f + kFreeblockHeaderSize >= end || overBudget()) return;
    // How the serial types that start in the lost bytes may lie: their varints' lengths, and how
    // many bytes of the last one survive after the four lost ones. A two-byte serial type is
    // tried only when the cell's length is known, which leaves one length for it.
    struct Shape {
        int count, lens[2], tail;
    };
    static const Shape none[] = {{0, {0, 0}, 0}};
    static const Shape oneByte[] = {{1, {1, 0}, 0}, {1, {2, 0}, 1}};
    static const Shape twoBytes[] = {{2, {1, 1}, 0}, {1, {2, 0}, 0}};
    const int rowidMax = t.table ? 2 : 0;
    std::vector<qint64> choices[2];
    for (int p = 1; p <= 3; ++p) {
        for (int r = t.table ? 1 : 0; r <= rowidMax; ++r) {
            if (p + r > 3) continue; // the header size survives: an ordinary header, read elsewhere
            for (int h = 1; h <= 2; ++h) {
                const qint64 typesAt = p + r + h; // from f
                const int lostBytes = int(std::max<qint64>(0, kFreeblockHeaderSize - typesAt));
                if (lostBytes > 2) continue;
                const Shape* shapes = lostBytes == 0 ? none : lostBytes == 1 ? oneByte : twoBytes;
                const int shapeCount = lostBytes == 0 ? 1 : 2;
                for (int s = 0; s < shapeCount; ++s) {
                    const Shape& shape = shapes[s];
                    const int lost = shape.count;
                    const bool wide = shape.lens[0] == 2;
                    if (lost > n || (wide && !exact)) continue;
                    const uchar low = data[f + kFreeblockHeaderSize];
                    if (shape.tail && low >= 0x80) continue; // the surviving end of a varint
                    Candidate c;
                    c.types.assign(size_t(lost), 0);
                    qint64 at = f + std::max<qint64>(typesAt, kFreeblockHeaderSize) + shape.tail;
                    bool ok = true;
                    for (int i = lost; i < n && ok; ++i) {
                        qint64 type = 0;
                        int l = 0;
                        ok = varint(data, at, end, &type, &l) && t.keeps(i, type);
                        c.types.push_back(type);
                        at += l;
                    }
                    if (!ok) continue;
                    const qint64 headerSize = at - f - p - r;
                    if (varintLength(quint64(headerSize)) != h) continue;
                    // A two-byte header size whose second byte survives must agree with it.
                    if (h == 2 && typesAt == 5 && data[f + 4] != uchar(headerSize & 0x7F)) continue;
                    qint64 known = 0;
                    for (int i = lost; i < n; ++i)
                        known += valueLength(c.types[size_t(i)]);
                    // The serial types each lost one may have been.
                    for (int i = 0; i < lost; ++i) {
                        choices[i].clear();
                        if (shape.lens[i] == 1) {
                            choices[i] = t.lostChoices[size_t(i)];
                        } else if (shape.tail) {
                            for (qint64 hi = 1; hi < 128; ++hi)
                                if (t.keeps(i, (hi << 7) | low)) choices[i].push_back((hi << 7) | low);
                        } else {
                            // Its length is what the cell's length leaves, if it stays on the page.
                            const qint64 length = end - f - p - r - headerSize - known;
                            for (qint64 type : {12 + 2 * length, 13 + 2 * length})
                                if (type >= 128 && type < 16384 && t.keeps(i, type))
                                    choices[i].push_back(type);
                        }
                    }
                    // The sums of the lost values' lengths that make a cell of the right length:
                    // worked out once, so that only the pairs of serial types with such a sum
                    // are read.
                    qint64 most = 0;
                    for (int i = 0; i < lost; ++i) {
                        qint64 longest = -1;
                        for (qint64 type : choices[i])
                            longest = std::max(longest, valueLength(type));
                        if (longest < 0) most = -1;
                        if (most >= 0) most += longest;
                    }
                    Reading& scratch = reading();
                    std::vector<qint64>& sums = scratch.sums;
                    sums.clear();
                    for (qint64 sum = 0; sum <= most; ++sum) {
                        const qint64 payload = headerSize + known + sum;
                        ++scratch.work;
                        if (varintLength(quint64(payload)) != p) continue;
                        const qint64 local = localPayload(payload, usable, t.table);
                        const qint64 cellLength = p + r + local + (local < payload ? kOverflowHeaderSize : 0);
                        if (exact ? f + cellLength == end
                                  : f + cellLength <= end && cellBoundary(data, f + cellLength, end))
                            sums.push_back(sum);
                    }
                    if (sums.empty()) continue;
                    // The second lost serial type's choices by the length of their values.
                    std::vector<std::pair<qint64, qint64>>& second = scratch.second;
                    second.clear();
                    if (lost > 1)
                        for (qint64 type : choices[1])
                            second.emplace_back(valueLength(type), type);
                    std::sort(second.begin(), second.end());
                    const size_t first = lost > 0 ? choices[0].size() : 1;
                    for (size_t k = 0; k < first; ++k) {
                        if (lost > 0) c.types[0] = choices[0][k];
                        const qint64 firstLength = lost > 0 ? valueLength(c.types[0]) : 0;
                        for (qint64 sum : sums) {
                            if (lost < 2) {
                                if (sum != firstLength) continue;
                                if (++scratch.work > workBudget()) return;
                                readLost(data, f, end, exact, t, c, p, r, h, lost, headerSize,
                                         headerSize + known + sum, out);
                                continue;
                            }
                            const std::pair<qint64, qint64> from(sum - firstLength, -1);
                            for (auto it = std::lower_bound(second.begin(), second.end(), from);
                                 it != second.end() && it->first == sum - firstLength; ++it) {
                                c.types[1] = it->second;
                                if (++scratch.work > workBudget()) return;
                                readLost(data, f, end, exact, t, c, p, r, h, lost, headerSize,
                                         headerSize + known + sum, out);
                            }
                        }
                    }
                }
            }
        }
    }
}

// One reading of a rebuilt start (its lost serial types in c.types, its header headerSize
// bytes long, its payload payload bytes): kept in out when t could have held it.
void SQliteRecovery::Private::readLost(const uchar* data, qint64 f, qint64 end, bool exact, const Target& t,
                                       Candidate& c, int p, int r, int h, int lost, qint64 headerSize,
                                       qint64 payload, std::vector<Found>& out) {
    reading().work += 64;
    const qint64 local = localPayload(payload, usable, t.table);
    const qint64 cellLength = p + r + local + (local < payload ? kOverflowHeaderSize : 0);
    c.start = f + kFreeblockHeaderSize;
    c.cellStart = -1;
    c.strong = exact;
    c.headerSize = headerSize;
    c.valuesAt = f + p + r + headerSize;
    c.length = payload;
    Found found;
    found.target = &t;
    found.types = c.types;
    found.strength = exact ? 3 : 1;
    finish(data, exact ? end : f + cellLength, c, t, found.record);
    if (!found.record.reasons.isEmpty()) return; // does not fit the layout
    place(c, t, 0, Freeblock, c.start, found.record);
    // Only readings that t could have held count.
    const QStringList& why = found.record.reasons;
    if (why.contains(kEncoding) || why.contains(kAffinity) || why.contains(kEmpty) || why.contains(kLayout))
        return;
    // Text whose length was guessed and that holds NULs has swallowed the bytes of other cells.
    for (int i = 0; i < lost && i < found.record.values.size(); ++i)
        if (found.record.values.at(i).type() == QVariant::String &&
            found.record.values.at(i).toString().contains(QChar(0)))
            return;
    found.record.rebuilt =
        QString("the first %1 bytes of its cell (payload length%2%3%4) rebuilt from the %5")
            .arg(kFreeblockHeaderSize)
            .arg(t.table ? ", rowid" : "")
            .arg(h + p + r <= kFreeblockHeaderSize ? ", header size" : "")
            .arg(lost ? QString(", %1 serial type%2").arg(lost).arg(lost > 1 ? "s" : "") : QString())
            .arg(exact ? "freeblock's size" : "cell that follows");
    out.push_back(std::move(found));
}

// Whether a cell could end at e in a block that ends at blockEnd: the block ends there, or a
// freed cell (its first four bytes a freeblock header) or a whole cell starts there.
bool SQliteRecovery::Private::cellBoundary(const uchar* data, qint64 e, qint64 blockEnd) const {
    if (e == blockEnd) return true;
    if (e > blockEnd || e + 4 > usable) return false;
    if (formerFreeblockEnd(data, e + 4) >= 0) return true;
    // Whether a cell of some table starts at e, its record before blockEnd: worked out once
    // per offset of a block.
    Reading& scratch = reading();
    if (scratch.boundaryStamps.size() != size_t(usable)) {
        scratch.boundaryStamps.assign(size_t(usable), 0);
        scratch.boundary.assign(size_t(usable), false);
        scratch.boundaryStamp = 0;
    }
    if (scratch.boundaryPage != data || scratch.boundaryEnd != blockEnd || scratch.boundaryStamp == 0) {
        scratch.boundaryPage = data;
        scratch.boundaryEnd = blockEnd;
        if (++scratch.boundaryStamp == 0) { // wrapped: every entry is stale again
            std::fill(scratch.boundaryStamps.begin(), scratch.boundaryStamps.end(), 0);
            scratch.boundaryStamp = 1;
        }
    }
    if (scratch.boundaryStamps[size_t(e)] == scratch.boundaryStamp) return scratch.boundary[size_t(e)];
    bool found = false;
    static thread_local Candidate next;
    for (qint64 k = 2; k <= 12 && e + k < blockEnd && !found; ++k)
        for (const Target* t : shapes) {
            scratch.work += 2;
            if (headerAt(data, e + k, e, blockEnd, *t, next) && next.cellStart == e) {
                found = true;
                break;
            }
        }
    scratch.boundaryStamps[size_t(e)] = scratch.boundaryStamp;
    scratch.boundary[size_t(e)] = found;
    return found;
}

// The end of the freeblock whose 4-byte header would be right before pos (its offset to the
// next freeblock, 0 or further on, and its size, which counts the header), or -1 when the bytes
// there cannot be one.
qint64 SQliteRecovery::Private::formerFreeblockEnd(const uchar* data, qint64 pos) const {
    if (pos < 4) return -1;
    const qint64 next = be16(data + pos - 4);
    const qint64 size = be16(data + pos - 2);
    if (next != 0 && (next < pos || next > usable - 4)) return -1;
    if (size < 4 || pos - 4 + size > usable) return -1;
    return pos - 4 + size;
}

// Reads the candidate's values (following its overflow chain when it has one) into a record.
void SQliteRecovery::Private::finish(const uchar* data, qint64 areaEnd, const Candidate& c, const Target& t,
                                     Record& r) {
    r = Record();
    r.rowidKnown = t.table && c.cellStart >= 0;
    r.rowid = r.rowidKnown ? c.rowid : 0;
    // The payload starts with the record's header, which for a record whose header was
    // overwritten lay headerSize bytes before its values all the same.
    const qint64 payloadStart = c.valuesAt - c.headerSize;
    const qint64 local = localPayload(c.length, usable, t.table);
    qint64 localEnd = payloadStart + local;
    QByteArray values;
    bool layoutOk = true;
    if (local < c.length) {
        // An overflowing record: the page number follows its local part. Each overflow page must
        // still be able to be one: free, and no free-list trunk.
        if (localEnd + 4 > areaEnd) {
            layoutOk = false;
            localEnd = std::min(localEnd, areaEnd);
        } else {
            values = QByteArray(reinterpret_cast<const char*>(data + c.valuesAt), int(localEnd - c.valuesAt));
            qint64 next = qint64(get32(data + localEnd));
            qint64 left = c.length - local;
            SeenSet seen;
            r.overflow = Reassembled;
            while (left > 0) {
                if (!overflowPage(next) || !seen.insert(next)) {
                    r.overflow = Broken;
                    break;
                }
                const QByteArray bytes = readPage(int(next));
                if (bytes.size() < usable) {
                    r.overflow = Broken;
                    break;
                }
                const uchar* p = reinterpret_cast<const uchar*>(bytes.constData());
                const qint64 take = std::min<qint64>(left, usable - kOverflowHeaderSize);
                values.append(reinterpret_cast<const char*>(p + kOverflowHeaderSize), int(take));
                left -= take;
                next = qint64(get32(p));
            }
            localEnd += 4;
        }
    } else if (localEnd > areaEnd) {
        layoutOk = false;
    }
    if (values.isNull()) {
        const qint64 end = std::min(localEnd, areaEnd);
        values = QByteArray(reinterpret_cast<const char*>(data + c.valuesAt),
                            int(std::max<qint64>(0, end - c.valuesAt)));
    }

    // The values, in record order; one cut off reads as NULL.
    const qint32 encoding = db.header.textEncoding;
    const uchar* p = reinterpret_cast<const uchar*>(values.constData());
    qint64 at = 0;
    bool cut = false;
    Reading& read = reading();
    bool& textOk = read.textOk;
    std::vector<quint64>& hashes = read.hashes;
    std::vector<bool>& intact = read.intact;
    textOk = true;
    hashes.assign(c.types.size(), valueHash(SQliteValue()));
    intact.assign(c.types.size(), false);
    for (size_t i = 0; i < c.types.size(); ++i) {
        const qint64 type = c.types[i];
        const qint64 len = valueLength(type);
        if (type == 10 || type == 11) layoutOk = false;
        SQliteValue v;
        if (at + len > values.size() || type == 10 || type == 11) {
            cut = cut || at + len > values.size();
            // Of text or a blob that a broken overflow chain cut off, what there is.
            qint64 have = std::max<qint64>(0, values.size() - at);
            if (r.overflow == Broken && type >= 12 && have > 0) {
                if (type % 2 && encoding != Utf16le && encoding != Utf16be)
                    while (have > 0 && !validUtf8(p + at, have)) // not in the middle of a character
                        --have;
                SQliteCodec::stored(type % 2 ? 13 + 2 * have : 12 + 2 * have, p + at, have, encoding, &v);
                hashes[i] = valueHash(v);
                r.values.append(v.toVariant());
            } else {
                r.values.append(QVariant());
            }
            at += len;
            continue;
        }
        if (type >= 13 && type % 2 == 1)
            textOk = textOk && (encoding == Utf16le || encoding == Utf16be || validUtf8(p + at, len));
        SQliteCodec::stored(type, p + at, len, encoding, &v);
        t.realify(int(i), v);
        hashes[i] = valueHash(v);
        intact[i] = true;
        r.values.append(v.toVariant());
        at += len;
    }
    r.length = int(localEnd - (r.rowidKnown || c.cellStart >= 0 ? c.cellStart : c.start));
    if (!layoutOk || (cut && r.overflow != Broken)) r.reasons << kLayout;
    if (r.overflow == Broken) r.verdict = Partial;
}

void SQliteRecovery::Private::place(const Candidate& c, const Target& t, int pageNo, Region region,
                                    qint64 offset, Record& r) {
    r.page = pageNo;
    r.region = region;
    r.offset = int(offset);
    r.fileOffset = sqliteio::pagePosition(pageSize, pageNo) + offset;
    r.table = t.name;
    r.dropped = t.dropped;
    if (t.alias >= 0 && t.alias < r.values.size())
        r.values[t.alias] = r.rowidKnown ? QVariant(r.rowid) : QVariant();
    check(c, t, r);
}

void SQliteRecovery::Private::check(const Candidate& c, const Target& t, Record& r) {
    const qint32 encoding = db.header.textEncoding;
    const Reading& read = reading();
    const std::vector<quint64>& hashes = read.hashes;
    const std::vector<bool>& intact = read.intact;
    bool empty = true, encodingOk = read.textOk, affinityOk = true, layoutOk = true;
    // A record found by its header alone, or rebuilt to end where another cell starts, must say
    // enough to be told from noise: two values that take bytes, or text or a blob of four bytes,
    // NULs not counted, and no text of private-use characters (what stray bytes read as UTF-16
    // are full of).
    int said = 0;
    for (int i = 0; i < r.values.size(); ++i) {
        const QVariant& v = r.values.at(i);
        const qint64 type = c.types[size_t(i)];
        if (i == t.alias) {
            affinityOk = affinityOk && type == 0;
            continue;
        }
        const SQliteSchema::Affinity a = t.columns[size_t(i)].affinity;
        switch (int(v.type())) {
        case QMetaType::QString: {
            const QString s = v.toString();
            if (!s.isEmpty()) empty = false;
            const int shown = s.size() - s.count(QChar(0));
            said += shown >= 4 ? 2 : shown > 0 ? 1 : 0;
            if (!c.strong)
                for (const QChar ch : s)
                    encodingOk = encodingOk && !(ch.unicode() >= 0xE000 && ch.unicode() < 0xF900);
            if (encoding == Utf16le || encoding == Utf16be) encodingOk = encodingOk && validUtf16(s);
            encodingOk = encodingOk && !mostlyControl(s);
            if ((a == SQliteSchema::IntegerAffinity || a == SQliteSchema::RealAffinity ||
                 a == SQliteSchema::NumericAffinity) &&
                looksNumeric(s))
                affinityOk = false;
            break;
        }
        case QMetaType::QByteArray: {
            // A blob of zero bytes, or nearly, is nothing either.
            const QByteArray b = v.toByteArray();
            said += b.size() >= 4 ? 2 : b.isEmpty() ? 0 : 1;
            if (b.count('\0') * 4 < b.size() * 3) empty = false;
            break;
        }
        case QMetaType::LongLong:
            if (v.toLongLong() != 0) empty = false;
            // SQLite stores an integer at its smallest width, and 0 and 1 as constants.
            if (type >= 1 && type <= 6 &&
                type != smallestIntegerType(v.toLongLong(), db.header.schemaFormat >= 4))
                layoutOk = false;
            said += type == 8 || type == 9 ? 0 : 1; // the constants 0 and 1 take no bytes
            if (a == SQliteSchema::TextAffinity) affinityOk = false;
            break;
        case QMetaType::Double: {
            const double x = v.toDouble();
            if (x != 0) empty = false;
            ++said;
            if (a == SQliteSchema::TextAffinity) affinityOk = false;
            // An integral float in an integer column would have been stored as an integer.
            if ((a == SQliteSchema::IntegerAffinity || a == SQliteSchema::NumericAffinity) && type == 7 &&
                std::isfinite(x) && x == std::floor(x) && std::fabs(x) < 9.2e18)
                affinityOk = false;
            break;
        }
        default:
            break;
        }
    }
    if (!layoutOk && !r.reasons.contains(kLayout)) r.reasons << kLayout;
    if (!encodingOk) r.reasons << kEncoding;
    if (!affinityOk) r.reasons << kAffinity;
    // The rowid of a cell that survived whole says something of its own.
    if ((empty && !(t.table && r.rowidKnown && r.rowid != 0 && c.cellStart >= 0)) || (!c.strong && said < 2))
        r.reasons << kEmpty;

    // A live row, or an earlier version of one (its rowid and all its values but one, or all but
    // one of four values or more), or a stale copy of another table's live row; of a record that
    // broke off, the values it keeps whole.
    const qint64* rowid = r.rowidKnown ? &r.rowid : nullptr;
    if (!r.reasons.isEmpty()) { // held back already
        r.verdict = Held;
        return;
    }
    int whole = 0;
    for (int i = 0; i < int(intact.size()); ++i)
        whole += i != t.alias && intact[size_t(i)];
    if (whole >= std::min(2, t.informative())) {
        LiveRows::Match m = t.live ? t.liveRows.match(hashes, intact, rowid) : LiveRows::None;
        for (const auto& other : targets)
            if (m != LiveRows::Same && other.get() != &t && other->live && other->size() == t.size() &&
                other->table == t.table && other->liveRows.match(hashes, intact, rowid) == LiveRows::Same)
                m = LiveRows::Same;
        if (m == LiveRows::Same)
            r.reasons << kLive;
        else if (m == LiveRows::Near && (rowid ? t.informative() >= 2 : t.nearMatches()))
            r.reasons << kSuperseded;
    }
    if (!r.reasons.isEmpty()) r.verdict = Held;
}

// How well a record fits a table: a point for each value of the class its column's affinity
// keeps (text in TEXT, an integer in INTEGER, a number in REAL or NUMERIC, a blob or anything in
// a column without a type).
int SQliteRecovery::Private::fitScore(const Record& r, const Target& t) const {
    int score = 0;
    for (int i = 0; i < r.values.size(); ++i) {
        const int type = int(r.values.at(i).type());
        if (type == QMetaType::UnknownType) continue;
        switch (t.columns[size_t(i)].affinity) {
        case SQliteSchema::TextAffinity:
            score += type == QMetaType::QString ? 2 : 0;
            break;
        case SQliteSchema::IntegerAffinity:
            score += type == QMetaType::LongLong ? 2 : 0;
            break;
        case SQliteSchema::RealAffinity:
        case SQliteSchema::NumericAffinity:
            score += type == QMetaType::LongLong || type == QMetaType::Double ? 2 : 0;
            break;
        default:
            score += type == QMetaType::QByteArray ? 2 : 1;
            break;
        }
    }
    return score;
}

// ---------------------------------------------------------------------------------------------
// Searching

// The live cells of a b-tree page image whose header is at header, as (offset, end) pairs.
void SQliteRecovery::Private::liveCells(const uchar* data, qint64 header, int type,
                                        QVector<QPair<qint64, qint64>>* used) const {
    const qint64 first = header + btreeHeaderSize(type);
    forEachCellPointer(data, usable, header, [&](int, qint64 offset) {
        sqlitefmt::Cell cell;
        if (offset >= first && readCell(data, usable, type, offset, cell))
            used->append({offset, cell.payloadAt + cell.local + (cell.overflow ? kOverflowHeaderSize : 0)});
        return true;
    });
}

// The freeblocks of a b-tree page image whose header is at header, as (offset, size) pairs: the
// chain is followed while each freeblock lies whole in the page, after from and after the one
// before; a chain that loops or leaves the page ends there.
void SQliteRecovery::Private::freeblocks(const uchar* data, qint64 header, qint64 from,
                                         QVector<QPair<qint64, qint64>>* blocks) const {
    qint64 floor = from;
    walkFreeblocks(
        be16(data + header + page::FirstFreeblock),
        [&](qint64 offset, qint64* next, qint64* size) {
            if (offset < floor || offset + kFreeblockHeaderSize > usable) return false;
            *next = be16(data + offset);
            *size = be16(data + offset + 2);
            return *size >= kFreeblockHeaderSize && offset + *size <= usable;
        },
        [&](qint64 offset, qint64, qint64 size) {
            blocks->append({offset, size});
            floor = offset + size;
            return true;
        });
}

// Searches [start, end) of a page image for the records of every table (of owner alone when it
// is given and fits). heads are freeblocks, (offset, size), that begin in the area: each
// overwrote the first four bytes of a cell, which is rebuilt. A freeblock header left inside a
// larger free area is recognised by its bytes.
void SQliteRecovery::Private::searchArea(const uchar* data, int pageNo, Region region, qint64 start,
                                         qint64 end, const QVector<QPair<qint64, qint64>>& heads,
                                         const Target* owner, std::vector<Found>& found, bool leaf) {
    Candidate c;
    std::vector<Found> readings;
    reading().boundaryPage = nullptr; // what was worked out for another page image is stale
    int nextHead = 0;                 // heads come in order of offset
    for (qint64 pos = start; pos < end; ++pos) {
        // A record whose header starts here, for each table it fits; most places start none.
        const uchar b0 = data[pos], b1 = pos + 1 < end ? data[pos + 1] : 0;
        const bool maybe = b0 >= 0x80 ? longHeaders : headerSizeOk[b0] && (b1 >= 0x80 || firstTypeOk[b1]);
        for (const auto& tp : targets) {
            if (!maybe) break;
            const Target& t = *tp;
            if (!headerAt(data, pos, start, end, t, c)) continue;
            // A header of one serial type says next to nothing: its cell must show around it.
            if (t.size() < 2 && c.cellStart < 0) continue;
            Found f;
            f.target = &t;
            finish(data, end, c, t, f.record);
            place(c, t, pageNo, region, c.cellStart >= 0 ? c.cellStart : c.start, f.record);
            f.strength = c.cellStart >= 0 ? 3 : 2;
            found.push_back(std::move(f));
        }
        // A cell whose first four bytes a freeblock header overwrote: a freeblock still in the
        // chain starts at pos, or the bytes before pos + 4 read as one that was.
        while (nextHead < heads.size() && heads[nextHead].first < pos)
            ++nextHead;
        const int head = nextHead < heads.size() && heads[nextHead].first == pos ? nextHead : -1;
        const qint64 former = head < 0 && leaf && pos + 4 < end ? formerFreeblockEnd(data, pos + 4) : -1;
        if (head < 0 && former < 0) continue;
        const qint64 blockEnd = std::min(end, head >= 0 ? pos + heads[head].second : former);
        for (const auto& tp : targets) {
            if (owner && tp.get() != owner) continue;
            readings.clear();
            rebuild(data, pos, blockEnd, true, *tp, readings);
            if (readings.empty()) rebuild(data, pos, std::min(end, blockEnd), false, *tp, readings);
            if (readings.empty()) continue;
            // One reading, or several that all give the same values: rebuilt. Of several that
            // differ, the one reading whose every value is of a class its column's live values
            // have is taken, or else the one whose values also have the length that all of
            // their column's live values have. Otherwise it is held back as ambiguous.
            auto sameValues = [](const Record& x, const Record& y) {
                bool same = x.values.size() == y.values.size();
                for (int i = 0; i < x.values.size() && same; ++i)
                    same = x.values.at(i).type() == y.values.at(i).type() && x.values.at(i) == y.values.at(i);
                return same;
            };
            bool same = true;
            for (const Found& f : readings)
                same = same && sameValues(f.record, readings.front().record);
            if (!same) {
                std::vector<Found> usual;
                for (const Found& f : readings)
                    if (tp->usual(f.types) && (usual.empty() || !sameValues(f.record, usual.front().record)))
                        usual.push_back(f);
                if (usual.size() > 1) {
                    std::vector<Found> typical;
                    for (const Found& f : usual)
                        if (tp->typical(f.types)) typical.push_back(f);
                    if (typical.size() == 1) usual = typical;
                }
                if (usual.size() == 1) {
                    readings = usual;
                    same = true;
                }
            }
            Found f = readings.front();
            if (head < 0) f.strength = std::min(f.strength, 2); // the freeblock's bytes alone said so
            f.record.page = pageNo;
            f.record.region = region;
            f.record.fileOffset = sqliteio::pagePosition(pageSize, pageNo) + f.record.offset;
            if (!same) {
                f.record.reasons << kAmbiguous;
                f.record.verdict = Held;
            }
            found.push_back(f);
        }
    }
}

// The cells of a page image that is no page of a live table (an older version of a leaf, or a
// leaf of a dropped table's old b-tree): whole, with their payload length and rowid.
void SQliteRecovery::Private::searchCells(const uchar* data, int pageNo, Region region, const Target* owner,
                                          std::vector<Found>& found) {
    startPage();
    const qint64 header = btreeHeaderOffset(pageNo);
    const int type = data[header];
    Candidate c;
    forEachCellPointer(data, usable, header, [&](int, qint64 offset) {
        sqlitefmt::Cell cell;
        if (offset < header + kLeafHeaderSize || !readCell(data, usable, type, offset, cell)) return true;
        for (const auto& tp : targets) {
            const Target& t = *tp;
            if ((owner && &t != owner) || t.table != isTablePage(type)) continue;
            if (!headerAt(data, cell.payloadAt, offset, usable, t, c) || c.cellStart != offset) continue;
            Found f;
            f.target = &t;
            f.strength = 4;
            finish(data, usable, c, t, f.record);
            place(c, t, pageNo, region, offset, f.record);
            found.push_back(f);
        }
        return true;
    });
}

// Searches a page image: the free space of a leaf (everything its live cells do not cover) of
// owner's b-tree when leafOfOwner, or else the whole page as a free page: its cells when it was a
// leaf, and its free space.
void SQliteRecovery::Private::searchPage(const uchar* data, int pageNo, bool leafOfOwner, const Target* owner,
                                         std::vector<Found>& found) {
    const qint64 header = btreeHeaderOffset(pageNo);
    const int type = data[header];
    if (leafOfOwner || (type == TableLeaf || type == IndexLeaf)) {
        if (!leafOfOwner && !trunks[size_t(pageNo)]) searchCells(data, pageNo, FreePage, owner, found);
        const Region gapRegion = leafOfOwner ? Gap : FreePage;
        const Region blockRegion = leafOfOwner ? Freeblock : FreePage;
        QVector<QPair<qint64, qint64>> used;
        liveCells(data, header, type, &used);
        const qint64 pointersEnd = header + kLeafHeaderSize + 2 * be16(data + header + page::CellCount);
        QVector<QPair<qint64, qint64>> blocks;
        freeblocks(data, header, pointersEnd, &blocks);
        // The free areas: between the pointers' end and the first cell, and between cells; the
        // unallocated gap ends where the page header says the cell content area starts.
        qint64 contentStart = be16(data + header + page::ContentStart);
        if (contentStart == 0) contentStart = kLargestPage;
        if (contentStart > pointersEnd && contentStart < usable) used.append({contentStart, contentStart});
        std::sort(used.begin(), used.end());
        qint64 at = std::min(pointersEnd, usable);
        used.append({usable, usable});
        for (const auto& cell : used) {
            if (cell.first > at) {
                QVector<QPair<qint64, qint64>> heads;
                for (const auto& b : blocks)
                    if (b.first >= at && b.first < cell.first) heads.append(b);
                searchArea(data, pageNo, at < contentStart ? gapRegion : blockRegion, at, cell.first, heads,
                           leafOfOwner ? owner : nullptr, found);
            }
            at = std::max(at, cell.second);
        }
        return;
    }
    // A free page of another kind: a trunk keeps its list of leaves first.
    qint64 start = 0;
    if (trunks[size_t(pageNo)])
        start = std::min<qint64>(
            usable, trunk::Leaves + 4 * std::min<qint64>(get32(data + trunk::LeafCount), usable / 4));
    else if (isBtreePage(type))
        return; // an interior page left by a dropped tree: its cells hold no rows
    // A trunk was most likely a leaf before: its freed cells still start with freeblock headers.
    searchArea(data, pageNo, FreePage, start, usable, {}, nullptr, found, trunks[size_t(pageNo)] != 0);
}

// Keeps, where candidates overlap, the one with the most of its cell surviving, gives each to
// the table it fits best, and reports them by offset.
bool SQliteRecovery::Private::report(std::vector<Found>& found, const Callback& callback,
                                     const Target* owner) {
    if (found.empty()) return true;
    std::vector<size_t> order(found.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    // The page's own table first, among records of the same strength: a leaf's freed cells are
    // its table's, and an old b-tree's leaves its dropped table's.
    std::stable_sort(order.begin(), order.end(), [this, &found, owner](size_t a, size_t b) {
        const Found &x = found[a], &y = found[b];
        if ((x.record.verdict == Held) != (y.record.verdict == Held)) return y.record.verdict == Held;
        if (x.strength != y.strength) return x.strength > y.strength;
        if ((x.target == owner) != (y.target == owner)) return x.target == owner;
        return fitScore(x.record, *x.target) > fitScore(y.record, *y.target);
    });
    struct Kept {
        size_t index;
        qint64 from, to;
    };
    std::vector<Kept> kept;
    for (size_t i : order) {
        const Record& r = found[i].record;
        const qint64 from = r.offset, to = qint64(r.offset) + std::max(1, r.length);
        bool overlaps = false;
        for (Kept& k : kept) {
            if (!(from < k.to && k.from < to)) continue;
            overlaps = true;
            // The same bytes read as a record of another table, as well: a candidate.
            Found& best = found[k.index];
            if (from == k.from && to == k.to && found[i].target != best.target && best.target != owner &&
                (r.verdict == Held) == (best.record.verdict == Held) && found[i].strength == best.strength &&
                fitScore(r, *found[i].target) == fitScore(best.record, *best.target) &&
                !best.record.ambiguous.contains(found[i].target->name) &&
                found[i].target->name != best.target->name)
                best.record.ambiguous << found[i].target->name;
        }
        if (!overlaps) kept.push_back({i, from, to});
    }
    std::sort(kept.begin(), kept.end(), [](const Kept& a, const Kept& b) { return a.from < b.from; });
    for (const Kept& k : kept) {
        Found& f = found[k.index];
        if (!f.target->wanted) continue;
        if (!report(f.record, *f.target, callback)) return false;
    }
    return true;
}

bool SQliteRecovery::Private::report(Record& r, const Target& t, const Callback& callback) {
    r.version = version;
    toDeclaredOrder(r, t);
    QList<QVariant> stored = r.values;
    if (t.alias >= 0) stored[t.alias] = QVariant();
    const quint64 key = mix(valuesKey(stored, t.alias, nullptr), quint64(t.index));
    if (!version.isEmpty()) {
        // Older versions of pages repeat what the database shows and what other versions hold:
        // a live row, or a record already reported, is passed over and only counted.
        if (r.reasons.contains(kLive)) return ++summary.unchanged, true;
        if (reported.contains(key) || heldFromVersions.contains(key)) return ++summary.repeated, true;
        if (r.verdict == Held) heldFromVersions.insert(key);
    }
    const QString claim = QString::number(r.page) + '@' + r.version;
    bool overlaps = false;
    for (const auto& range : claimed.value(claim))
        overlaps = overlaps || (r.offset < range.second && range.first < r.offset + r.length);
    if (r.verdict != Held && (overlaps || reported.contains(key))) {
        r.reasons << kDuplicate;
        r.verdict = Held;
    }
    if (r.verdict == Held) {
        ++summary.held;
        for (const QString& reason : r.reasons)
            ++summary.reasons[reason];
        return includeHeld ? callback(r) : true;
    }
    ++(r.verdict == Partial ? summary.partial : summary.recovered);
    reported.insert(key);
    claimed[claim].append({r.offset, r.offset + r.length});
    return callback(r);
}

// ---------------------------------------------------------------------------------------------
// Dropped tables

// The rows of the schema table that lie in free space (the free space of its own pages and the
// pages no table owns) and name tables or indexes that the schema no longer holds as they were.
void SQliteRecovery::Private::findDropped() {
    if (droppedKnown) return;
    droppedKnown = true;
    dropped.clear();
    std::vector<std::unique_ptr<Target>> saved;
    saved.swap(targets);
    addTarget(QStringLiteral("sqlite_master"), SQliteSchema::parseCreateTable(SQliteSchema::masterTableSql()),
              1, false);
    Target& master = *targets.front();
    master.pattern = QStringLiteral("tttdt");
    master.compiled.reset(new SQliteCodec::Pattern(master.pattern, true));
    master.chooseLost();
    master.wanted = true;
    prepareScan();
    QSet<QString> seen;
    const Callback keep = [&](const Record& r) {
        if (r.values.size() != 5) return true;
        SQliteSchema::Object o;
        o.type = r.values.at(0).toString();
        o.name = r.values.at(1).toString();
        o.tableName = r.values.at(2).toString();
        o.rootPage = r.values.at(3).toLongLong();
        o.sql = r.values.at(4).toString();
        if ((o.type != QLatin1String("table") && o.type != QLatin1String("index")) || o.sql.isEmpty())
            return true;
        const QString key = o.type + '\x01' + o.name + '\x01' + o.sql;
        if (seen.contains(key)) return true;
        seen.insert(key);
        if (o.type == QLatin1String("table")) {
            o.table = SQliteSchema::parseCreateTable(o.sql);
            if (!o.table.ok || o.table.name != o.name) return true;
        }
        // The same object as a live one, or an earlier statement of a live table kept on its
        // root page (before ALTER TABLE, or under an earlier name): not dropped.
        for (const SQliteSchema::Object& l : live) {
            if (l.type != o.type) continue;
            if (l.name == o.name && l.sql == o.sql) return true;
            if (l.rootPage == o.rootPage && o.type == QLatin1String("table")) {
                const QStringList was = o.table.columnNames(), is = l.table.columnNames();
                if (was.size() <= is.size() && is.mid(0, was.size()) == was) return true;
            }
            if (l.rootPage == o.rootPage && o.type == QLatin1String("index") && l.tableName == o.tableName)
                return true;
        }
        dropped.append(o);
        return true;
    };
    reported.clear();
    claimed.clear();
    std::vector<Found> found;
    std::vector<int> pages;
    for (int p : SQliteBtree(db).leafPages(1))
        pages.push_back(p);
    for (qint64 p = 2; p <= lastPage; ++p)
        if (!owned[size_t(p)]) pages.push_back(int(p));
    // A schema row holds its statement: a page without the word CREATE (in the database's
    // encoding) holds none.
    QByteArray create;
    for (const char ch : QByteArray("CREATE ")) {
        if (db.header.textEncoding == Utf16be) create += '\0';
        create += ch;
        if (db.header.textEncoding == Utf16le) create += '\0';
    }
    for (int page : pages) {
        const QByteArray bytes = readPage(page);
        if (bytes.size() < usable || !bytes.contains(create)) continue;
        found.clear();
        const uchar* data = reinterpret_cast<const uchar*>(bytes.constData());
        searchPage(data, page, owned[size_t(page)] != 0, owned[size_t(page)] ? &master : nullptr, found);
        report(found, keep);
    }
    targets.swap(saved);
}

QList<SQliteSchema::Object> SQliteRecovery::droppedObjects() {
    if (!d->droppedKnown) {
        d->live = SQliteSchema::read(d->db);
        if (!d->pagesKnown) d->loadPages();
        d->findDropped();
    }
    QList<SQliteSchema::Object> objects = d->dropped;
    return objects;
}

QList<int> SQliteRecovery::droppedPages(const QString& table) const {
    QList<int> pages;
    for (const auto& t : d->targets)
        if (t->dropped && t->name == table)
            for (size_t p = 0; p < d->oldTree.size(); ++p)
                if (d->oldTree[p] == t->index + 1) pages << int(p);
    return pages;
}

// ---------------------------------------------------------------------------------------------

bool SQliteRecovery::forEach(const Callback& callback) {
    d->summary = Summary();
    d->reported.clear();
    d->heldFromVersions.clear();
    d->claimed.clear();
    if (!d->chosen || d->targets.empty()) return true;
    const Geometry g = sqliteGeometry(d->db);
    if (g.usable < kSmallestUsable) return true; // no valid database has pages this small
    d->prepareScan();

    // The leaves of the tables whose records are passed on, then the pages no table owns.
    struct Job {
        int page;
        const Target* owner;
        bool leaf;
    };
    QList<Job> todo;
    SQliteBtree tree(d->db);
    for (const auto& t : d->targets)
        if (t->wanted && !t->dropped)
            for (qint64 p : tree.leafPages(t->root))
                todo.append({int(p), t.get(), true});
    if (d->freePages)
        for (qint64 p = 2; p <= d->lastPage; ++p)
            if (!d->owned[size_t(p)]) {
                const int old = d->oldTree[size_t(p)];
                todo.append({int(p), old ? d->targets[size_t(old - 1)].get() : nullptr, false});
            }
    const QList<SQliteLiveView::Version> versions =
        d->view ? d->view->hiddenVersions() : QList<SQliteLiveView::Version>();
    const int total = todo.size() + versions.size();
    d->version.clear();
    std::vector<Private::Found> found;
    // Pages are read here, a batch at a time, and searched on two threads when there are two
    // cores; what is found is reported here, page by page, in order.
    const bool two = std::thread::hardware_concurrency() > 1;
    constexpr int kBatch = 256;
    std::vector<QByteArray> images(kBatch);
    std::vector<std::vector<Private::Found>> results(kBatch);
    for (int i = 0; i < todo.size(); i += kBatch) {
        if (stopRequested(d->db)) return false;
        const int n = std::min<int>(kBatch, todo.size() - i);
        for (int k = 0; k < n; ++k) {
            images[size_t(k)] = d->readPage(todo.at(i + k).page);
            results[size_t(k)].clear();
        }
        auto search = [&](int from, int to) {
            for (int k = from; k < to; ++k) {
                const Job& job = todo.at(i + k);
                if (images[size_t(k)].size() >= d->usable)
                    d->searchPage(reinterpret_cast<const uchar*>(images[size_t(k)].constData()), job.page,
                                  job.leaf, job.owner, results[size_t(k)]);
            }
        };
        if (two && n > 1) {
            std::thread helper(search, n / 2, n);
            search(0, n / 2);
            helper.join();
        } else {
            search(0, n);
        }
        for (int k = 0; k < n; ++k) {
            if (!d->report(results[size_t(k)], callback, todo.at(i + k).owner)) return false;
            if (d->progress) d->progress(i + k + 1, total);
        }
    }
    // The versions of pages the database no longer shows: their cells, their free space.
    for (int i = 0; i < versions.size(); ++i) {
        if (stopRequested(d->db)) return false;
        const SQliteLiveView::Version& v = versions.at(i);
        d->version = v.describe();
        const QByteArray bytes = d->view->pageData(v);
        found.clear();
        Private::startPage();
        if (bytes.size() >= d->usable) {
            const uchar* data = reinterpret_cast<const uchar*>(bytes.constData());
            const int type = data[btreeHeaderOffset(v.page)];
            if (type == TableLeaf || type == IndexLeaf) {
                d->searchCells(data, v.page, Cell, nullptr, found);
                d->searchPage(data, v.page, true, nullptr, found);
            } else if (!isBtreePage(type)) {
                d->searchArea(data, v.page, FreePage, 0, d->usable, {}, nullptr, found, false);
            }
        }
        if (!d->report(found, callback)) return false;
        if (d->progress) d->progress(todo.size() + i + 1, total);
    }
    d->version.clear();
    return true;
}

QList<SQliteRecovery::Record> SQliteRecovery::recover() {
    QList<Record> records;
    forEach([&records](const Record& r) {
        records.append(r);
        return true;
    });
    return records;
}
