// The queued image downloader (worker thread, disk cache, delivery to the owner's thread) and the
// LoopThread worker base, against a server on 127.0.0.1 that the tests start themselves.
#include "LocalHttpServer.h"

#include "LoopThread.h"
#include "OSUtils.h"
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

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace {

QByteArray encode(const QImage& image, const char* format) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, format);
    return bytes;
}

// 100 by 50, transparent with an opaque red disc in the middle.
QByteArray transparentPng() {
    QImage image(100, 50, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter p(&image);
    p.setPen(Qt::NoPen);
    p.setBrush(Qt::red);
    p.drawEllipse(QPointF(50, 25), 20, 20);
    p.end();
    return encode(image, "png");
}

QByteArray blueJpeg() {
    QImage image(80, 80, QImage::Format_RGB32);
    image.fill(Qt::blue);
    return encode(image, "jpeg");
}

// Runs this thread's events until the signal has been seen count times or the time is up.
bool waitForCount(QSignalSpy& spy, int count, int timeoutMs = 10000) {
    QDeadlineTimer deadline(timeoutMs);
    while (spy.count() < count && !deadline.hasExpired())
        spy.wait(int(qMax<qint64>(1, deadline.remainingTime())));
    return spy.count() >= count;
}

int filesUnder(const QString& dir) {
    int n = 0;
    QDirIterator it(dir, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        ++n;
    }
    return n;
}

ImageDownloadTaskPtr task(const QString& url, int w, int h) {
    return ImageDownloadTaskPtr(new ImageDownloadTask(url, w, h));
}

} // namespace

// Records every picture the downloader delivers, on the thread this object lives in.
class Collector : public QObject {
    Q_OBJECT
public:
    struct Item {
        ImageDownloadTaskPtr task;
        QImage image;
        bool onOwnerThread;
    };

    explicit Collector(QueuedImageDownloader& downloader) {
        connect(&downloader, &QueuedImageDownloader::imageLoaded, this,
                [this](const ImageDownloadTaskPtr& t, const QImage& img) {
                    items.append({t, img, QThread::currentThread() == thread()});
                    emit delivered();
                });
    }
    QList<Item> items;

signals:
    void delivered();
};

class DownloaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_TRUE(cache.isValid());
        server.route("/alpha.png",
                     CannedResponse{200, "OK", {{"Content-Type", "image/png"}}, transparentPng(), 0});
        server.route("/photo.jpg",
                     CannedResponse{200, "OK", {{"Content-Type", "image/jpeg"}}, blueJpeg(), 0});
        server.route("/img", CannedResponse{200, "OK", {}, blueJpeg(), 0});
        server.route("/slow.png", CannedResponse{200, "OK", {}, transparentPng(), 400});
        server.route("/garbage", CannedResponse{200, "OK", {}, "this is no picture", 0});
        server.route("/empty", CannedResponse{200, "OK", {}, QByteArray(), 0});
        downloader.setCacheFolder(cache.path());
    }
    QString url(const QString& target) const { return server.url(target); }
    QString cacheFile(const QString& u, int w, int h) {
        const QString id = downloader.getImageId(u);
        return cache.filePath(id.left(2) + "/" + QString("%1_%2_%3").arg(id).arg(w).arg(h));
    }

    LocalHttpServer server;
    QTemporaryDir cache;
    QueuedImageDownloader downloader;
    Collector collector{downloader};
    QSignalSpy delivered{&collector, &Collector::delivered};
};

