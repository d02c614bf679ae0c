// tables, rows, recover, freelist: the raw SQLite reader and deleted-record recovery.
#include "Command.h"

#include "SQliteDbUtil.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

using namespace inspect;

namespace {

const char* const kPatternHelp = "PATTERN has one character per column: 0-9 exactly that serial type, "
                                 "b NULL or blob, d NULL or a number, f NULL or float, i NULL or integer, "
                                 "n NULL, s NULL or text.";

// Opens db read-only; on failure prints why and returns false.
bool openDb(SQliteDbUtil& db, const QString& path) {
    if (!checkInputFile(path)) return false;
    if (db.loadDb(path)) return true;
    const QFileInfo info(path);
    if (!db.file || !db.file->isOpen()) {
        fail(path + ": cannot open for reading");
    } else if (db.header.magic.isEmpty()) {
        fail(path + ": not an SQLite 3 database");
    } else if (info.size() != qint64(db.header.pageSize) * db.header.pageCount) {
        fail(
            QString("%1: file size %2 does not match the header (%3 pages of %4 bytes); "
                    "a truncated copy, an unmerged write-ahead log, or 64 KiB pages, which are not supported")
                .arg(path)
                .arg(info.size())
                .arg(db.header.pageCount)
                .arg(db.header.pageSize));
    } else {
        fail(QString("%1: free-list trunk page %2 is not in the file")
                 .arg(path)
                 .arg(db.header.firstFreeListTrunk));
    }
    return false;
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

QJsonArray recordToJson(const QList<QVariant>& record) {
    QJsonArray values;
    for (const QVariant& v : record)
        values.append(toJson(v));
    return values;
}

QString recordToText(const QList<QVariant>& record) {
    QStringList cells;
    for (const QVariant& v : record)
        cells << toText(v);
    return cells.join(" | ");
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

// Runs a long scan on a worker thread; while it runs, shows elapsed time on a terminal and
// turns Ctrl-C into stopSearch(), after which the scan returns what it found so far.
template <typename Scan> QList<QList<QVariant>> runScan(SQliteDbUtil& db, const QString& what, Scan scan) {
    static SQliteDbUtil* current = nullptr;
    current = &db;
    installInterruptHandler([] {
        if (current) current->stopSearch();
    });
    QList<QList<QVariant>> results;
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    std::thread worker([&] {
        results = scan();
        std::lock_guard<std::mutex> lock(m);
        done = true;
        cv.notify_one();
    });
    QElapsedTimer timer;
    timer.start();
    {
        std::unique_lock<std::mutex> lock(m);
        while (!cv.wait_for(lock, std::chrono::milliseconds(250), [&] { return done; }))
            progress(QString("%1... %2 s (Ctrl-C stops)").arg(what).arg(timer.elapsed() / 1000.0, 0, 'f', 1));
    }
    worker.join();
    progress(QString());
    current = nullptr;
    return results;
}

int runTables(const QStringList& argv) {
    Args args(argv, {"--json"}, {});
    int code = Ok;
    if (!parseOrExit("tables", args, 1, 1, &code)) return code;
    SQliteDbUtil db;
    if (!openDb(db, args.positional().at(0))) return Failed;
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
        out(QString("%1  root %2  leaf pages %3 [%4]")
                .arg(t.name)
                .arg(t.rootPage)
                .arg(t.pages.size())
                .arg(pageList(t.pages)));
        out("    columns: " + (t.columns.isEmpty() ? QString("(none)") : columnNames(t).join(", ")));
    }
    return Ok;
}

int runRows(const QStringList& argv) {
    Args args(argv, {"--json"}, {});
    int code = Ok;
    if (!parseOrExit("rows", args, 2, 2, &code)) return code;
    SQliteDbUtil db;
    if (!openDb(db, args.positional().at(0))) return Failed;
    const QString name = args.positional().at(1);
    if (!db.tables.contains(name))
        return fail(QString("%1: no table named '%2'").arg(args.positional().at(0), name));
    const QList<QList<QVariant>> records = db.fetchRecordsInTable(name);
    if (args.has("--json")) {
        QJsonArray list;
        for (const auto& r : records)
            list.append(recordToJson(r));
        printJson(list);
        return Ok;
    }
    out("rowid | " + columnNames(db.tables.value(name)).join(" | "));
    for (const auto& r : records)
        out(recordToText(r));
    out(QString("(%1 rows)").arg(records.size()));
    return Ok;
}

// Prints recovered records, text or JSON, each tagged with where it was found.
int printRecovered(const QList<QPair<QString, QList<QList<QVariant>>>>& groups, bool json, bool withHeader,
                   bool wasInterrupted) {
    if (json) {
        QJsonArray list;
        for (const auto& g : groups)
            for (const auto& r : g.second)
                list.append(QJsonObject{{"source", g.first}, {"values", recordToJson(r)}});
        printJson(list);
    } else {
        for (const auto& g : groups) {
            out(QString("-- %1: %2 candidate records%3")
                    .arg(g.first)
                    .arg(g.second.size())
                    .arg(withHeader ? " (first value: rowid)" : ""));
            for (const auto& r : g.second)
                out(recordToText(r));
        }
    }
    if (wasInterrupted) {
        fail("interrupted: the results above are incomplete");
        return 130;
    }
    return Ok;
}

int runRecover(const QStringList& argv) {
    Args args(argv, {"--json", "--with-header", "--free-list"}, {});
    int code = Ok;
    if (!parseOrExit("recover", args, 3, 3, &code)) return code;
    const QString path = args.positional().at(0), name = args.positional().at(1),
                  pattern = args.positional().at(2);
    if (!checkPattern(pattern)) return Usage;
    SQliteDbUtil db;
    if (!openDb(db, path)) return Failed;
    if (!db.tables.contains(name)) return fail(QString("%1: no table named '%2'").arg(path, name));
    const bool withHeader = args.has("--with-header");
    QList<QPair<QString, QList<QList<QVariant>>>> groups;
    groups.append({name + " (gaps and freeblocks)", runScan(db, "searching " + name, [&] {
                       return db.searchLostRecord(name, pattern, withHeader);
                   })});
    if (args.has("--free-list") && !interrupted())
        groups.append({"free-list pages", runScan(db, "searching free pages", [&] {
                           return db.searchLostRecordInFreeSpace(pattern, withHeader);
                       })});
    return printRecovered(groups, args.has("--json"), withHeader, interrupted());
}

int runFreelist(const QStringList& argv) {
    Args args(argv, {"--json", "--with-header"}, {});
    int code = Ok;
    if (!parseOrExit("freelist", args, 2, 2, &code)) return code;
    const QString path = args.positional().at(0), pattern = args.positional().at(1);
    if (!checkPattern(pattern)) return Usage;
    SQliteDbUtil db;
    if (!openDb(db, path)) return Failed;
    const bool withHeader = args.has("--with-header");
    if (!args.has("--json")) out(QString("free-list pages: [%1]").arg(pageList(db.freeListPages)));
    QList<QPair<QString, QList<QList<QVariant>>>> groups;
    groups.append({"free-list pages", runScan(db, "searching free pages", [&] {
                       return db.searchLostRecordInFreeSpace(pattern, withHeader);
                   })});
    return printRecovered(groups, args.has("--json"), withHeader, interrupted());
}

const Registration
    tablesCommand({"tables", "tables DB [--json]",
                   "Lists the tables of an SQLite database read without the engine: name, root page,\n"
                   "leaf pages and column names.\n  --json  one JSON array of tables",
                   runTables});
const Registration
    rowsCommand({"rows", "rows DB TABLE [--json]",
                 "Prints the live rows of TABLE in rowid order: rowid first, then the columns.\n"
                 "NULL reads as 0. --json prints one array of records (blobs as base64).",
                 runRows});
const Registration recoverCommand(
    {"recover", "recover DB TABLE PATTERN [--with-header] [--free-list] [--json]",
     QString("Searches the unallocated gaps and freeblocks of TABLE's leaf pages for the remains of deleted\n"
             "records whose serial types fit PATTERN.\n%1\n"
             "  --with-header  expect a rowid and a header size before the serial types (whole cells)\n"
             "  --free-list    search the database's free-list pages too\n"
             "  --json         one JSON array of {source, values}\n"
             "Ctrl-C stops the search and prints what was found.")
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
