// Media durations (SILK voice notes by their frames, other media by the container) and utils-inspect.
#include "OSUtils.h"
#include "TestSupport.h"
#include "ToolRun.h"

TEST(ReadSilk, CountsFramesAfterTheFirstTwo) {
    QTemporaryDir dir;
    auto seconds = [&](const QByteArray& bytes) { return OSUtils::readSilk(writeFile(dir, "v.slk", bytes)); };
    EXPECT_EQ(seconds(silkNote(52, true)), 1);                                 // 50 frames of 20 ms
    EXPECT_EQ(seconds(silkNote(51, false)), 0);                                // 980 ms
    EXPECT_EQ(seconds("X" + silkNote(152, false).mid(1)), 3);                  // first byte never looked at
    EXPECT_EQ(seconds(silkNote(2, true) + QByteArray(200, '\0')), 2);          // empty frames count too
    EXPECT_EQ(seconds(silkNote(51, true) + QByteArray("\xff\xff\x01", 3)), 1); // cut last frame counts

    EXPECT_EQ(OSUtils::readSilk(dir.filePath("missing.slk")), 0);
    EXPECT_EQ(seconds("\x02#!SILK"), 0);                              // short read
    for (const char* head : {"#!AMR\n", "\x02!SILK_V3", "#!SILK_V2"}) // after 0x02 the # is required
        EXPECT_EQ(seconds(head + silkNote(100, false).mid(9)), 0) << head;
}

TEST(MediaDuration, SilkByNameContainerRoundingAndFailures) {
    QTemporaryDir dir;
    LogCapture log;
    // The name decides the SILK path; the file itself may be stored under a hash.
    const QString stored = writeFile(dir, "3f2a9c", silkNote(52 + 3000, true));
    EXPECT_EQ(OSUtils::getMediaDuration("voice.amr", stored, "mm:ss"), "01:01");
    // An AMR stream without a SILK header: zero, and FFmpeg (which would log on failure) is not tried.
    EXPECT_EQ(OSUtils::getMediaDuration("voice.amr", writeFile(dir, "voice.amr", "#!AMR\n<<<<"), "mm:ss"),
              "00:00");

    // At 1000 samples a second each sample is a millisecond; 5 ms are added before truncating.
    auto duration = [&](quint32 rate, quint32 samples, const QString& format) {
        return OSUtils::getMediaDuration("a.wav", writeFile(dir, "a.wav", wavFile(rate, samples)), format);
    };
    EXPECT_EQ(duration(1000, 59995, "mm:ss"), "01:00");
    EXPECT_EQ(duration(1000, 59994, "mm:ss"), "00:59");
    EXPECT_EQ(duration(1, 90061, "hh:mm:ss"), "01:01:01"); // 25 h 1 min 1 s wraps as a time of day
    EXPECT_TRUE(log.messages().isEmpty()) << log.messages().join('|').toStdString();

    const QString missing = dir.filePath("missing.mp4");
    EXPECT_EQ(OSUtils::getMediaDuration("missing.mp4", missing, "mm:ss"), "00:00");
    EXPECT_EQ(log.messages(), QStringList{"Open media file failed, filePath:  \"" + missing + "\""});
    for (const QByteArray& junk : {QByteArray(4096, '\x5a'), wavFile(1000, 5000).left(30), QByteArray()})
        EXPECT_EQ(OSUtils::getMediaDuration("x.mp4", writeFile(dir, "x.mp4", junk), "hh:mm:ss"), "00:00:00");
}

// duration runs with the other readers (test_read_only).
TEST(ToolMedia, GzipAndAes) {
    SKIP_WITHOUT_TOOL();
    QTemporaryDir dir;
    const QByteArray text = QByteArray("forensic ").repeated(5000);
    const QString gz = writeFile(dir, "t.gz", toolOut({"gzip"}, 0, text));
    EXPECT_EQ(toolOut({"gunzip", gz}, 0), text);
    toolOut({"gunzip", gz, gz}, 1); // never writes over its input

    const QStringList keys = {"--key", "000102030405060708090a0b0c0d0e0f", "--iv",
                              "0f0e0d0c0b0a09080706050403020100"};
    const QByteArray sealed = toolOut(QStringList{"aes", "encrypt"} + keys, 0, "secret");
    EXPECT_EQ(toolOut(QStringList{"aes", "decrypt"} + keys, 0, sealed), "secret");
    toolOut({"aes", "encrypt", "--key", "abcd", "--iv", keys[3]}, 2, "x");
}
