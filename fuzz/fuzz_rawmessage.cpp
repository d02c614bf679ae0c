// Parses arbitrary bytes as a schema-less protobuf message and looks up a few paths. The first
// input byte picks the path so that deep descents through nested sets are reached as well.
#include "RawMessage.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* const paths[] = {
        "1", "2.1", "1.1.1", "3.2.1", "1.2.3.4.5.6.7.8", "2.2.2.2.2.2.2.2.2.2"};
    if (size == 0 || size > (1u << 20)) return 0;
    RawMessage message;
    if (!message.merge(reinterpret_cast<const char*>(data) + 1, int(size - 1))) return 0;
    const QString path = paths[data[0] % (sizeof(paths) / sizeof(paths[0]))];
    (void)message.parseStr(path, QString());
    (void)message.parseInt(path, 0);
    (void)message.parseInt64(path, 0);
    return 0;
}
