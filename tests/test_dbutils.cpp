#include "DbUtils.h"
#include "TestSupport.h"

#include <QSqlQuery>
#include <QThread>

namespace {

// A manifest database with one row (and an extra column the writes must leave alone).
QString makeManifest(const QTemporaryDir& dir, const QString& kind) {
    const QString path = dir.filePath("Manifest.db");
    QSqlDatabase db = DbUtils::dataBase(kind, path);
    EXPECT_FALSE(db.isOpen()); // a new connection is handed out unopened
    EXPECT_TRUE(db.open());
    QSqlQuery(db).exec("CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, file BLOB)");
    QSqlQuery(db).exec("INSERT INTO Files VALUES ('abc', 'HomeDomain', x'0102')");
    return path;
}
} // namespace

TEST(DbUtils, ConnectionPerKindThreadAndFile) {
    QTemporaryDir dir;
    const QString path = makeManifest(dir, MANIFESTDB);
    const QString thread =
        QString::number(qint64(quintptr(QThread::currentThread()))).rightJustified(16, ' ');
    QSqlDatabase db = DbUtils::dataBase(MANIFESTDB, path);
    EXPECT_EQ(db.connectionName(), "MANIFESTDB0x" + thread + path);
    EXPECT_TRUE(db.isOpen());
    EXPECT_EQ(DbUtils::rowCount(db, "SELECT COUNT(*) FROM Files WHERE fileID REGEXP '^a.c$'"), 1);
    EXPECT_EQ(DbUtils::rowCount(db, "SELECT 1 FROM Files WHERE 0"), 0);
    EXPECT_EQ(DbUtils::rowCount(db, "SELEC COUNT(*) FROM"), 0);
}

TEST(DbUtils, ManifestBlobsAndLoggedFailures) {
    QTemporaryDir dir;
    QSqlDatabase db = DbUtils::dataBase("RW", makeManifest(dir, "RW"));
    LogCapture log;
    EXPECT_EQ(DbUtils::readManifestBlobData(db, "abc"), QByteArray("\x01\x02"));
    EXPECT_TRUE(DbUtils::readManifestBlobData(db, "nope").isEmpty());
    EXPECT_TRUE(DbUtils::writeManifestBlobData(db, "abc", "new"));
    EXPECT_TRUE(DbUtils::writeManifestBlobData(db, "def", QByteArray("\0x", 2)));
    EXPECT_EQ(DbUtils::readManifestBlobData(db, "abc"), QByteArray("new"));
    EXPECT_EQ(DbUtils::readManifestBlobData(db, "def"), QByteArray("\0x", 2));
    EXPECT_EQ(DbUtils::rowCount(db, "SELECT COUNT(*) FROM Files WHERE domain = 'HomeDomain'"), 1);
    EXPECT_EQ(log.messages(), QStringList{"don't fileID data"});

    // A trigger that refuses inserts makes the write fail after the check succeeded.
    QSqlQuery(db).exec("CREATE TRIGGER deny BEFORE INSERT ON Files BEGIN SELECT RAISE(ABORT, 'denied'); END");
    EXPECT_FALSE(DbUtils::writeManifestBlobData(db, "zzz", "x"));
    EXPECT_TRUE(DbUtils::writeManifestBlobData(db, "abc", "x"));
    QSqlQuery(db).exec("DROP TABLE Files");
    EXPECT_TRUE(DbUtils::readManifestBlobData(db, "abc").isEmpty());
    EXPECT_FALSE(DbUtils::writeManifestBlobData(db, "abc", "x"));
    ASSERT_EQ(log.messages().size(), 4);
    EXPECT_TRUE(log.messages()[1].startsWith("写入数据失败: \"") && log.messages()[1].contains("denied"));
    EXPECT_TRUE(log.messages()[2].startsWith("query error: \""));
    EXPECT_TRUE(log.messages()[3].startsWith("检查fileID失败: \""));

    db.close();
    log.clear();
    EXPECT_TRUE(DbUtils::readManifestBlobData(db, "abc").isEmpty());
    EXPECT_FALSE(DbUtils::writeManifestBlobData(db, "abc", "x"));
    EXPECT_EQ(DbUtils::rowCount(db, "SELECT 1"), 0); // silently
    EXPECT_EQ(log.messages(), (QStringList{"readManifestBlobData:database is close!",
                                           "writeManifestBlobData: 数据库未开启!"}));
}

// Each thread gets a connection of its own, and they all use the file at once.
TEST(DbUtils, ManifestFromSeveralThreadsAtOnce) {
    QTemporaryDir dir;
    const QString path = makeManifest(dir, MANIFESTDB);
    std::atomic<int> wrong{0};
    std::vector<QString> names(4);
    onThreads(4, [&](int t) {
        QSqlDatabase db = DbUtils::dataBase(MANIFESTDB, path);
        names[t] = db.connectionName();
        if (!db.open()) return void(++wrong);
        for (int i = 1; i <= 20; ++i) {
            wrong += DbUtils::readManifestBlobData(db, "abc") != QByteArray("\x01\x02");
            wrong += !DbUtils::writeManifestBlobData(db, QString("t%1").arg(t), QByteArray::number(i));
            wrong += DbUtils::rowCount(db, "SELECT COUNT(*) FROM Files") < 2;
        }
        db.close();
    });
    EXPECT_EQ(wrong, 0);
    QSqlDatabase mine = DbUtils::dataBase(MANIFESTDB, path);
    EXPECT_EQ(DbUtils::rowCount(mine, "SELECT COUNT(*) FROM Files WHERE CAST(file AS TEXT) = '20'"), 4);
    names.push_back(mine.connectionName());
    EXPECT_EQ(QSet<QString>(names.begin(), names.end()).size(), 5);
}
