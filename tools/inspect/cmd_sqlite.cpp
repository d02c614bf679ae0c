// tables, rows, recover, freelist: the raw SQLite reader and deleted-record recovery.
#include "Command.h"

#include "BackupInput.h"
#include "RecordWriter.h"
#include "SQliteDbUtil.h"
#include "SQliteLiveView.h"
#include "SQliteRecovery.h"
#include "SQliteScanner.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>

using namespace inspect;

namespace {

const char* const kPatternHelp = "PATTERN has one character per column: 0-9 exactly that serial type, "
                                 "b NULL or blob, d NULL or a number, f NULL or float, i NULL or integer, "
                                 "n NULL, s NULL or text.";

// Opens db read-only as the engine would see it: with the write-ahead log or hot journal beside
// it, unless noWal. Says on stderr what it did with them; on failure prints why and returns false.
bool openDb(SQliteDbUtil& db, QString path, SQliteLiveView& view, bool noWal) {
    if (!checkInputFile(path)) return false;
    const bool loaded =
        view.load(db, path, companionFile(path, "-wal"), companionFile(path, "-journal"), noWal);
    if (!view.note().isEmpty()) note(view.note());
    if (loaded) return true;
    const qint64 size =
        db.stream && db.stream->device() ? db.stream->device()->size() : QFileInfo(path).size();
    if (!db.file || !db.file->isOpen()) {
        fail(path + ": cannot open for reading");
    } else if (db.header.magic.isEmpty()) {
        fail(path + ": not an SQLite 3 database");
    } else if (size != qint64(db.header.pageSize) * db.header.pageCount) {
        fail(QString("%1: size %2 does not match the header (%3 pages of %4 bytes); "
                     "a truncated copy, a write-ahead log that is not beside it, or 64 KiB pages, which are "
                     "not supported")
                 .arg(path)
                 .arg(size)
                 .arg(db.header.pageCount)
                 .arg(db.header.pageSize));
    } else {
        fail(QString("%1: free-list trunk page %2 is not in the file")
                 .arg(path)
                 .arg(db.header.firstFreeListTrunk));
    }
    return false;
}

bool openDb(SQliteDbUtil& db, const QString& path, const Args& args) {
    static SQliteLiveView view; // one database a run
    return openDb(db, path, view, args.has("--no-wal"));
}

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
    return 130;
}

