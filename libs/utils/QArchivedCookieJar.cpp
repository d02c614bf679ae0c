#include "QArchivedCookieJar.h"

#include <QFile>
#include <QNetworkCookie>
#include <QTextStream>

QArchivedCookieJar::QArchivedCookieJar(QObject* parent) : QNetworkCookieJar(parent) {}

bool QArchivedCookieJar::save(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) return false;
    QTextStream stream(&file);
    const QList<QNetworkCookie> cookies = allCookies();
    for (const QNetworkCookie& cookie : cookies)
        stream << QString::fromLatin1(cookie.toRawForm(QNetworkCookie::Full).toBase64()) << Qt::endl;
    file.close();
    return true;
}

bool QArchivedCookieJar::load(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) return false;
    QTextStream stream(&file);
    while (!stream.atEnd()) {
        QString word;
        stream >> word;
        // Anything that does not decode to a cookie is skipped.
        const QList<QNetworkCookie> cookies =
            QNetworkCookie::parseCookies(QByteArray::fromBase64(word.toUtf8()));
        for (const QNetworkCookie& cookie : cookies)
            insertCookie(cookie);
    }
    file.close();
    return true;
}
