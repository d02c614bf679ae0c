// Parses arbitrary bytes as a property list and as a keyed archive, resolving every reference.
#include "NSKeyedArchiver.h"

#include <QByteArray>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size));
    NSKeyedArchiver archive;
    archive.loadFromData(bytes);
    archive.loadRootFromData(bytes);
    return 0;
}
