// gzip compression and inflation of gzip and zlib streams, in fixed 32768-byte slices so that
// large bodies never need an output buffer sized in advance.
#pragma once

#include "utils_export.h"

#include <QByteArray>

class UTILS_EXPORT GZipCompressor {
public:
    // Compresses input into a gzip stream. The level is clamped: above 9 becomes 9, any negative
    // value selects zlib's default. An empty input gives an empty output (no gzip header) and true.
    static bool gzipCompress(QByteArray input, QByteArray& output, int level);

    // Inflates a gzip stream (window bits 31).
    static bool gzipDecompress(QByteArray input, QByteArray& output);

    // Inflates a zlib-wrapped stream (window bits 15). This is what HTTP calls "deflate" in
    // practice; raw deflate data without the zlib header is not accepted.
    static bool deflateDecompress(QByteArray input, QByteArray& output);

    // Inflates input with the given window bits. True only when the end of the stream was reached;
    // on failure the output produced so far is kept. Bytes after the end of the stream are ignored.
    // An empty input gives an empty output and true.
    static bool Decompress(QByteArray input, int windowBits, QByteArray& output);
};
