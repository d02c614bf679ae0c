// stopSearch called from another thread while a long recovery runs over free pages.
#include "SqliteFixtures.h"

#include "SQliteDbUtil.h"

#include <QElapsedTimer>

TEST(StopSearch, FromAnotherThreadEndsALongRecovery) {
    QTemporaryDir dir;
    const QString path = dir.filePath("deleted.db");
    {
        fixtures::EngineDb db(path);
        db.exec("PRAGMA secure_delete = OFF; CREATE TABLE t (a INTEGER, b TEXT)");
        db.exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100000) "
                "INSERT INTO t SELECT i, printf('deleted row %d', i) FROM n");
        db.exec("DELETE FROM t"); // every table page goes to the free list
    }
    SQliteDbUtil whole;
    ASSERT_TRUE(whole.loadDb(path));
    QElapsedTimer timer;
    timer.start();
    const int all = whole.searchLostRecordInFreeSpace("is", false).size();
    const qint64 ms = timer.elapsed();
    ASSERT_GT(all, 50000);
    int found = all;
    for (int attempt = 0; attempt < 3 && found == all; ++attempt) { // a busy machine may stop too late
        SQliteDbUtil stopped;
        ASSERT_TRUE(stopped.loadDb(path));
        std::thread stopper([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(ms / 5));
            stopped.stopSearch();
        });
        found = stopped.searchLostRecordInFreeSpace("is", false).size();
        stopper.join();
    }
    EXPECT_LT(found, all) << "the whole search took " << ms << " ms";
}
