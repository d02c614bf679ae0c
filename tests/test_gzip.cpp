// gzip/zlib compression and inflation: GZipCompressor and the OSUtils zlib helpers.
#include "GZipCompressor.h"
#include "OSUtils.h"
#include "TestSupport.h"

namespace {

QByteArray text(int size) {
    return QByteArray("line of a chat log ").repeated(size / 19 + 1).left(size);
}

} // namespace

TEST(GZipCompressor, RoundTripsAcrossSlicesAndMegabytes) {
    for (const QByteArray& data : {randomBytes(1, 1), randomBytes(32768, 2), randomBytes(32769, 3),
                                   text(100000), randomBytes(3 << 20, 4) + text(5 << 20)}) {
        QByteArray gz, back;
        ASSERT_TRUE(GZipCompressor::gzipCompress(data, gz, 6)) << data.size();
        ASSERT_TRUE(GZipCompressor::gzipDecompress(gz, back)) << data.size();
        EXPECT_TRUE(back == data) << data.size();
        EXPECT_FALSE(GZipCompressor::deflateDecompress(gz, back)); // expects a zlib header
        EXPECT_TRUE(OSUtils::unCompressData(gz, &back) && back == data) << data.size();
    }
}

TEST(GZipCompressor, EmptyInputAndLevelClamping) {
    QByteArray out = "stale", out2 = "stale";
    EXPECT_TRUE(GZipCompressor::gzipCompress(QByteArray(), out, 6) && out.isEmpty());
    EXPECT_TRUE(GZipCompressor::gzipDecompress(QByteArray(), out2) && out2.isEmpty());

    const QByteArray data = text(200000);
    auto packed = [&](int level) {
        QByteArray gz;
        EXPECT_TRUE(GZipCompressor::gzipCompress(data, gz, level));
        return gz;
    };
    EXPECT_EQ(packed(42), packed(9));
    EXPECT_EQ(packed(-7), packed(6));
    EXPECT_GT(packed(0).size(), data.size()); // stored, not compressed
}

TEST(GZipCompressor, WrongWrapperTruncatedCorruptedAndTrailingData) {
    const QByteArray data = randomBytes(100000, 5);
    QByteArray gz, out;
    ASSERT_TRUE(GZipCompressor::gzipCompress(data, gz, 6));
    EXPECT_TRUE(GZipCompressor::deflateDecompress(deflated(data), out) && out == data);
    EXPECT_FALSE(GZipCompressor::gzipDecompress(deflated(data), out));

    QByteArray small;
    ASSERT_TRUE(GZipCompressor::gzipCompress("hello, hello", small, 9));
    for (int n = 1; n < small.size(); ++n)
        EXPECT_FALSE(GZipCompressor::gzipDecompress(small.left(n), out)) << n;
    // A cut or a broken checksum fails but keeps the slices inflated before it.
    EXPECT_FALSE(GZipCompressor::gzipDecompress(gz.left(gz.size() / 2), out));
    EXPECT_TRUE(out.size() > 32768 && data.startsWith(out));
    QByteArray badCrc = gz;
    badCrc[badCrc.size() - 6] = char(badCrc[badCrc.size() - 6] ^ 0x55);
    EXPECT_FALSE(GZipCompressor::gzipDecompress(badCrc, out));
    EXPECT_TRUE(!out.isEmpty() && data.startsWith(out));

    // Whatever follows the end of the first stream is ignored.
    EXPECT_TRUE(GZipCompressor::gzipDecompress(gz + small, out) && out == data);
}

TEST(OSUtilsZlib, CompressDataLimitAndUnCompressData) {
    LogCapture log;
    QByteArray out = "stale", back;
    OSUtils::compressData(out, text(50000));
    EXPECT_EQ(out, deflated(text(50000))); // the plain zlib stream, nothing of our own added
    // Random bytes do not shrink: the limit lies where zlib's output passes 1024 bytes.
    for (int size = 1000; size <= 1030; ++size) {
        const QByteArray noise = randomBytes(size, quint32(size));
        const bool fits = deflated(noise).size() <= 1024;
        log.clear();
        OSUtils::compressData(out, noise);
        EXPECT_EQ(!out.isEmpty(), fits) << size;
        EXPECT_EQ(log.messages(), fits ? QStringList() : QStringList{"conmpress faild, err code: -5"})
            << size;
    }

    EXPECT_TRUE(OSUtils::unCompressData(deflated(text(300000)), &back) && back == text(300000));
    EXPECT_FALSE(OSUtils::unCompressData(QByteArray(), &back));
    EXPECT_FALSE(OSUtils::unCompressData(randomBytes(500, 9), &back));
    // A cut stream fails and keeps its grown buffer, the partial content in front.
    const QByteArray cut = deflated(randomBytes(5000, 1)).left(3000);
    EXPECT_FALSE(OSUtils::unCompressData(cut, &back));
    EXPECT_TRUE(back.size() >= cut.size() && randomBytes(5000, 1).startsWith(back.left(2000)));
}
