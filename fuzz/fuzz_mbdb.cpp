// Reads arbitrary bytes as a legacy backup index, with and without a valid signature.
#include "MbdbUtil.h"

#include <QFile>
#include <QTemporaryFile>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static QTemporaryFile file;
    if (!file.isOpen() && !file.open()) return 0;
    for (const bool withSignature : {false, true}) {
        file.resize(0);
        file.seek(0);
        if (withSignature) file.write("mbdb\x05\x00", 6);
        file.write(reinterpret_cast<const char*>(data), qint64(size));
        file.flush();
        MbdbUtil index;
        if (index.loadDb(file.fileName())) index.fetchRecords();
    }
    return 0;
}
