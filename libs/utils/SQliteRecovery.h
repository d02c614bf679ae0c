// Recovers the deleted records of the tables of a loaded SQliteDbUtil, one table or all of them
// (those the schema holds, and those whose CREATE statements it recovers from free space: dropped
// tables), and says, for each record, where it was found, which table it belongs to and how far
// it can be trusted. It sits beside the reader's own deleted-record
// scan (searchLostRecord), whose results stay as they are, and differs from it on purpose:
//
// - the columns are known: by default their serial types follow from the table's declared
//   types by SQLite's affinity rules (the rowid alias is stored as NULL);
// - a candidate is a whole record: its header size, serial types and values must fit the block
//   that holds it. The payload length and rowid of its cell are used when they survive in
//   front of it. A record whose first bytes a freeblock header overwrote is rebuilt: the
//   lengths of the lost varints and the lost serial types are enumerated within what the schema
//   allows, what survives and the freeblock's size, and a reading is taken only when it is the
//   only one that fits (or all that fit give the same values);
// - a record on a page that no table owns goes to the table whose schema it fits best, and is
//   flagged ambiguous, with the other candidates, when several fit as well; the old b-tree of a
//   dropped table is walked over the free pages it left;
// - values read as SQLite stores them: NULL as a null value, integers of every width with their
//   sign, text in the database's encoding;
// - a record that overflowed is reassembled from its overflow pages when each can still be one:
//   a free-list leaf or a page no b-tree owns, never a free-list trunk or a page in use;
// - every candidate is checked, and one that fails a check is held back with its reasons.
//
// It searches the free space of the tables' leaf pages (everything their live cells do not
// cover, whatever their freeblock chains say) and, by default, every page that no live b-tree
// owns, whether the free list reaches it or not.
#pragma once

#include "SQliteSchema.h"
#include "utils_export.h"

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <functional>
#include <memory>

class SQliteDbUtil;
class SQliteLiveView;

class UTILS_EXPORT SQliteRecovery {
public:
    // Where a record was found.
    enum Region {
        Gap,       // the unallocated space between a leaf page's cell pointers and its cells
        Freeblock, // a freeblock of a leaf page
        FreePage,  // a page on the free list (or, in an older version, a page that was no b-tree page)
        Cell,      // a whole cell of an older version of a leaf page
    };
    // Recovered: passed every check; Partial: passed, but its overflow chain broke off, so its
    // last values are cut; Held: held back, with the reasons.
    enum Verdict { Recovered, Partial, Held };
    enum Overflow { NoOverflow, Reassembled, Broken };

    // The reasons for holding a candidate back.
    static const QString kLive;      // "live": identical to a live row of the table
    static const QString kDuplicate; // "duplicate": equal to, or overlapping, a record reported before
    static const QString
        kEncoding; // "encoding": text not valid in the database's encoding, or mostly control characters
    static const QString
        kLayout; // "layout": a header size, serial type or record end that does not fit its block
    static const QString kAffinity; // "affinity": a value the column's affinity could not have stored
    static const QString kEmpty;    // "empty": nothing but NULLs, zeros and empty values
    static const QString
        kSuperseded; // "superseded": an earlier version of a live row (its rowid, or all but one value)
    static const QString
        kAmbiguous; // "ambiguous": its lost start can be rebuilt in ways that give other values

    struct Record {
        QList<QVariant> values; // in declared column order; NULL is a null QVariant
        qint64 rowid = 0;
        bool rowidKnown = false; // the cell's payload length and rowid survived in front of the record
        int page = 0;
        int offset = 0;        // in the page: the cell's start when its rowid is known, else the record's
        qint64 fileOffset = 0; // the same, from the start of the file
        int length = 0;        // bytes from offset to the end of the record's local part
        Region region = Gap;
        // The version of the page it was found in: empty for the database as it is, else, with a
        // view, "main file (superseded)", "log frame N" or "journal record N".
        QString version;
        Verdict verdict = Recovered;
        QStringList reasons; // why it was held back
        Overflow overflow = NoOverflow;
        QString table;         // the table it belongs to (the best fit, when ambiguous is not empty)
        bool dropped = false;  // that table was dropped: its schema was recovered from free space
        QStringList ambiguous; // the other tables it fits as well, on a page that no table owns
        QString rebuilt;       // what of its start a freeblock header had overwritten, rebuilt
    };
    using Callback = std::function<bool(const Record& record)>;
    // Called after each page searched with the pages done and the pages to search.
    using ProgressCallback = std::function<void(int done, int total)>;

    explicit SQliteRecovery(SQliteDbUtil& db);
    ~SQliteRecovery();
    SQliteRecovery(const SQliteRecovery&) = delete;
    SQliteRecovery& operator=(const SQliteRecovery&) = delete;

    // Chooses the table and, when given, the pattern: one letter per column, the reader's
    // letters (fieldsMatch) plus t for NULL, text or blob and a for anything a record may hold.
    // Without one the pattern follows from the declared types: n for the rowid alias, d for
    // INTEGER and REAL affinity (NULL, an integer or a float), t for TEXT, a for NUMERIC and for
    // BLOB or no type. The name may be a dropped table's. False, with error() saying why, for an
    // unknown or virtual table, one whose statement cannot be read, or a pattern of the wrong
    // length or letters.
    bool setTable(const QString& table, const QString& pattern = QString());
    // Every table instead: those of the schema and the dropped ones (always true).
    bool setAllTables();
    // The tables and indexes whose CREATE statements lie in free space but are not in the schema
    // as it is (dropped, or dropped and created again with another statement), each with the root
    // page it had; worked out once.
    QList<SQliteSchema::Object> droppedObjects();
    // The free pages that the old b-tree of a dropped table still reaches from its root page,
    // the root among them (once setTable or setAllTables has worked the tables out).
    QList<int> droppedPages(const QString& table) const;
    QString error() const;
    QString table() const;
    QString pattern() const;
    QStringList columnNames() const;
    QStringList declaredTypes() const;
    int rowidAlias() const; // the column that is the rowid alias, or -1
    // The columns of a record of the given table (live or dropped), as its values list them.
    QStringList columnNames(const QString& table) const;

    void setFreePagesSearched(bool searched); // on by default
    void setHeldIncluded(bool included);      // off by default: held-back records are not passed on
    void setProgress(ProgressCallback progress);
    // Searches the versions of pages that view does not show too, after the database's own
    // pages (view must outlive the search; null for none). Records are reported once, in the
    // first version they are met in.
    void setLiveView(const SQliteLiveView* view);

    // Searches and passes on each record found, in order: the table's leaf pages, then the free
    // pages; in a page by offset. Returns false when it was ended early: by the reader's stop
    // flag (checked before each page) or by the callback.
    bool forEach(const Callback& callback);
    QList<Record> recover();

    // Counts of the last search: records passed on, held back, and held back under each
    // reason (a record counts under each of its reasons).
    struct Summary {
        int recovered = 0;
        int partial = 0;
        int held = 0;
        QMap<QString, int> reasons;
        int unchanged = 0; // records of older versions equal to a live row: not passed on
        int repeated = 0;  // records met again in another version: not passed on
    };
    Summary summary() const;

    static QString regionName(Region region);       // "gap", "freeblock", "free page", "cell"
    static QString verdictName(Verdict verdict);    // "recovered", "partial", "held"
    static QString overflowName(Overflow overflow); // "", "reassembled", "broken"

private:
    struct Private;
    std::unique_ptr<Private> d;
};
