// Pictures for the chat views: pictures registered by the application, or placeholders chosen
// by the kind of the request ("image/...", "avatar/...", "document/name.pdf", ...) and, for
// documents, by the file's extension. The placeholders come from the application's resources
// under ":/images/".
#pragma once

#include "utils_export.h"

#include <QImage>
#include <QMap>
#include <QObject>
#include <QString>

class UTILS_EXPORT ChatImageProvider : public QObject {
    Q_OBJECT
public:
    explicit ChatImageProvider(QObject* parent = nullptr);

    // (Re)loads the placeholder table from the resources. A missing resource gives a null image.
    void initDefaultImage();
    // The picture registered under the part of id after its first "/", else the placeholder.
    QImage requestImage(const QString& id);
    // The placeholder for a full identifier such as "video/abc" or "transfer/ok".
    QImage getDefaultImageByPrefix(const QString& id);
    // The document icon chosen by the extension of id.
    QImage getDocumentDefaultImage(const QString& id);
    // Registers or replaces a picture under exactly key.
    void addImage(const QString& key, const QImage& image);
    // Whether a picture is registered under exactly key (placeholders do not count).
    bool contains(const QString& key);
    // Forgets the registered pictures; the placeholders stay.
    void clear();

private:
    QMap<QString, QImage> m_images;
    QMap<QString, QImage> m_defaultImages;
};
