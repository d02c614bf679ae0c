#include "SQliteRecovery.h"

#include "SQliteBtree.h"
#include "SQliteCodec.h"
#include "SQliteDbUtil.h"
#include "SQliteFormat.h"
#include "SQliteLiveView.h"
#include "SQliteScanner.h"
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
    int alias = -1;              // the rowid alias among them
    bool table = true;           // a rowid table; false: a table without rowid
    QString pattern;
    std::unique_ptr<SQliteCodec::Pattern> compiled;
    bool live = false; // live rows are known
    KeySet liveWithRowid, liveValues, liveAllButOne, liveRowids;
    int index = 0;

    int size() const { return int(columns.size()); }
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
        if (columns[size_t(column)].affinity == SQliteSchema::RealAffinity &&
            stored.type() == QVariant::LongLong)
            return QVariant(double(stored.toLongLong()));
        return stored;
    }
    bool accepts(int column, qint64 type) const {
        return type <= INT32_MAX && compiled->matches(column, int(type)) &&
               !(type == 0 && notNull[size_t(column)]);
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
    QString error, tableName, givenPattern;
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
        qint64 length = 0; // header and values: the payload
        QString rebuilt;   // what was worked out of a lost start
    };
    struct Found {
        Record record;
        const Target* target = nullptr;
        // 4 a whole cell a cell pointer leads to; 3 its payload length and rowid, or a start
        // rebuilt to fill its freeblock exactly; 2 its header alone; 1 a start rebuilt to end where
        // another cell starts.
        int strength = 0;
    };

    bool textOk = true; // the text of the record just read is valid in the database's encoding

    // Tables
    void addTarget(const QString& name, const SQliteSchema::Table& schema, qint64 root, bool isDropped);
    bool buildTargets();
    void loadPages();
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
    bool cellBoundary(const uchar* data, qint64 e, qint64 blockEnd) const;
    qint64 formerFreeblockEnd(const uchar* data, qint64 pos) const;
    void finish(const uchar* data, qint64 areaEnd, const Candidate& c, const Target& t, Record& r);
    void check(const Candidate& c, const Target& t, Record& r);
    void place(const Candidate& c, const Target& t, int pageNo, Region region, qint64 offset, Record& r);
    int fitScore(const Record& r, const Target& t) const;

    // Searching pages
    void searchArea(const uchar* data, int pageNo, Region region, qint64 start, qint64 end,
                    const QVector<QPair<qint64, qint64>>& heads, const Target* owner,
                    std::vector<Found>& found);
    void searchCells(const uchar* data, int pageNo, Region region, const Target* owner,
                     std::vector<Found>& found);
    void searchPage(const uchar* data, int pageNo, bool leafOfOwner, const Target* owner,
                    std::vector<Found>& found);
    bool report(std::vector<Found>& found, const Callback& callback);
    bool report(Record& r, const Target& t, const Callback& callback);
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
    return d->single ? d->single->alias : -1;
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
        if (t->name == table) {
            for (const Column& c : t->columns)
                names << c.name;
            break;
        }
    return names;
}

QStringList SQliteRecovery::declaredTypes() const {
    QStringList types;
    if (d->single)
        for (const Column& c : d->single->columns)
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
    for (int i : declared) {
        if (i == schema.rowidAlias) t->alias = int(t->columns.size());
        t->columns.push_back(schema.columns.at(i));
        t->notNull.push_back(
            i != schema.rowidAlias &&
            (schema.columns.at(i).notNull || (schema.withoutRowid && schema.columns.at(i).primaryKey)));
        t->pattern += letterOf(schema, i);
    }
    if (t->columns.empty()) return;
    t->compiled.reset(new SQliteCodec::Pattern(t->pattern, true));
    t->index = int(targets.size());
    targets.push_back(std::move(t));
}

