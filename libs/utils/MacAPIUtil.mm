#include "MacAPIUtil.h"

#import <AppKit/AppKit.h>
#import <Foundation/Foundation.h>

bool MacAPIUtil::openSystemPreferences() {
    NSURL* url =
        [NSURL URLWithString:@"x-apple.systempreferences:com.apple.preference.security?Privacy_AllFiles"];
    return [[NSWorkspace sharedWorkspace] openURL:url];
}
