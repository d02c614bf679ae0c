#include "OSUtils.h"
#include "TestSupport.h"

#include <QRegularExpression>

TEST(Paths, JoinAndNames) {
    EXPECT_EQ(QStringList({OSUtils::pathJoin("/a/", "/b"), OSUtils::pathJoin("a", "../b"),
                           OSUtils::pathJoin("", "b"), OSUtils::pathJoin(QStringList()),
                           OSUtils::pathJoin(QStringList{"x//y"}),
                           OSUtils::pathJoin(QStringList{"x//y", "z/", "..", "f"})}),
              QStringList({"/a/b", "b", "/b", "", "x//y", "x/y/f"}));

    const QString backup = OSUtils::getBackupPath("/base/");
    EXPECT_TRUE(QRegularExpression("^/base/Vornix_Full_Backup/\\d{4}(_\\d\\d){5}$").match(backup).hasMatch());
    EXPECT_EQ(OSUtils::getParentDir("/a/b/c.txt"), "/a/b");
    EXPECT_EQ(OSUtils::getParentDir("c.txt"), ".");

    EXPECT_EQ(OSUtils::encodePath("a:b?c"), "a%3Ab%3Fc");
    EXPECT_EQ(OSUtils::encodePath("\"*/<>\\|100%"), "%22%2A%2F%3C%3E%5C%7C100%");
}

TEST(Paths, SizesAndCopies) {
    QTemporaryDir tmp;
    const QString src = tmp.filePath("src");
    writeFile(src + "/a.txt", QByteArray(100, 'a'));
    writeFile(src + "/.hidden", QByteArray(10, 'h'));
    writeFile(src + "/sub/b.txt", QByteArray(1000, 'b'));
    writeFile(src + "/.hdir/c.txt", QByteArray(5, 'c'));
    EXPECT_EQ(OSUtils::dirSize(src), 1115);
    EXPECT_EQ(OSUtils::dirSize(tmp.filePath("missing")), 0);
    EXPECT_EQ(OSUtils::fileSize(src + "/sub/b.txt"), "1000.00 Bytes");
    EXPECT_EQ(OSUtils::fileSize(tmp.filePath("missing")), "0.00 Bytes");

    // Hidden entries are skipped; an existing file is kept.
    const QString dst = tmp.filePath("dst");
    writeFile(dst + "/a.txt", "keep");
    OSUtils::copyPathIgnoreError(src, dst);
    EXPECT_EQ(readFile(dst + "/a.txt"), "keep");
    EXPECT_EQ(readFile(dst + "/sub/b.txt").size(), 1000);
    EXPECT_FALSE(QFileInfo::exists(dst + "/.hidden") || QFileInfo::exists(dst + "/.hdir"));
    OSUtils::copyPathIgnoreError(src + "/a.txt", tmp.filePath("one.txt"));
    EXPECT_EQ(readFile(tmp.filePath("one.txt")).size(), 100);

    // A copy into its own sub-folder and a link back to an ancestor both finish.
    QDir().mkpath(src + "/sub/inner");
    OSUtils::copyPathIgnoreError(src, src + "/sub/inner");
    EXPECT_EQ(readFile(src + "/sub/inner/a.txt").size(), 100);
    EXPECT_FALSE(QFileInfo::exists(src + "/sub/inner/sub/inner/sub"));
    ASSERT_TRUE(QFile::link(src, src + "/sub/loop"));
    EXPECT_GT(OSUtils::dirSize(src), 1115);
    OSUtils::copyPathIgnoreError(src, tmp.filePath("dst2"));

    unsigned long long freeBytes = 12345;
    EXPECT_FALSE(OSUtils::getFreeDiskSpace(tmp.filePath("missing/deeper"), &freeBytes));
    EXPECT_EQ(freeBytes, 12345ULL); // untouched on failure
    EXPECT_TRUE(OSUtils::getFreeDiskSpace(tmp.path(), &freeBytes) && freeBytes != 12345ULL);
}

TEST(Paths, NotRepeatedPath) {
    QTemporaryDir tmp;
    const QString report = tmp.filePath("report.txt");
    EXPECT_EQ(OSUtils::getNotRepeatedPath(report), report);
    writeFile(report, "x");
    EXPECT_EQ(OSUtils::getNotRepeatedPath(report), tmp.filePath("report_0.txt"));
    writeFile(tmp.filePath("report_0.txt"), "x");
    EXPECT_EQ(OSUtils::getNotRepeatedPath(report), tmp.filePath("report_1.txt"));
    writeFile(tmp.filePath("a.tar.gz"), "x");
    EXPECT_EQ(OSUtils::getNotRepeatedPath(tmp.filePath("a.tar.gz")), tmp.filePath("a.tar_0.gz"));
    // With a dotless file name, the counter goes before the dot of the folder name.
    writeFile(tmp.filePath("v1.2/name"), "x");
    EXPECT_EQ(OSUtils::getNotRepeatedPath(tmp.filePath("v1.2/name")), tmp.filePath("v1_0.2/name"));
}

TEST(Paths, FileOperations) {
    QTemporaryDir tmp;
    EXPECT_FALSE(OSUtils::exists("") || OSUtils::makeDir("") || OSUtils::removeFile("") ||
                 OSUtils::removeDir(""));
    EXPECT_TRUE(OSUtils::makeDir(tmp.filePath("x/y/z")) && OSUtils::exists(tmp.filePath("x/y/z")));

    const QString a = tmp.filePath("a.txt"), b = tmp.filePath("b.txt"), c = tmp.filePath("c.txt");
    writeFile(a, "source");
    writeFile(b, "existing");
    // The copy onto b fails, yet the source is removed and the result is true.
    EXPECT_TRUE(OSUtils::moveFile(a, b) && !OSUtils::exists(a));
    EXPECT_EQ(readFile(b), "existing");
    EXPECT_FALSE(OSUtils::moveFile(a, c));
    EXPECT_TRUE(OSUtils::moveFile(b, c));
    EXPECT_EQ(readFile(c), "existing");

    EXPECT_TRUE(OSUtils::removeFile(c) && !OSUtils::removeFile(c));
    writeFile(tmp.filePath("x/y/z/f"), "x");
    EXPECT_TRUE(OSUtils::removeDir(tmp.filePath("x")) && !OSUtils::exists(tmp.filePath("x")));
}
