// Load tests for the threaded classes, bounded in count and time (the image cache has its own in
// test_image_cache): the downloader's queue raced against its worker, blocking HTTP clients on
// several threads, the manifest database used from several threads, and a recovery stopped from
// another thread. Run them under ThreadSanitizer (SANITIZE=thread scripts/test.sh).
#include "LocalHttpServer.h"
#include "SqliteFixtures.h"

#include "DbUtils.h"
#include "QHttpClient.h"
#include "QueuedImageDownloader.h"
#include "SQliteDbUtil.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTest>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace {

// Runs body(0..n-1) on n threads while this thread serves its events (the local server lives here).
void onThreads(int n, const std::function<void(int)>& body) {
    std::atomic<int> running{n};
    std::vector<std::thread> threads;
    for (int t = 0; t < n; ++t)
        threads.emplace_back([&, t] {
            body(t);
            --running;
        });
    EXPECT_TRUE(QTest::qWaitFor([&] { return running == 0; }, 120000)) << "threads still running";
    for (std::thread& th : threads)
        th.join();
}

} // namespace

TEST(ThreadLoad, DownloaderQueueRacedAgainstItsWorker) {
    LocalHttpServer server;
    ASSERT_TRUE(server.start());
    QImage red(16, 16, QImage::Format_RGB32);
    red.fill(Qt::red);
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    red.save(&buffer, "png");
    server.route("/img", {200, {}, png, 0});
    QTemporaryDir cache;
    QueuedImageDownloader downloader;
    downloader.setCacheFolder(cache.path());
    const QString base = server.url("/img?");
    const auto task = [&](int n) { return ImageDownloadTaskPtr::create(base + QString::number(n % 10), 8, 8); };

    QObject receiver;
    int delivered = 0, wrong = 0;
    ImageDownloadTaskPtr last = ImageDownloadTaskPtr::create(base + "last", 8, 8), seen;
    QObject::connect(&downloader, &QueuedImageDownloader::imageLoaded, &receiver,
                     [&](const ImageDownloadTaskPtr& t, const QImage& image) {
                         ++delivered;
                         wrong += image.size() != QSize(8, 8) || qRed(image.pixel(4, 4)) < 200;
                         seen = t;
                     });
    onThreads(3, [&](int t) {
        for (int i = 0; i < 150; ++i) {
            switch ((i + t) % 5) {
            case 0: downloader.push_back({task(i), task(i + 1)}); break;
            case 1: downloader.push_front({task(i)}); break;
            case 2: downloader.remove({task(i - 1), task(i + 3)}); break;
            case 3: downloader.push_back({task(i + 7)}); break;
            default: if (i % 25 == 4) downloader.clear();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    downloader.clear();
    downloader.push_back({last});
    ASSERT_TRUE(QTest::qWaitFor([&] { return seen == last; }, 30000));
    EXPECT_GT(delivered, 1);
    EXPECT_EQ(wrong, 0);
}

TEST(ThreadLoad, BlockingClientsOnSeveralThreads) {
    LocalHttpServer server;
    ASSERT_TRUE(server.start());
    server.route("/ping", {200, {}, "pong", 2});
    const QString base = server.url("/ping?");
    std::atomic<int> answered{0};
    onThreads(3, [&](int t) {
        QHttpClient client;
        for (int i = 0; i < 5; ++i) {
            QNetworkReply* reply = client.get(QUrl(base + QString("%1-%2").arg(t).arg(i)), {});
            answered += reply->error() == QNetworkReply::NoError && reply->readAll() == "pong";
            delete reply;
        }
    });
    EXPECT_EQ(answered, 15);
    EXPECT_EQ(server.requests.size(), 15);
}

TEST(ThreadLoad, ManifestDatabaseFromSeveralThreads) {
    QTemporaryDir dir;
    const QString path = dir.filePath("Manifest.db");
    {
        fixtures::EngineDb db(path);
        db.exec("CREATE TABLE Files (fileID TEXT PRIMARY KEY, file BLOB)");
        db.exec("INSERT INTO Files VALUES ('shared', x'0102')");
    }
    std::atomic<int> wrong{0};
    onThreads(4, [&](int t) {
        QSqlDatabase db = DbUtils::dataBase(MANIFESTDB, path);
        if (!db.open()) return void(++wrong);
        for (int i = 1; i <= 20; ++i) {
            wrong += DbUtils::readManifestBlobData(db, "shared") != QByteArray("\x01\x02");
            wrong += !DbUtils::writeManifestBlobData(db, QString("t%1").arg(t), QByteArray::number(i));
            wrong += DbUtils::rowCount(db, "SELECT COUNT(*) FROM Files") < 2;
        }
        db.close();
    });
    EXPECT_EQ(wrong, 0);
    QSqlDatabase db = DbUtils::dataBase(MANIFESTDB, path);
    ASSERT_TRUE(db.open());
    EXPECT_EQ(DbUtils::rowCount(db, "SELECT COUNT(*) FROM Files WHERE CAST(file AS TEXT) = '20'"), 4);
}

TEST(ThreadLoad, StopSearchFromAnotherThreadEndsALongRecovery) {
    QTemporaryDir dir;
    const QString path = dir.filePath("deleted.db");
    {
        fixtures::EngineDb db(path);
        db.exec("PRAGMA secure_delete = OFF; CREATE TABLE t (a INTEGER, b TEXT)");
        db.exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100000) "
                "INSERT INTO t SELECT i, printf('deleted row %d', i) FROM n");
        db.exec("DELETE FROM t"); // every table page goes to the free list
    }
    SQliteDbUtil whole, stopped;
    ASSERT_TRUE(whole.loadDb(path) && stopped.loadDb(path));
    QElapsedTimer timer;
    timer.start();
    const int all = whole.searchLostRecordInFreeSpace("is", false).size();
    const qint64 ms = timer.elapsed();
    ASSERT_GT(all, 50000);
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms / 5));
        stopped.stopSearch();
    });
    const int found = stopped.searchLostRecordInFreeSpace("is", false).size();
    stopper.join();
    EXPECT_LT(found, all) << "the whole search took " << ms << " ms";
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
