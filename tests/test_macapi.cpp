#include "MacAPIUtil.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {
bool versionFileReadable() {
    return QFileInfo("/System/Library/CoreServices/SystemVersion.plist").isReadable();
}
} // namespace

TEST(MacAPI, VersionAndProbe) {
    const QVersionNumber version = MacAPIUtil::OSVersion();
    EXPECT_EQ(version.isNull(), !versionFileReadable());

    QTemporaryDir tmp;
    ASSERT_TRUE(tmp.isValid());
    const QString dir = tmp.filePath("a/b");
    const bool probed = version < QVersionNumber(10, 14, 0);
    EXPECT_TRUE(MacAPIUtil::checkDiskAccesePermition(dir));
    EXPECT_FALSE(QFileInfo::exists(dir + "/access"));
    // The probe creates the folder; from 10.14 on nothing is touched.
    EXPECT_EQ(QFileInfo(dir).isDir(), probed);

    // A folder that cannot exist (below a plain file) fails the probe.
    QFile plain(tmp.filePath("file"));
    ASSERT_TRUE(plain.open(QIODevice::WriteOnly));
    plain.close();
    EXPECT_EQ(MacAPIUtil::checkDiskAccesePermition(tmp.filePath("file/sub")), !probed);
}

#ifndef __APPLE__
TEST(MacAPI, NoSettingsPaneElsewhere) {
    EXPECT_FALSE(MacAPIUtil::openSystemPreferences());
}
#endif
