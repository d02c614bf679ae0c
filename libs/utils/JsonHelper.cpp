#include "JsonHelper.h"

#include <QDebug>
#include <QJsonDocument>
#include <QJsonParseError>

namespace {
bool parseDocument(const QString& json, QJsonDocument* document) {
    QJsonParseError error;
    *document = QJsonDocument::fromJson(json.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError) {
        qDebug() << "Parse error at " << error.offset << ":" << error.errorString();
        return false;
    }
    return true;
}
} // namespace

JsonHelper::JsonHelper(QObject* parent) : QObject(parent) {}

QJsonObject JsonHelper::getJsonObjectFromQString(const QString& json) {
    QJsonDocument document;
    if (!parseDocument(json, &document)) return QJsonObject();
    return document.object();
}

QJsonArray JsonHelper::getJsonArrayFromQString(const QString& json) {
    QJsonDocument document;
    if (!parseDocument(json, &document)) return QJsonArray();
    return document.array();
}
