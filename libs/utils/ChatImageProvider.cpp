#include "ChatImageProvider.h"

#include "OSUtils.h"

#include <utility>

namespace {

// Placeholder key and resource path, in loading order. Two pairs of keys share a picture.
const std::pair<const char*, const char*> kPlaceholders[] = {
    {"deleteTag", ":/images/tag_delete.png"},
    {"image/default", ":/images/chatwindow_image.png"},
    {"video/default", ":/images/chatwindow_video.png"},
    {"avatar/default", ":/images/default_contact_person.png"},
    {"avatar_me/default", ":/images/default_contact_me.png"},
    {"document/default", ":/images/qml_txt.png"},
    {"document/zip", ":/images/qml_zip.png"},
    {"document/doc", ":/images/qml_doc.png"},
    {"document/ppt", ":/images/qml_ppt.png"},
    {"document/xls", ":/images/qml_xls.png"},
    {"document/pdf", ":/images/qml_pdf.png"},
    {"document/txt", ":/images/qml_txt.png"},
    {"link/default", ":/images/default_link.png"},
    {"audio/me", ":/images/default_audio_me.png"},
    {"audio/other", ":/images/default_audio_other.png"},
    {"contact/group", ":/images/default_contact_group.png"},
    {"contact/person", ":/images/default_contact_person.png"},
    {"deletedMsg/default", ":/images/default_deletedmsg.png"},
    {"location/default", ":/images/default_location.png"},
    {"callMsg/audio", ":/images/default_audiocall.png"},
    {"callMsg/video", ":/images/default_videocall.png"},
    {"redpacket/default", ":/images/default_redpacket.png"},
    {"redpacket/open", ":/images/default_redpacket_open.png"},
    {"transfer/default", ":/images/default_transfer.png"},
    {"transfer/ok", ":/images/default_transfer_ok.png"},
    {"transfer/reject", ":/images/default_transfer_reject.png"},
};

} // namespace

ChatImageProvider::ChatImageProvider(QObject* parent) : QObject(parent) {
    initDefaultImage();
}

void ChatImageProvider::initDefaultImage() {
    for (const auto& entry : kPlaceholders)
        m_defaultImages[QString::fromLatin1(entry.first)] = QImage(QString::fromLatin1(entry.second));
}

QImage ChatImageProvider::requestImage(const QString& id) {
    // indexOf gives -1 without a "/", so the key is then the whole identifier.
    const QString key = id.mid(id.indexOf('/') + 1);
    auto it = m_images.constFind(key);
    if (it != m_images.constEnd()) return it.value();
    return getDefaultImageByPrefix(id);
}

QImage ChatImageProvider::getDefaultImageByPrefix(const QString& id) {
    if (id.startsWith("document/")) return getDocumentDefaultImage(id);
    if (id.startsWith("link/")) return m_defaultImages.value("link/default");
    if (id.startsWith("location/")) return m_defaultImages.value("location/default");
    if (id.startsWith("avatar/")) return m_defaultImages.value("avatar/default");
    if (id.startsWith("avatar_me/")) return m_defaultImages.value("avatar_me/default");
    if (id.startsWith("video/")) return m_defaultImages.value("video/default");
    if (id.startsWith("image/")) return m_defaultImages.value("image/default");
    // The remaining kinds are reached only by their exact key.
    auto it = m_defaultImages.constFind(id);
    if (it != m_defaultImages.constEnd()) return it.value();
    return m_defaultImages.value("image/default");
}

QImage ChatImageProvider::getDocumentDefaultImage(const QString& id) {
    if (OSUtils::matchExts(id, g_txtSuffix)) return m_defaultImages.value("document/txt");
    if (OSUtils::matchExts(id, g_zipSuffix)) return m_defaultImages.value("document/zip");
    if (OSUtils::matchExts(id, g_wordSuffix)) return m_defaultImages.value("document/doc");
    if (OSUtils::matchExts(id, g_pptSuffix)) return m_defaultImages.value("document/ppt");
    if (OSUtils::matchExts(id, g_xlsSuffix)) return m_defaultImages.value("document/xls");
    if (OSUtils::matchExts(id, g_pdfSuffix)) return m_defaultImages.value("document/pdf");
    return m_defaultImages.value("document/default");
}

void ChatImageProvider::addImage(const QString& key, const QImage& image) {
    m_images[key] = image;
}

bool ChatImageProvider::contains(const QString& key) {
    return m_images.contains(key);
}

void ChatImageProvider::clear() {
    m_images.clear();
}
