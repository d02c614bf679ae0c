#include "QHttpClient.h"

#include "QHttpUtils.h"

#include <QEventLoop>
#include <QJsonDocument>

QHttpClient::QHttpClient() : m_manager(new QNetworkAccessManager()) {}

QHttpClient::~QHttpClient() {
    delete m_manager;
}

QNetworkReply* QHttpClient::get(const QNetworkRequest& request) {
    QNetworkReply* reply = m_manager->get(request);
    waitForFinish(reply);
    return reply;
}

QNetworkReply* QHttpClient::get(const QUrl& url, const QMap<QString, QString>& headers) {
    return get(QHttpUtils::makeRequest(url, headers));
}

QNetworkReply* QHttpClient::post(const QNetworkRequest& request, const QByteArray& body) {
    QNetworkReply* reply = m_manager->post(request, body);
    waitForFinish(reply);
    return reply;
}

QNetworkReply* QHttpClient::post(const QUrl& url, const QMap<QString, QString>& headers,
                                 const QJsonObject& body) {
    return post(QHttpUtils::makeRequest(url, headers), QJsonDocument(body).toJson());
}

QNetworkReply* QHttpClient::put(const QNetworkRequest& request, const QByteArray& body) {
    QNetworkReply* reply = m_manager->put(request, body);
    waitForFinish(reply);
    return reply;
}

QNetworkReply* QHttpClient::put(const QUrl& url, const QMap<QString, QString>& headers,
                                const QJsonObject& body) {
    return put(QHttpUtils::makeRequest(url, headers), QJsonDocument(body).toJson());
}

void QHttpClient::waitForFinish(QNetworkReply* reply) {
    // A reply that has finished already would never signal again.
    if (!reply || reply->isFinished()) return;
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit, Qt::DirectConnection);
    loop.exec();
}

void QHttpClient::setTimeout(int ms) {
    m_manager->setTransferTimeout(ms);
}

QArchivedCookieJar* QHttpClient::cookieJar() {
    return &m_cookieJar;
}

void QHttpClient::clearCache() {
    delete m_manager;
    m_manager = new QNetworkAccessManager();
}
