// The chat image provider with the placeholder pictures of examples/images.qrc, and the tool's
// contact sheet of those pictures.
#include "ChatImageProvider.h"
#include "ToolRun.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

static QImage resource(const QString& file) {
    return QImage(":/images/" + file);
}

TEST(ChatImageProvider, PrefixRulesAndRegisteredPictures) {
    // The comparisons below mean something only because the placeholders all differ.
    const QStringList files = QDir(":/images").entryList(QDir::Files);
    ASSERT_EQ(files.size(), 24);
    QList<QImage> seen;
    for (const QString& f : files) {
        ASSERT_FALSE(seen.contains(resource(f))) << f.toStdString();
        seen << resource(f);
    }
    ChatImageProvider provider;
    const char* const cases[][2] = {
        {"image/unknown.jpg", "chatwindow_image.png"},
        {"video/x", "chatwindow_video.png"},
        {"avatar_me/1", "default_contact_me.png"}, // "avatar/" does not match it
        {"location/x", "default_location.png"},
        {"document/REPORT.PDF", "qml_pdf.png"},
        {"document/a.tar.gz", "qml_zip.png"},
        {"document/pdf", "qml_txt.png"}, // the extension counts, not the key: none is the text icon
        {"deleteTag", "tag_delete.png"},
        {"contact/person", "default_contact_person.png"},
        {"transfer/ok", "default_transfer_ok.png"},
        {"transfer/other", "chatwindow_image.png"}, // other kinds only by their exact key
        {"Video/x", "chatwindow_image.png"},        // prefixes are case-sensitive
    };
    for (const auto& c : cases)
        EXPECT_EQ(provider.requestImage(c[0]), resource(c[1])) << c[0];

    QImage mine(7, 5, QImage::Format_RGB32);
    mine.fill(Qt::magenta);
    provider.addImage("abc.jpg", mine);
    provider.addImage("a/b.png", mine);
    EXPECT_EQ(provider.requestImage("image/abc.jpg"), mine); // the part after the first "/"
    EXPECT_EQ(provider.requestImage("abc.jpg"), mine);
    EXPECT_EQ(provider.requestImage("video/a/b.png"), mine);
    EXPECT_EQ(provider.requestImage("a/b.png"), resource("chatwindow_image.png")); // key b.png
    EXPECT_TRUE(provider.contains("abc.jpg"));
    EXPECT_FALSE(provider.contains("image/abc.jpg") || provider.contains("image/default"));
    provider.clear();
    EXPECT_EQ(provider.requestImage("image/abc.jpg"), resource("chatwindow_image.png"));
}

TEST(ChatImageProvider, ToolDrawsAContactSheet) {
    if (!toolBuilt()) GTEST_SKIP() << "utils-inspect is not built";
    QTemporaryDir dir;
    ASSERT_EQ(runTool({"contact-sheet", dir.filePath("sheet.png")}).code, 0);
    const QImage sheet(dir.filePath("sheet.png"));
    EXPECT_GE(sheet.width(), 6 * 128);
    EXPECT_GE(sheet.height(), 4 * 128);
    const ToolRun exists = runTool({"contact-sheet", dir.filePath("sheet.png")}); // no --force
    EXPECT_EQ(exists.code, 1);
    EXPECT_TRUE(exists.err.contains("utils-inspect: "));
    EXPECT_EQ(runTool({"contact-sheet", dir.filePath("x.png"), "--columns", "0"}).code, 2);
    const ToolRun placeholder = runTool({"placeholder", "document/r.pdf", "--json"});
    EXPECT_EQ(placeholder.code, 0);
    EXPECT_TRUE(placeholder.out.contains(":/images/qml_pdf.png"));
}
