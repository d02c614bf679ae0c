// Parsing of JSON text into Qt JSON values; errors give empty values and one debug line.
#pragma once

#include "utils_export.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QString>

class UTILS_EXPORT JsonHelper : public QObject {
    Q_OBJECT
public:
    explicit JsonHelper(QObject* parent = nullptr);

    // The top-level object of json; empty when json is not valid JSON or holds an array.
    static QJsonObject getJsonObjectFromQString(const QString& json);
    // The top-level array of json; empty when json is not valid JSON or holds an object.
    static QJsonArray getJsonArrayFromQString(const QString& json);
};
