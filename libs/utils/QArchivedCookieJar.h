// A cookie jar that can be written to a text file and read back: one line per cookie, the
// cookie's full Set-Cookie form in base64.
#pragma once

#include "utils_export.h"

#include <QNetworkCookieJar>
#include <QString>

class UTILS_EXPORT QArchivedCookieJar : public QNetworkCookieJar {
public:
    explicit QArchivedCookieJar(QObject* parent = nullptr);

    // Writes every cookie, session and expired ones included. False only when the file cannot
    // be opened.
    bool save(const QString& path);
    // Adds every cookie found in the file to the jar (cookies already held stay; a cookie with
    // the same name, domain and path is replaced). False only when the file cannot be opened.
    bool load(const QString& path);
};
