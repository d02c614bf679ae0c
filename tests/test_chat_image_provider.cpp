// The chat image provider with the placeholder pictures of examples/images.qrc, and the tool's
// contact sheet of those pictures.
#include "ChatImageProvider.h"
#include "TestSupport.h"
#include "ToolRun.h"

static QImage resource(const QString& file) {
    return QImage(":/images/" + file);
}

TEST(ChatImageProvider, PrefixRulesAndRegisteredPictures) {
    // The comparisons below mean something only because the 24 placeholders all differ.
    QList<QImage> seen;
    for (const QString& f : QDir(":/images").entryList(QDir::Files))
        if (!seen.contains(resource(f))) seen << resource(f);
    ASSERT_EQ(seen.size(), 24);
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
    SKIP_WITHOUT_TOOL();
    QTemporaryDir dir;
    toolOut({"contact-sheet", dir.filePath("sheet.png")}, 0);
    const QImage sheet(dir.filePath("sheet.png"));
    EXPECT_TRUE(sheet.width() >= 6 * 128 && sheet.height() >= 4 * 128)
        << sheet.width() << "x" << sheet.height();
    EXPECT_TRUE(runTool({"contact-sheet", dir.filePath("sheet.png")}).err.startsWith("utils-inspect: "));
    toolOut({"contact-sheet", dir.filePath("sheet.png")}, 1); // no --force
    toolOut({"contact-sheet", dir.filePath("x.png"), "--columns", "0"}, 2);
    EXPECT_TRUE(toolOut({"placeholder", "document/r.pdf", "--json"}, 0).contains(":/images/qml_pdf.png"));
}
