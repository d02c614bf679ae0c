// Feeds arbitrary bytes to the MMKV reader and reads back every key it found.
#include "MMKVParser.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    MMKVParser parser{QString()};
    // A heap copy of exactly the input size, so that any read past the end is caught.
    parser.loadFromData(QByteArray(reinterpret_cast<const char*>(data), int(size)));
    for (auto it = parser.m_entries.cbegin(); it != parser.m_entries.cend(); ++it) {
        (void)parser.getInt(it.key());
        (void)parser.getString(it.key());
    }
    return 0;
}
