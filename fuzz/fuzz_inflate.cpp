// Feeds arbitrary bytes to the inflaters and checks that compression round-trips.
#include "GZipCompressor.h"
#include "OSUtils.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray input(reinterpret_cast<const char*>(data), int(size));
    QByteArray out;
    GZipCompressor::gzipDecompress(input, out);
    GZipCompressor::deflateDecompress(input, out);
    OSUtils::unCompressData(input, &out);

    QByteArray packed;
    if (!GZipCompressor::gzipCompress(input, packed, int(size % 12) - 1)) abort();
    if (!GZipCompressor::gzipDecompress(packed, out) || out != input) abort();
    return 0;
}
