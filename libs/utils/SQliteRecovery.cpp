#include "SQliteRecovery.h"

#include "ByteCursor.h"
#include "SQliteCodec.h"
#include "SQliteDbUtil.h"
#include "SQliteFormat.h"
#include "SQliteLiveView.h"
#include "SQliteScanner.h"
#include "SQliteSchema.h"
#include "SQliteSource.h"
#include "SQliteTableReader.h"
#include "SQliteValue.h"

#include <QHash>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

using namespace sqliteio;

const QString SQliteRecovery::kLive = QStringLiteral("live");
const QString SQliteRecovery::kDuplicate = QStringLiteral("duplicate");
const QString SQliteRecovery::kEncoding = QStringLiteral("encoding");
const QString SQliteRecovery::kLayout = QStringLiteral("layout");
const QString SQliteRecovery::kAffinity = QStringLiteral("affinity");
const QString SQliteRecovery::kEmpty = QStringLiteral("empty");
const QString SQliteRecovery::kSuperseded = QStringLiteral("superseded");

namespace {

using Affinity = SQliteSchema::Affinity;
constexpr Affinity IntegerAffinity = SQliteSchema::IntegerAffinity, TextAffinity = SQliteSchema::TextAffinity,
                   RealAffinity = SQliteSchema::RealAffinity, NumericAffinity = SQliteSchema::NumericAffinity;
using Column = SQliteSchema::Column;

// A varint read from memory, bounded: false when it runs past end.
bool varint(const uchar* data, qint64 pos, qint64 end, qint64* value, int* len) {
    if (pos >= end) return false;
    const sqlitefmt::Varint v = sqlitefmt::readVarint(data + pos, end - pos);
    *value = qint64(v.value);
    *len = v.length;
    return v.complete;
}

// One value as SQLite stores it; p holds at least valueLength(type) bytes.
QVariant storedValue(const uchar* p, qint64 type, qint32 encoding) {
    SQliteValue v;
    SQliteCodec::stored(type, p, sqlitefmt::valueLength(type), encoding, &v);
    return v.toVariant();
}

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

quint64 mix(quint64 h, quint64 v) {
    h ^= v + 0x9E3779B97F4A7C15ULL + (h << 6) + (h >> 2);
    return h * 0xFF51AFD7ED558CCDULL;
}

// A key for a record's stored values (and, when given, its rowid).
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

// A set of keys filled once, then asked: a sorted array, 8 bytes a key.
class KeySet {
public:
    void clear() { m_keys.clear(); }
    void insert(quint64 key) { m_keys.push_back(key); }
    void freeze() {
        std::sort(m_keys.begin(), m_keys.end());
        m_keys.erase(std::unique(m_keys.begin(), m_keys.end()), m_keys.end());
        m_keys.shrink_to_fit();
    }
    bool contains(quint64 key) const { return std::binary_search(m_keys.begin(), m_keys.end(), key); }

private:
    std::vector<quint64> m_keys;
};

qint64 be32(const uchar* p) {
    return qint64(sqlitefmt::get32(p));
}
qint64 be16(const uchar* p) {
    return qint64(sqlitefmt::get16(p));
}

} // namespace

struct SQliteRecovery::Private {
    explicit Private(SQliteDbUtil& reader) : db(reader) {}

    SQliteDbUtil& db;
    QString error, table, pattern;
    SQliteSchema::Table schema;
    qint64 rootPage = 0;
    std::vector<Column> columns; // those a record holds, in its order
    int alias = -1;
    bool freePages = true;
    bool includeHeld = false;
    ProgressCallback progress;
    std::unique_ptr<SQliteCodec::Pattern> compiled;
    Summary summary;

    // Page geometry.
    qint64 pageSize = 0, usable = 0;
    // What is known of the file.
    KeySet liveWithRowid, liveValues, liveAllButOne, liveRowids;
    QSet<quint64> reported;
    QSet<int> freeSet, trunks;
    QMap<int, QString> usedPages; // by the table or index that uses them
    bool usedKnown = false;
    QHash<QString, QVector<QPair<qint64, qint64>>>
        claimed; // per page version: byte ranges of records reported

    bool textOk = true; // the text of the record just read is valid in the database's encoding

