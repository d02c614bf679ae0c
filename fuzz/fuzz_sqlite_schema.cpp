// Loads arbitrary bytes as a database file the way the engine reads it, understands every
// statement of its schema and reads every table's rows as stored; the bytes are also parsed as
// a CREATE TABLE statement of their own.
#include "FuzzFile.h"
#include "SQliteDbUtil.h"
#include "SQliteLoader.h"
#include "SQliteScanner.h"
#include "SQliteSchema.h"
#include "SQliteTableReader.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    SQliteSchema::parseCreateTable(QString::fromUtf8(reinterpret_cast<const char*>(data), int(size)));
    const QString path = fuzzInputFile(data, size);
    SQliteDbUtil reader;
    if (path.isEmpty() || !SQliteLoader::load(reader, path, SQliteLoader::LikeTheEngine).ok()) return 0;
    SQliteScanner scanner(reader);
    scanner.pageOwners();
    for (const SQliteSchema::Object& o : SQliteSchema::read(reader)) {
        if (o.rootPage > 0) scanner.leafPages(o.rootPage);
        if (o.type != QLatin1String("table") || !o.table.ok || o.table.isVirtual) continue;
        SQliteTableReader table(reader);
        table.setTable(o.table, o.rootPage);
        table.forEachRow([](const SQliteTableReader::Row& row) {
            row.toList();
            return true;
        });
    }
    return 0;
}
