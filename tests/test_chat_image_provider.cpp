// The chat image provider with the placeholder pictures of examples/images.qrc, and the tool's
// contact sheet of those pictures.
#include "ChatImageProvider.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QRegExp>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QImage resource(const QString& file) {
    return QImage(":/images/" + file);
}

// Placeholder key and the file it must show.
const QList<QPair<QString, QString>> kTable = {
    {"deleteTag", "tag_delete.png"},
    {"image/default", "chatwindow_image.png"},
    {"video/default", "chatwindow_video.png"},
    {"avatar/default", "default_contact_person.png"},
    {"avatar_me/default", "default_contact_me.png"},
    {"document/zip", "qml_zip.png"},
    {"document/doc", "qml_doc.png"},
    {"document/ppt", "qml_ppt.png"},
    {"document/xls", "qml_xls.png"},
    {"document/pdf", "qml_pdf.png"},
    {"document/txt", "qml_txt.png"},
    {"link/default", "default_link.png"},
    {"audio/me", "default_audio_me.png"},
    {"audio/other", "default_audio_other.png"},
    {"contact/group", "default_contact_group.png"},
    {"contact/person", "default_contact_person.png"},
    {"deletedMsg/default", "default_deletedmsg.png"},
    {"location/default", "default_location.png"},
    {"callMsg/audio", "default_audiocall.png"},
    {"callMsg/video", "default_videocall.png"},
    {"redpacket/default", "default_redpacket.png"},
    {"redpacket/open", "default_redpacket_open.png"},
    {"transfer/default", "default_transfer.png"},
    {"transfer/ok", "default_transfer_ok.png"},
    {"transfer/reject", "default_transfer_reject.png"},
};

} // namespace

TEST(ChatImageProvider, PlaceholderPicturesAreDistinctAndComplete) {
    const QStringList files = QDir(":/images").entryList(QDir::Files);
    ASSERT_EQ(files.size(), 24);
    QList<QImage> images;
    for (const QString& f : files) {
        SCOPED_TRACE(f.toStdString());
        const QImage image = resource(f);
        ASSERT_FALSE(image.isNull());
        EXPECT_EQ(image.size(), QSize(128, 128));
        EXPECT_TRUE(image.hasAlphaChannel());
        for (const QImage& other : images)
            EXPECT_NE(image, other);
        images << image;
    }
    // Every key shows its own file; avatar/default and contact/person share one.
    ChatImageProvider provider;
    for (const auto& row : kTable) {
        SCOPED_TRACE(row.first.toStdString());
        EXPECT_TRUE(files.contains(row.second));
        if (row.first.startsWith("document/")) continue; // chosen by extension, see below
        EXPECT_EQ(provider.requestImage(row.first), resource(row.second));
    }
}

