// OSUtils: the zlib helpers and media durations (SILK voice notes and FFmpeg-readable media).
#include "OSUtils.h"

#include <QDebug>
#include <QFile>
#include <QTime>

#include <zlib.h>

#include <climits>
#include <cstdint>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
}

namespace {

// Scratch space of compressData: input whose compressed form is larger fails with Z_BUF_ERROR.
constexpr int kCompressScratch = 1024;

// Milliseconds of audio in one SILK frame.
constexpr qint64 kSilkFrameMs = 20;

// Reads a 2-byte little-endian frame length. Returns false when no byte at all could be read;
// a single byte left at the end of the file is taken as a length on its own.
bool readFrameLength(QFile& file, quint16* length) {
    unsigned char bytes[2] = {0, 0};
    const qint64 got = file.read(reinterpret_cast<char*>(bytes), 2);
    if (got <= 0) return false;
    *length = quint16(bytes[0] | (bytes[1] << 8));
    return true;
}

} // namespace

void OSUtils::compressData(QByteArray& output, const QByteArray& input) {
    output.clear();
    Bytef scratch[kCompressScratch];
    uLongf length = sizeof(scratch);
    const int err =
        compress(scratch, &length, reinterpret_cast<const Bytef*>(input.constData()), uLong(input.size()));
    if (err != Z_OK) {
        qDebug() << "conmpress faild, err code:" << err;
        return;
    }
    // A deep copy: the scratch buffer is gone when we return.
    output = QByteArray(reinterpret_cast<const char*>(scratch), int(length));
}

bool OSUtils::unCompressData(const QByteArray& input, QByteArray* output) {
    const uLong inputSize = uLong(input.size());
    output->resize(input.size());

    z_stream stream{};
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.constData()));
    stream.avail_in = uInt(input.size());
    // 15 window bits plus 32: take a zlib or a gzip header, whichever is there.
    inflateInit2(&stream, 15 + 32);

    int err = Z_OK;
    do {
        if (stream.total_out >= inputSize) {
            // QByteArray cannot grow past INT_MAX bytes; an output that large cannot be returned.
            if (output->size() > int(INT_MAX / 1.5) - 64) {
                inflateEnd(&stream);
                return false;
            }
            output->resize(int(output->size() * 1.5));
        }
        stream.next_out = reinterpret_cast<Bytef*>(output->data()) + stream.total_out;
        stream.avail_out = uInt(uLong(output->size()) - stream.total_out);
        err = inflate(&stream, Z_SYNC_FLUSH);
    } while (err == Z_OK);

    if (err != Z_STREAM_END) {
        inflateEnd(&stream);
        return false;
    }
    output->resize(int(stream.total_out));
    inflateEnd(&stream);
    return true;
}

int OSUtils::readSilk(const QString& filePath) {
    QFile file(filePath);
    if (!file.open(QIODevice::ReadOnly)) return 0;

    // Either a 0x02 type byte followed by "#!SILK_V3", or "#!SILK_V3" itself, whose first
    // character is not looked at.
    char lead = 0;
    if (file.read(&lead, 1) != 1) return 0;
    const QByteArray expected = lead == 2 ? QByteArrayLiteral("#!SILK_V3") : QByteArrayLiteral("!SILK_V3");
    if (file.read(expected.size()) != expected) return 0;

    // The first two frames are not counted.
    quint16 length = 0;
    for (int i = 0; i < 2; ++i) {
        if (!readFrameLength(file, &length)) break;
        file.skip(length);
    }

    // Every further frame is 20 ms; a frame cut short by the end of the file still counts.
    qint64 totalMs = 0;
    while (readFrameLength(file, &length)) {
        file.skip(length);
        totalMs += kSilkFrameMs;
    }
    return int(totalMs / 1000);
}

QString OSUtils::getMediaDuration(const QString& fileName, const QString& filePath, const QString& format) {
    QTime t(0, 0, 0, 0);
    if (isSilk(fileName)) return t.addSecs(readSilk(filePath)).toString(format);

    const QByteArray path = filePath.toLocal8Bit();
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, path.constData(), nullptr, nullptr) != 0) {
        qDebug() << "Open media file failed, filePath: " << filePath;
        return t.toString(format);
    }
    if (avformat_find_stream_info(context, nullptr) < 0) {
        qDebug() << "find stream info failed";
        avformat_close_input(&context);
        avformat_free_context(context);
        return t.toString(format);
    }

    const int64_t duration = context->duration;
    if (duration != AV_NOPTS_VALUE) {
        // Round to the nearest second, the half second counting 5 ms early (59.995 s gives 60).
        const int64_t rounded = duration <= INT64_MAX - 5000 ? duration + 5000 : duration;
        const int64_t seconds = rounded / AV_TIME_BASE;
        // A time of day wraps at 24 hours; reduce first so that the count fits an int.
        t = t.addSecs(int(seconds % 86400));
    }

    avformat_close_input(&context);
    avformat_free_context(context);
    return t.toString(format);
}
