// Arbitrary bytes as a database: the recovery of every table at once (dropped ones included),
// then of each table the schema names, held-back records included.
#include "FuzzFile.h"
#include "SQliteDbUtil.h"
#include "SQliteRecovery.h"
#include "SQliteSchema.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QString path = fuzzInputFile(data, size);
    SQliteDbUtil reader;
    if (path.isEmpty() || !reader.loadDb(path)) return 0;
    SQliteRecovery all(reader);
    all.setHeldIncluded(true);
    all.setAllTables();
    all.recover();
    for (const SQliteSchema::Object& o : all.droppedObjects())
        all.droppedPages(o.name);
    int tables = 0;
    for (const SQliteSchema::Object& o : SQliteSchema::read(reader)) {
        if (o.type != QLatin1String("table") || ++tables > 4) continue;
        SQliteRecovery recovery(reader);
        recovery.setHeldIncluded(true);
        if (recovery.setTable(o.name)) recovery.recover();
    }
    return 0;
}
