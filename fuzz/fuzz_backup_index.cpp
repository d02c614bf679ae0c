// Reads arbitrary bytes as each part of a device backup's index: an entry's keyed-archive
// metadata, the legacy index (Manifest.mbdb) and the manifest database (Manifest.db), the last two
// in a backup folder of their own.
#include "DeviceBackup.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static QTemporaryDir dir;
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size));
    DeviceBackup::Entry entry;
    DeviceBackup::readMetadata(bytes, entry);
    for (const char* index : {"Manifest.mbdb", "Manifest.db"}) {
        const QString folder = dir.path() + '/' + index + ".d";
        QDir().mkpath(folder);
        QFile file(folder + '/' + index);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
            return 0;
        file.close();
        DeviceBackup backup;
        if (!backup.open(folder)) continue;
        for (const DeviceBackup::Entry& e : backup.entries())
            if (backup.find(e.domain, e.path) == nullptr || !backup.storedFile(e).isEmpty()) abort();
    }
    return 0;
}
