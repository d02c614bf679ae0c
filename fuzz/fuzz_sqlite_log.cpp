// A database with a write-ahead log or a rollback journal beside it, read as the engine would see
// it, with the recovery searching every page version the view does not show. The input is the
// database's length (4 bytes, little-endian), the database, then the log or journal (a log when
// it starts with a log's magic).
#include "SQliteDbUtil.h"
#include "SQliteLiveView.h"
#include "SQliteRecovery.h"
#include "SQliteScanner.h"

#include <QFile>
#include <QTemporaryDir>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static QTemporaryDir dir;
    if (size < 4 || !dir.isValid()) return 0;
    const size_t main =
        std::min<size_t>(size - 4, data[0] | data[1] << 8 | data[2] << 16 | size_t(data[3]) << 24);
    const QByteArray db(reinterpret_cast<const char*>(data + 4), int(main));
    const QByteArray side(reinterpret_cast<const char*>(data + 4 + main), int(size - 4 - main));
    const QString path = dir.filePath("db");
    const bool log = side.startsWith("\x37\x7f\x06");
    QFile::remove(path + "-wal");
    QFile::remove(path + "-journal");
    for (const auto& file : {qMakePair(path, db), qMakePair(path + (log ? "-wal" : "-journal"), side)}) {
        QFile f(file.first);
        if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate)) return 0;
        f.write(file.second);
    }

    SQliteDbUtil reader;
    SQliteLiveView view;
    if (!view.load(reader, path)) return 0;
    SQliteScanner(reader).pageOwners();
    for (const SQliteLiveView::Version& v : view.hiddenVersions())
        view.pageData(v);
    for (const SQliteTable& t : reader.fetchAllTable()) {
        reader.fetchRecordsInTable(t.name);
        SQliteRecovery recovery(reader);
        recovery.setLiveView(&view);
        recovery.setHeldIncluded(true);
        if (recovery.setTable(t.name)) recovery.recover();
    }
    return 0;
}