int runTables(const QStringList& argv) {
    Args args(argv, {"--json", "--pages", "--no-wal"}, {});
    int code = Ok;
    if (!parseOrExit("tables", args, 1, 1, &code)) return code;
    SQliteDbUtil db;
    if (!openDb(db, args.positional().at(0), args)) return Failed;
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
    out(QString("%1 pages of %2 bytes, text encoding %3, %4 free-list pages")
            .arg(db.header.pageCount)
            .arg(db.header.pageSize)
            .arg(db.header.textEncoding == 2   ? "UTF-16le"
                 : db.header.textEncoding == 3 ? "UTF-16be"
                                               : "UTF-8")
            .arg(db.freeListPages.size()));
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

int runRows(const QStringList& argv) {
    Args args(argv, {"--json", "--no-wal"}, {});
    int code = Ok;
    if (!parseOrExit("rows", args, 2, 2, &code)) return code;
    SQliteDbUtil db;
    if (!openDb(db, args.positional().at(0), args)) return Failed;
    const QString name = args.positional().at(1);
    if (!db.tables.contains(name))
        return fail(QString("%1: no table named '%2'").arg(args.positional().at(0), name));
    RecordWriter writer(args.has("--json"));
    writer.line("rowid | " + columnNames(db.tables.value(name)).join(" | "));
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

int runRecover(const QStringList& argv) {
    Args args(
        argv,
        {"--json", "--csv", "--all", "--raw", "--with-header", "--free-list", "--no-free-list", "--no-wal"},
        {});
    int code = Ok;
    if (!parseOrExit("recover", args, 2, 3, &code)) return code;
    const QString path = args.positional().at(0), name = args.positional().at(1),
                  pattern = args.positional().value(2);
    const bool raw = args.has("--raw");
    if (raw && !checkPattern(pattern)) return Usage;
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
    if (!openDb(db, path, view, args.has("--no-wal"))) return Failed;
    if (!db.tables.contains(name)) return fail(QString("%1: no table named '%2'").arg(path, name));
    if (raw) return runRawRecover(args, db);

    SQliteRecovery recovery(db);
    recovery.setLiveView(&view);
    if (!recovery.setTable(name, pattern))
        return fail(QString("%1: %2").arg(path, recovery.error()),
                    recovery.error().contains("pattern") ? Usage : Failed);
    recovery.setHeldIncluded(args.has("--all"));
    recovery.setFreePagesSearched(!args.has("--no-free-list"));
    const RecordWriter::Format format = args.has("--json")  ? RecordWriter::Json
                                        : args.has("--csv") ? RecordWriter::Csv
                                                            : RecordWriter::Text;
    RecordWriter writer(format);
    const QStringList columns = recovery.columnNames();
    writer.line(QString("-- %1: columns %2; pattern %3").arg(name, columns.join(", "), recovery.pattern()));
    if (format == RecordWriter::Csv) {
        QList<QVariant> head{"page",    "offset",  "region", "version",
                             "verdict", "reasons", "rowid",  "overflow"};
        for (const QString& c : columns)
            head << c;
        writer.csvRow(head);
    }
    Walk walk(db);
    walk.setWhat("searching " + name);
    recovery.setProgress(walk.reporter());
    recovery.forEach([&](const SQliteRecovery::Record& r) {
        const QVariant rowid = r.rowidKnown ? QVariant(r.rowid) : QVariant();
        const QString overflow = SQliteRecovery::overflowName(r.overflow);
        if (format != RecordWriter::Text) {
            writer.object({{"page", r.page},
                           {"offset", r.offset},
                           {"region", SQliteRecovery::regionName(r.region)},
                           {"version", r.version.isEmpty() ? QString("live") : r.version},
                           {"verdict", SQliteRecovery::verdictName(r.verdict)},
                           {"reasons", r.reasons},
                           {"rowid", rowid},
                           {"overflow", overflow.isEmpty() ? QVariant() : QVariant(overflow)}},
                          r.values);
        } else {
            QString where = QString("page %1, offset %2, %3")
                                .arg(r.page)
                                .arg(r.offset)
                                .arg(SQliteRecovery::regionName(r.region));
            if (r.verdict != SQliteRecovery::Recovered)
                where += ", " + SQliteRecovery::verdictName(r.verdict);
            if (!r.reasons.isEmpty()) where += " (" + r.reasons.join(", ") + ")";
            if (!overflow.isEmpty()) where += ", overflow " + overflow;
            writer.textRecord(where + ": ", r.values, "NULL");
        }
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

int runFreelist(const QStringList& argv) {
    Args args(argv, {"--json", "--with-header", "--no-wal"}, {});
    int code = Ok;
    if (!parseOrExit("freelist", args, 2, 2, &code)) return code;
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
int runWal(const QStringList& argv) {
    Args args(argv, {"--json"}, {});
    int code = Ok;
    if (!parseOrExit("wal", args, 1, 1, &code)) return code;
    QString path = args.positional().at(0);
    if (!checkInputFile(path)) return Failed;
    const QString logFile = companionFile(path, "-wal"), journalFile = companionFile(path, "-journal");
    SQliteDbUtil db;
    SQliteLiveView view;
    const bool loaded = view.load(db, path, logFile, journalFile);
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

const Registration walCommand(
    {"wal", "wal DB [--json]",
     "Lists the frames of the write-ahead log beside DB (DB-wal): number, page, the table or index\n"
     "that owns the page, commit (and the database's size after it), whether the frame is valid (salts\n"
     "and checksum chain), committed, and its generation (0 the log's current one, 1 the one before...).\n"
     "Without a log, lists the page records of the rollback journal (DB-journal) instead.",
     runWal});

const Registration
    tablesCommand({"tables", "tables DB [--pages] [--json]",
                   "Lists the tables of an SQLite database read without the engine: name, root page,\n"
                   "how many leaf pages and the column names.\n"
                   "  --pages  list the leaf pages too\n"
                   "  --no-wal read the main file alone, not the -wal or -journal beside it\n"
                   "  --json   one JSON array of tables (with their leaf pages)",
                   runTables});
const Registration rowsCommand(
    {"rows", "rows DB TABLE [--json]",
     "Prints the live rows of TABLE in rowid order: rowid first, then the columns.\n"
     "NULL reads as 0. Rows are printed as they are read, in constant memory.\n"
     "--json prints one array of records (blobs as base64). Ctrl-C stops and keeps what was printed.",
     runRows});
const Registration recoverCommand(
    {"recover",
     "recover DB TABLE [PATTERN] [--all] [--no-free-list] [--json | --csv] [--raw [--with-header] "
     "[--free-list]]",
     QString(
         "Recovers the deleted records of TABLE from the unallocated gaps and freeblocks of its leaf pages\n"
         "and from the free-list pages. Each record is whole (its header, serial types and values fit\n"
         "where it lies), has its values in declared column order (NULL as NULL, the rowid alias filled\n"
         "when the cell's rowid survives) and comes with its page, offset, region and verdict; records\n"
         "that overflowed are reassembled from free overflow pages.\n"
         "PATTERN, one letter per column, defaults to what the declared types allow: n the rowid alias,\n"
         "d NULL or a number, t NULL, text or blob, a anything (plus the letters below).\n"
         "  --all           also print the records held back, with their reasons: live (a live row),\n"
         "                  superseded (an earlier version of a live row), duplicate, encoding, layout,\n"
         "                  affinity, empty\n"
         "  --no-free-list  leave the free-list pages out\n"
         "  --json          one JSON array of {page, offset, region, verdict, reasons, rowid, overflow, "
         "values}\n"
         "  --csv           the same as CSV rows, for spreadsheets (NULL empty, blobs as x'hex')\n"
         "  --raw           the reader's own scan instead, which needs PATTERN:\n%1\n"
         "    --with-header  expect a rowid and a header size before the serial types (whole cells)\n"
         "    --free-list    search the database's free-list pages too\n"
         "Ctrl-C stops the search and keeps what was printed.")
         .arg(kPatternHelp),
     runRecover});
const Registration freelistCommand(
    {"freelist", "freelist DB PATTERN [--with-header] [--json]",
     QString("Searches every free-list page of the database for records whose serial types fit PATTERN.\n%1\n"
             "  --with-header  expect a rowid and a header size before the serial types\n"
             "  --json         one JSON array of {source, values}")
         .arg(kPatternHelp),
     runFreelist});

} // namespace
