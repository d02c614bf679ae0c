#include "DbUtils.h"

#include <QDebug>
#include <QSqlError>
#include <QSqlQuery>
#include <QThread>
#include <QVariant>

const QString MANIFESTDB = QStringLiteral("MANIFESTDB");
const QString ADDRESSDB = QStringLiteral("ADDRESSDB");
const QString ADDRESSIMAGEDB = QStringLiteral("ADDRESSIMAGEDB");
const QString WHATSAPPDB = QStringLiteral("WHATSAPPDB");
const QString WHATSAPPCONTACTDB = QStringLiteral("WHATSAPPCONTACTDB");
const QString NOTESDBV1 = QStringLiteral("NOTESDBV1");
const QString CALLHISTORYDBV1 = QStringLiteral("CALLHISTORYDBV1");
const QString CALLHISTORYDBV2 = QStringLiteral("CALLHISTORYDBV2");
const QString SAFARIHISTORYDB = QStringLiteral("SAFARIHISTORYDB");
const QString PHOTO = QStringLiteral("PHOTO");

DbUtils::DbUtils(QObject* parent) : QObject(parent) {}

QSqlDatabase DbUtils::dataBase(const QString& kind, const QString& path) {
    // Qt connections must not cross threads, so the calling thread is part of the name. The
    // address is written in decimal behind "0x" and padded with spaces; existing names depend on it.
    const qint64 thread = qint64(reinterpret_cast<quintptr>(QThread::currentThread()));
    const QString name = kind + QString("0x%1").arg(thread, 16, 10, QLatin1Char(' ')) + path;
    if (QSqlDatabase::contains(name)) return QSqlDatabase::database(name, true);

    QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", name);
    db.setDatabaseName(path);
    db.setConnectOptions("QSQLITE_ENABLE_REGEXP");
    return db;
}

int DbUtils::rowCount(const QSqlDatabase& db, const QString& sql) {
    if (!db.isOpen()) return 0; // Qt would warn about running a statement on a closed connection
    QSqlQuery query(db);
    if (query.exec(sql) && query.next()) return query.value(0).toInt();
    return 0;
}

QByteArray DbUtils::readManifestBlobData(const QSqlDatabase& db, const QString& fileId) {
    if (!db.isOpen()) {
        qDebug() << "readManifestBlobData:database is close!";
        return QByteArray();
    }
    QSqlQuery query(db);
    query.prepare("SELECT file FROM Files WHERE fileID = :fileID");
    query.bindValue(":fileID", fileId);
    if (query.exec()) {
        if (query.next()) return query.value(0).toByteArray();
        qDebug() << "don't fileID data";
        return QByteArray();
    }
    qDebug() << "query error:" << query.lastError().text();
    return QByteArray();
}

bool DbUtils::writeManifestBlobData(const QSqlDatabase& db, const QString& fileId, const QByteArray& data) {
    if (!db.isOpen()) {
        qDebug() << "writeManifestBlobData: 数据库未开启!";
        return false;
    }
    QSqlQuery query(db);
    query.prepare("SELECT COUNT(*) FROM Files WHERE fileID = :fileID");
    query.bindValue(":fileID", fileId);
    if (!query.exec()) {
        qDebug() << "检查fileID失败:" << query.lastError().text();
        return false;
    }
    // Check and write are two statements without a transaction around them.
    const bool exists = query.next() && query.value(0).toInt() > 0;
    if (exists)
        query.prepare("UPDATE Files SET file = :file WHERE fileID = :fileID");
    else
        query.prepare("INSERT INTO Files (fileID, file) VALUES (:fileID, :file)");
    query.bindValue(":fileID", fileId);
    query.bindValue(":file", data);
    if (query.exec()) return true;
    qDebug() << "写入数据失败:" << query.lastError().text();
    return false;
}