TEST_F(DownloaderTest, DiskCacheLayoutAndSquareLookup) {
    QueuedImageDownloader fresh;
    EXPECT_EQ(fresh.cacheFolder(), QDir::cleanPath(QDir::tempPath() + "/vornixios/temp/images"));
    const QString alpha = url("/alpha.png");
    const QString id = downloader.getImageId(alpha);
    EXPECT_EQ(id, QString(QCryptographicHash::hash(alpha.toUtf8(), QCryptographicHash::Sha1).toHex()));
    EXPECT_EQ(id.size(), 40);
    EXPECT_EQ(id, id.toLower());

    // Square request: downloaded once, then served from the JPEG cache without transparency.
    ImageDownloadTaskPtr square = task(alpha, 40, 40);
    downloader.push_back({square});
    ASSERT_TRUE(waitForCount(delivered, 1));
    const Collector::Item first = collector.items.at(0);
    EXPECT_EQ(first.task, square); // the very pointer that was queued
    EXPECT_TRUE(first.onOwnerThread);
    EXPECT_EQ(first.image.size(), QSize(40, 20)); // fitted into 40 by 40, aspect kept
    EXPECT_TRUE(first.image.hasAlphaChannel());
    EXPECT_EQ(qAlpha(first.image.pixel(0, 0)), 0);
    QFile file(cacheFile(alpha, 40, 40));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.read(3) == QByteArray("\xff\xd8\xff")); // JPEG whatever the source was
    file.close();

    downloader.push_back({task(alpha, 40, 40)});
    ASSERT_TRUE(waitForCount(delivered, 2));
    EXPECT_EQ(server.hits("/alpha.png"), 1);
    const QImage cached = collector.items.at(1).image;
    EXPECT_EQ(cached.size(), QSize(40, 20));
    EXPECT_FALSE(cached.hasAlphaChannel());
    EXPECT_EQ(qAlpha(cached.pixel(0, 0)), 255);

    // Wide request: saved as id_60_30 but looked up as id_30_30, so it is fetched again.
    const QString photo = url("/photo.jpg");
    downloader.push_back({task(photo, 60, 30)});
    ASSERT_TRUE(waitForCount(delivered, 3));
    EXPECT_EQ(collector.items.at(2).image.size(), QSize(30, 30));
    EXPECT_TRUE(QFile::exists(cacheFile(photo, 60, 30)));
    downloader.push_back({task(photo, 60, 30)});
    ASSERT_TRUE(waitForCount(delivered, 4));
    EXPECT_EQ(server.hits("/photo.jpg"), 2);
    EXPECT_TRUE(downloader.loadFromCacheFile(photo, 30, 30).isNull());
    // Once a picture sits under the height-by-height name, the wide request is served from it.
    downloader.saveToCacheFile(photo, 30, 30, collector.items.at(3).image);
    EXPECT_FALSE(downloader.loadFromCacheFile(photo, 30, 30).isNull());
    downloader.push_back({task(photo, 60, 30)});
    ASSERT_TRUE(waitForCount(delivered, 5));
    EXPECT_EQ(server.hits("/photo.jpg"), 2);
    EXPECT_EQ(filesUnder(cache.path()), 3);

    // A cache folder that cannot be created: nothing is written, nothing fails.
    QFile blocker(cache.filePath("blocked"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    downloader.setCacheFolder(cache.filePath("blocked"));
    downloader.saveToCacheFile(photo, 10, 10, collector.items.at(0).image);
    EXPECT_TRUE(downloader.loadFromCacheFile(photo, 10, 10).isNull());
}

TEST_F(DownloaderTest, FailedTasksEmitNothingAndCacheNothing) {
    const ImageDownloadTaskPtr sentinel = task(url("/photo.jpg"), 20, 20);
    downloader.push_back({task(url("/missing.png"), 20, 20), task(url("/garbage"), 20, 20),
                          task(url("/empty"), 20, 20), task(url("/photo.jpg"), 0, 20),
                          task(url("/photo.jpg"), 20, -1), task(QString(), 20, 20),
                          task("http://127.0.0.1:1/refused.png", 20, 20), sentinel});
    // The queue runs in order, so the failures are behind us once the sentinel arrives.
    ASSERT_TRUE(waitForCount(delivered, 1));
    ASSERT_EQ(collector.items.size(), 1);
    EXPECT_EQ(collector.items.at(0).task, sentinel);
    EXPECT_EQ(server.hits("/missing.png"), 1);
    EXPECT_EQ(server.hits("/garbage"), 1);
    EXPECT_EQ(server.hits("/photo.jpg"), 1); // the bad sizes never reached the network
    EXPECT_EQ(filesUnder(cache.path()), 1);

    // The same checks, called directly on this thread.
    EXPECT_TRUE(downloader.downloadImage(url("/missing.png"), 10, 10).isNull());
    EXPECT_TRUE(downloader.downloadImage(url("/garbage"), 10, 10).isNull());
    EXPECT_TRUE(downloader.downloadImage(url("/photo.jpg"), 10, 0).isNull());
    EXPECT_EQ(downloader.downloadImage(url("/photo.jpg"), 10, 25).size(), QSize(10, 10));
    EXPECT_EQ(server.hits("/photo.jpg"), 2);
    EXPECT_EQ(filesUnder(cache.path()), 1); // downloadImage alone writes nothing
}

TEST_F(DownloaderTest, QueueOrderRemoveAndClear) {
    QSignalSpy requests(&server, &LocalHttpServer::requestReceived);
    // While the worker waits for the slow picture, the queue is rearranged.
    downloader.push_back({task(url("/slow.png?1"), 10, 10)});
    ASSERT_TRUE(waitForCount(requests, 1));
    const ImageDownloadTaskPtr d1 = task(url("/img?d"), 10, 10);
    const ImageDownloadTaskPtr d2 = task(url("/img?d"), 10, 10);
    downloader.push_back({task(url("/img?c"), 10, 10)});
    downloader.push_front({task(url("/img?a"), 10, 10), task(url("/img?b"), 10, 10)});
    downloader.push_back({d1, task(url("/img?e"), 10, 10), d2, task(url("/img?d"), 10, 12)});
    // A different object with the same URL and size withdraws both queued copies.
    downloader.remove({task(url("/img?d"), 10, 10)});
    ASSERT_TRUE(waitForCount(delivered, 6));
    EXPECT_EQ(server.targets(),
              (QList<QByteArray>{"/slow.png?1", "/img?a", "/img?b", "/img?c", "/img?e", "/img?d"}));

    downloader.push_back({task(url("/slow.png?2"), 10, 10)});
    ASSERT_TRUE(waitForCount(requests, 7));
    downloader.push_back({task(url("/img?g"), 10, 10), task(url("/img?h"), 10, 10)});
    downloader.clear();
    downloader.push_back({task(url("/img?z"), 10, 10)});
    ASSERT_TRUE(waitForCount(delivered, 8));
    EXPECT_EQ(server.targets().mid(6), (QList<QByteArray>{"/slow.png?2", "/img?z"}));
}

TEST(ImageDownloadTask, EqualityAndMetaTypes) {
    const ImageDownloadTask a("http://x/1.png", 10, 20);
    EXPECT_EQ(a, ImageDownloadTask("http://x/1.png", 10, 20));
    EXPECT_NE(a, ImageDownloadTask("http://x/1.png", 20, 10));
    EXPECT_NE(a, ImageDownloadTask("http://x/1.PNG", 10, 20));
    EXPECT_EQ(ImageDownloadTask(), ImageDownloadTask(QString(), 0, 0));

    QueuedImageDownloader downloader;
    const int id = QMetaType::type("ImageDownloadTaskPtr");
    EXPECT_NE(id, int(QMetaType::UnknownType));
    EXPECT_EQ(QMetaType::type("ImageDownloadTaskPtr&"), id);
}

TEST(QueuedImageDownloaderThreads, DestructionWaitsForTheCurrentTaskAndDropsTheRest) {
    // The server runs on a thread of its own here, because this thread blocks in the destructor.
    QThread serverThread;
    auto* server = new LocalHttpServer;
    server->route("/slow.png", CannedResponse{200, "OK", {}, transparentPng(), 300});
    server->route("/img", CannedResponse{200, "OK", {}, blueJpeg(), 0});
    server->moveToThread(&serverThread);
    serverThread.start();
    bool listening = false;
    QMetaObject::invokeMethod(
        server, [&] { listening = server->start(); }, Qt::BlockingQueuedConnection);
    ASSERT_TRUE(listening);
    std::atomic<int> received{0};
    QObject::connect(
        server, &LocalHttpServer::requestReceived, server, [&received] { ++received; }, Qt::DirectConnection);

    QTemporaryDir cache;
    auto downloader = std::make_unique<QueuedImageDownloader>();
    downloader->setCacheFolder(cache.path());
    downloader->push_back({task(server->url("/slow.png"), 10, 10), task(server->url("/img?1"), 10, 10),
                           task(server->url("/img?2"), 10, 10)});
    QDeadlineTimer deadline(10000);
    while (received < 1 && !deadline.hasExpired())
        QThread::yieldCurrentThread();
    ASSERT_EQ(received, 1);
    QElapsedTimer timer;
    timer.start();
    downloader.reset();
    EXPECT_LT(timer.elapsed(), 5000);
    EXPECT_EQ(filesUnder(cache.path()), 1); // the slow picture was finished and stored

    QList<QByteArray> targets;
    QMetaObject::invokeMethod(
        server, [&] { targets = server->targets(); }, Qt::BlockingQueuedConnection);
    EXPECT_EQ(targets, (QList<QByteArray>{"/slow.png"}));
    server->deleteLater();
    serverThread.quit();
    serverThread.wait();
}

namespace {

// Counts its passes and asks to end the loop after every third one.
class CountingLoop : public LoopThread {
public:
    explicit CountingLoop(int pause, bool endEveryThird) : m_endEveryThird(endEveryThird) { m_pause = pause; }
    ~CountingLoop() override { stop(); }

    bool waitForPasses(int n) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(10), [&] { return m_passes >= n; });
    }
    int passes() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_passes;
    }
    bool hasWorker() const { return m_worker != nullptr; }

