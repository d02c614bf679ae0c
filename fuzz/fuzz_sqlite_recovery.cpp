// Arbitrary bytes as a database: the recovery of every table, held-back records included.
#include "SQliteDbUtil.h"
#include "SQliteRecovery.h"

#include <QTemporaryFile>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static QTemporaryFile file;
    if (!file.isOpen() && !file.open()) return 0;
    file.resize(0);
    file.seek(0);
    file.write(reinterpret_cast<const char*>(data), qint64(size));
    file.flush();

    SQliteDbUtil reader;
    if (!reader.loadDb(file.fileName())) return 0;
    for (const SQliteTable& t : reader.fetchAllTable()) {
        SQliteRecovery recovery(reader);
        recovery.setHeldIncluded(true);
        if (recovery.setTable(t.name)) recovery.recover();
    }
    return 0;
}
