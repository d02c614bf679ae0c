// tables, rows, recover, freelist: the raw SQLite reader and deleted-record recovery.
#include "Command.h"

#include "BackupInput.h"
#include "RecordWriter.h"
#include "SQliteDbUtil.h"
#include "SQliteLiveView.h"
#include "SQliteLoader.h"
#include "SQliteRecovery.h"
#include "SQliteScanner.h"
#include "SQliteSchema.h"
#include "SQliteTableReader.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>

using namespace inspect;

namespace {

const char* const kPatternHelp = "PATTERN has one character per column: 0-9 exactly that serial type,\n"
                                 "b NULL or blob, d NULL or a number, f NULL or float, i NULL or integer,\n"
                                 "n NULL, s NULL or text.";

// Opens db read-only as the engine would see it: with the write-ahead log or hot journal beside
// it unless --no-wal, reading what the engine reads unless --documented asks for the documented
// loader. Says on stderr what it did with the log or journal and what it read past; on failure
// prints why and returns false.
bool openDb(SQliteDbUtil& db, QString path, SQliteLiveView& view, const Args& args,
            SQliteLoader::Report* loaded = nullptr) {
    if (!checkInputFile(path)) return false;
    const SQliteLoader::Report report =
        view.open(db, path, companionFile(path, "-wal"), companionFile(path, "-journal"),
                  args.has("--documented") ? SQliteLoader::Documented : SQliteLoader::LikeTheEngine,
                  args.has("--no-wal"));
    if (!view.note().isEmpty()) note(view.note());
    for (const QString& tolerated : report.tolerated)
        note(path + ": " + tolerated);
    if (!report.ok()) fail(path + ": " + report.reason);
    if (loaded) *loaded = report;
    return report.ok();
}

bool openDb(SQliteDbUtil& db, const QString& path, const Args& args, SQliteLoader::Report* loaded = nullptr) {
    static SQliteLiveView view; // one database a run
    return openDb(db, path, view, args, loaded);
}

// The documented column map by position.
QStringList columnNames(const SQliteTable& table) {
    QList<QPair<int, QString>> byPosition;
    for (auto it = table.columns.constBegin(); it != table.columns.constEnd(); ++it)
        byPosition.append({it.value(), it.key()});
    std::sort(byPosition.begin(), byPosition.end());
    QStringList names;
    for (const auto& p : byPosition)
        names << p.second;
    return names;
}

// A name as text shows it: on one line, and the empty name as "".
QString shown(const QString& name) {
    return name.isEmpty() ? QStringLiteral("\"\"") : printable(name);
}

// The schema object named name: a table by its exact name, or failing that by the one name that
// matches it case-insensitively, as SQL names match. sqlite_schema is the schema table's other
// name.
const SQliteSchema::Object* findTable(const QList<SQliteSchema::Object>& schema, const QString& name) {
    const QString wanted = name == QLatin1String("sqlite_schema") ? QStringLiteral("sqlite_master") : name;
    const SQliteSchema::Object* folded = nullptr;
    int matches = 0;
    for (const SQliteSchema::Object& o : schema) {
        if (o.type != QLatin1String("table")) continue;
        if (o.name == wanted) return &o;
        if (o.name.compare(wanted, Qt::CaseInsensitive) == 0) {
            folded = &o;
            ++matches;
        }
    }
    return matches == 1 ? folded : nullptr;
}

QString pageList(const QList<int>& pages) {
    QStringList numbers;
    for (int p : pages)
        numbers << QString::number(p);
    return numbers.join(',');
}

bool checkPattern(const QString& pattern) {
    if (pattern.isEmpty()) return fail("empty pattern: " + QString(kPatternHelp), Usage), false;
    for (int i = 0; i < pattern.size(); ++i) {
        const QChar c = pattern.at(i);
        if (!(c.isDigit() && c.unicode() < 128) && !QString("bdfins").contains(c)) {
            fail(QString("bad pattern letter '%1' at position %2. %3").arg(c).arg(i + 1).arg(kPatternHelp),
                 Usage);
            return false;
        }
    }
    return true;
}

// While a walk over db runs: Ctrl-C asks it to stop (it ends before its next page, and what was
// found is printed), and a terminal shows how far it got.
class Walk {
public:
    explicit Walk(SQliteDbUtil& db) {
        static SQliteDbUtil* current = nullptr;
        current = &db;
        installInterruptHandler([] {
            if (current) current->stopSearch();
        });
        m_timer.start();
    }
    Walk(SQliteDbUtil& db, SQliteScanner& scanner) : Walk(db) { scanner.setProgress(reporter()); }
    ~Walk() { progress(QString()); }
    void setWhat(const QString& what) { m_what = what; }
    std::function<void(int, int)> reporter() {
        return [this](int done, int total) {
            if (m_timer.elapsed() < m_shown + 250) return;
            m_shown = m_timer.elapsed();
            progress(QString("%1... page %2 of %3 (Ctrl-C stops)").arg(m_what).arg(done).arg(total));
        };
    }

private:
    QElapsedTimer m_timer;
    qint64 m_shown = 0;
    QString m_what = "reading";
};

int finishWalk(RecordWriter& writer) {
    writer.finish();
    if (!interrupted()) return Ok;
    fail("interrupted: the results above are incomplete");
    return Interrupted;
}

QString encodingName(qint32 encoding) {
    return encoding == 2 ? "UTF-16le" : encoding == 3 ? "UTF-16be" : "UTF-8";
}

// The tables as the documented parseTables registers them.
int documentedTables(const Args& args, SQliteDbUtil& db) {
    const QList<SQliteTable> tables = db.fetchAllTable();
    if (args.has("--json")) {
        QJsonArray list;
        for (const SQliteTable& t : tables) {
            QJsonObject columns;
            for (auto it = t.columns.constBegin(); it != t.columns.constEnd(); ++it)
                columns[it.key()] = it.value();
            QJsonArray leafPages;
            for (int p : t.pages)
                leafPages.append(p);
            list.append(QJsonObject{{"name", t.name},
                                    {"rootPage", t.rootPage},
                                    {"pages", leafPages},
                                    {"columns", columns},
                                    {"columnNames", QJsonArray::fromStringList(columnNames(t))}});
        }
        printJson(list);
        return Ok;
    }
    for (const SQliteTable& t : tables) {
        out(QString("%1  root %2  leaf pages %3%4")
                .arg(t.name)
                .arg(t.rootPage)
                .arg(t.pages.size())
                .arg(args.has("--pages") ? " [" + pageList(t.pages) + "]" : QString()));
        out("    columns: " + (t.columns.isEmpty() ? QString("(none)") : columnNames(t).join(", ")));
    }
    return Ok;
}

int runTables(const Args& args) {
    SQliteDbUtil db;
    SQliteLoader::Report loaded;
    if (!openDb(db, args.positional().at(0), args, &loaded)) return Failed;
    const bool json = args.has("--json");
    if (!json)
        out(QString("%1 pages of %2 bytes, text encoding %3, %4 free-list pages")
                .arg(loaded.pageCount)
                .arg(loaded.pageSize)
                .arg(encodingName(db.header.textEncoding))
                .arg(db.freeListPages.size()));
    if (args.has("--documented")) return documentedTables(args, db);

    const bool all = args.has("--all");
    SQliteScanner scanner(db);
    QJsonArray list;
    QList<SQliteSchema::Object> objects;
    SQliteRecovery recovery(db);
    if (args.has("--dropped")) {
        recovery.setAllTables();
        objects = recovery.droppedObjects();
    } else {
        objects = SQliteSchema::read(db);
    }
    const bool dropped = args.has("--dropped");
    for (const SQliteSchema::Object& o : objects) {
        const bool table = o.type == QLatin1String("table");
        if (!table && !((all || dropped) && o.type == QLatin1String("index"))) continue;
        QList<int> leaves;
        if (o.rootPage > 0) leaves = dropped ? recovery.droppedPages(o.name) : scanner.leafPages(o.rootPage);
        const SQliteSchema::Table& t = o.table;
        if (json) {
            QJsonObject item{{"name", o.name}, {"type", o.type}, {"rootPage", o.rootPage}, {"sql", o.sql}};
            if (dropped) item["dropped"] = true;
            QJsonArray pages;
            for (int p : leaves)
                pages.append(p);
            item["pages"] = pages;
            if (table) {
                item["withoutRowid"] = t.withoutRowid;
                item["strict"] = t.strict;
                item["virtual"] = t.isVirtual;
                if (t.isVirtual) item["module"] = t.module;
                item["columnNames"] = QJsonArray::fromStringList(t.columnNames());
                QJsonArray columns;
                for (int i = 0; i < t.columns.size(); ++i) {
                    const SQliteSchema::Column& c = t.columns.at(i);
                    QJsonObject column{{"name", c.name},
                                       {"type", c.declaredType},
                                       {"affinity", SQliteSchema::affinityName(c.affinity)},
                                       {"primaryKey", c.primaryKey},
                                       {"rowid", i == t.rowidAlias}};
                    if (c.generated != SQliteSchema::NotGenerated)
                        column["generated"] =
                            c.generated == SQliteSchema::StoredColumn ? "stored" : "virtual";
                    columns.append(column);
                }
                item["columns"] = columns;
                if (!t.ok) item["error"] = t.error;
            } else {
                item["table"] = o.tableName;
            }
            list.append(item);
            continue;
        }
        QStringList traits;
        if (dropped) traits << "dropped: its CREATE statement lies in free space";
        if (!table) traits << "index on " + shown(o.tableName);
        if (t.withoutRowid) traits << "without rowid";
        if (t.strict) traits << "strict";
        if (t.isVirtual)
            traits << "virtual table (module " + shown(t.module) + "): its rows are kept elsewhere";
        out(QString("%1  root %2  %3 %4%5%6")
                .arg(shown(o.name))
                .arg(o.rootPage)
                .arg(dropped ? "free pages of its old b-tree" : "leaf pages")
                .arg(leaves.size())
                .arg(traits.isEmpty() ? QString() : "  (" + traits.join(", ") + ")")
                .arg(args.has("--pages") ? " [" + pageList(leaves) + "]" : QString()));
        if (!table) continue;
        QStringList columns;
        for (int i = 0; i < t.columns.size(); ++i)
            columns << shown(t.columns.at(i).name) + (i == t.rowidAlias ? " (rowid)" : "");
        if (t.ok && !t.isVirtual)
            out("    columns: " + columns.join(", "));
        else if (!t.ok)
            out("    columns: (cannot read the statement: " + t.error + ")");
    }
    if (json) printJson(list);
    return Ok;
}

// The rows as the documented readings give them: NULL as 0, the documented column map.
int documentedRows(const Args& args, SQliteDbUtil& db, RecordWriter& writer, const QString& name) {
    if (!db.tables.contains(name))
        return fail(QString("%1: no table named '%2' in the documented table map")
                        .arg(args.positional().at(0), name));
    const QStringList names = QStringList("rowid") + columnNames(db.tables.value(name));
    writer.line(names.join(" | "));
    writer.csvRow(QList<QVariant>(names.begin(), names.end()));
    SQliteScanner scanner(db);
    Walk walk(db, scanner);
    walk.setWhat("reading " + name);
    scanner.forEachRecordView(name, [&writer](const SQliteScanner::RecordView& record) {
        writer.record(record);
        return true;
    });
    writer.line(QString("(%1 rows)").arg(writer.count()));
    return finishWalk(writer);
}

int runRows(const Args& args) {
    if (args.has("--json") && args.has("--csv")) return fail("rows: choose --json or --csv", Usage);
    const QString path = args.positional().at(0), name = args.positional().at(1);
    SQliteDbUtil db;
    if (!openDb(db, path, args)) return Failed;
    RecordWriter writer(args.has("--json")  ? RecordWriter::Json
                        : args.has("--csv") ? RecordWriter::Csv
                                            : RecordWriter::Text);
    if (args.has("--documented")) return documentedRows(args, db, writer, name);

    const QList<SQliteSchema::Object> schema = SQliteSchema::read(db);
    const SQliteSchema::Object* object = findTable(schema, name);
    if (!object) return fail(QString("%1: no table named '%2'").arg(path, shown(name)));
    const SQliteSchema::Table& table = object->table;
    if (table.isVirtual)
        return fail(
            QString("%1: '%2' is a virtual table: its rows are kept by its module (%3), in other tables")
                .arg(path, shown(name), table.module));
    if (!table.ok)
        return fail(QString("%1: cannot understand the statement that created '%2': %3")
                        .arg(path, shown(name), table.error));
    SQliteTableReader reader(db);
    reader.setTable(table, object->rootPage);
    QStringList names = table.columnNames();
    if (!table.withoutRowid) names.prepend("rowid");
    QStringList shownNames;
    for (const QString& n : names)
        shownNames << shown(n);
    writer.line(shownNames.join(" | "));
    writer.csvRow(QList<QVariant>(names.begin(), names.end()));
    Walk walk(db);
    walk.setWhat("reading " + shown(name));
    reader.setProgress(walk.reporter());
    reader.forEachRow([&](const SQliteTableReader::Row& row) {
        writer.record(row);
        return true;
    });
    writer.line(QString("(%1 rows)").arg(writer.count()));
    const SQliteTableReader::Problems p = reader.problems();
    if (p.any())
        note(QString("%1: %2 pages, %3 cells and %4 records could not be read, %5 overflow chains break off; "
                     "the first: %6")
                 .arg(path)
                 .arg(p.pages)
                 .arg(p.cells)
                 .arg(p.records)
                 .arg(p.overflows)
                 .arg(p.first));
    return finishWalk(writer);
}

// Streams the documented scan's candidates, text or JSON, each tagged with where it was found.
void printScan(RecordWriter& writer, Walk& walk, const QString& source, bool withHeader,
               const std::function<bool(const SQliteScanner::FoundCallback&)>& scan) {
    if (interrupted()) return;
    walk.setWhat("searching " + source);
    writer.line(QString("-- %1%2").arg(source, withHeader ? " (first value: rowid)" : ""));
    const qint64 before = writer.count();
    const QVariant tag(source);
    scan([&](const QList<QVariant>& record, const SQliteScanner::Location&) {
        if (writer.json())
            writer.object({{"source", tag}}, record);
        else
            writer.record(record);
        return true;
    });
    writer.line(QString("(%1 candidate records)").arg(writer.count() - before));
}

// The documented scan, as recover printed it before records carried where they were found.
int runRawRecover(const Args& args, SQliteDbUtil& db) {
    const QString name = args.positional().at(1), pattern = args.positional().value(2);
    const bool withHeader = args.has("--with-header");
    RecordWriter writer(args.has("--json"));
    SQliteScanner scanner(db);
    Walk walk(db, scanner);
    printScan(writer, walk, name + " (gaps and freeblocks)", withHeader,
              [&](const SQliteScanner::FoundCallback& f) {
                  return scanner.forEachLostRecord(name, pattern, withHeader, f);
              });
    if (args.has("--free-list"))
        printScan(writer, walk, "free-list pages", withHeader, [&](const SQliteScanner::FoundCallback& f) {
            return scanner.forEachLostRecordInFreeSpace(pattern, withHeader, f);
        });
    return finishWalk(writer);
}

int runRecover(const Args& args) {
    const QString path = args.positional().at(0), name = args.positional().value(1),
                  pattern = args.positional().value(2);
    const bool raw = args.has("--raw"), every = args.positional().size() < 2;
    if (raw && (every || !checkPattern(pattern)))
        return every ? fail("recover: --raw needs TABLE and PATTERN", Usage) : Usage;
    for (const char* option : {"--with-header", "--free-list"})
        if (!raw && args.has(option))
            return fail(
                QString("recover: %1 belongs to --raw (without it, free pages are searched unless "
                        "--no-free-list is given, and cells are read with their header when it survives)")
                    .arg(option),
                Usage);
    if (args.has("--json") && args.has("--csv")) return fail("recover: choose --json or --csv", Usage);
    SQliteDbUtil db;
    SQliteLiveView view;
    if (!openDb(db, path, view, args)) return Failed;
    if (raw) {
        if (!db.tables.contains(name))
            return fail(
                QString("%1: no table named '%2' in the documented table map").arg(path, shown(name)));
        return runRawRecover(args, db);
    }

    SQliteRecovery recovery(db);
    recovery.setLiveView(&view);
    // A table that cannot be searched is the input's fault; a pattern that does not fit it, the user's.
    if (every) {
        recovery.setAllTables();
    } else {
        if (!recovery.setTable(name)) return fail(QString("%1: %2").arg(path, recovery.error()));
        if (!recovery.setTable(name, pattern))
            return fail(QString("%1: %2").arg(path, recovery.error()), Usage);
    }
    recovery.setHeldIncluded(args.has("--all"));
    recovery.setFreePagesSearched(!args.has("--no-free-list"));
    const RecordWriter::Format format = args.has("--json")  ? RecordWriter::Json
                                        : args.has("--csv") ? RecordWriter::Csv
                                                            : RecordWriter::Text;
    RecordWriter writer(format);
    QList<QVariant> head{"table",   "dropped", "page",  "offset",   "region",    "version",
                         "verdict", "reasons", "rowid", "overflow", "ambiguous", "rebuilt"};
    if (every) {
        writer.line("-- every table, live and dropped; a record goes to the table it fits best");
        for (const SQliteSchema::Object& o : recovery.droppedObjects())
            if (o.type == QLatin1String("table"))
                writer.line(QString("-- dropped table %1 (root page %2): columns %3")
                                .arg(shown(o.name))
                                .arg(o.rootPage)
                                .arg(recovery.columnNames(o.name).join(", ")));
        head << "values...";
    } else {
        const QStringList columns = recovery.columnNames();
        writer.line(QString("-- %1: columns %2; pattern %3")
                        .arg(shown(name), columns.join(", "), recovery.pattern()));
        for (const QString& c : columns)
            head << c;
    }
    writer.csvRow(head);
    Walk walk(db);
    walk.setWhat(every ? QString("searching every table") : "searching " + shown(name));
    recovery.setProgress(walk.reporter());
    recovery.forEach([&](const SQliteRecovery::Record& r) {
        const QVariant rowid = r.rowidKnown ? QVariant(r.rowid) : QVariant();
        const QString overflow = SQliteRecovery::overflowName(r.overflow);
        if (format != RecordWriter::Text) {
            writer.object({{"table", r.table},
                           {"dropped", r.dropped},
                           {"page", r.page},
                           {"offset", r.offset},
                           {"region", SQliteRecovery::regionName(r.region)},
                           {"version", r.version.isEmpty() ? QString("live") : r.version},
                           {"verdict", SQliteRecovery::verdictName(r.verdict)},
                           {"reasons", r.reasons},
                           {"rowid", rowid},
                           {"overflow", overflow.isEmpty() ? QVariant() : QVariant(overflow)},
                           {"ambiguous", r.ambiguous.isEmpty() ? QVariant() : QVariant(r.ambiguous)},
                           {"rebuilt", r.rebuilt.isEmpty() ? QVariant() : QVariant(r.rebuilt)}},
                          r.values);
            return true;
        }
        QString where = QString("page %1, offset %2, %3")
                            .arg(r.page)
                            .arg(r.offset)
                            .arg(SQliteRecovery::regionName(r.region));
        if (every || r.dropped) where = shown(r.table) + (r.dropped ? " (dropped)" : "") + ", " + where;
        if (!r.ambiguous.isEmpty()) where += ", or " + r.ambiguous.join(" or ");
        if (r.verdict != SQliteRecovery::Recovered) where += ", " + SQliteRecovery::verdictName(r.verdict);
        if (!r.reasons.isEmpty()) where += " (" + r.reasons.join(", ") + ")";
        if (!overflow.isEmpty()) where += ", overflow " + overflow;
        if (!r.rebuilt.isEmpty()) where += ", start rebuilt";
        writer.textRecord(where + ": ", r.values, "NULL");
        return true;
    });
    const SQliteRecovery::Summary s = recovery.summary();
    QStringList reasons;
    for (auto it = s.reasons.constBegin(); it != s.reasons.constEnd(); ++it)
        reasons << QString("%1 %2").arg(it.key()).arg(it.value());
    writer.line(QString("(%1 recovered, %2 partial, %3 held back%4%5%6)")
                    .arg(s.recovered)
                    .arg(s.partial)
                    .arg(s.held)
                    .arg(reasons.isEmpty() ? "" : ": " + reasons.join(", "))
                    .arg(s.held && !args.has("--all") ? "; --all shows them" : "")
                    .arg(s.unchanged + s.repeated
                             ? QString("; in older page versions %1 live rows and %2 repeats passed over")
                                   .arg(s.unchanged)
                                   .arg(s.repeated)
                             : QString()));
    return finishWalk(writer);
}

int runFreelist(const Args& args) {
    const QString path = args.positional().at(0), pattern = args.positional().at(1);
    if (!checkPattern(pattern)) return Usage;
    SQliteDbUtil db;
    if (!openDb(db, path, args)) return Failed;
    const bool withHeader = args.has("--with-header");
    RecordWriter writer(args.has("--json"));
    writer.line(QString("free-list pages: [%1]").arg(pageList(db.freeListPages)));
    SQliteScanner scanner(db);
    Walk walk(db, scanner);
    printScan(writer, walk, "free-list pages", withHeader, [&](const SQliteScanner::FoundCallback& f) {
        return scanner.forEachLostRecordInFreeSpace(pattern, withHeader, f);
    });
    return finishWalk(writer);
}

// The frames of the write-ahead log beside DB (or the records of its rollback journal), with the
// table or index that owns each page in the database as the engine would see it.
int runWal(const Args& args) {
    QString path = args.positional().at(0);
    if (!checkInputFile(path)) return Failed;
    const QString logFile = companionFile(path, "-wal"), journalFile = companionFile(path, "-journal");
    SQliteDbUtil db;
    SQliteLiveView view;
    const bool loaded = view.open(db, path, logFile, journalFile, SQliteLoader::Documented).ok();
    const bool isLog = !logFile.isEmpty() && QFileInfo(logFile).isFile();
    const bool isJournal = !isLog && !journalFile.isEmpty() && QFileInfo(journalFile).isFile();
    if (!isLog && !isJournal)
        return fail(path + ": no write-ahead log (-wal) or journal (-journal) beside it");
    if (isLog && view.log().frames.isEmpty() && !view.log().error().isEmpty())
        return fail(logFile + ": " + view.log().error());
    if (isJournal && view.journal().records.isEmpty())
        return fail(journalFile + ": " + view.journal().error());
    QMap<int, QString> owners;
    QSet<int> freePages;
    if (loaded) {
        owners = SQliteScanner(db).pageOwners();
        for (int p : db.freeListPages)
            freePages.insert(p);
    }
    auto owner = [&](quint32 page) {
        return owners.value(int(page), freePages.contains(int(page)) ? "(free)"
                                       : loaded                      ? "(none)"
                                                                     : "(unknown)");
    };
    RecordWriter writer(args.has("--json"));
    if (isLog) {
        const SQliteWal& log = view.log();
        const SQliteWal::Header& h = log.header;
        writer.line(
            QString("%1: magic 0x%2 (%3-endian checksums), format %4, pages of %5 bytes, checkpoint %6, "
                    "salts 0x%7 0x%8, header checksum %9")
                .arg(logFile)
                .arg(h.magic, 8, 16, QChar('0'))
                .arg(log.bigEndianChecksums() ? "big" : "little")
                .arg(h.formatVersion)
                .arg(h.pageSize)
                .arg(h.checkpointSequence)
                .arg(h.salt1, 8, 16, QChar('0'))
                .arg(h.salt2, 8, 16, QChar('0'))
                .arg(h.checksumValid ? "valid" : "INVALID"));
        const int committed = log.committedFrames();
        writer.line(QString("%1 frames: %2 committed, %3 not; %4; database of %5 pages after the last commit")
                        .arg(log.frames.size())
                        .arg(committed)
                        .arg(log.frames.size() - committed)
                        .arg(log.trailingBytes
                                 ? QString("%1 bytes of a frame cut off at the end").arg(log.trailingBytes)
                                 : QString("no frame cut off"))
                        .arg(log.committedSize()));
        writer.line("frame | page | owner | commit | valid | committed | generation");
        for (const SQliteWal::Frame& f : log.frames) {
            const QVariant commit = f.isCommit() ? QVariant(f.databaseSize) : QVariant(false);
            if (writer.json())
                writer.object({{"frame", f.index},
                               {"page", f.page},
                               {"owner", owner(f.page)},
                               {"commit", commit},
                               {"valid", f.valid},
                               {"committed", f.committed},
                               {"generation", f.generation}});
            else
                writer.line(
                    QString("%1 | %2 | %3 | %4 | %5 | %6 | %7")
                        .arg(f.index)
                        .arg(f.page)
                        .arg(owner(f.page))
                        .arg(f.isCommit() ? QString("commit, %1 pages").arg(f.databaseSize) : QString("-"))
                        .arg(f.valid ? "valid" : "INVALID")
                        .arg(f.committed ? "committed" : "not committed")
                        .arg(f.generation));
        }
    } else {
        const SQliteJournal& journal = view.journal();
        writer.line(
            QString("%1: %2, %3 records, database of %4 pages before the transaction, sectors of %5 bytes, "
                    "pages of %6 bytes")
                .arg(journalFile)
                .arg(journal.isHot() ? "hot (an unfinished transaction)"
                                     : "header gone (a finished transaction)")
                .arg(journal.records.size())
                .arg(journal.header.initialSize)
                .arg(journal.header.sectorSize)
                .arg(journal.header.pageSize));
        writer.line("record | page | owner | checksum");
        for (const SQliteJournal::Record& r : journal.records) {
            const QString checked = r.valid ? "valid" : journal.header.magicValid ? "INVALID" : "unchecked";
            if (writer.json())
                writer.object(
                    {{"record", r.index}, {"page", r.page}, {"owner", owner(r.page)}, {"checksum", checked}});
            else
                writer.line(
                    QString("%1 | %2 | %3 | %4").arg(r.index).arg(r.page).arg(owner(r.page), checked));
        }
    }
    writer.finish();
    return Ok;
}

const Option kNoWal = {"--no-wal", nullptr, "read the main file alone, not the -wal or -journal beside it"};
const Option kDocumented = {"--documented", nullptr,
                            "the library's documented readings instead: loadDb's checks (which refuse\n"
                            "64 KiB pages, files past 2 GiB and files whose length is not the header's),\n"
                            "parseTables' column map, NULL as 0 and the 24- and 48-bit quirks"};

const Registration walCommand(
    {"wal",
     "DB",
     "Lists the frames of the write-ahead log beside DB (DB-wal): number, page, the table or index\n"
     "that owns the page, commit (and the database's size after it), whether the frame is valid (salts\n"
     "and checksum chain), committed, and its generation (0 the log's current one, 1 the one before...).\n"
     "Without a log, lists the page records of the rollback journal (DB-journal) instead.",
     {{"--json", nullptr, "one JSON array of frames or records"}},
     runWal});

const Registration tablesCommand(
    {"tables",
     "DB",
     "Lists the tables of an SQLite database read without the engine, as the engine reads its schema:\n"
     "the exact name (control characters escaped), root page, how many leaf pages, whether it has no\n"
     "rowid or is strict, and the column names in declared order (the rowid alias marked).\n"
     "What the reader read past in a damaged file is said on stderr.",
     {{"--all", nullptr, "the indexes too, each with its table"},
      {"--dropped", nullptr,
       "the tables and indexes whose CREATE statements lie in free space but that the\n"
       "schema no longer holds as they were (dropped, or dropped and created again), each\n"
       "with the free pages its old b-tree still reaches"},
      {"--pages", nullptr, "list the pages too"},
      kNoWal,
      kDocumented,
      {"--json", nullptr,
       "one JSON array of {name, type, rootPage, sql, pages, withoutRowid, strict,\n"
       "columnNames, columns: [{name, type, affinity, primaryKey, rowid}]}"}},
     runTables});
const Registration rowsCommand(
    {"rows",
     "DB TABLE",
     "Prints the live rows of TABLE as the engine reads them: the rowid first, then the columns in\n"
     "declared order (a table without rowid: its columns alone, in key order). NULL is NULL, integers\n"
     "are exact, the rowid alias shows the rowid, a REAL column's integral values are floats. TABLE is\n"
     "the exact name (after -- when it starts with a dash). Rows are printed as they are read, in\n"
     "constant memory. Ctrl-C stops and keeps what was printed.",
     {kNoWal,
      kDocumented,
      {"--json", nullptr,
       "one JSON array of rows: integers exact, floats with a point or an exponent,\n"
       "blobs as base64, NULL as null"},
      {"--csv", nullptr,
       "CSV (RFC 4180) with a header line: NULL empty, text always quoted,\n"
       "blobs as x'hex'"}},
     runRows});
const Registration recoverCommand(
    {"recover",
     "DB [TABLE [PATTERN]]",
     QString(
         "Recovers the deleted records of TABLE (without it, of every table, live or dropped, in one pass)\n"
         "from the free space of its leaf pages and from every page no table owns. Each record is whole\n"
         "(its header, serial types and values fit where it lies), goes to the table whose schema it fits\n"
         "best (ambiguous: the others that fit as well), has its values in declared column order (NULL as\n"
         "NULL, the rowid alias filled when the cell's rowid survives) and comes with its page, offset,\n"
         "region and verdict. A start that a freeblock header overwrote is rebuilt when only one reading\n"
         "fits; records that overflowed are reassembled from free overflow pages. A dropped table's rows\n"
         "are found through its CREATE statement in free space (tables --dropped lists them).\n"
         "PATTERN, one letter per column, defaults to what the declared types allow: n the rowid alias,\n"
         "d NULL or a number, t NULL, text or blob, a anything (plus the letters of --raw).\n"
         "With --raw, the reader's own scan runs instead; it needs PATTERN:\n%1\n"
         "Ctrl-C stops the search and keeps what was printed.")
         .arg(kPatternHelp),
     {{"--all", nullptr,
       "also print the records held back, with their reasons: live (a live row),\n"
       "superseded (an earlier version of a live row), duplicate, encoding, layout,\n"
       "affinity, empty"},
      {"--no-free-list", nullptr, "leave the free-list pages out"},
      kNoWal,
      kDocumented,
      {"--json", nullptr,
       "one JSON array of {table, dropped, page, offset, region, version, verdict, reasons,\n"
       "rowid, overflow, ambiguous, rebuilt, values}"},
      {"--csv", nullptr, "the same as CSV rows, for spreadsheets (NULL empty, blobs as x'hex')"},
      {"--raw", nullptr, "the reader's own scan instead, which needs PATTERN"},
      {"--with-header", nullptr,
       "with --raw: expect a rowid and a header size before the serial types\n"
       "(whole cells)"},
      {"--free-list", nullptr, "with --raw: search the database's free-list pages too"}},
     runRecover});
const Registration freelistCommand(
    {"freelist",
     "DB PATTERN",
     QString("Searches every free-list page of the database for records whose serial types fit PATTERN.\n%1")
         .arg(kPatternHelp),
     {{"--with-header", nullptr, "expect a rowid and a header size before the serial types"},
      kNoWal,
      kDocumented,
      {"--json", nullptr, "one JSON array of {source, values}"}},
     runFreelist});

} // namespace
