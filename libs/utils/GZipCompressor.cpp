#include "GZipCompressor.h"

#include <zlib.h>

#include <algorithm>

namespace {
constexpr int kSliceSize = 32768;
}

bool GZipCompressor::gzipCompress(QByteArray input, QByteArray& output, int level) {
    output.clear();
    if (input.isEmpty()) return true;

    if (level > 9) level = 9;
    if (level < 0) level = Z_DEFAULT_COMPRESSION;

    z_stream stream{};
    // 15 window bits plus 16 asks zlib for the gzip wrapper.
    if (deflateInit2(&stream, level, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) return false;

    unsigned char buffer[kSliceSize];
    // zlib never writes through next_in; constData avoids detaching the shared copy.
    const char* next = input.constData();
    int remaining = input.size();
    int ret = Z_OK;
    do {
        const int slice = std::min(remaining, kSliceSize);
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(next));
        stream.avail_in = uInt(slice);
        next += slice;
        remaining -= slice;
        const int flush = remaining > 0 ? Z_NO_FLUSH : Z_FINISH;
        do {
            stream.next_out = buffer;
            stream.avail_out = kSliceSize;
            ret = deflate(&stream, flush);
            if (ret == Z_STREAM_ERROR) {
                deflateEnd(&stream);
                return false;
            }
            output.append(reinterpret_cast<const char*>(buffer), kSliceSize - int(stream.avail_out));
        } while (stream.avail_out == 0);
    } while (remaining > 0);

    deflateEnd(&stream);
    return ret == Z_STREAM_END;
}

bool GZipCompressor::gzipDecompress(QByteArray input, QByteArray& output) {
    return Decompress(input, 15 + 16, output);
}

bool GZipCompressor::deflateDecompress(QByteArray input, QByteArray& output) {
    return Decompress(input, 15, output);
}

bool GZipCompressor::Decompress(QByteArray input, int windowBits, QByteArray& output) {
    output.clear();
    if (input.size() < 1) return true;

    z_stream stream{};
    if (inflateInit2(&stream, windowBits) != Z_OK) return false;

    unsigned char buffer[kSliceSize];
    // zlib never writes through next_in; constData avoids detaching the shared copy.
    const char* next = input.constData();
    int remaining = input.size();
    int ret = Z_OK;
    do {
        const int slice = std::min(remaining, kSliceSize);
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(next));
        stream.avail_in = uInt(slice);
        next += slice;
        remaining -= slice;
        do {
            stream.next_out = buffer;
            stream.avail_out = kSliceSize;
            ret = inflate(&stream, Z_NO_FLUSH);
            switch (ret) {
            case Z_NEED_DICT:
            case Z_STREAM_ERROR:
            case Z_DATA_ERROR:
            case Z_MEM_ERROR:
                inflateEnd(&stream);
                return false;
            default:
                break; // Z_BUF_ERROR only means that no progress was possible in this call
            }
            output.append(reinterpret_cast<const char*>(buffer), kSliceSize - int(stream.avail_out));
        } while (stream.avail_out == 0);
    } while (ret != Z_STREAM_END && remaining > 0);

    inflateEnd(&stream);
    return ret == Z_STREAM_END;
}
