// The live rows of a table of a loaded SQliteDbUtil, one at a time, with the values the engine
// would give for them: NULL as NULL, integers of every width with their sign, text in the
// database's encoding, the rowid alias holding the rowid, a REAL column's integral values as
// floats, and the default of a column added after a row was written. Rowid tables come in rowid
// order; tables without rowid in the order of their key, from their index b-tree, with their
// columns in declared order. Pages and cells are checked before they are believed; what cannot
// be read is skipped and counted in problems().
//
// It sits beside the documented fetchRecordsInTable, whose records keep their documented
// readings. The reader's stop flag ends a walk before its next page.
#pragma once

#include "SQliteSchema.h"
#include "SQliteValue.h"
#include "utils_export.h"

#include <QList>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>

class SQliteDbUtil;

class UTILS_EXPORT SQliteTableReader {
public:
    explicit SQliteTableReader(SQliteDbUtil& db);
    ~SQliteTableReader();
    SQliteTableReader(const SQliteTableReader&) = delete;
    SQliteTableReader& operator=(const SQliteTableReader&) = delete;

    // Chooses a table by its exact name in the schema ("sqlite_master" for the schema itself).
    // False, with error() saying why, when there is no such table, when it is a virtual table
    // (its rows are not in its own b-tree), or when its statement cannot be understood.
    bool setTable(const QString& name);
    // Chooses a table already understood, with the root page of its b-tree.
    void setTable(const SQliteSchema::Table& table, qint64 rootPage);
    const SQliteSchema::Table& table() const;
    qint64 rootPage() const;
    QString error() const;

    // One row, valid while the callback runs.
    class UTILS_EXPORT Row {
    public:
        bool hasRowid() const { return m_hasRowid; }
        qint64 rowid() const { return m_rowid; }
        int size() const { return int(m_values.size()); }
        // The value of column i, in declared order.
        SQliteValue value(int i) const { return m_values[size_t(i)]; }
        // The rowid (when the table has one), then every column's value as a QVariant.
        QList<QVariant> toList() const;
        // The page and offset of the cell the row was read from.
        qint64 page() const { return m_page; }
        int offset() const { return m_offset; }
        bool complete() const { return m_complete; } // every value could be read

    private:
        friend class SQliteTableReader;
        bool m_hasRowid = true;
        qint64 m_rowid = 0;
        qint64 m_page = 0;
        int m_offset = 0;
        bool m_complete = true;
        std::vector<SQliteValue> m_values;
    };
    using Callback = std::function<bool(const Row& row)>;
    // Called with how many of the root page's children are done, of how many.
    using ProgressCallback = std::function<void(int done, int total)>;
    void setProgress(ProgressCallback progress);

    // Passes on every live row; false when the callback or the stop flag ended the walk.
    bool forEachRow(const Callback& callback);
    QList<QList<QVariant>> rows(); // every row's toList()

    // What could not be read in the last walk.
    struct Problems {
        int pages = 0;     // pages of the tree that could not be believed
        int cells = 0;     // cells that do not fit their page
        int overflows = 0; // overflow chains that broke off: those rows' last values are cut
        int records = 0;   // records whose header or values do not fit their payload
        QString first;     // the first problem, described
        bool any() const { return pages || cells || overflows || records; }
    };
    Problems problems() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};
