// macOS helpers: the running system's version, the full-disk-access probe and opening the
// privacy settings.
#pragma once

#include "utils_export.h"

#include <QString>
#include <QVersionNumber>

class UTILS_EXPORT MacAPIUtil {
public:
    // ProductVersion of /System/Library/CoreServices/SystemVersion.plist; a null version when
    // the file cannot be read.
    static QVersionNumber OSVersion();
    // True from macOS 10.14 on without probing. On older systems, and when the version cannot
    // be read, creates dir and tries to create a file "access" in it (removed again).
    static bool checkDiskAccesePermition(const QString& dir);
    // Opens the full-disk-access list of the security settings; false where there is no AppKit.
    static bool openSystemPreferences();
};