    // A record being read: where its serial types and values lie in the page.
    struct Candidate {
        qint64 start = 0;      // where the surviving record starts (its header, or its serial types)
        qint64 cellStart = -1; // where its cell starts when the payload length and rowid survive
        qint64 rowid = 0;
        qint64 valuesAt = 0;   // where its values start
        qint64 headerSize = 0; // as the record states it, or as worked out when it is lost
        qint64 lostTypes = 0;  // serial types overwritten before start (all of them NULL)
        std::vector<qint64> types;
        qint64 length = 0;   // header and values: the payload
        qint64 localEnd = 0; // end of the part in this page
        qint64 overflowPage = 0;
        bool layoutOk = true;
    };

    // An earlier version of a row is told by its rowid, or, when the rowid is lost, by all but
    // one of its values; the latter only for tables of four values or more.
    bool nearMatches() const { return columns.size() - (alias >= 0 ? 1 : 0) >= 4; }
    quint64 allButOneKey(const QList<QVariant>& values, int left) const {
        QList<QVariant> rest = values;
        rest[left] = QVariant(QStringLiteral("\x01left out"));
        return valuesKey(rest, alias, nullptr);
    }
    // A REAL column keeps integral values as integers in the file and reads them as floats.
    QVariant columnValue(int column, const QVariant& stored) const {
        if (columns[size_t(column)].affinity == RealAffinity && stored.type() == QVariant::LongLong)
            return QVariant(double(stored.toLongLong()));
        return stored;
    }
    static QString claimKey(const Record& r) { return QString::number(r.page) + '@' + r.version; }
    bool readSchema();
    bool loadLive();
    void loadFreeList();
    bool isFree(int pageNo);
    QByteArray readPage(int pageNo);

    bool typesAt(const uchar* data, qint64 pos, qint64 end, int first, Candidate& c, qint64* consumed) const;
    bool headerAt(const uchar* data, qint64 pos, qint64 areaStart, qint64 areaEnd, Candidate& c) const;
    bool lostHeaderAt(const uchar* data, qint64 pos, qint64 areaEnd, int lost, Candidate& c) const;
    void finish(const uchar* data, qint64 areaEnd, const Candidate& c, Record& r);
    void check(const Candidate& c, Record& r);
    // Where r was found (offset in its page), with its rowid alias filled in; then its checks.
    void place(const Candidate& c, int pageNo, Region region, qint64 offset, Record& r);
    bool report(Record& r, const Callback& callback);
    bool searchArea(const uchar* data, int pageNo, Region region, qint64 start, qint64 end,
                    const QSet<qint64>& heads, const Callback& callback);
    bool searchLeaf(const QByteArray& bytes, int pageNo, const Callback& callback);
    bool searchFreePage(const QByteArray& bytes, int pageNo, bool trunk, const Callback& callback);
    bool searchCells(const QByteArray& bytes, int pageNo, const Callback& callback);
    QString version; // of the page being searched: empty for the database as it is
    const SQliteLiveView* view = nullptr;
    QSet<quint64> heldFromVersions;
    void freeblockHeads(const uchar* data, qint64 headerAt, qint64 from,
                        QVector<QPair<qint64, qint64>>* blocks) const;
    qint64 formerFreeblockEnd(const uchar* data, qint64 pos) const;
    bool cellBoundary(const uchar* data, qint64 e, qint64 blockEnd) const;
};

SQliteRecovery::SQliteRecovery(SQliteDbUtil& db) : d(new Private(db)) {}
SQliteRecovery::~SQliteRecovery() = default;