// Every table a record may belong to: the live ones, then the dropped ones.
bool SQliteRecovery::Private::buildTargets() {
    targets.clear();
    single = nullptr;
    live = SQliteSchema::read(db);
    for (const SQliteSchema::Object& o : live)
        if (o.type == QLatin1String("table") && o.name != QLatin1String("sqlite_master") && o.table.ok &&
            !o.table.isVirtual && o.rootPage > 0)
            addTarget(o.name, o.table, o.rootPage, false);
    findDropped();
    for (const SQliteSchema::Object& o : dropped)
        if (o.type == QLatin1String("table") && o.table.ok && !o.table.isVirtual)
            addTarget(o.name, o.table, o.rootPage, true);
    return true;
}

bool SQliteRecovery::setTable(const QString& name, const QString& givenPattern) {
    d->error.clear();
    d->chosen = false;
    d->all = false;
    d->tableName = name;
    d->buildTargets();
    bool found = false;
    for (const auto& t : d->targets) {
        t->wanted = t->name == name;
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
    if (!givenPattern.isEmpty()) {
        Target& t = *d->single;
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
        t.pattern = givenPattern;
        t.compiled.reset(new SQliteCodec::Pattern(givenPattern, true));
    }
    d->chosen = true;
    return true;
}

bool SQliteRecovery::setAllTables() {
    d->error.clear();
    d->tableName.clear();
    d->all = true;
    d->buildTargets();
    for (const auto& t : d->targets)
        t->wanted = true;
    d->chosen = true;
    return true;
}

QByteArray SQliteRecovery::Private::readPage(int pageNo) {
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
    const qint32 encoding = g.encoding;
    std::vector<uchar> payload;
    std::vector<qint64> overflow;
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
            for (KeySet* set : {&t->liveWithRowid, &t->liveValues, &t->liveAllButOne, &t->liveRowids})
                set->clear();
        }
        const int n = t ? t->size() : 0;
        tree.walk(
            o.rootPage,
            [&](const SQliteBtree::Entry& e) {
                overflow.clear();
                tree.readPayload(e.image, e.cell, payload, &overflow);
                for (qint64 page : overflow)
                    mark(page);
                if (!t || isTablePage(e.type) != t->table) return true;
                // The live row by its values as stored, with and without its rowid.
                readRecordHeader(payload.data(), qint64(payload.size()), header);
                QList<QVariant> values;
                values.reserve(n);
                qint64 at = header.size;
                for (int i = 0; i < n; ++i) {
                    SQliteValue v;
                    const qint64 type = size_t(i) < header.types.size() ? header.types[size_t(i)] : 0;
                    const qint64 left = qint64(payload.size()) - at;
                    if (i != t->alias && left >= 0 &&
                        SQliteCodec::stored(type, payload.data() + at, left, encoding, &v))
                        values.append(t->columnValue(i, v.toVariant()));
                    else
                        values.append(QVariant());
                    at += valueLength(type);
                }
                const qint64 rowid = e.cell.rowid;
                if (t->table) t->liveRowids.insert(quint64(rowid));
                if (t->table) t->liveWithRowid.insert(valuesKey(values, t->alias, &rowid));
                t->liveValues.insert(valuesKey(values, t->alias, nullptr));
                if (t->nearMatches())
                    for (int i = 0; i < n; ++i)
                        if (i != t->alias) t->liveAllButOne.insert(t->allButOneKey(values, i));
                return true;
            },
            [&](qint64 page, int) { mark(page); });
        if (t) {
            for (KeySet* set : {&t->liveWithRowid, &t->liveValues, &t->liveAllButOne, &t->liveRowids})
                set->freeze();
            t->live = true;
        }
    }
    // The trunks of the free list, as far as its chain can be followed.
    sqliteio::walkFreeList(
        sqliteSource(db), g, quint32(db.header.firstFreeListTrunk),
        [this](qint64 p) { return p >= 1 && p <= lastPage && !owned[size_t(p)]; },
        [this](qint64 p, qint64, const std::vector<quint32>&) { trunks[size_t(p)] = 1; });
    // The old b-trees of dropped tables, over the free pages they left.
    std::vector<uchar> image;
    for (const auto& t : targets) {
        if (!t->dropped) continue;
        std::vector<qint64> todo{t->root};
        SeenSet seen;
        while (!todo.empty()) {
            const qint64 page = todo.back();
            todo.pop_back();
            if (!isFree(page) || oldTree[size_t(page)] || !seen.insert(page) || !tree.readPage(page, image))
                continue;
            const int type = image[0];
            if (!isBtreePage(type) || isTablePage(type) != t->table || trunks[size_t(page)]) continue;
            oldTree[size_t(page)] = t->index + 1;
            if (!isInterior(type)) continue;
            todo.push_back(get32(image.data() + page::RightChild));
            forEachCellPointer(image.data(), usable, 0, [&](int, qint64 offset) {
                if (offset + 4 <= usable) todo.push_back(get32(image.data() + offset));
                return true;
            });
        }
    }
    pagesKnown = true;
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
    c.rebuilt.clear();
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
    if (f + kFreeblockHeaderSize >= end) return;
    // The serial types a lost one-byte varint can have been, for each column.
    std::vector<std::vector<qint64>> lostChoices(2);
    for (int col = 0; col < std::min(n, 2); ++col)
        for (qint64 type = 0; type < 128; ++type)
            if (type != 10 && type != 11 && t.accepts(col, type)) lostChoices[size_t(col)].push_back(type);
    const int rowidMax = t.table ? 2 : 0;
    for (int p = 1; p <= 3; ++p) {
        for (int r = t.table ? 1 : 0; r <= rowidMax; ++r) {
            if (p + r > 3) continue; // the header size survives: an ordinary header, read elsewhere
            for (int h = 1; h <= 2; ++h) {
                const qint64 typesAt = p + r + h; // from f
                const int lostBytes = int(std::max<qint64>(0, kFreeblockHeaderSize - typesAt));
                if (lostBytes > 2) continue;
                // The serial types that start in the lost bytes: one-byte varints filling them.
                const int lost = lostBytes;
                if (lost > n) continue;
                Candidate c;
                c.types.assign(size_t(lost), 0);
                qint64 at = f + std::max<qint64>(typesAt, kFreeblockHeaderSize);
                bool ok = true;
                for (int i = lost; i < n && ok; ++i) {
                    qint64 type = 0;
                    int l = 0;
                    ok = varint(data, at, end, &type, &l) && t.accepts(i, type);
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
                // Every choice of the lost serial types (a handful at most in practice).
                std::vector<std::vector<qint64>> choices;
                std::vector<qint64> pick(static_cast<size_t>(lost));
                std::function<void(int)> choose = [&](int i) {
                    if (i == lost) {
                        choices.push_back(pick);
                        return;
                    }
                    for (qint64 type : lostChoices[size_t(i)]) {
                        pick[size_t(i)] = type;
                        choose(i + 1);
                    }
                };
                choose(0);
                for (const std::vector<qint64>& lostTypes : choices) {
                    qint64 payload = headerSize + known;
                    for (int i = 0; i < lost; ++i) {
                        c.types[size_t(i)] = lostTypes[size_t(i)];
                        payload += valueLength(lostTypes[size_t(i)]);
                    }
                    if (varintLength(quint64(payload)) != p) continue;
                    const qint64 local = localPayload(payload, usable, t.table);
                    const qint64 cellLength = p + r + local + (local < payload ? kOverflowHeaderSize : 0);
                    if (exact ? f + cellLength != end
                              : (f + cellLength > end || !cellBoundary(data, f + cellLength, end)))
                        continue;
                    c.start = f + kFreeblockHeaderSize;
                    c.cellStart = -1;
                    c.headerSize = headerSize;
                    c.valuesAt = f + p + r + headerSize;
                    c.length = payload;
                    c.rebuilt =
                        QString("the first %1 bytes of its cell (payload length%2%3%4) rebuilt from the %5")
                            .arg(kFreeblockHeaderSize)
                            .arg(t.table ? ", rowid" : "")
                            .arg(h + p + r <= kFreeblockHeaderSize ? ", header size" : "")
                            .arg(lost ? QString(", %1 serial type%2").arg(lost).arg(lost > 1 ? "s" : "")
                                      : QString())
                            .arg(exact ? "freeblock's size" : "cell that follows");
                    Found found;
                    found.target = &t;
                    found.strength = exact ? 3 : 1;
                    finish(data, exact ? end : f + cellLength, c, t, found.record);
                    if (!found.record.reasons.isEmpty()) continue; // does not fit the layout
                    place(c, t, 0, Freeblock, c.start, found.record);
                    // Only readings that t could have held count.
                    const QStringList& why = found.record.reasons;
                    if (why.contains(kEncoding) || why.contains(kAffinity) || why.contains(kEmpty) ||
                        why.contains(kLayout))
                        continue;
                    out.push_back(found);
                }
            }
        }
    }
}

