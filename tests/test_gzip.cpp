// gzip/zlib compression and inflation: GZipCompressor and the OSUtils zlib helpers.
#include "GZipCompressor.h"
#include "OSUtils.h"

#include <gtest/gtest.h>

#include <QRandomGenerator>
#include <QStringList>

#include <zlib.h>

namespace {

QByteArray randomBytes(int size, quint32 seed) {
    QRandomGenerator gen(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char(gen.bounded(256));
    return bytes;
}

QByteArray repetitive(int size) {
    QByteArray text;
    for (int i = 0; text.size() < size; ++i)
        text += "line " + QByteArray::number(i % 97) + " of the log\n";
    text.resize(size);
    return text;
}

// A zlib-wrapped stream made by zlib itself, independent of the code under test.
QByteArray zlibStream(const QByteArray& data) {
    uLongf length = compressBound(uLong(data.size()));
    QByteArray out(int(length), Qt::Uninitialized);
    compress(reinterpret_cast<Bytef*>(out.data()), &length, reinterpret_cast<const Bytef*>(data.constData()),
             uLong(data.size()));
    out.resize(int(length));
    return out;
}

QStringList g_messages;
void collect(QtMsgType, const QMessageLogContext&, const QString& text) {
    g_messages << text;
}

} // namespace

TEST(GZipCompressor, RoundTripsAroundTheSliceSize) {
    for (int size : {1, 1000, 32767, 32768, 32769, 65536, 65537, 100000}) {
        for (const QByteArray& data : {randomBytes(size, quint32(size)), repetitive(size)}) {
            QByteArray gz;
            ASSERT_TRUE(GZipCompressor::gzipCompress(data, gz, 6)) << size;
            ASSERT_GE(gz.size(), 18);
            EXPECT_EQ(quint8(gz[0]), 0x1f);
            EXPECT_EQ(quint8(gz[1]), 0x8b);
            QByteArray back;
            ASSERT_TRUE(GZipCompressor::gzipDecompress(gz, back)) << size;
            EXPECT_EQ(back, data) << size;
            // The zlib inflater expects a zlib header, not a gzip one.
            EXPECT_FALSE(GZipCompressor::deflateDecompress(gz, back));
        }
    }
}

TEST(GZipCompressor, RoundTripsSeveralMegabytes) {
    const QByteArray data = randomBytes(3 << 20, 7) + repetitive(5 << 20);
    QByteArray gz;
    ASSERT_TRUE(GZipCompressor::gzipCompress(data, gz, 1));
    QByteArray back;
    ASSERT_TRUE(GZipCompressor::gzipDecompress(gz, back));
    EXPECT_TRUE(back == data);

    QByteArray unpacked;
    ASSERT_TRUE(OSUtils::unCompressData(gz, &unpacked));
    EXPECT_TRUE(unpacked == data);
}

TEST(GZipCompressor, EmptyInputAndLevelClamping) {
    QByteArray out = "stale";
    EXPECT_TRUE(GZipCompressor::gzipCompress(QByteArray(), out, 6));
    EXPECT_TRUE(out.isEmpty());
    out = "stale";
    EXPECT_TRUE(GZipCompressor::gzipDecompress(QByteArray(), out));
    EXPECT_TRUE(out.isEmpty());
    EXPECT_TRUE(GZipCompressor::deflateDecompress(QByteArray(), out));

    const QByteArray data = repetitive(200000);
    QByteArray at9, at42, atDefault, atMinus7, atMinus1, at0;
    ASSERT_TRUE(GZipCompressor::gzipCompress(data, at9, 9));
    ASSERT_TRUE(GZipCompressor::gzipCompress(data, at42, 42));
    ASSERT_TRUE(GZipCompressor::gzipCompress(data, atDefault, 6));
    ASSERT_TRUE(GZipCompressor::gzipCompress(data, atMinus7, -7));
    ASSERT_TRUE(GZipCompressor::gzipCompress(data, atMinus1, -1));
    ASSERT_TRUE(GZipCompressor::gzipCompress(data, at0, 0));
    EXPECT_EQ(at42, at9);
    EXPECT_EQ(atMinus7, atDefault);
    EXPECT_EQ(atMinus1, atDefault);
    EXPECT_GT(at0.size(), data.size()); // level 0 stores
    QByteArray back;
    ASSERT_TRUE(GZipCompressor::gzipDecompress(at0, back));
    EXPECT_EQ(back, data);
}

TEST(GZipCompressor, ZlibStreamsAndWrongWrappers) {
    const QByteArray data = repetitive(70000);
    const QByteArray z = zlibStream(data);
    QByteArray back;
    EXPECT_TRUE(GZipCompressor::deflateDecompress(z, back));
    EXPECT_EQ(back, data);
    EXPECT_FALSE(GZipCompressor::gzipDecompress(z, back));

    for (quint32 seed = 1; seed <= 20; ++seed) {
        const QByteArray noise = randomBytes(int(seed * 97), seed);
        EXPECT_FALSE(GZipCompressor::gzipDecompress(noise, back)) << seed;
        EXPECT_FALSE(GZipCompressor::deflateDecompress(noise, back)) << seed;
    }
}

TEST(GZipCompressor, TruncatedCorruptedAndTrailingData) {
    const QByteArray data = randomBytes(100000, 3);
    QByteArray gz;
    ASSERT_TRUE(GZipCompressor::gzipCompress(data, gz, 6));

    // Every cut of a small stream fails; a cut of a large one keeps what was inflated.
    QByteArray small;
    ASSERT_TRUE(GZipCompressor::gzipCompress("hello, hello, hello", small, 9));
    for (int n = 1; n < small.size(); ++n) {
        QByteArray out;
        EXPECT_FALSE(GZipCompressor::gzipDecompress(small.left(n), out)) << n;
    }
    QByteArray partial;
    EXPECT_FALSE(GZipCompressor::gzipDecompress(gz.left(gz.size() / 2), partial));
    EXPECT_GT(partial.size(), 32768);
    EXPECT_TRUE(data.startsWith(partial));

    // A broken checksum is a data error; the slices inflated before it stay in the output.
    QByteArray badCrc = gz;
    badCrc[badCrc.size() - 6] = char(badCrc[badCrc.size() - 6] ^ 0x55);
    QByteArray out;
    EXPECT_FALSE(GZipCompressor::gzipDecompress(badCrc, out));
    EXPECT_FALSE(out.isEmpty());
    EXPECT_TRUE(data.startsWith(out));

    QByteArray badHeader = gz;
    badHeader[2] = 7; // compression method other than deflate
    EXPECT_FALSE(GZipCompressor::gzipDecompress(badHeader, out));

    // Whatever follows the end of the first stream is ignored.
    QByteArray second;
    ASSERT_TRUE(GZipCompressor::gzipCompress("second", second, 6));
    EXPECT_TRUE(GZipCompressor::gzipDecompress(gz + second, out));
    EXPECT_TRUE(out == data);
    EXPECT_TRUE(GZipCompressor::gzipDecompress(small + QByteArray(5, '\xff'), out));
    EXPECT_EQ(out, QByteArray("hello, hello, hello"));
}

TEST(OSUtilsZlib, CompressDataFitsInOneKilobyte) {
    QtMessageHandler previous = qInstallMessageHandler(collect);
    g_messages.clear();

    const QByteArray text = repetitive(50000);
    QByteArray out = "stale";
    OSUtils::compressData(out, text);
    ASSERT_FALSE(out.isEmpty());
    EXPECT_EQ(out, zlibStream(text)); // plain zlib stream, default level, nothing added
    QByteArray back;
    EXPECT_TRUE(GZipCompressor::deflateDecompress(out, back));
    EXPECT_EQ(back, text);
    EXPECT_TRUE(g_messages.isEmpty());

    // Random bytes do not shrink: the limit lies where zlib's own output passes 1024 bytes.
    int fitted = 0;
    for (int size = 1000; size <= 1030; ++size) {
        const QByteArray noise = randomBytes(size, quint32(size));
        const bool fits = zlibStream(noise).size() <= 1024;
        fitted += fits;
        g_messages.clear();
        OSUtils::compressData(out, noise);
        EXPECT_EQ(!out.isEmpty(), fits) << size;
        if (fits) {
            EXPECT_TRUE(g_messages.isEmpty());
        } else {
            ASSERT_EQ(g_messages.size(), 1);
            EXPECT_EQ(g_messages.first(), "conmpress faild, err code: -5");
        }
    }
    EXPECT_GT(fitted, 0);
    EXPECT_LT(fitted, 31);
    qInstallMessageHandler(previous);
}

TEST(OSUtilsZlib, UnCompressDataDetectsTheWrapper) {
    const QByteArray data = repetitive(300000); // compresses about 100-fold: many growth steps
    QByteArray gz;
    ASSERT_TRUE(GZipCompressor::gzipCompress(data, gz, 9));
    QByteArray out;
    EXPECT_TRUE(OSUtils::unCompressData(gz, &out));
    EXPECT_EQ(out, data);
    out.clear();
    EXPECT_TRUE(OSUtils::unCompressData(zlibStream(data), &out));
    EXPECT_EQ(out, data);
    const QByteArray tiny = zlibStream("a");
    EXPECT_TRUE(OSUtils::unCompressData(tiny, &out));
    EXPECT_EQ(out, QByteArray("a"));

    EXPECT_FALSE(OSUtils::unCompressData(QByteArray(), &out));
    EXPECT_FALSE(OSUtils::unCompressData(randomBytes(500, 9), &out));
    // A cut stream fails and keeps its grown buffer with the partial content in front.
    const QByteArray cut = gz.left(gz.size() - 10);
    EXPECT_FALSE(OSUtils::unCompressData(cut, &out));
    EXPECT_GE(out.size(), cut.size());
    EXPECT_TRUE(data.startsWith(out.left(1000)));
}
