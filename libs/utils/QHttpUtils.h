// Helpers for requests and replies: requests from a header map, the status code, and reply
// bodies with gzip or deflate content encoding undone.
#pragma once

#include "utils_export.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QMap>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QString>
#include <QUrl>

class UTILS_EXPORT QHttpUtils {
public:
    // A request for url carrying every header of the map (in key order).
    static QNetworkRequest makeRequest(const QUrl& url, const QMap<QString, QString>& headers);
    // Whether "Content-Encoding" is gzip or deflate (any letter case).
    static bool isCompressed(QNetworkReply* reply);
    // The HTTP status, or 0 when there was no HTTP response.
    static int statusCode(QNetworkReply* reply);
    // The whole body, inflated when it is compressed. The stream format is chosen by the body's
    // first bytes (gzip magic, otherwise zlib), not by the header's word.
    // Send "Accept-Encoding" with the request: when Qt adds that header itself, it inflates the
    // body on its own but keeps "Content-Encoding", and the inflation here then yields nothing.
    static QByteArray uncompressedData(QNetworkReply* reply);
    // As uncompressedData; with checkError an empty array for a reply that failed.
    static QByteArray readAllEx(QNetworkReply* reply, bool checkError);
    // The body parsed as JSON; a null document when it is not JSON.
    static QJsonDocument readJson(QNetworkReply* reply, bool checkError);
};
