#include "SQliteTableReader.h"

#include "SQliteBtree.h"
#include "SQliteCodec.h"
#include "SQliteDbUtil.h"

#include <vector>

using namespace sqlitefmt;

struct SQliteTableReader::Private {
    explicit Private(SQliteDbUtil& reader) : db(reader) {}

    SQliteDbUtil& db;
    SQliteSchema::Table table;
    qint64 root = 0;
    QString error;
    ProgressCallback progress;
    Problems problems;

    // The defaults of columns that a record may lack, as values.
    std::vector<SQliteValue> defaults;
    std::vector<QByteArray> defaultBytes;
    std::vector<uchar> payload;
    RecordHeader header;
    std::vector<SQliteValue> stored;
    Row row;

    void prepare();
    void recordProblem(qint64 page, qint64 offset, const QString& why) {
        if (!problems.any())
            problems.first = QString("page %1, cell at %2: %3").arg(page).arg(offset).arg(why);
        ++problems.records;
    }
};

SQliteTableReader::SQliteTableReader(SQliteDbUtil& db) : d(new Private(db)) {}
SQliteTableReader::~SQliteTableReader() = default;

void SQliteTableReader::setProgress(ProgressCallback progress) {
    d->progress = std::move(progress);
}
const SQliteSchema::Table& SQliteTableReader::table() const {
    return d->table;
}
qint64 SQliteTableReader::rootPage() const {
    return d->root;
}
QString SQliteTableReader::error() const {
    return d->error;
}
SQliteTableReader::Problems SQliteTableReader::problems() const {
    return d->problems;
}

bool SQliteTableReader::setTable(const QString& name) {
    d->error.clear();
    for (const SQliteSchema::Object& o : SQliteSchema::read(d->db)) {
        if (o.type != QLatin1String("table") || o.name != name) continue;
        if (o.table.isVirtual) {
            d->error =
                QString("'%1' is a virtual table: its rows are kept by its module (%2), not in a b-tree "
                        "of its own")
                    .arg(name, o.table.module);
            return false;
        }
        if (!o.table.ok) {
            d->error = QString("cannot understand the statement that created table '%1': %2")
                           .arg(name, o.table.error);
            return false;
        }
        setTable(o.table, o.rootPage);
        return true;
    }
    d->error = QString("no table named '%1'").arg(name);
    return false;
}

void SQliteTableReader::setTable(const SQliteSchema::Table& table, qint64 rootPage) {
    d->table = table;
    d->root = rootPage;
    d->prepare();
}

void SQliteTableReader::Private::prepare() {
    const int n = table.columns.size();
    defaults.assign(size_t(n), SQliteValue());
    defaultBytes.assign(size_t(n), QByteArray());
    for (int i = 0; i < n; ++i) {
        const QVariant& v = table.columns.at(i).defaultValue;
        SQliteValue& value = defaults[size_t(i)];
        switch (int(v.type())) {
        case QMetaType::LongLong:
            value = SQliteValue::fromInteger(v.toLongLong());
            break;
        case QMetaType::Double:
            value = SQliteValue::fromReal(v.toDouble());
            break;
        case QMetaType::QString:
        case QMetaType::QByteArray:
            defaultBytes[size_t(i)] = v.type() == QVariant::String ? v.toString().toUtf8() : v.toByteArray();
            value.type = v.type() == QVariant::String ? SQliteValue::Text : SQliteValue::Blob;
            value.data = reinterpret_cast<const uchar*>(defaultBytes[size_t(i)].constData());
            value.size = defaultBytes[size_t(i)].size();
            value.encoding = Utf8;
            break;
        default:
            break;
        }
    }
    row.m_hasRowid = !table.withoutRowid;
    row.m_values.assign(size_t(n), SQliteValue());
}

bool SQliteTableReader::forEachRow(const Callback& callback) {
    d->problems = Problems();
    if (d->root < 1 || d->table.columns.isEmpty()) return true;
    SQliteBtree tree(d->db);
    const qint32 encoding = tree.geometry().encoding;
    const QList<SQliteSchema::Column>& columns = d->table.columns;
    const int n = columns.size();
    Row& row = d->row;
    bool kindChecked = false;
    const bool complete = tree.walk(
        d->root,
        [&](const SQliteBtree::Entry& e) {
            // A table without rowid keeps its rows in an index b-tree, a rowid table in a table one.
            if (isTablePage(e.type) == d->table.withoutRowid) {
                if (!kindChecked)
                    tree.pageProblem(d->root, d->table.withoutRowid
                                                  ? "a table b-tree, for a table without rowid"
                                                  : "an index b-tree, for a rowid table");
                kindChecked = true;
                return true;
            }
            row.m_rowid = e.cell.rowid;
            row.m_page = e.page;
            row.m_offset = int(e.cell.offset);
            row.m_complete = true;
            if (!tree.readPayload(e.image, e.cell, d->payload)) {
                tree.overflowProblem(e.page, e.cell.offset);
                row.m_complete = false;
            }
            const uchar* p = d->payload.data();
            const qint64 size = qint64(d->payload.size());
            readRecordHeader(p, size, d->header);
            if (!d->header.wellFormed || d->header.size > size) {
                d->recordProblem(e.page, e.cell.offset, "its record header does not fit its payload");
                row.m_complete = false;
            }
            // The values as stored, in record order.
            d->stored.resize(d->header.types.size());
            qint64 at = d->header.size;
            for (size_t i = 0; i < d->header.types.size(); ++i) {
                const qint64 type = d->header.types[i];
                if (!SQliteCodec::stored(type, p + std::min(at, size), std::max<qint64>(0, size - at),
                                         encoding, &d->stored[i])) {
                    if (row.m_complete)
                        d->recordProblem(e.page, e.cell.offset, "a value runs past its payload");
                    row.m_complete = false;
                }
                at += valueLength(type);
            }
            // Then in declared order.
            for (int i = 0; i < n; ++i) {
                const SQliteSchema::Column& c = columns.at(i);
                SQliteValue& v = row.m_values[size_t(i)];
                if (i == d->table.rowidAlias)
                    v = SQliteValue::fromInteger(row.m_rowid);
                else if (c.storage < 0)
                    v = SQliteValue(); // a virtual generated column: computed, never stored
                else if (size_t(c.storage) < d->stored.size())
                    v = d->stored[size_t(c.storage)];
                else
                    v = d->defaults[size_t(i)]; // added to the table after the row was written
                if (c.affinity == SQliteSchema::RealAffinity && v.type == SQliteValue::Integer)
                    v = SQliteValue::fromReal(double(v.integer));
            }
            return callback(row);
        },
        {}, d->progress);
    const SQliteBtree::Problems& t = tree.problems();
    const QString first = d->problems.first;
    d->problems.pages = t.pages;
    d->problems.cells = t.cells;
    d->problems.overflows = t.overflows;
    d->problems.first = t.any() ? t.first : first;
    return complete;
}

QList<QList<QVariant>> SQliteTableReader::rows() {
    QList<QList<QVariant>> rows;
    forEachRow([&rows](const Row& row) {
        rows.append(row.toList());
        return true;
    });
    return rows;
}

QList<QVariant> SQliteTableReader::Row::toList() const {
    QList<QVariant> list;
    list.reserve(size() + 1);
    if (m_hasRowid) list.append(QVariant(qlonglong(m_rowid)));
    for (const SQliteValue& v : m_values)
        list.append(v.toVariant());
    return list;
}