QString SQliteRecovery::error() const {
    return d->error;
}
QString SQliteRecovery::table() const {
    return d->table;
}
QString SQliteRecovery::pattern() const {
    return d->pattern;
}
int SQliteRecovery::rowidAlias() const {
    return d->alias;
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
SQliteRecovery::Summary SQliteRecovery::summary() const {
    return d->summary;
}

QStringList SQliteRecovery::columnNames() const {
    QStringList names;
    for (const Column& c : d->columns)
        names << c.name;
    return names;
}

QStringList SQliteRecovery::declaredTypes() const {
    QStringList types;
    for (const Column& c : d->columns)
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
// The table

bool SQliteRecovery::Private::readSchema() {
    columns.clear();
    alias = -1;
    SQliteSchema::Table parsed;
    bool found = false;
    for (const SQliteSchema::Object& o : SQliteSchema::read(db))
        if (o.type == QLatin1String("table") && o.name == table) {
            parsed = o.table;
            rootPage = o.rootPage;
            found = true;
        }
    if (!found) {
        error = QString("no table named '%1'").arg(table);
        return false;
    }
    if (!parsed.ok || parsed.isVirtual) {
        error = QString("cannot read the statement that created table '%1'").arg(table);
        return false;
    }
    if (parsed.withoutRowid) {
        error = QString("table '%1' has no rowid: its rows are kept in an index b-tree").arg(table);
        return false;
    }
    schema = parsed;
    // A record holds the columns that are stored, in their order.
    for (int i = 0; i < parsed.columns.size(); ++i)
        if (parsed.columns.at(i).storage >= 0) {
            if (i == parsed.rowidAlias) alias = int(columns.size());
            columns.push_back(parsed.columns.at(i));
        }
    std::stable_sort(columns.begin(), columns.end(),
                     [](const Column& a, const Column& b) { return a.storage < b.storage; });
    if (columns.empty()) {
        error = QString("table '%1' declares no columns").arg(table);
        return false;
    }
    return true;
}

bool SQliteRecovery::setTable(const QString& name, const QString& givenPattern) {
    d->error.clear();
    d->table = name;
    if (name == QLatin1String("sqlite_master")) {
        d->error = QString("no table named '%1'").arg(name);
        return false;
    }
    if (!d->readSchema()) return false;
    QString derived;
    for (size_t i = 0; i < d->columns.size(); ++i) {
        if (int(i) == d->alias) {
            derived += 'n';
            continue;
        }
        switch (d->columns[i].affinity) {
        case IntegerAffinity:
        case RealAffinity:
            derived += 'd';
            break;
        case TextAffinity:
            derived += 't';
            break;
        default:
            derived += 'a';
            break;
        }
    }
    if (!givenPattern.isEmpty()) {
        if (givenPattern.size() != derived.size()) {
            d->error = QString("the pattern has %1 letters, table '%2' has %3 columns")
                           .arg(givenPattern.size())
                           .arg(name)
                           .arg(derived.size());
            return false;
        }
        for (QChar c : givenPattern)
            if (!QString("0123456789bdfinsta").contains(c)) {
                d->error = QString("bad pattern letter '%1'").arg(c);
                return false;
            }
    }
    d->pattern = givenPattern.isEmpty() ? derived : givenPattern;
    d->compiled.reset(new SQliteCodec::Pattern(d->pattern, true));
    return true;
}

// The live rows, by their values with and without their rowid, as the engine reads them.
bool SQliteRecovery::Private::loadLive() {
    liveWithRowid.clear();
    liveValues.clear();
    liveAllButOne.clear();
    liveRowids.clear();
    const int n = int(columns.size());
    // Declared position of each stored column.
    std::vector<int> declared;
    for (const Column& c : columns)
        declared.push_back(schema.columnIndex(c.name));
    SQliteTableReader reader(db);
    reader.setTable(schema, rootPage);
    const bool complete = reader.forEachRow([&](const SQliteTableReader::Row& row) {
        QList<QVariant> values;
        values.reserve(n);
        for (int i = 0; i < n; ++i)
            values.append(i == alias ? QVariant() : row.value(declared[size_t(i)]).toVariant());
        const qint64 rowid = row.rowid();
        liveRowids.insert(quint64(rowid));
        liveWithRowid.insert(valuesKey(values, alias, &rowid));
        liveValues.insert(valuesKey(values, alias, nullptr));
        if (nearMatches())
            for (int i = 0; i < n; ++i)
                if (i != alias) liveAllButOne.insert(allButOneKey(values, i));
        return true;
    });
    for (KeySet* set : {&liveWithRowid, &liveValues, &liveAllButOne, &liveRowids})
        set->freeze();
    return complete;
}

void SQliteRecovery::Private::loadFreeList() {
    freeSet.clear();
    trunks.clear();
    for (int p : db.freeListPages)
        freeSet.insert(p);
    // The trunks: the pages of the chain that the reader listed.
    sqliteio::walkFreeList(
        sqliteSource(db), sqliteGeometry(db), quint32(db.header.firstFreeListTrunk),
        [this](qint64 t) { return freeSet.contains(int(t)); },
        [this](qint64 t, qint64, const std::vector<quint32>&) { trunks.insert(int(t)); });
}

QByteArray SQliteRecovery::Private::readPage(int pageNo) {
    SQliteSource& src = sqliteSource(db);
    qint64 got = 0;
    const uchar* p = src.bytes(pagePosition(pageSize, pageNo), pageSize, &got);
    return QByteArray(reinterpret_cast<const char*>(p), int(got));
}

bool SQliteRecovery::Private::isFree(int pageNo) {
    if (pageNo < 1 || pageNo > db.header.pageCount) return false;
    if (freeSet.contains(pageNo)) return true;
    // Every page that a b-tree or a live overflow chain uses, worked out when first needed.
    if (!usedKnown) usedPages = SQliteScanner(db).pageOwners();
    usedKnown = true;
    return !usedPages.contains(pageNo);
}

// ---------------------------------------------------------------------------------------------
// Candidates

// The serial types of columns first.. at pos, each accepted by its column; consumed counts
// their bytes.
bool SQliteRecovery::Private::typesAt(const uchar* data, qint64 pos, qint64 end, int first, Candidate& c,
                                      qint64* consumed) const {
    c.types.assign(size_t(first), 0);
    qint64 at = pos;
    for (int i = first; i < int(columns.size()); ++i) {
        qint64 type = 0;
        int len = 0;
        if (!varint(data, at, end, &type, &len) || type > INT32_MAX || !compiled->matches(i, int(type)))
            return false;
        c.types.push_back(type);
        at += len;
    }
    *consumed = at - pos;
    return true;
}

// A record whose header starts at pos: its size, then serial types that fill it exactly.
bool SQliteRecovery::Private::headerAt(const uchar* data, qint64 pos, qint64 areaStart, qint64 areaEnd,
                                       Candidate& c) const {
    qint64 headerSize = 0, consumed = 0;
    int len = 0;
    const qint64 n = qint64(columns.size());
    // Most places fail on sight: a one-byte header size too small for the columns, or a first
    // serial type the first column refuses.
    const uchar first = data[pos];
    if (first < 0x80 &&
        (first < n + 1 || pos + 1 >= areaEnd || compiled->firstRefuses(data + pos + 1, areaEnd - pos - 1)))
        return false;
    if (!varint(data, pos, areaEnd, &headerSize, &len)) return false;
    if (headerSize < len + n || headerSize > len + 9 * n) return false;
    if (!typesAt(data, pos + len, areaEnd, 0, c, &consumed) || len + consumed != headerSize) return false;
    c.start = pos;
    c.headerSize = headerSize;
    c.lostTypes = 0;
    c.valuesAt = pos + headerSize;
    c.length = headerSize;
    for (qint64 t : c.types)
        c.length += sqlitefmt::valueLength(t);
    // The cell's payload length and rowid, when they survive right in front of the header.
    c.cellStart = -1;
    for (int rowidLen = 1; rowidLen <= 9 && c.cellStart < 0; ++rowidLen) {
        for (int payloadLen = 1; payloadLen <= 3; ++payloadLen) {
            const qint64 s = pos - rowidLen - payloadLen;
            qint64 payload = 0, rowid = 0;
            int l1 = 0, l2 = 0;
            if (s < areaStart || !varint(data, s, pos, &payload, &l1) || l1 != payloadLen ||
                payload != c.length || !varint(data, s + l1, pos, &rowid, &l2) || l2 != rowidLen)
                continue;
            c.cellStart = s;
            c.rowid = rowid;
            break;
        }
    }
    return true;
}

// A record whose first bytes a freeblock header overwrote: its serial types from column lost
// on start at pos; the lost ones can only have been NULL.
bool SQliteRecovery::Private::lostHeaderAt(const uchar* data, qint64 pos, qint64 areaEnd, int lost,
                                           Candidate& c) const {
    for (int i = 0; i < lost; ++i)
        if (!(i == alias || pattern.at(i) == 'n')) return false;
    qint64 consumed = 0;
    if (!typesAt(data, pos, areaEnd, lost, c, &consumed)) return false;
    c.start = pos;
    c.cellStart = -1;
    c.lostTypes = lost;
    c.headerSize = 1 + lost + consumed;
    c.valuesAt = pos + consumed;
    c.length = c.headerSize;
    for (qint64 t : c.types)
        c.length += sqlitefmt::valueLength(t);
    return true;
}

// Reads the candidate's values (following its overflow chain when it has one) into a record.
void SQliteRecovery::Private::finish(const uchar* data, qint64 areaEnd, const Candidate& c, Record& r) {
    r = Record();
    r.rowidKnown = c.cellStart >= 0;
    r.rowid = r.rowidKnown ? c.rowid : 0;
    // The payload starts with the record's header, which for a record whose header was
    // overwritten lay headerSize bytes before its values all the same.
    const qint64 payloadStart = c.valuesAt - c.headerSize;
    const qint64 local = sqlitefmt::localPayload(c.length, usable);
    qint64 localEnd = payloadStart + local;
    QByteArray values;
    bool layoutOk = true;
    if (local < c.length) {
        // An overflowing record: the page number follows its local part.
        if (localEnd + 4 > areaEnd) {
            layoutOk = false;
            localEnd = std::min(localEnd, areaEnd);
        } else {
            values = QByteArray(reinterpret_cast<const char*>(data + c.valuesAt), int(localEnd - c.valuesAt));
            qint64 next = be32(data + localEnd);
            qint64 left = c.length - local;
            QSet<qint64> seen;
            r.overflow = Reassembled;
            while (left > 0) {
                if (next < 1 || seen.contains(next) || !isFree(int(next))) {
                    r.overflow = Broken;
                    break;
                }
                seen.insert(next);
                const QByteArray bytes = readPage(int(next));
                if (bytes.size() < 4) {
                    r.overflow = Broken;
                    break;
                }
                const uchar* p = reinterpret_cast<const uchar*>(bytes.constData());
                const qint64 take = std::min<qint64>(left, std::min<qint64>(usable, bytes.size()) - 4);
                values.append(reinterpret_cast<const char*>(p + 4), int(take));
                left -= take;
                next = be32(p);
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

    // The values, in declared order; one cut off reads as NULL.
    const qint32 encoding = db.header.textEncoding;
    const uchar* p = reinterpret_cast<const uchar*>(values.constData());
    qint64 at = 0;
    bool cut = false;
    textOk = true;
    for (size_t i = 0; i < c.types.size(); ++i) {
        const qint64 type = c.types[i];
        const qint64 len = sqlitefmt::valueLength(type);
        if (type == 10 || type == 11) layoutOk = false;
        if (at + len > values.size() || type == 10 || type == 11) {
            cut = cut || at + len > values.size();
            // Of text or a blob that a broken overflow chain cut off, what there is.
            qint64 have = std::max<qint64>(0, values.size() - at);
            if (r.overflow == Broken && type >= 12 && have > 0) {
                if (type % 2 && encoding != 2 && encoding != 3)
                    while (have > 0 && !validUtf8(p + at, have)) // not in the middle of a character
                        --have;
                r.values.append(
                    type % 2 ? QVariant(QString(storedValue(p + at, 13 + 2 * have, encoding).toString()))
                             : QVariant(QByteArray(reinterpret_cast<const char*>(p + at), int(have))));
            } else {
                r.values.append(QVariant());
            }
            at += len;
            continue;
        }
        if (type >= 13 && type % 2 == 1)
            textOk = textOk && (encoding == 2 || encoding == 3 || validUtf8(p + at, len));
        r.values.append(columnValue(int(i), storedValue(p + at, type, encoding)));
        at += len;
    }
    r.length = int(localEnd - (r.rowidKnown ? c.cellStart : c.start));
    if (!layoutOk || (cut && r.overflow != Broken)) r.reasons << kLayout;
    if (r.overflow == Broken) r.verdict = Partial;
}

void SQliteRecovery::Private::place(const Candidate& c, int pageNo, Region region, qint64 offset, Record& r) {
    r.page = pageNo;
    r.region = region;
    r.offset = int(offset);
    r.fileOffset = pagePosition(pageSize, pageNo) + offset;
    if (alias >= 0 && alias < r.values.size())
        r.values[alias] = r.rowidKnown ? QVariant(r.rowid) : QVariant();
    check(c, r);
}

void SQliteRecovery::Private::check(const Candidate& c, Record& r) {
    const qint32 encoding = db.header.textEncoding;
    bool empty = true, encodingOk = textOk, affinityOk = true;
    for (int i = 0; i < r.values.size(); ++i) {
        const QVariant& v = r.values.at(i);
        const qint64 type = c.types[size_t(i)];
        if (i == alias) {
            affinityOk = affinityOk && type == 0;
            continue;
        }
        switch (int(v.type())) {
        case QMetaType::QString: {
            const QString s = v.toString();
            if (!s.isEmpty()) empty = false;
            if (encoding == 2 || encoding == 3) encodingOk = encodingOk && validUtf16(s);
            encodingOk = encodingOk && !mostlyControl(s);
            const Affinity a = columns[size_t(i)].affinity;
            if ((a == IntegerAffinity || a == RealAffinity || a == NumericAffinity) && looksNumeric(s))
                affinityOk = false;
            break;
        }
        case QMetaType::QByteArray: {
            // A blob of zero bytes, or nearly, is nothing either.
            const QByteArray b = v.toByteArray();
            if (b.count('\0') * 4 < b.size() * 3) empty = false;
            break;
        }
        case QMetaType::LongLong:
            if (v.toLongLong() != 0) empty = false;
            if (columns[size_t(i)].affinity == TextAffinity) affinityOk = false;
            break;
        case QMetaType::Double: {
            const double x = v.toDouble();
            if (x != 0) empty = false;
            const Affinity a = columns[size_t(i)].affinity;
            if (a == TextAffinity) affinityOk = false;
            // An integral float in an integer column would have been stored as an integer.
            if ((a == IntegerAffinity || a == NumericAffinity) && std::isfinite(x) && x == std::floor(x) &&
                std::fabs(x) < 9.2e18)
                affinityOk = false;
            break;
        }
        default:
            break;
        }
    }
    if (!encodingOk) r.reasons << kEncoding;
    if (!affinityOk) r.reasons << kAffinity;
    if (empty) r.reasons << kEmpty;

    QList<QVariant> stored = r.values;
    if (alias >= 0) stored[alias] = QVariant();
    const quint64 valuesOnly = valuesKey(stored, alias, nullptr);
    if (r.rowidKnown ? liveWithRowid.contains(valuesKey(stored, alias, &r.rowid))
                     : liveValues.contains(valuesOnly)) {
        r.reasons << kLive;
    } else if (r.rowidKnown ? liveRowids.contains(quint64(r.rowid)) : nearMatches()) {
        bool earlier = r.rowidKnown;
        for (int i = 0; i < stored.size() && !earlier; ++i)
            earlier = i != alias && liveAllButOne.contains(allButOneKey(stored, i));
        if (earlier) r.reasons << kSuperseded;
    }
    if (!r.reasons.isEmpty()) r.verdict = Held;
}

bool SQliteRecovery::Private::report(Record& r, const Callback& callback) {
    r.version = version;
    QList<QVariant> stored = r.values;
    if (alias >= 0) stored[alias] = QVariant();
    const quint64 key = valuesKey(stored, alias, nullptr);
    if (!version.isEmpty()) {
        // Older versions of pages repeat what the database shows and what other versions hold:
        // a live row, or a record already reported, is passed over and only counted.
        if (r.reasons.contains(kLive)) return ++summary.unchanged, true;
        if (reported.contains(key) || heldFromVersions.contains(key)) return ++summary.repeated, true;
        if (r.verdict == Held) heldFromVersions.insert(key);
    }
    bool overlaps = false;
    for (const auto& range : claimed.value(claimKey(r)))
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
    claimed[claimKey(r)].append({r.offset, r.offset + r.length});
    return callback(r);
}

// Searches [start, end) of a page image. heads are the places where a freeblock's header
// overwrote a cell's first four bytes: a record may go on there without its header. Every
// candidate is read first; then, where candidates overlap, the one with the most of its cell
// surviving wins (payload length and rowid, then header, then serial types alone), and the
// records are reported by offset.
bool SQliteRecovery::Private::searchArea(const uchar* data, int pageNo, Region region, qint64 start,
                                         qint64 end, const QSet<qint64>& heads, const Callback& callback) {
    struct Found {
        Record record;
        int strength;
    };
    std::vector<Found> found;
    Candidate c;
    for (qint64 pos = start; pos < end; ++pos) {
        for (int attempt = 0; attempt < 3; ++attempt) {
            // A record whose first four bytes a freeblock header overwrote (one that is still a
            // freeblock, or one since merged into a larger one) ends where that freeblock did.
            qint64 blockEnd = end;
            if (attempt > 0) {
                blockEnd = heads.contains(pos) ? end : formerFreeblockEnd(data, pos);
                if (blockEnd < 0) break;
                blockEnd = std::min(blockEnd, end);
            }
            const bool ok = attempt == 0 ? headerAt(data, pos, start, end, c)
                                         : lostHeaderAt(data, pos, blockEnd, attempt - 1, c);
            if (!ok) continue;
            Record r;
            finish(data, blockEnd, c, r);
            // A freeblock header left inside a larger freeblock is believed only when the record
            // fills its freeblock exactly, as a cell freed alone does, or when another cell
            // follows right after it.
            if (attempt > 0 && !heads.contains(pos) && !cellBoundary(data, c.start + r.length, blockEnd))
                continue;
            place(c, pageNo, region, r.rowidKnown ? c.cellStart : c.start, r);
            found.push_back({r, attempt > 0 ? 1 : r.rowidKnown ? 3 : 2});
            if (r.verdict != Held) break;
        }
    }
    if (found.empty()) return true;

    std::vector<size_t> order(found.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&found](size_t a, size_t b) {
        const Found &x = found[a], &y = found[b];
        if ((x.record.verdict == Held) != (y.record.verdict == Held)) return y.record.verdict == Held;
        return x.strength > y.strength;
    });
    std::vector<QPair<qint64, qint64>> taken;
    std::vector<size_t> kept;
    for (size_t i : order) {
        const Record& r = found[i].record;
        const qint64 from = r.offset, to = qint64(r.offset) + std::max(1, r.length);
        bool overlaps = false;
        for (const auto& t : taken)
            overlaps = overlaps || (from < t.second && t.first < to);
        if (overlaps) continue;
        taken.push_back({from, to});
        kept.push_back(i);
    }
    std::sort(kept.begin(), kept.end(),
              [&found](size_t a, size_t b) { return found[a].record.offset < found[b].record.offset; });
    for (size_t i : kept)
        if (!report(found[i].record, callback)) return false;
    return true;
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

// Whether a cell could end at e in a block that ends at blockEnd: the block ends there, or a
// freed cell (its first four bytes a freeblock header) or a whole cell starts there.
bool SQliteRecovery::Private::cellBoundary(const uchar* data, qint64 e, qint64 blockEnd) const {
    if (e == blockEnd) return true;
    if (e > blockEnd || e + 4 > usable) return false;
    if (formerFreeblockEnd(data, e + 4) >= 0) return true;
    Candidate next;
    for (qint64 k = 2; k <= 12 && e + k < blockEnd; ++k)
        if (headerAt(data, e + k, e, blockEnd, next) && next.cellStart == e) return true;
    return false;
}

// The freeblocks of a leaf page image whose header is at headerAt, as (offset, size) pairs, as
// long as each lies inside the page after from.
void SQliteRecovery::Private::freeblockHeads(const uchar* data, qint64 headerAt, qint64 from,
                                             QVector<QPair<qint64, qint64>>* blocks) const {
    using namespace sqlitefmt;
    walkFreeblocks(
        be16(data + headerAt + page::FirstFreeblock),
        [&](qint64 offset, qint64* next, qint64* size) {
            if (offset < from || offset + kFreeblockHeaderSize > usable) return false;
            *next = be16(data + offset);
            *size = be16(data + offset + 2);
            return *size >= kFreeblockHeaderSize && offset + *size <= usable;
        },
        [&](qint64 offset, qint64, qint64 size) {
            blocks->append({offset, size});
            return true;
        });
}

bool SQliteRecovery::Private::searchLeaf(const QByteArray& bytes, int pageNo, const Callback& callback) {
    using namespace sqlitefmt;
    if (bytes.size() < usable) return true;
    const uchar* data = reinterpret_cast<const uchar*>(bytes.constData());
    const qint64 header = btreeHeaderOffset(pageNo);
    if (data[header] != TableLeaf) return true;
    const qint64 cells = be16(data + header + page::CellCount);
    const qint64 gapStart = header + kLeafHeaderSize + 2 * cells;
    qint64 contentStart = be16(data + header + page::ContentStart);
    if (contentStart == 0) contentStart = kLargestPage;
    contentStart = std::min(contentStart, usable);
    if (gapStart < contentStart && !searchArea(data, pageNo, Gap, gapStart, contentStart, {}, callback))
        return false;
    QVector<QPair<qint64, qint64>> blocks;
    freeblockHeads(data, header, gapStart, &blocks);
    for (const auto& block : blocks)
        if (!searchArea(data, pageNo, Freeblock, block.first + kFreeblockHeaderSize,
                        block.first + block.second, {block.first + kFreeblockHeaderSize}, callback))
            return false;
    return true;
}

bool SQliteRecovery::Private::searchFreePage(const QByteArray& bytes, int pageNo, bool trunk,
                                             const Callback& callback) {
    if (bytes.size() < usable) return true;
    const uchar* data = reinterpret_cast<const uchar*>(bytes.constData());
    using namespace sqlitefmt;
    qint64 start = 0;
    if (trunk)
        start = std::min<qint64>(usable, trunk::Leaves +
                                             4 * std::min<qint64>(be32(data + trunk::LeafCount), usable / 4));
    // A page that was a table leaf keeps its old header: its freeblocks' first bytes are lost.
    QSet<qint64> heads;
    if (start == 0 && data[0] == TableLeaf) {
        QVector<QPair<qint64, qint64>> blocks;
        freeblockHeads(data, 0, kLeafHeaderSize, &blocks);
        for (const auto& block : blocks)
            heads.insert(block.first + kFreeblockHeaderSize);
    }
    return searchArea(data, pageNo, FreePage, start, usable, heads, callback);
}

// The cells of an older version of a table leaf page: whole, with their payload length and
// rowid. Those whose rowid is no longer in the table were deleted since; those whose values
// differ from the live row's are earlier versions of it.
bool SQliteRecovery::Private::searchCells(const QByteArray& bytes, int pageNo, const Callback& callback) {
    const uchar* data = reinterpret_cast<const uchar*>(bytes.constData());
    const qint64 header = sqlitefmt::btreeHeaderOffset(pageNo);
    Candidate c;
    bool going = true;
    sqlitefmt::forEachCellPointer(data, usable, header, [&](int, qint64 offset) {
        if (offset < header + sqlitefmt::kLeafHeaderSize || offset >= usable) return true;
        qint64 payload = 0, rowid = 0;
        int l1 = 0, l2 = 0;
        if (!varint(data, offset, usable, &payload, &l1) || !varint(data, offset + l1, usable, &rowid, &l2))
            return true;
        if (!headerAt(data, offset + l1 + l2, offset, usable, c) || c.cellStart != offset) return true;
        Record r;
        finish(data, usable, c, r);
        place(c, pageNo, Cell, offset, r);
        going = report(r, callback);
        return going;
    });
    return going;
}

bool SQliteRecovery::forEach(const Callback& callback) {
    d->summary = Summary();
    d->reported.clear();
    d->heldFromVersions.clear();
    d->claimed.clear();
    d->usedKnown = false;
    if (d->columns.empty() || !d->compiled) return true;
    const sqlitefmt::Geometry g = sqliteGeometry(d->db);
    d->pageSize = g.pageSize;
    d->usable = g.usable;
    if (d->usable < 480) return true; // no valid database has pages this small
    d->loadLive();
    d->loadFreeList();
    QList<QPair<int, bool>> todo; // page, free
    for (int p : SQliteScanner(d->db).leafPages(d->rootPage))
        todo.append({p, false});
    if (d->freePages) {
        QSet<int> seen;
        for (int p : d->db.freeListPages)
            if (p >= 1 && p <= d->db.header.pageCount && !seen.contains(p)) {
                seen.insert(p);
                todo.append({p, true});
            }
    }
    const QList<SQliteLiveView::Version> versions =
        d->view ? d->view->hiddenVersions() : QList<SQliteLiveView::Version>();
    const int total = todo.size() + versions.size();
    d->version.clear();
    for (int i = 0; i < todo.size(); ++i) {
        if (stopRequested(d->db)) return false;
        const int page = todo.at(i).first;
        const QByteArray bytes = d->readPage(page);
        const bool ok = todo.at(i).second ? d->searchFreePage(bytes, page, d->trunks.contains(page), callback)
                                          : d->searchLeaf(bytes, page, callback);
        if (!ok) return false;
        if (d->progress) d->progress(i + 1, total);
    }
    // The versions of pages the database no longer shows: their cells, their free space.
    for (int i = 0; i < versions.size(); ++i) {
        if (stopRequested(d->db)) return false;
        const SQliteLiveView::Version& v = versions.at(i);
        d->version = v.describe();
        const QByteArray bytes = d->view->pageData(v);
        if (bytes.size() >= d->usable) {
            const uchar type = uchar(bytes.at(int(sqlitefmt::btreeHeaderOffset(v.page))));
            bool ok = true;
            if (type == sqlitefmt::TableLeaf)
                ok = d->searchCells(bytes, v.page, callback) && d->searchLeaf(bytes, v.page, callback);
            else if (!sqlitefmt::isBtreePage(type))
                ok = d->searchFreePage(bytes, v.page, false, callback);
            if (!ok) return false;
        }
        if (d->progress) d->progress(todo.size() + i + 1, total);
    }
    d->version.clear();
    return true;
}

void SQliteRecovery::setLiveView(const SQliteLiveView* view) {
    d->view = view;
}

QList<SQliteRecovery::Record> SQliteRecovery::recover() {
    QList<Record> records;
    forEach([&records](const Record& r) {
        records.append(r);
        return true;
    });
    return records;
}
