// The queued image downloader (worker thread, disk cache, delivery to the owner's thread) and
// the LoopThread worker base, against a server on 127.0.0.1 started by the tests.
#include "LocalHttpServer.h"

#include "LoopThread.h"
#include "QueuedImageDownloader.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QPainter>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

namespace {

QByteArray encode(const QImage& image, const char* format) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, format);
    return bytes;
}

QByteArray transparentPng() { // 100 by 50, an opaque disc on a transparent ground
    QImage image(100, 50, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter(&image).fillRect(40, 15, 20, 20, Qt::red);
    return encode(image, "png");
}

QByteArray blueJpeg() {
    QImage image(80, 80, QImage::Format_RGB32);
    image.fill(Qt::blue);
    return encode(image, "jpeg");
}

// Runs this thread's events until the signal has come count times (bounded).
bool waitFor(QSignalSpy& spy, int count) {
    QDeadlineTimer deadline(10000);
    while (spy.count() < count && !deadline.hasExpired())
        spy.wait(int(qMax<qint64>(1, deadline.remainingTime())));
    return spy.count() >= count;
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

} // namespace

// Records each delivered picture on the thread it lives in.
class Collector : public QObject {
    Q_OBJECT
public:
    struct Item {
        ImageDownloadTaskPtr task;
        QImage image;
        bool onOwnerThread;
    };
    QList<Item> items;
    explicit Collector(QueuedImageDownloader& d) {
        connect(&d, &QueuedImageDownloader::imageLoaded, this,
                [this](const ImageDownloadTaskPtr& t, const QImage& i) {
                    items.append({t, i, QThread::currentThread() == thread()});
                    emit delivered();
                });
    }
signals:
    void delivered();
};

class DownloaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.start() && cache.isValid());
        server.route("/alpha.png", {200, {}, transparentPng(), 0});
        server.route("/img", {200, {}, blueJpeg(), 0});
        server.route("/slow", {200, {}, blueJpeg(), 400});
        server.route("/garbage", {200, {}, "no picture", 0});
        downloader.setCacheFolder(cache.path());
    }
    QString url(const QString& target) const { return server.url(target); }
    QString cacheFile(const QString& u, int w, int h) {
        const QString id = downloader.getImageId(u);
        return cache.filePath(QString("%1/%2_%3_%4").arg(id.left(2), id).arg(w).arg(h));
    }

    LocalHttpServer server;
    QTemporaryDir cache;
    QueuedImageDownloader downloader;
    Collector collector{downloader};
    QSignalSpy delivered{&collector, &Collector::delivered};
};

TEST_F(DownloaderTest, DiskCacheLayoutAndSquareLookup) {
    EXPECT_EQ(QueuedImageDownloader().cacheFolder(),
              QDir::cleanPath(QDir::tempPath() + "/vornixios/temp/images"));
    const QString alpha = url("/alpha.png");
    EXPECT_EQ(downloader.getImageId(alpha),
              QString(QCryptographicHash::hash(alpha.toUtf8(), QCryptographicHash::Sha1).toHex()));

    // Square: downloaded once (transparency intact), then served as an opaque JPEG from disk.
    const ImageDownloadTaskPtr square = task(alpha, 40, 40);
    downloader.push_back({square, task(alpha, 40, 40)});
    ASSERT_TRUE(waitFor(delivered, 2));
    EXPECT_EQ(collector.items[0].task, square); // the queued pointer itself
    EXPECT_TRUE(collector.items[0].onOwnerThread && collector.items[1].onOwnerThread);
    EXPECT_EQ(server.hits("/alpha.png"), 1);
    for (const Collector::Item& item : collector.items)
        EXPECT_EQ(item.image.size(), QSize(40, 20));
    EXPECT_EQ(qAlpha(collector.items[0].image.pixel(0, 0)), 0);
    EXPECT_EQ(qAlpha(collector.items[1].image.pixel(0, 0)), 255);
    QFile file(cacheFile(alpha, 40, 40));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.read(3), QByteArray("\xff\xd8\xff"));

    // Wide: stored as id_60_30 but looked up as id_30_30, so fetched every time...
    const QString photo = url("/img");
    downloader.push_back({task(photo, 60, 30), task(photo, 60, 30)});
    ASSERT_TRUE(waitFor(delivered, 4));
    EXPECT_EQ(server.hits("/img"), 2);
    EXPECT_EQ(collector.items[3].image.size(), QSize(30, 30));
    EXPECT_TRUE(QFile::exists(cacheFile(photo, 60, 30)));
    // ...until a picture is stored under the height-by-height name.
    downloader.saveToCacheFile(photo, 30, 30, collector.items[3].image);
    downloader.push_back({task(photo, 60, 30)});
    ASSERT_TRUE(waitFor(delivered, 5));
    EXPECT_EQ(server.hits("/img"), 2);
    EXPECT_EQ(filesUnder(cache.path()), 3);
}

