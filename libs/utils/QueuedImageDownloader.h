// Downloads pictures one at a time on a worker thread of its own, keeps each one (scaled to the
// requested size) in a JPEG disk cache under the temporary folder, and announces every finished
// picture with imageLoaded.
#pragma once

#include "utils_export.h"

#include <QImage>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QRecursiveMutex>
#include <QSharedPointer>
#include <QString>

#include <atomic>
#include <thread>

// One picture request. The application may derive from it to carry data of its own.
class UTILS_EXPORT ImageDownloadTask {
public:
    ImageDownloadTask() = default;
    ImageDownloadTask(const QString& url, int width, int height);
    virtual ~ImageDownloadTask() = default;

    // Tasks are equal when they ask for the same picture at the same size.
    bool operator==(const ImageDownloadTask& other) const;
    bool operator!=(const ImageDownloadTask& other) const { return !(*this == other); }

    QString url;
    int width = 0;
    int height = 0;
};

typedef QSharedPointer<ImageDownloadTask> ImageDownloadTaskPtr;
Q_DECLARE_METATYPE(ImageDownloadTaskPtr)

class UTILS_EXPORT QueuedImageDownloader : public QObject {
    Q_OBJECT
public:
    // Starts the worker at once; it runs until the object is destroyed.
    explicit QueuedImageDownloader(QObject* parent = nullptr);
    // Waits for the task in progress (a download may take up to its 15 s time-out); queued
    // tasks are dropped.
    ~QueuedImageDownloader() override;

    void push_back(const QList<ImageDownloadTaskPtr>& tasks);
    // The list goes to the front in its own order: its first element runs next.
    void push_front(const QList<ImageDownloadTaskPtr>& tasks);
    // Withdraws every queued task equal (URL, width, height) to one of the list.
    void remove(const QList<ImageDownloadTaskPtr>& tasks);
    void clear();

    // Fetches url on the calling thread and scales the picture to fit w by h; null on failure.
    QImage downloadImage(const QString& url, int w, int h);
    QImage loadFromCacheFile(const QString& url, int w, int h);
    void saveToCacheFile(const QString& url, int w, int h, const QImage& image);
    // Lower-case hexadecimal SHA-1 of the URL.
    QString getImageId(const QString& url);

    // Not locked: set the folder before pushing work.
    QString cacheFolder() const;
    void setCacheFolder(const QString& folder);

signals:
    // Emitted on the worker thread; receivers in other threads get it as a queued call.
    void imageLoaded(const ImageDownloadTaskPtr& task, const QImage& img);

private:
    void threadRoutine();
    QString cacheFilePath(const QString& url, int w, int h);

    QList<ImageDownloadTaskPtr> m_queue;
    QRecursiveMutex m_lock;
    QString m_cacheFolder;
    std::thread* m_worker = nullptr;
    // Written by the owner's thread, read by the worker.
    std::atomic<bool> m_quit{false};
};
