#include "MacAPIUtil.h"

#include "OSUtils.h"
#include "PlistUtils.h"

#include <QDir>
#include <QFile>

#include <plist/plist.h>

QVersionNumber MacAPIUtil::OSVersion() {
    QString version;
    void* root = nullptr;
    if (PlistUtils::loadFromFile("/System/Library/CoreServices/SystemVersion.plist", root)) {
        version = PlistUtils::getQStringValue(root, "ProductVersion");
        plist_free(static_cast<plist_t>(root));
    }
    return QVersionNumber::fromString(version);
}

bool MacAPIUtil::checkDiskAccesePermition(const QString& dir) {
    // Only systems before 10.14 are probed; a version that cannot be read counts as older.
    // Trailing zeros are dropped first, so that a system reporting "10.14" counts as 10.14.0.
    if (QVersionNumber::compare(OSVersion().normalized(), QVersionNumber(10, 14, 0).normalized()) >= 0)
        return true;

    QDir().mkpath(dir);
    QFile probe(OSUtils::pathJoin(dir, "access"));
    if (!probe.open(QIODevice::ReadWrite | QIODevice::Truncate)) return false;
    probe.close();
    probe.remove();
    return true;
}

#ifndef __APPLE__
// The AppKit version lives in MacAPIUtil.mm.
bool MacAPIUtil::openSystemPreferences() {
    return false;
}
#endif
