#include "MacAPIUtil.h"
#include "TestSupport.h"

TEST(MacAPI, VersionAndProbe) {
    const QVersionNumber version = MacAPIUtil::OSVersion();
    EXPECT_EQ(version.isNull(), !QFileInfo("/System/Library/CoreServices/SystemVersion.plist").isReadable());
    const bool probed = version < QVersionNumber(10, 14, 0); // a null version is probed too

    QTemporaryDir tmp;
    EXPECT_TRUE(MacAPIUtil::checkDiskAccesePermition(tmp.filePath("a/b")));
    EXPECT_FALSE(QFileInfo::exists(tmp.filePath("a/b/access")));
    EXPECT_EQ(QFileInfo(tmp.filePath("a/b")).isDir(), probed);
    // Below a plain file no folder can be made: the probe fails.
    EXPECT_EQ(MacAPIUtil::checkDiskAccesePermition(writeFile(tmp, "file", "") + "/sub"), !probed);
#ifndef __APPLE__
    EXPECT_FALSE(MacAPIUtil::openSystemPreferences());
#endif
}
