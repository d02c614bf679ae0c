// Arbitrary bytes as a database: the recovery of every table, held-back records included.
#include "FuzzFile.h"
#include "SQliteDbUtil.h"
#include "SQliteRecovery.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QString path = fuzzInputFile(data, size);
    SQliteDbUtil reader;
    if (path.isEmpty() || !reader.loadDb(path)) return 0;
    for (const SQliteTable& t : reader.fetchAllTable()) {
        SQliteRecovery recovery(reader);
        recovery.setHeldIncluded(true);
        if (recovery.setTable(t.name)) recovery.recover();
    }
    return 0;
}
