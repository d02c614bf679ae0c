// Loads arbitrary bytes as a database file and runs every traversal, view and search over it.
#include "FuzzFile.h"
#include "SQliteDbUtil.h"
#include "SQliteScanner.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QString path = fuzzInputFile(data, size);
    SQliteDbUtil reader;
    if (path.isEmpty() || !reader.loadDb(path)) return 0;
    SQliteScanner scanner(reader);
    for (const SQliteTable& t : reader.fetchAllTable()) {
        reader.fetchRecordsInTable(t.name);
        scanner.forEachRecordView(t.name, [](const SQliteScanner::RecordView& view) {
            for (int i = 0; i < view.size(); ++i) {
                qint64 n = 0;
                view.bytes(i, &n);
                view.value(i);
            }
            return true;
        });
        reader.searchLostRecord(t.name, "isbd", true);
        reader.searchLostRecord(t.name, "nsf", false);
    }
    reader.searchLostRecordInFreeSpace("isb", false);
    return 0;
}
