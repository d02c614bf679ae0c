// The reader against the sqlite3 library on a large chat database made by
// bench/make_corpus.py (scripts/bench.sh makes it and runs this with UTILS_BENCH_DB set):
// loading, the live rows of the message table (the documented list, the scanner's walk and the
// rows as the engine reads them) next to the library stepping through the same rows and reading
// every column, and the deleted-record scan in bytes scanned per second.
#include "SQliteDbUtil.h"
#include "SQliteLoader.h"
#include "SQliteScanner.h"
#include "SQliteTableReader.h"

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <cstdlib>
#include <malloc.h>

namespace {

const char* const kTable = "message";
const char* const kPattern = "isiissi"; // id, guid, chat_id, date, sender, body, is_from_me

QString corpus() {
    const char* path = std::getenv("UTILS_BENCH_DB");
    if (!path || !*path) {
        std::fprintf(stderr, "set UTILS_BENCH_DB to a database made by bench/make_corpus.py bench\n");
        std::exit(2);
    }
    return QString::fromLocal8Bit(path);
}

qint64 heapInUse() {
    return qint64(mallinfo2().uordblks);
}

void BM_LoadDb(benchmark::State& state) {
    const QString path = corpus();
    qint64 index = 0, pages = 0;
    for (auto _ : state) {
        const qint64 before = heapInUse();
        SQliteDbUtil reader;
        if (!reader.loadDb(path)) state.SkipWithError("cannot load the corpus");
        index = heapInUse() - before;
        pages = reader.pages.size();
    }
    state.counters["pages"] = double(pages);
    state.counters["index_MB"] = double(index) / 1e6;
}
BENCHMARK(BM_LoadDb)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BM_FetchRecordsInTable(benchmark::State& state) {
    SQliteDbUtil reader;
    reader.loadDb(corpus());
    qint64 rows = 0;
    for (auto _ : state)
        rows += reader.fetchRecordsInTable(kTable).size();
    state.counters["rows/s"] = benchmark::Counter(double(rows), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FetchRecordsInTable)->Unit(benchmark::kMillisecond)->MinTime(3.0);

// The same rows one at a time through SQliteScanner, each dropped once seen.
void BM_ScannerForEachRecord(benchmark::State& state) {
    SQliteDbUtil reader;
    reader.loadDb(corpus());
    qint64 rows = 0;
    for (auto _ : state)
        SQliteScanner(reader).forEachRecord(kTable, [&rows](const QList<QVariant>&) { return ++rows, true; });
    state.counters["rows/s"] = benchmark::Counter(double(rows), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ScannerForEachRecord)->Unit(benchmark::kMillisecond)->MinTime(3.0);

// The same rows as the engine reads them (SQliteTableReader), every value looked at.
void BM_TableReaderRows(benchmark::State& state) {
    SQliteDbUtil reader;
    SQliteLoader::load(reader, corpus(), SQliteLoader::LikeTheEngine);
    SQliteTableReader table(reader);
    table.setTable(kTable);
    qint64 rows = 0, bytes = 0;
    for (auto _ : state)
        table.forEachRow([&](const SQliteTableReader::Row& row) {
            for (int i = 0; i < row.size(); ++i)
                bytes += row.value(i).size;
            return ++rows, true;
        });
    benchmark::DoNotOptimize(bytes);
    state.counters["rows/s"] = benchmark::Counter(double(rows), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_TableReaderRows)->Unit(benchmark::kMillisecond)->MinTime(3.0);

// The same rows through the library, reading every column as its own type.
void BM_Sqlite3Scan(benchmark::State& state) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(corpus().toUtf8().constData(), &db, SQLITE_OPEN_READONLY, nullptr);
    qint64 rows = 0;
    for (auto _ : state) {
        sqlite3_stmt* st = nullptr;
        sqlite3_prepare_v2(db, "SELECT * FROM message", -1, &st, nullptr);
        quint64 sum = 0;
        while (sqlite3_step(st) == SQLITE_ROW) {
            ++rows;
            for (int c = 0, n = sqlite3_column_count(st); c < n; ++c) {
                switch (sqlite3_column_type(st, c)) {
                case SQLITE_INTEGER:
                    sum += quint64(sqlite3_column_int64(st, c));
                    break;
                case SQLITE_FLOAT:
                    sum += quint64(sqlite3_column_double(st, c));
                    break;
                case SQLITE_TEXT:
                    sum += quint64(sqlite3_column_text(st, c)[0]) + quint64(sqlite3_column_bytes(st, c));
                    break;
                case SQLITE_BLOB:
                    sum += quint64(sqlite3_column_bytes(st, c));
                    break;
                default:
                    break;
                }
            }
        }
        sqlite3_finalize(st);
        benchmark::DoNotOptimize(sum);
    }
    sqlite3_close(db);
    state.counters["rows/s"] = benchmark::Counter(double(rows), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Sqlite3Scan)->Unit(benchmark::kMillisecond)->MinTime(3.0);

// searchLostRecord over every leaf page of the table plus searchLostRecordInFreeSpace; the
// bytes are those of every block scanned.
void BM_RecoveryScan(benchmark::State& state) {
    SQliteDbUtil reader;
    reader.loadDb(corpus());
    const bool withHeader = state.range(0) != 0;
    qint64 scanned = 0;
    {
        SQliteScanner scanner(reader);
        for (int page : reader.tables.value(kTable).pages)
            for (const SQliteScanner::Area& area : scanner.areasInPage(page))
                scanned += area.bytes.size();
        scanned +=
            qint64(reader.freeListPages.size()) * (reader.header.pageSize - reader.header.reservedSpace - 12);
    }
    qint64 found = 0;
    for (auto _ : state) {
        found += reader.searchLostRecord(kTable, kPattern, withHeader).size();
        found += reader.searchLostRecordInFreeSpace(kPattern, withHeader).size();
    }
    state.SetBytesProcessed(scanned * qint64(state.iterations()));
    state.counters["scanned_MB"] = double(scanned) / 1e6;
    state.counters["found"] = double(found) / double(state.iterations());
}
BENCHMARK(BM_RecoveryScan)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(3.0);

// The same scan through SQliteScanner, each candidate dropped once seen.
void BM_ScannerRecoveryScan(benchmark::State& state) {
    SQliteDbUtil reader;
    reader.loadDb(corpus());
    const bool withHeader = state.range(0) != 0;
    qint64 found = 0;
    auto count = [&found](const QList<QVariant>&, const SQliteScanner::Location&) { return ++found, true; };
    for (auto _ : state) {
        SQliteScanner scanner(reader);
        scanner.forEachLostRecord(kTable, kPattern, withHeader, count);
        scanner.forEachLostRecordInFreeSpace(kPattern, withHeader, count);
    }
    state.counters["found"] = double(found) / double(state.iterations());
}
BENCHMARK(BM_ScannerRecoveryScan)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(3.0);

} // namespace

BENCHMARK_MAIN();