TEST_F(DownloaderTest, FailedTasksEmitNothingAndCacheNothing) {
    const ImageDownloadTaskPtr sentinel = task(url("/img"), 20, 20);
    downloader.push_back({task(url("/missing.png"), 20, 20), task(url("/garbage"), 20, 20),
                          task(url("/img"), 0, 20), task(url("/img"), 20, -1), task(QString(), 20, 20),
                          task("http://127.0.0.1:1/refused.png", 20, 20), sentinel});
    ASSERT_TRUE(waitFor(delivered, 1)); // the queue runs in order: the failures are done
    ASSERT_EQ(collector.items.size(), 1);
    EXPECT_EQ(collector.items[0].task, sentinel);
    EXPECT_EQ(server.targets(), (QList<QByteArray>{"/missing.png", "/garbage", "/img"}));
    EXPECT_EQ(filesUnder(cache.path()), 1);
    EXPECT_EQ(downloader.downloadImage(url("/img"), 10, 25).size(), QSize(10, 10)); // on this thread
    EXPECT_EQ(filesUnder(cache.path()), 1);
}

TEST_F(DownloaderTest, QueueOrderRemoveAndClear) {
    QSignalSpy received(&server, &LocalHttpServer::requestReceived);
    downloader.push_back({task(url("/slow?1"), 10, 10)});
    ASSERT_TRUE(waitFor(received, 1)); // the worker is busy: rearrange the queue meanwhile
    downloader.push_back({task(url("/img?c"), 10, 10)});
    downloader.push_front({task(url("/img?a"), 10, 10), task(url("/img?b"), 10, 10)});
    downloader.push_back({task(url("/img?d"), 10, 10), task(url("/img?e"), 10, 10),
                          task(url("/img?d"), 10, 10), task(url("/img?d"), 10, 12)});
    downloader.remove({task(url("/img?d"), 10, 10)}); // equal by value: both copies go
    ASSERT_TRUE(waitFor(delivered, 6));
    EXPECT_EQ(server.targets(),
              (QList<QByteArray>{"/slow?1", "/img?a", "/img?b", "/img?c", "/img?e", "/img?d"}));

    downloader.push_back({task(url("/slow?2"), 10, 10)});
    ASSERT_TRUE(waitFor(received, 7));
    downloader.push_back({task(url("/img?g"), 10, 10)});
    downloader.clear();
    downloader.push_back({task(url("/img?z"), 10, 10)});
    ASSERT_TRUE(waitFor(delivered, 8));
    EXPECT_EQ(server.targets().mid(6), (QList<QByteArray>{"/slow?2", "/img?z"}));
}

namespace {
// Counts its passes; with endEveryThird, routine() ends the loop after every third pass.
class CountingLoop : public LoopThread {
public:
    CountingLoop(int pause, bool endEveryThird) : m_end(endEveryThird) { m_pause = pause; }
    ~CountingLoop() override { stop(); }
    bool waitForPasses(int n) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(10), [&] { return passes >= n; });
    }
    bool hasWorker() const { return m_worker != nullptr; }
    int passes = 0; // read after stop() or under m_mutex

protected:
    bool routine() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_changed.notify_all();
        return ++passes % 3 == 0 && m_end;
    }

private:
    bool m_end;
    std::mutex m_mutex;
    std::condition_variable m_changed;
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
    EXPECT_FALSE(loop.hasWorker());
    loop.start();
    ASSERT_TRUE(loop.waitForPasses(6));
    loop.stop();
    EXPECT_EQ(loop.passes, 6);

    CountingLoop endless(200, false); // stop() ends the pause without waiting for more passes
    endless.start();
    ASSERT_TRUE(endless.waitForPasses(1));
    QElapsedTimer timer;
    timer.start();
    endless.stop();
    EXPECT_LT(timer.elapsed(), 1000);
    EXPECT_LE(endless.passes, 2);
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

#include "moc_LocalHttpServer.cpp"
#include "test_image_downloader.moc"
