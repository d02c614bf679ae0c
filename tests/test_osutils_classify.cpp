#include "OSUtils.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QStringList g_logged;
void capture(QtMsgType, const QMessageLogContext&, const QString& message) {
    g_logged << message;
}

QString writeFile(const QTemporaryDir& dir, const QString& name, const QByteArray& bytes) {
    const QString path = dir.filePath(name);
    QFile f(path);
    f.open(QIODevice::WriteOnly);
    f.write(bytes);
    return path;
}

} // namespace

TEST(Classify, SuffixTables) {
    EXPECT_EQ(g_photoSuffix.size(), 27);
    EXPECT_EQ(g_photoSuffix.first(), ".bmp");
    EXPECT_EQ(g_photoSuffix.last(), ".pic_hd");
    ASSERT_EQ(g_photoMagic.size(), g_photoSuffix.size());
    for (int i = 0; i < g_photoSuffix.size(); ++i)
        EXPECT_EQ("." + g_photoMagic.at(i), g_photoSuffix.at(i));
    ASSERT_EQ(g_videoMagic.size(), 10);
    for (int i = 0; i < g_videoSuffix.size(); ++i)
        EXPECT_EQ("." + g_videoMagic.at(i), g_videoSuffix.at(i));
    EXPECT_EQ(g_audioSuffix, QStringList({".m4a", ".mp3", ".opus", ".amr", ".aud", ".slk", ".flac", ".wma",
                                          ".mid", ".wav", ".cda", ".caf", ".aac"}));
    EXPECT_EQ(g_silkSuffix, QStringList({".amr", ".aud", ".slk"}));
    for (const QString& s : g_silkSuffix)
        EXPECT_TRUE(g_audioSuffix.contains(s));
    EXPECT_EQ(g_zipSuffix, QStringList({".zip", ".7z", ".rar", ".tar", ".gz", ".xz", ".bz", ".bz2"}));
    EXPECT_EQ(g_pptSuffix, QStringList({".ppt", ".ppsx", ".pptm", ".pptx"}));
    EXPECT_EQ(g_programmingSuffix.size(), 11);
    EXPECT_EQ(g_docSuffix.size(), 13);
    EXPECT_EQ(g_docSuffix.last(), ".dwg");

    const QStringList other = g_txtSuffix + g_zipSuffix + g_wordSuffix + g_pptSuffix + g_xlsSuffix +
                              g_pdfSuffix + g_programmingSuffix + g_docSuffix;
    EXPECT_EQ(g_otherSuffix.size(), 50);
    EXPECT_EQ(g_otherSuffix, other);

    // No suffix is in two of the media lists, and everything is lower case.
    for (const QString& s : g_videoSuffix) {
        EXPECT_FALSE(g_audioSuffix.contains(s)) << s.toStdString();
        EXPECT_FALSE(g_photoSuffix.contains(s)) << s.toStdString();
    }
    for (const QString& s : g_photoSuffix + g_audioSuffix + g_otherSuffix)
        EXPECT_EQ(s, s.toLower());
}

TEST(Classify, MatchAndFileType) {
    EXPECT_TRUE(OSUtils::isPicture("photo.JPG"));
    EXPECT_TRUE(OSUtils::isVideo("clip.Mp4"));
    EXPECT_TRUE(OSUtils::isPicture("/a/b/a.HEIC"));
    EXPECT_TRUE(OSUtils::matchExts("archive.tar.gz", g_zipSuffix));
    EXPECT_TRUE(OSUtils::matchExts("x.bz2", g_zipSuffix));
    EXPECT_FALSE(OSUtils::isPicture("jpg"));
    EXPECT_FALSE(OSUtils::matchExts("a.jpg", QStringList()));
    // An entry without a dot matches any name ending in those letters.
    EXPECT_TRUE(OSUtils::matchExts("catalog", QStringList{"log"}));
    // No suffix extraction: a trailing slash or a query defeats the match.
    EXPECT_FALSE(OSUtils::isPicture("a.png/"));

    EXPECT_EQ(OSUtils::getFileType("voice.amr"), 1);
    EXPECT_TRUE(OSUtils::isSilk("voice.AMR"));
    EXPECT_TRUE(OSUtils::isMediaFile("voice.amr"));
    EXPECT_EQ(OSUtils::getFileType("movie.rmvb"), 2);
    EXPECT_EQ(OSUtils::getFileType("pic.webp"), 0);
    EXPECT_EQ(OSUtils::getFileType("notes.txt"), 3);
    EXPECT_EQ(OSUtils::getFileType(""), 3);
    EXPECT_FALSE(OSUtils::isMediaFile("notes.txt"));
    EXPECT_FALSE(OSUtils::isSilk("song.mp3"));
}

