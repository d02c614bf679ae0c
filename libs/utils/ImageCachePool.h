// A thread-safe in-memory cache of prepared pictures, keyed by path and size, with
// least-recently-used eviction.
#pragma once

#include "utils_export.h"

#include <QHash>
#include <QImage>
#include <QList>
#include <QMutex>
#include <QString>

class UTILS_EXPORT ImageCachePool {
public:
    explicit ImageCachePool(int capacity);

    // A copy of the cached picture (and it becomes the most recently used one), or a null image.
    QImage get(const QString& path, int w, int h);
    // Stores or replaces a picture; when the pool grows past its capacity the least recently
    // used entry is dropped (one entry per call).
    void put(const QString& path, int w, int h, const QImage& image);
    // Whether an entry exists; does not count as a use.
    bool contains(const QString& path, int w, int h);

    // "path_w_h", the path taken as it is.
    QString getImageId(const QString& path, int w, int h);

private:
    int m_capacity;
    QMutex m_lock;
    QHash<QString, QImage> m_images;
    QList<QString> m_order; // most recently used first
};
