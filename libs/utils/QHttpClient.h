// A blocking HTTP client: get, post and put return the finished reply, waiting in a nested
// event loop of the calling thread. The caller deletes the replies it gets.
#pragma once

#include "QArchivedCookieJar.h"
#include "utils_export.h"

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QString>
#include <QUrl>

class UTILS_EXPORT QHttpClient {
public:
    QHttpClient();
    ~QHttpClient();
    QHttpClient(const QHttpClient&) = delete;
    QHttpClient& operator=(const QHttpClient&) = delete;

    QNetworkReply* get(const QNetworkRequest& request);
    QNetworkReply* get(const QUrl& url, const QMap<QString, QString>& headers);
    QNetworkReply* post(const QNetworkRequest& request, const QByteArray& body);
    // The body is sent as indented JSON; no content type is added (put one in headers).
    QNetworkReply* post(const QUrl& url, const QMap<QString, QString>& headers, const QJsonObject& body);
    QNetworkReply* put(const QNetworkRequest& request, const QByteArray& body);
    QNetworkReply* put(const QUrl& url, const QMap<QString, QString>& headers, const QJsonObject& body);

    // Runs the calling thread's events until the reply has finished. There is no time-out of
    // its own: only the transfer time-out of setTimeout ends a stalled reply.
    void waitForFinish(QNetworkReply* reply);
    // The transfer time-out in milliseconds for the following requests.
    void setTimeout(int ms);
    // A cookie store for the application; requests sent through this client do not use it.
    QArchivedCookieJar* cookieJar();
    // Replaces the access manager by a fresh one: its cookies, connections and time-out are
    // gone, and so are replies the caller has not deleted yet.
    void clearCache();

private:
    QNetworkAccessManager* m_manager;
    QArchivedCookieJar m_cookieJar;
};