protected:
    bool routine() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_passes;
        m_changed.notify_all();
        return m_endEveryThird && m_passes % 3 == 0;
    }

private:
    bool m_endEveryThird;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_passes = 0;
};

} // namespace

TEST(LoopThread, StartStopAndRestart) {
    CountingLoop loop(0, true);
    loop.setQuitFlag(true);
    loop.start(); // start clears the flag first
    ASSERT_TRUE(loop.waitForPasses(3));
    // routine() ended the loop, but the worker is kept until stop(): start does nothing.
    loop.start();
    EXPECT_TRUE(loop.hasWorker());
    loop.stop();
    EXPECT_FALSE(loop.hasWorker());
    EXPECT_EQ(loop.passes(), 3);
    EXPECT_TRUE(loop.quitFlag()); // stop() raised it; the next start() clears it
    loop.stop();                  // nothing to stop

    loop.start();
    ASSERT_TRUE(loop.waitForPasses(6));
    loop.stop();
    EXPECT_EQ(loop.passes(), 6);

    // A loop that never ends by itself stops during its pause, without waiting for more passes.
    CountingLoop endless(200, false);
    endless.start();
    endless.start(); // already running
    ASSERT_TRUE(endless.waitForPasses(1));
    QElapsedTimer timer;
    timer.start();
    endless.stop();
    EXPECT_LT(timer.elapsed(), 1000);
    EXPECT_LE(endless.passes(), 2);
    EXPECT_FALSE(endless.hasWorker());
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

#include "moc_LocalHttpServer.cpp"
#include "test_image_downloader.moc"
