// stopSearch called from another thread while a long recovery runs over free pages.
#include "SqliteFixtures.h"

#include "SQliteDbUtil.h"
#include "SQliteScanner.h"

#include <future>

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
    const int all = whole.searchLostRecordInFreeSpace("is", false).size();
    ASSERT_GT(all, 50000);

    // The other thread stops the search once it has found its first record, while the search
    // waits for it: the pages are checked before each is searched, so only the first one is.
    SQliteDbUtil stopped;
    ASSERT_TRUE(stopped.loadDb(path));
    std::promise<void> found, stopCalled;
    std::thread stopper([&] {
        found.get_future().wait();
        stopped.stopSearch();
        stopCalled.set_value();
    });
    QSet<int> pages;
    int count = 0;
    const bool completed = SQliteScanner(stopped).forEachLostRecordInFreeSpace(
        "is", false, [&](const QList<QVariant>&, const SQliteScanner::Location& where) {
            if (count++ == 0) {
                found.set_value();
                stopCalled.get_future().wait();
            }
            pages.insert(where.page);
            return true;
        });
    stopper.join();
    EXPECT_FALSE(completed);
    EXPECT_LT(count, all);
    EXPECT_EQ(pages.size(), 1);
    // The flag is never cleared: the next search ends before its first page.
    EXPECT_TRUE(stopped.searchLostRecordInFreeSpace("is", false).isEmpty());
}
