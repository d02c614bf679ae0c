#include "ImageCachePool.h"

#include <QMutexLocker>

ImageCachePool::ImageCachePool(int capacity) : m_capacity(capacity) {}

QImage ImageCachePool::get(const QString& path, int w, int h) {
    QMutexLocker locker(&m_lock);
    const QString id = getImageId(path, w, h);
    auto it = m_images.constFind(id);
    if (it == m_images.constEnd()) return QImage();
    m_order.removeAll(id);
    m_order.insert(0, id);
    return it.value();
}

void ImageCachePool::put(const QString& path, int w, int h, const QImage& image) {
    QMutexLocker locker(&m_lock);
    const QString id = getImageId(path, w, h);
    auto it = m_images.find(id);
    if (it != m_images.end()) {
        it.value() = image;
        m_order.removeAll(id);
    } else {
        m_images.insert(id, image);
    }
    m_order.insert(0, id);
    // One eviction per call: the pool never grows by more than one entry at a time.
    if (m_order.size() > m_capacity) {
        const QString oldest = m_order.takeLast();
        m_images.remove(oldest);
    }
}

bool ImageCachePool::contains(const QString& path, int w, int h) {
    QMutexLocker locker(&m_lock);
    return m_images.contains(getImageId(path, w, h));
}

QString ImageCachePool::getImageId(const QString& path, int w, int h) {
    // One multi-argument call, so that a "%" in the path is never taken for a placeholder.
    return QString("%1_%2_%3").arg(path, QString::number(w), QString::number(h));
}