// Whether a cell could end at e in a block that ends at blockEnd: the block ends there, or a
// freed cell (its first four bytes a freeblock header) or a whole cell starts there.
bool SQliteRecovery::Private::cellBoundary(const uchar* data, qint64 e, qint64 blockEnd) const {
    if (e == blockEnd) return true;
    if (e > blockEnd || e + 4 > usable) return false;
    if (formerFreeblockEnd(data, e + 4) >= 0) return true;
    for (qint64 k = 2; k <= 12 && e + k < blockEnd; ++k)
        for (const auto& t : targets) {
            Candidate next;
            if (t->size() == 0) continue;
            if (headerAt(data, e + k, e, blockEnd, *t, next) && next.cellStart == e) return true;
        }
    return false;
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
    r.rebuilt = c.rebuilt;
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
    textOk = true;
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
        r.values.append(t.columnValue(int(i), v.toVariant()));
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
    bool empty = true, encodingOk = textOk, affinityOk = true;
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
            if (b.count('\0') * 4 < b.size() * 3) empty = false;
            break;
        }
        case QMetaType::LongLong:
            if (v.toLongLong() != 0) empty = false;
            if (a == SQliteSchema::TextAffinity) affinityOk = false;
            break;
        case QMetaType::Double: {
            const double x = v.toDouble();
            if (x != 0) empty = false;
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
    if (!encodingOk) r.reasons << kEncoding;
    if (!affinityOk) r.reasons << kAffinity;
    if (empty) r.reasons << kEmpty;

    if (t.live) {
        QList<QVariant> stored = r.values;
        if (t.alias >= 0) stored[t.alias] = QVariant();
        const quint64 valuesOnly = valuesKey(stored, t.alias, nullptr);
        if (r.rowidKnown ? t.liveWithRowid.contains(valuesKey(stored, t.alias, &r.rowid))
                         : t.liveValues.contains(valuesOnly)) {
            r.reasons << kLive;
        } else if (r.rowidKnown ? t.liveRowids.contains(quint64(r.rowid)) : t.nearMatches()) {
            bool earlier = r.rowidKnown;
            for (int i = 0; i < stored.size() && !earlier; ++i)
                earlier = i != t.alias && t.liveAllButOne.contains(t.allButOneKey(stored, i));
            if (earlier) r.reasons << kSuperseded;
        }
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
                                         const Target* owner, std::vector<Found>& found) {
    Candidate c;
    std::vector<Found> readings;
    QVector<qint64> headAt;
    for (const auto& h : heads)
        headAt.append(h.first);
    for (qint64 pos = start; pos < end; ++pos) {
        // A record whose header starts here, for each table it fits.
        std::vector<Found> fits;
        for (const auto& tp : targets) {
            const Target& t = *tp;
            if (!headerAt(data, pos, start, end, t, c)) continue;
            // A header of one serial type says next to nothing: its cell must show around it.
            if (t.size() < 2 && c.cellStart < 0) continue;
            Found f;
            f.target = &t;
            finish(data, end, c, t, f.record);
            place(c, t, pageNo, region, c.cellStart >= 0 ? c.cellStart : c.start, f.record);
            f.strength = c.cellStart >= 0 ? 3 : 2;
            fits.push_back(f);
        }
        if (!fits.empty()) {
            found.push_back(fits.front());
            for (size_t i = 1; i < fits.size(); ++i)
                found.push_back(fits[i]);
        }
        // A cell whose first four bytes a freeblock header overwrote: a freeblock still in the
        // chain starts at pos, or the bytes before pos + 4 read as one that was.
        const int head = headAt.indexOf(pos);
        const qint64 former = head < 0 && pos + 4 < end ? formerFreeblockEnd(data, pos + 4) : -1;
        if (head < 0 && former < 0) continue;
        const qint64 blockEnd = std::min(end, head >= 0 ? pos + heads[head].second : former);
        for (const auto& tp : targets) {
            if (owner && tp.get() != owner) continue;
            readings.clear();
            rebuild(data, pos, blockEnd, true, *tp, readings);
            if (readings.empty()) rebuild(data, pos, std::min(end, blockEnd), false, *tp, readings);
            if (readings.empty()) continue;
            // One reading, or several that all give the same values: rebuilt. Otherwise it is
            // held back as ambiguous.
            bool same = true;
            for (const Found& f : readings)
                same = same && f.record.values == readings.front().record.values;
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
    searchArea(data, pageNo, FreePage, start, usable, {}, nullptr, found);
}

// Keeps, where candidates overlap, the one with the most of its cell surviving, gives each to
// the table it fits best, and reports them by offset.
bool SQliteRecovery::Private::report(std::vector<Found>& found, const Callback& callback) {
    if (found.empty()) return true;
    std::vector<size_t> order(found.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::stable_sort(order.begin(), order.end(), [this, &found](size_t a, size_t b) {
        const Found &x = found[a], &y = found[b];
        if ((x.record.verdict == Held) != (y.record.verdict == Held)) return y.record.verdict == Held;
        if (x.strength != y.strength) return x.strength > y.strength;
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
            if (from == k.from && to == k.to && found[i].target != best.target &&
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
    master.wanted = true;
    loadPages();
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
    for (int page : pages) {
        const QByteArray bytes = readPage(page);
        if (bytes.size() < usable) continue;
        found.clear();
        const uchar* data = reinterpret_cast<const uchar*>(bytes.constData());
        searchPage(data, page, owned[size_t(page)] != 0, owned[size_t(page)] ? &master : nullptr, found);
        report(found, keep);
    }
    targets.swap(saved);
    pagesKnown = false;
}

QList<SQliteSchema::Object> SQliteRecovery::droppedObjects() {
    if (!d->droppedKnown) {
        d->live = SQliteSchema::read(d->db);
        d->findDropped();
    }
    QList<SQliteSchema::Object> objects = d->dropped;
    return objects;
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
    d->loadPages();

    // The leaves of the tables whose records are passed on, then the pages no table owns.
    struct Job {
        int page;
        const Target* owner;
        bool leaf;
    };
    QList<Job> todo;
    for (const auto& t : d->targets)
        if (t->wanted && !t->dropped)
            for (int p : SQliteScanner(d->db).leafPages(t->root))
                todo.append({p, t.get(), true});
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
    for (int i = 0; i < todo.size(); ++i) {
        if (stopRequested(d->db)) return false;
        const Job& job = todo.at(i);
        const QByteArray bytes = d->readPage(job.page);
        found.clear();
        if (bytes.size() >= d->usable)
            d->searchPage(reinterpret_cast<const uchar*>(bytes.constData()), job.page, job.leaf, job.owner,
                          found);
        if (!d->report(found, callback)) return false;
        if (d->progress) d->progress(i + 1, total);
    }
    // The versions of pages the database no longer shows: their cells, their free space.
    for (int i = 0; i < versions.size(); ++i) {
        if (stopRequested(d->db)) return false;
        const SQliteLiveView::Version& v = versions.at(i);
        d->version = v.describe();
        const QByteArray bytes = d->view->pageData(v);
        found.clear();
        if (bytes.size() >= d->usable) {
            const uchar* data = reinterpret_cast<const uchar*>(bytes.constData());
            const int type = data[btreeHeaderOffset(v.page)];
            if (type == TableLeaf || type == IndexLeaf) {
                d->searchCells(data, v.page, Cell, nullptr, found);
                d->searchPage(data, v.page, true, nullptr, found);
            } else if (!isBtreePage(type)) {
                d->searchArea(data, v.page, FreePage, 0, d->usable, {}, nullptr, found);
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
