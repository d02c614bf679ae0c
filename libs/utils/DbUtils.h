// Per-thread Qt SQL connections and access to the blob column of a backup manifest database.
#pragma once

#include "utils_export.h"

#include <QByteArray>
#include <QObject>
#include <QSqlDatabase>
#include <QString>

// Kinds of database found in a backup; meant as the kind argument of DbUtils::dataBase.
UTILS_EXPORT extern const QString MANIFESTDB;
UTILS_EXPORT extern const QString ADDRESSDB;
UTILS_EXPORT extern const QString ADDRESSIMAGEDB;
UTILS_EXPORT extern const QString WHATSAPPDB;
UTILS_EXPORT extern const QString WHATSAPPCONTACTDB;
UTILS_EXPORT extern const QString NOTESDBV1;
UTILS_EXPORT extern const QString CALLHISTORYDBV1;
UTILS_EXPORT extern const QString CALLHISTORYDBV2;
UTILS_EXPORT extern const QString SAFARIHISTORYDB;
UTILS_EXPORT extern const QString PHOTO;

class UTILS_EXPORT DbUtils : public QObject {
public:
    explicit DbUtils(QObject* parent = nullptr); // constructed without a parent unless one is given

    // The connection for this kind of database, the calling thread and the file. A new connection
    // is returned unopened; an existing one is opened if it was closed.
    static QSqlDatabase dataBase(const QString& kind, const QString& path);

    // First column of the first row of sql as an integer; 0 when there is no row or sql fails.
    static int rowCount(const QSqlDatabase& db, const QString& sql);

    // The "file" blob of the row of table Files whose fileID is fileId; empty on any failure.
    static QByteArray readManifestBlobData(const QSqlDatabase& db, const QString& fileId);
    // Replaces the blob of an existing row or inserts a new row; true when the write succeeded.
    static bool writeManifestBlobData(const QSqlDatabase& db, const QString& fileId, const QByteArray& data);
};
