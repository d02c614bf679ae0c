// The queued image downloader (worker thread, disk cache, delivery to the owner's thread) and
// the LoopThread worker base, against a local server.
#include "LocalHttpServer.h"
#include "TestSupport.h"

#include "LoopThread.h"
#include "QueuedImageDownloader.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QThread>

namespace {

QByteArray png(int w, int h, Qt::GlobalColor color) {
    QImage image(w, h, QImage::Format_ARGB32);
    image.fill(color);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "png");
    return bytes;
}

int filesUnder(const QString& dir) {
    int n = 0;
    for (QDirIterator it(dir, QDir::Files, QDirIterator::Subdirectories); it.hasNext(); it.next())
        ++n;
    return n;
}

ImageDownloadTaskPtr task(const QString& url, int w, int h) {
    return ImageDownloadTaskPtr::create(url, w, h);
}

class DownloaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.start() && cache.isValid());
        server.route("/alpha.png", {200, {}, png(100, 50, Qt::transparent), 0});
        server.route("/img", {200, {}, png(80, 80, Qt::blue), 0});
        server.route("/slow", {200, {}, png(80, 80, Qt::blue), 400});
        server.route("/garbage", {200, {}, "no picture", 0});
        downloader.setCacheFolder(cache.path());
        QObject::connect(&downloader, &QueuedImageDownloader::imageLoaded, &receiver,
                         [this](const ImageDownloadTaskPtr& t, const QImage& i) {
                             items.append({t, i});
                             ++deliveries;
                             offThread += QThread::currentThread() != receiver.thread();
                         });
    }
    QString url(const QString& target) const { return server.url(target); }
    ImageDownloadTaskPtr at(const char* target, int w = 10, int h = 10) { return task(url(target), w, h); }
    // The deadlines only end a test that would otherwise hang.
    bool delivered(int n) {
        return QTest::qWaitFor([&] { return items.size() >= n; }, 120000);
    }
    bool received(int n) {
        return QTest::qWaitFor([&] { return server.requests.size() >= n; }, 120000);
    }
    int hits(const char* target) const { return server.targets.count(target); }
    QString cacheFile(const QString& u, int w, int h) {
        const QString id = downloader.getImageId(u);
        return cache.filePath(QString("%1/%2_%3_%4").arg(id.left(2), id).arg(w).arg(h));
    }

    LocalHttpServer server;
    QTemporaryDir cache;
    QueuedImageDownloader downloader;
    QObject receiver;                                 // lives on the test's thread
    QList<QPair<ImageDownloadTaskPtr, QImage>> items; // as delivered
    int offThread = 0;                                // deliveries not on the receiver's thread
    std::atomic<int> deliveries{0};                   // items.size(), for other threads
};

} // namespace

TEST_F(DownloaderTest, DiskCacheLayoutAndSquareLookup) {
    const QString alpha = url("/alpha.png");
    EXPECT_EQ(downloader.getImageId(alpha),
              QString(QCryptographicHash::hash(alpha.toUtf8(), QCryptographicHash::Sha1).toHex()));

    // Square: downloaded once (transparency intact), then served as an opaque JPEG from disk.
    const ImageDownloadTaskPtr square = task(alpha, 40, 40);
    downloader.push_back({square, task(alpha, 40, 40)});
    ASSERT_TRUE(delivered(2));
    EXPECT_EQ(items[0].first, square); // the queued pointer itself
    EXPECT_EQ(hits("/alpha.png"), 1);
    EXPECT_TRUE(items[0].second.size() == QSize(40, 20) && items[1].second.size() == QSize(40, 20));
    EXPECT_EQ(QPair(qAlpha(items[0].second.pixel(0, 0)), qAlpha(items[1].second.pixel(0, 0))), QPair(0, 255));
    EXPECT_TRUE(readFile(cacheFile(alpha, 40, 40)).startsWith("\xff\xd8\xff"));

    // Wide: stored as id_60_30 but looked up as id_30_30, so fetched every time...
    const QString photo = url("/img");
    downloader.push_back({task(photo, 60, 30), task(photo, 60, 30)});
    ASSERT_TRUE(delivered(4));
    EXPECT_EQ(hits("/img"), 2);
    EXPECT_EQ(items[3].second.size(), QSize(30, 30));
    EXPECT_TRUE(QFile::exists(cacheFile(photo, 60, 30)));
    // ...until a picture is stored under the height-by-height name.
    downloader.saveToCacheFile(photo, 30, 30, items[3].second);
    downloader.push_back({task(photo, 60, 30)});
    ASSERT_TRUE(delivered(5));
    EXPECT_EQ(hits("/img"), 2);
    EXPECT_EQ(filesUnder(cache.path()), 3);
}

