// Loading, traversal and recovery over a generated chat database (4 KiB pages, 20000 rows of
// which every third was deleted, and a dropped table on the free list).
#include "SQliteDbUtil.h"

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <QDir>
#include <QString>

#include <cstdio>

namespace {

const QString& database() {
    static const QString path = [] {
        const QString p = QDir::temp().filePath("utils-bench-sqlite.db");
        std::remove(p.toUtf8().constData());
        sqlite3* db = nullptr;
        sqlite3_open(p.toUtf8().constData(), &db);
        sqlite3_exec(db,
                     "PRAGMA page_size=4096; PRAGMA secure_delete=OFF;"
                     "CREATE TABLE message (id INTEGER PRIMARY KEY, chat INTEGER, body TEXT, at INTEGER);"
                     "CREATE TABLE old (id INTEGER PRIMARY KEY, body TEXT);"
                     "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20000)"
                     " INSERT INTO message SELECT i, i % 17, printf('message %d with some text to read', i),"
                     " 1700000000 + i * 60 FROM n;"
                     "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 5000)"
                     " INSERT INTO old SELECT i, printf('old note %d', i) FROM n;"
                     "DELETE FROM message WHERE id % 3 = 0; DROP TABLE old;",
                     nullptr, nullptr, nullptr);
        sqlite3_close(db);
        return p;
    }();
    return path;
}

void BM_LoadDb(benchmark::State& state) {
    for (auto _ : state) {
        SQliteDbUtil reader;
        benchmark::DoNotOptimize(reader.loadDb(database()));
    }
}
BENCHMARK(BM_LoadDb)->Unit(benchmark::kMillisecond);

void BM_FetchRecordsInTable(benchmark::State& state) {
    SQliteDbUtil reader;
    reader.loadDb(database());
    qint64 rows = 0;
    for (auto _ : state)
        rows += reader.fetchRecordsInTable("message").size();
    state.counters["rows/s"] = benchmark::Counter(double(rows), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FetchRecordsInTable)->Unit(benchmark::kMillisecond);

void BM_SearchLostRecord(benchmark::State& state) {
    SQliteDbUtil reader;
    reader.loadDb(database());
    for (auto _ : state)
        benchmark::DoNotOptimize(reader.searchLostRecord("message", "nisi", false));
}
BENCHMARK(BM_SearchLostRecord)->Unit(benchmark::kMillisecond);

void BM_SearchFreeList(benchmark::State& state) {
    SQliteDbUtil reader;
    reader.loadDb(database());
    qint64 bytes = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(reader.searchLostRecordInFreeSpace("ns", false));
        bytes += qint64(reader.freeListPages.size()) * reader.header.pageSize;
    }
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_SearchFreeList)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
