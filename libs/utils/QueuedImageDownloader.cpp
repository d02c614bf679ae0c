#include "QueuedImageDownloader.h"

#include <QMutexLocker>

#include "OSUtils.h"

#include <QCryptographicHash>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

#include <chrono>

namespace {
const int kTransferTimeoutMs = 15000;
const int kIdlePollMs = 50;
} // namespace

ImageDownloadTask::ImageDownloadTask(const QString& url, int width, int height)
    : url(url), width(width), height(height) {}

bool ImageDownloadTask::operator==(const ImageDownloadTask& other) const {
    return url == other.url && width == other.width && height == other.height;
}

QueuedImageDownloader::QueuedImageDownloader(QObject* parent) : QObject(parent) {
    // Both names, so that imageLoaded can be queued to receivers in other threads.
    qRegisterMetaType<ImageDownloadTaskPtr>("ImageDownloadTaskPtr");
    qRegisterMetaType<ImageDownloadTaskPtr>("ImageDownloadTaskPtr&");
    m_cacheFolder = OSUtils::pathJoin(QStringList{QDir::tempPath(), "vornixios", "temp", "images"});
    // std::system_error from a failed thread creation reaches the caller.
    m_worker = new std::thread([this] { threadRoutine(); });
}

QueuedImageDownloader::~QueuedImageDownloader() {
    m_quit = true;
    if (m_worker->joinable()) m_worker->join();
    delete m_worker;
    m_worker = nullptr;
}

void QueuedImageDownloader::push_back(const QList<ImageDownloadTaskPtr>& tasks) {
    QMutexLocker locker(&m_lock);
    // Element by element: appending a whole list to an empty queue would share the caller's list
    // data, which the caller's thread then releases while the worker edits the queue in place
    // (Qt's check for a shared list is a relaxed read, so nothing orders the two).
    for (const ImageDownloadTaskPtr& task : tasks)
        m_queue.append(task);
}

void QueuedImageDownloader::push_front(const QList<ImageDownloadTaskPtr>& tasks) {
    QMutexLocker locker(&m_lock);
    for (int i = tasks.size() - 1; i >= 0; --i)
        m_queue.prepend(tasks.at(i));
}

void QueuedImageDownloader::remove(const QList<ImageDownloadTaskPtr>& tasks) {
    QMutexLocker locker(&m_lock);
    for (const ImageDownloadTaskPtr& task : tasks) {
        if (!task) continue;
        for (int i = m_queue.size() - 1; i >= 0; --i) {
            const ImageDownloadTaskPtr& queued = m_queue.at(i);
            if (queued && *queued == *task) m_queue.removeAt(i);
        }
    }
}

void QueuedImageDownloader::clear() {
    QMutexLocker locker(&m_lock);
    m_queue = QList<ImageDownloadTaskPtr>();
}

void QueuedImageDownloader::threadRoutine() {
    while (!m_quit) {
        ImageDownloadTaskPtr task;
        {
            QMutexLocker locker(&m_lock);
            if (!m_queue.isEmpty()) task = m_queue.takeFirst();
        }
        if (!task) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kIdlePollMs));
            continue;
        }
        // The cache is looked up with the height as both width and height, on purpose: only
        // square requests are served from the disk cache.
        QImage image = loadFromCacheFile(task->url, task->height, task->height);
        if (image.isNull()) {
            image = downloadImage(task->url, task->width, task->height);
            if (!image.isNull()) saveToCacheFile(task->url, task->width, task->height, image);
        }
        if (!image.isNull()) emit imageLoaded(task, image);
    }
}

QImage QueuedImageDownloader::downloadImage(const QString& url, int w, int h) {
    if (h < 1 || w < 1 || url.isEmpty()) return QImage();
    QNetworkRequest request(QUrl(url, QUrl::TolerantMode));
    // The loop comes first: it gives a thread that Qt adopted an event dispatcher, which the
    // manager's timers need.
    QEventLoop loop;
    QNetworkAccessManager manager;
    manager.setTransferTimeout(kTransferTimeoutMs);
    QNetworkReply* reply = manager.get(request);
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit, Qt::DirectConnection);
    if (!reply->isFinished()) loop.exec(QEventLoop::ExcludeUserInputEvents);
    QImage image;
    if (reply->error() == QNetworkReply::NoError) {
        const QByteArray body = reply->readAll();
        if (!body.isEmpty()) {
            image = QImage::fromData(body);
            if (!image.isNull())
                image = image.scaled(QSize(w, h), Qt::KeepAspectRatio, Qt::FastTransformation);
        }
    }
    reply->deleteLater();
    return image;
}

QString QueuedImageDownloader::cacheFilePath(const QString& url, int w, int h) {
    const QString id = getImageId(url);
    const QString name = QString("%1_%2_%3").arg(id, QString::number(w), QString::number(h));
    return OSUtils::pathJoin(QStringList{m_cacheFolder, id.left(2), name});
}

QImage QueuedImageDownloader::loadFromCacheFile(const QString& url, int w, int h) {
    const QString path = cacheFilePath(url, w, h);
    QImage image;
    if (QFile::exists(path)) image.load(path);
    return image;
}

void QueuedImageDownloader::saveToCacheFile(const QString& url, int w, int h, const QImage& image) {
    const QString path = cacheFilePath(url, w, h);
    const QString folder = OSUtils::pathJoin(QStringList{m_cacheFolder, getImageId(url).left(2)});
    if (!QDir().mkpath(folder)) return;
    // Always JPEG at the default quality; the result of the write is not checked.
    image.save(path, "jpeg", -1);
}

QString QueuedImageDownloader::getImageId(const QString& url) {
    return QString::fromLatin1(QCryptographicHash::hash(url.toUtf8(), QCryptographicHash::Sha1).toHex());
}

QString QueuedImageDownloader::cacheFolder() const {
    return m_cacheFolder;
}

void QueuedImageDownloader::setCacheFolder(const QString& folder) {
    m_cacheFolder = folder;
}