TEST_F(DownloaderTest, FailedTasksEmitNothingAndCacheNothing) {
    const ImageDownloadTaskPtr sentinel = at("/img", 20, 20);
    downloader.push_back({at("/missing.png", 20, 20), at("/garbage", 20, 20), at("/img", 0, 20),
                          at("/img", 20, -1), task(QString(), 20, 20),
                          task("http://127.0.0.1:1/refused.png", 20, 20), sentinel});
    ASSERT_TRUE(delivered(1)); // the queue runs in order: the failures are done
    EXPECT_TRUE(items.size() == 1 && items[0].first == sentinel);
    EXPECT_EQ(server.targets, (QList<QByteArray>{"/missing.png", "/garbage", "/img"}));
    EXPECT_EQ(filesUnder(cache.path()), 1);
    EXPECT_EQ(downloader.downloadImage(url("/img"), 10, 25).size(), QSize(10, 10)); // on this thread
    EXPECT_EQ(filesUnder(cache.path()), 1);
}

TEST_F(DownloaderTest, QueueOrderRemoveAndClear) {
    downloader.push_back({at("/slow?1")});
    ASSERT_TRUE(received(1)); // the worker is busy: rearrange the queue meanwhile
    downloader.push_back({at("/img?c")});
    downloader.push_front({at("/img?a"), at("/img?b")});
    downloader.push_back({at("/img?d"), at("/img?e"), at("/img?d"), at("/img?d", 10, 12)});
    downloader.remove({at("/img?d")}); // equal by value: both copies go
    ASSERT_TRUE(delivered(6));
    EXPECT_EQ(server.targets,
              (QList<QByteArray>{"/slow?1", "/img?a", "/img?b", "/img?c", "/img?e", "/img?d"}));

    downloader.push_back({at("/slow?2")});
    ASSERT_TRUE(received(7));
    downloader.push_back({at("/img?g")});
    downloader.clear();
    downloader.push_back({at("/img?z")});
    ASSERT_TRUE(delivered(8));
    EXPECT_EQ(server.targets.mid(6), (QList<QByteArray>{"/slow?2", "/img?z"}));
}

TEST_F(DownloaderTest, QueueEditedFromSeveralThreadsWhileTheWorkerRuns) {
    const QString base = url("/img?");
    const auto some = [&](int n) { return task(base + QString::number(n % 10), 8, 8); };
    const std::function<void(int)> edits[] = {
        [&](int i) {
            downloader.push_back({some(i), some(i + 1)});
        },
        [&](int i) { downloader.push_front({some(i)}); },
        [&](int i) {
            downloader.remove({some(i - 1), some(i + 3)});
        },
        [&](int i) { i % 25 == 3 ? downloader.clear() : downloader.push_back({some(i + 7)}); },
    };
    // The edits go on until the worker has delivered something while they ran.
    onThreads(3, [&](int t) {
        for (int i = 0; i < 150 || (deliveries == 0 && i < 100000); ++i) {
            edits[(i + t) % 4](i);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    downloader.clear();
    const ImageDownloadTaskPtr last = task(base + "last", 8, 8);
    downloader.push_back({last});
    ASSERT_TRUE(QTest::qWaitFor([&] { return !items.isEmpty() && items.last().first == last; }, 120000));
    EXPECT_GT(items.size(), 1);
    for (const auto& item : items)
        EXPECT_EQ(item.second.size(), QSize(8, 8));
    EXPECT_EQ(offThread, 0);
}

namespace {
// Counts its passes; with endEveryThird, routine() ends the loop after every third pass.
class CountingLoop : public LoopThread {
public:
    CountingLoop(int pause, bool endEveryThird) : m_end(endEveryThird) { m_pause = pause; }
    ~CountingLoop() override { stop(); }
    bool waitForPasses(int n) {
        return QTest::qWaitFor([&] { return passes >= n; }, 120000);
    }
    std::atomic<int> passes{0};

protected:
    bool routine() override {
        if (++passes % 3 == 0 && m_end) return true;
        // Without an end of its own, the first pass lasts until stop() has been called.
        while (!m_end && passes == 1 && !quitFlag())
            std::this_thread::yield();
        return false;
    }

private:
    bool m_end;
};
} // namespace

TEST(LoopThread, StartStopAndRestart) {
    CountingLoop loop(0, true);
    loop.setQuitFlag(true);
    loop.start(); // clears the flag first
    ASSERT_TRUE(loop.waitForPasses(3));
    loop.start(); // the loop has ended but its worker is kept until stop(): nothing happens
    loop.stop();
    EXPECT_EQ(loop.passes, 3);
    loop.start(); // stop() forgot the worker
    ASSERT_TRUE(loop.waitForPasses(6));
    loop.stop();
    EXPECT_EQ(loop.passes, 6);

    // A stop() that comes during a pass ends the loop after it, though the pass says "go on".
    CountingLoop endless(200, false);
    endless.start();
    ASSERT_TRUE(endless.waitForPasses(1));
    endless.stop();
    EXPECT_EQ(endless.passes, 1);
}
