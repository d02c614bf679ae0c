#include "QHttpUtils.h"

#include "GZipCompressor.h"

QNetworkRequest QHttpUtils::makeRequest(const QUrl& url, const QMap<QString, QString>& headers) {
    QNetworkRequest request;
    request.setUrl(url);
    for (auto it = headers.constBegin(); it != headers.constEnd(); ++it)
        request.setRawHeader(it.key().toUtf8(), it.value().toUtf8());
    return request;
}

bool QHttpUtils::isCompressed(QNetworkReply* reply) {
    const QByteArray encoding = reply->rawHeader("Content-Encoding");
    return encoding.compare("gzip", Qt::CaseInsensitive) == 0 ||
           encoding.compare("deflate", Qt::CaseInsensitive) == 0;
}

int QHttpUtils::statusCode(QNetworkReply* reply) {
    return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}

QByteArray QHttpUtils::uncompressedData(QNetworkReply* reply) {
    if (!reply->isReadable()) return QByteArray();
    const QByteArray body = reply->readAll();
    if (!isCompressed(reply)) return body;
    // The magic bytes decide, so a gzip stream labelled "deflate" is still read.
    QByteArray out;
    if (body.size() >= 2 && uchar(body.at(0)) == 0x1f && uchar(body.at(1)) == 0x8b)
        GZipCompressor::gzipDecompress(body, out);
    else
        GZipCompressor::deflateDecompress(body, out);
    return out;
}

QByteArray QHttpUtils::readAllEx(QNetworkReply* reply, bool checkError) {
    if (checkError && reply->error() != QNetworkReply::NoError) return QByteArray();
    return uncompressedData(reply);
}

QJsonDocument QHttpUtils::readJson(QNetworkReply* reply, bool checkError) {
    return QJsonDocument::fromJson(readAllEx(reply, checkError));
}