TEST(ChatImageProvider, PrefixRulesAndRegisteredPictures) {
    ChatImageProvider provider;
    const struct {
        const char* id;
        const char* file;
    } cases[] = {
        {"image/unknown.jpg", "chatwindow_image.png"},
        {"video/x", "chatwindow_video.png"},
        {"avatar/123", "default_contact_person.png"},
        {"avatar_me/1", "default_contact_me.png"}, // "avatar/" does not match it
        {"link/https://example.invalid/a", "default_link.png"},
        {"location/52.1,4.3", "default_location.png"},
        {"document/report.pdf", "qml_pdf.png"},
        {"document/REPORT.PDF", "qml_pdf.png"},
        {"document/a.tar.gz", "qml_zip.png"},
        {"document/letter.docx", "qml_doc.png"},
        {"document/slides.pptx", "qml_ppt.png"},
        {"document/sheet.xlsm", "qml_xls.png"},
        {"document/data.csv", "qml_txt.png"},
        {"document/program.exe", "qml_txt.png"}, // in no list: the text icon
        {"document/", "qml_txt.png"},
        {"transfer/ok", "default_transfer_ok.png"},
        {"transfer/other", "chatwindow_image.png"}, // only exact keys reach these kinds
        {"redpacket/open", "default_redpacket_open.png"},
        {"callMsg/video", "default_videocall.png"},
        {"deleteTag", "tag_delete.png"},
        {"Image/x.jpg", "chatwindow_image.png"}, // prefixes are case-sensitive; falls back anyway
        {"Video/x", "chatwindow_image.png"},
        {"", "chatwindow_image.png"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.id);
        EXPECT_EQ(provider.requestImage(c.id), resource(c.file));
    }
    EXPECT_EQ(provider.getDocumentDefaultImage("notes"), resource("qml_txt.png"));
    EXPECT_EQ(provider.getDefaultImageByPrefix("document/x.xls"), resource("qml_xls.png"));

    // Registered pictures are found by the part after the first "/".
    QImage mine(7, 5, QImage::Format_RGB32);
    mine.fill(Qt::magenta);
    provider.addImage("abc.jpg", mine);
    EXPECT_EQ(provider.requestImage("image/abc.jpg"), mine);
    EXPECT_EQ(provider.requestImage("video/abc.jpg"), mine);
    EXPECT_EQ(provider.requestImage("abc.jpg"), mine); // no "/": the whole identifier is the key
    EXPECT_TRUE(provider.contains("abc.jpg"));
    EXPECT_FALSE(provider.contains("image/abc.jpg"));
    EXPECT_FALSE(provider.contains("image/default")); // placeholders do not count
    provider.addImage("a/b.png", mine);
    EXPECT_EQ(provider.requestImage("image/a/b.png"), mine);
    EXPECT_EQ(provider.requestImage("a/b.png"), resource("chatwindow_image.png")); // key "b.png"

    // clear() keeps the placeholders; a second initDefaultImage changes nothing.
    provider.clear();
    EXPECT_FALSE(provider.contains("abc.jpg"));
    EXPECT_EQ(provider.requestImage("image/abc.jpg"), resource("chatwindow_image.png"));
    provider.initDefaultImage();
    EXPECT_EQ(provider.requestImage("audio/me"), resource("default_audio_me.png"));
}

TEST(ChatImageProvider, ToolDrawsAContactSheet) {
    const QString tool = QString::fromUtf8(UTILS_TOOL_PATH);
    if (tool.isEmpty()) GTEST_SKIP() << "utils-inspect is not built";
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString sheet = dir.filePath("sheet.png");

    QProcess run;
    run.start(tool, {"contact-sheet", sheet, "--columns", "6"});
    ASSERT_TRUE(run.waitForFinished(60000));
    EXPECT_EQ(run.exitCode(), 0) << run.readAllStandardError().toStdString();
    const QImage image(sheet);
    ASSERT_FALSE(image.isNull());
    EXPECT_GE(image.width(), 6 * 128);
    EXPECT_GE(image.height(), 4 * 128);
    // Kept beside the test binary for people to look at.
    QFile::remove("placeholder_contact_sheet.png");
    QFile::copy(sheet, "placeholder_contact_sheet.png");

    // An existing file is not overwritten without --force; bad options are usage errors.
    run.start(tool, {"contact-sheet", sheet});
    ASSERT_TRUE(run.waitForFinished(60000));
    EXPECT_EQ(run.exitCode(), 1);
    EXPECT_EQ(QString(run.readAllStandardError()).split('\n').filter(QRegExp("^utils-inspect: ")).size(), 1);
    run.start(tool, {"contact-sheet", dir.filePath("other.png"), "--columns", "0"});
    ASSERT_TRUE(run.waitForFinished(60000));
    EXPECT_EQ(run.exitCode(), 2);
    EXPECT_FALSE(QFile::exists(dir.filePath("other.png")));

    run.start(tool, {"placeholder", "document/report.pdf", "transfer/x", "--json"});
    ASSERT_TRUE(run.waitForFinished(60000));
    EXPECT_EQ(run.exitCode(), 0);
    const QByteArray json = run.readAllStandardOutput();
    EXPECT_TRUE(json.contains(":/images/qml_pdf.png"));
    EXPECT_TRUE(json.contains(":/images/chatwindow_image.png"));
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
