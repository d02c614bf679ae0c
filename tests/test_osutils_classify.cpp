#include "OSUtils.h"
#include "TestSupport.h"
#include "ToolRun.h"

TEST(Classify, MatchAndFileType) {
    for (const QString& s : g_videoSuffix) // a suffix has one kind only
        EXPECT_FALSE(g_audioSuffix.contains(s) || g_photoSuffix.contains(s)) << s.toStdString();
    EXPECT_TRUE(OSUtils::matchExts("archive.tar.gz", g_zipSuffix) &&
                OSUtils::matchExts("x.bz2", g_zipSuffix));
    EXPECT_FALSE(OSUtils::matchExts("a.jpg", QStringList()));
    EXPECT_TRUE(OSUtils::matchExts("catalog", QStringList{"log"})); // no dot needed in an entry

    // Suffixes in any case; "jpg" alone has no dot and "a.png/" ends otherwise.
    const std::pair<const char*, int> types[] = {
        {"pic.webp", 0}, {"photo.JPG", 0}, {"a.HEIC", 0}, {"voice.amr", 1}, {"movie.rmvb", 2},
        {"clip.Mp4", 2}, {"notes.txt", 3}, {"", 3},       {"jpg", 3},       {"a.png/", 3}};
    for (const auto& [name, type] : types)
        EXPECT_EQ(OSUtils::getFileType(name), type) << name;
    EXPECT_TRUE(OSUtils::isSilk("voice.AMR") && OSUtils::isMediaFile("voice.amr"));
    EXPECT_FALSE(OSUtils::isMediaFile("notes.txt") || OSUtils::isSilk("song.mp3"));
}

TEST(Classify, HeaderSniffIsTextSearch) {
    QTemporaryDir dir;
    EXPECT_TRUE(OSUtils::isPictureMagic(writeFile(dir, "b", QByteArray::fromHex("89504e470d0a1a0a0000"))));
    EXPECT_FALSE(OSUtils::isPictureMagic(writeFile(dir, "c", QByteArray::fromHex("ffd8ffe000104a46494600"))));
    EXPECT_FALSE(OSUtils::isPictureMagic(writeFile(dir, "d", "0123456789png"))); // beyond 10 bytes

    // Missing files log nothing; each sniffed video header is logged.
    LogCapture log;
    EXPECT_FALSE(OSUtils::isPictureMagic(dir.filePath("missing")) ||
                 OSUtils::isVideoMagic(dir.filePath("missing")));
    EXPECT_TRUE(OSUtils::isVideoMagic(writeFile(dir, "e", "abcdMOV and more text")));
    EXPECT_FALSE(OSUtils::isVideoMagic(writeFile(dir, "f", QByteArray::fromHex("00000018667479706d703432"))));
    ASSERT_EQ(log.messages().size(), 2);
    EXPECT_TRUE(log.messages().at(0).contains("abcdMOV and more text"));
}

// The phone and timestamp subcommands of utils-inspect (classify runs with the other readers).
TEST(Classify, InspectTool) {
    SKIP_WITHOUT_TOOL();
    qputenv("TZ", "CST-8"); // inherited by the tool
    EXPECT_EQ(toolOut({"phone", "+8613800138000", "12015550123"}, 0),
              "+8613800138000: country code 86, country CN, national number 13800138000\n"
              "12015550123: no country found, national number 12015550123\n");
    toolOut({"phone"}, 2);
    EXPECT_EQ(toolOut({"timestamp", "1600000000000", "--documented", "--format", "yyyy-MM-dd HH:mm"}, 0),
              "2020-09-14 04:26\n");
}
