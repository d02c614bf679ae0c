// Writes arbitrary bytes to a scratch file and measures it as a SILK voice note.
#include "OSUtils.h"

#include <QDir>
#include <QFile>

#include <cstdint>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const QString path = QDir::temp().filePath(QString("fuzz_silk_%1.slk").arg(getpid()));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) return 0;
    file.write(reinterpret_cast<const char*>(data), qint64(size));
    file.close();
    // At most one frame per two bytes after the header, 20 ms each.
    const int seconds = OSUtils::readSilk(path);
    if (seconds < 0 || qint64(seconds) * 1000 > qint64(size) * 10) abort();
    OSUtils::getMediaDuration("voice.amr", path, "hh:mm:ss");
    return 0;
}