TEST(Classify, HeaderSniffIsTextSearch) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString gif = writeFile(dir, "a.bin", "GIF89a\x01\x00\x01\x00");
    const QString png = writeFile(dir, "b.bin", QByteArray("\x89PNG\r\n\x1a\n\0\0", 10));
    const QString jpeg = writeFile(dir, "c.bin", QByteArray("\xFF\xD8\xFF\xE0\x00\x10JFIF\0", 11));
    // The type word must be inside the first 10 bytes.
    const QString late = writeFile(dir, "d.bin", "0123456789png");
    const QString mov = writeFile(dir, "e.bin", "abcdMOV and more text");
    const QString mp4 = writeFile(dir, "f.bin",
                                  QByteArray("\0\0\0\x18"
                                             "ftypmp42",
                                             12));

    EXPECT_TRUE(OSUtils::isPictureMagic(gif));
    EXPECT_TRUE(OSUtils::isPictureMagic(png));
    EXPECT_FALSE(OSUtils::isPictureMagic(jpeg));
    EXPECT_FALSE(OSUtils::isPictureMagic(late));
    EXPECT_FALSE(OSUtils::isPictureMagic(mov));

    g_logged.clear();
    const QtMessageHandler previous = qInstallMessageHandler(capture);
    EXPECT_TRUE(OSUtils::isVideoMagic(mov));
    EXPECT_FALSE(OSUtils::isVideoMagic(mp4)); // stops at the leading zero byte
    const QStringList sniffLog = g_logged;
    g_logged.clear();
    EXPECT_FALSE(OSUtils::isPictureMagic(dir.filePath("missing")));
    EXPECT_FALSE(OSUtils::isVideoMagic(dir.filePath("missing")));
    qInstallMessageHandler(previous);

    ASSERT_EQ(sniffLog.size(), 2);
    EXPECT_TRUE(sniffLog.at(0).contains("abcdMOV and more text"));
    EXPECT_TRUE(g_logged.isEmpty()); // missing files: silent
}

TEST(Classify, InspectTool) {
    const QString tool = UTILS_TOOL_PATH;
    if (tool.isEmpty()) GTEST_SKIP() << "utils-inspect is not built";
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString gif = writeFile(dir, "x.gif", "GIF89a");
    const QString voice = writeFile(dir, "v.AMR", "#!AMR\n");
    QProcess p;
    p.start(tool, {"classify", gif, voice});
    ASSERT_TRUE(p.waitForFinished(30000));
    EXPECT_EQ(p.exitCode(), 0);
    const QStringList lines = QString::fromUtf8(p.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2);
    EXPECT_TRUE(lines.at(0).contains("picture (type 0)") && lines.at(0).contains("picture header: yes"));
    EXPECT_TRUE(lines.at(1).contains("audio (type 1)") && lines.at(1).contains("SILK candidate: yes"));
    EXPECT_TRUE(p.readAllStandardError().isEmpty());

    p.start(tool, {"classify", dir.filePath("missing.png"), gif, "--json"});
    ASSERT_TRUE(p.waitForFinished(30000));
    EXPECT_EQ(p.exitCode(), 1);
    EXPECT_TRUE(QString::fromUtf8(p.readAllStandardOutput()).contains("\"pictureHeader\": true"));
    EXPECT_EQ(QString::fromUtf8(p.readAllStandardError()).count('\n'), 1);
}
