#include "DbUtils.h"

#include <QCoreApplication>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QThread>
#include <QVariant>
#include <gtest/gtest.h>

#include <thread>

namespace {

QStringList g_log;

void capture(QtMsgType, const QMessageLogContext&, const QString& message) {
    g_log << message;
}

// A manifest database with one row, made through its own connection.
QString makeManifest(const QTemporaryDir& dir, const QString& extraSql = QString()) {
    const QString path = dir.filePath("Manifest.db");
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "setup");
        db.setDatabaseName(path);
        EXPECT_TRUE(db.open());
        QSqlQuery q(db);
        EXPECT_TRUE(q.exec("CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, file BLOB)"));
        EXPECT_TRUE(q.exec("INSERT INTO Files VALUES ('abc', 'HomeDomain', x'0102')"));
        if (!extraSql.isEmpty()) {
            EXPECT_TRUE(q.exec(extraSql)) << q.lastError().text().toStdString();
        }
    }
    QSqlDatabase::removeDatabase("setup");
    return path;
}

} // namespace

TEST(DbUtils, ConnectionsPerKindThreadAndFile) {
    QTemporaryDir dir;
    const QString path = makeManifest(dir);
    const QString thread =
        QString::number(qint64(reinterpret_cast<quintptr>(QThread::currentThread()))).rightJustified(16, ' ');

    QSqlDatabase first = DbUtils::dataBase(MANIFESTDB, path);
    EXPECT_EQ(first.connectionName(), "MANIFESTDB0x" + thread + path);
    EXPECT_EQ(first.connectOptions(), "QSQLITE_ENABLE_REGEXP");
    EXPECT_FALSE(first.isOpen());
    QSqlDatabase again = DbUtils::dataBase(MANIFESTDB, path);
    EXPECT_EQ(again.connectionName(), first.connectionName());
    EXPECT_TRUE(again.isOpen());
    EXPECT_NE(DbUtils::dataBase(PHOTO, path).connectionName(), first.connectionName());

    EXPECT_EQ(DbUtils::rowCount(again, "SELECT COUNT(*) FROM Files WHERE fileID REGEXP '^a.c$'"), 1);
    EXPECT_EQ(DbUtils::rowCount(again, "SELECT 1 FROM Files WHERE 0"), 0);
    EXPECT_EQ(DbUtils::rowCount(again, "SELEC COUNT(*) FROM"), 0);

    QString otherName;
    std::thread worker([&] {
        QSqlDatabase db = DbUtils::dataBase(MANIFESTDB, path);
        otherName = db.connectionName();
        db.open();
        EXPECT_EQ(DbUtils::readManifestBlobData(db, "abc"), QByteArray("\x01\x02"));
        db.close();
    });
    worker.join();
    EXPECT_NE(otherName, first.connectionName());
    EXPECT_TRUE(otherName.startsWith("MANIFESTDB0x"));
    EXPECT_TRUE(otherName.endsWith(path));

    const QStringList kinds = {MANIFESTDB,        ADDRESSDB, ADDRESSIMAGEDB,  WHATSAPPDB,
                               WHATSAPPCONTACTDB, NOTESDBV1, CALLHISTORYDBV1, CALLHISTORYDBV2,
                               SAFARIHISTORYDB,   PHOTO};
    EXPECT_EQ(kinds.join(','), "MANIFESTDB,ADDRESSDB,ADDRESSIMAGEDB,WHATSAPPDB,WHATSAPPCONTACTDB,NOTESDBV1,"
                               "CALLHISTORYDBV1,CALLHISTORYDBV2,SAFARIHISTORYDB,PHOTO");
}

TEST(DbUtils, ReadAndWriteManifestBlobs) {
    QTemporaryDir dir;
    const QString path = makeManifest(dir);
    QSqlDatabase db = DbUtils::dataBase("RW", path);
    ASSERT_TRUE(db.open());
    g_log.clear();

    EXPECT_EQ(DbUtils::readManifestBlobData(db, "abc"), QByteArray("\x01\x02"));
    EXPECT_TRUE(DbUtils::readManifestBlobData(db, "nope").isEmpty());
    EXPECT_EQ(g_log, QStringList{"don't fileID data"});

    EXPECT_TRUE(DbUtils::writeManifestBlobData(db, "abc", "new"));
    EXPECT_TRUE(DbUtils::writeManifestBlobData(db, "def", QByteArray("\0x", 2)));
    EXPECT_EQ(DbUtils::readManifestBlobData(db, "abc"), QByteArray("new"));
    EXPECT_EQ(DbUtils::readManifestBlobData(db, "def"), QByteArray("\0x", 2));
    QSqlQuery q(db);
    ASSERT_TRUE(q.exec("SELECT domain FROM Files WHERE fileID = 'abc'") && q.next());
    EXPECT_EQ(q.value(0).toString(), "HomeDomain"); // the update touched only the blob
    EXPECT_EQ(DbUtils::rowCount(db, "SELECT COUNT(*) FROM Files"), 2);

    db.close();
    g_log.clear();
    EXPECT_TRUE(DbUtils::readManifestBlobData(db, "abc").isEmpty());
    EXPECT_FALSE(DbUtils::writeManifestBlobData(db, "abc", "x"));
    EXPECT_EQ(g_log, (QStringList{"readManifestBlobData:database is close!",
                                  "writeManifestBlobData: 数据库未开启!"}));
}

TEST(DbUtils, StatementFailuresAreLogged) {
    QTemporaryDir dir;
    const QString path = makeManifest(dir, "CREATE TRIGGER deny BEFORE INSERT ON Files "
                                           "BEGIN SELECT RAISE(ABORT, 'denied'); END");
    QSqlDatabase db = DbUtils::dataBase("FAIL", path);
    ASSERT_TRUE(db.open());
    g_log.clear();
    EXPECT_FALSE(DbUtils::writeManifestBlobData(db, "zzz", "x"));
    ASSERT_EQ(g_log.size(), 1);
    EXPECT_TRUE(g_log.at(0).startsWith("写入数据失败: \"")) << g_log.at(0).toStdString();
    EXPECT_TRUE(g_log.at(0).contains("denied"));
    EXPECT_TRUE(DbUtils::writeManifestBlobData(db, "abc", "x")); // updates pass the trigger

    QSqlQuery(db).exec("DROP TABLE Files");
    g_log.clear();
    EXPECT_TRUE(DbUtils::readManifestBlobData(db, "abc").isEmpty());
    EXPECT_FALSE(DbUtils::writeManifestBlobData(db, "abc", "x"));
    ASSERT_EQ(g_log.size(), 2);
    EXPECT_TRUE(g_log.at(0).startsWith("query error: \"")) << g_log.at(0).toStdString();
    EXPECT_TRUE(g_log.at(1).startsWith("检查fileID失败: \"")) << g_log.at(1).toStdString();
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(capture);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
