// SQliteScanner: the walks one record at a time give the documented lists, say where each
// candidate lies, stop when asked, and views read their values in place.
#include "SqliteFixtures.h"

#include "SQliteDbUtil.h"
#include "SQliteScanner.h"

#include <QDataStream>
#include <QTemporaryDir>

using namespace fixtures;

namespace {

class Scanner : public ::testing::Test {
protected:
    void SetUp() override {
        path = dir.filePath("chat.db");
        EngineDb db(path);
        db.exec("PRAGMA page_size=1024; PRAGMA secure_delete=OFF;");
        db.exec("CREATE TABLE m (id INTEGER PRIMARY KEY, body TEXT, n INTEGER, pic BLOB, r REAL)");
        db.exec("CREATE TABLE gone (x TEXT)");
        db.exec("BEGIN");
        for (int i = 1; i <= 200; ++i)
            db.exec(QString("INSERT INTO m VALUES (%1, '%2', %3, zeroblob(%4), %5)")
                        .arg(i)
                        .arg(QString(i % 9 == 0 ? 1500 : 20 + i % 50, QChar('a' + i % 26)))
                        .arg(i % 3 ? i * 70001 : -i)
                        .arg(i % 5)
                        .arg(i / 4.0));
        for (int i = 0; i < 60; ++i)
            db.exec(QString("INSERT INTO gone VALUES ('dropped row %1')").arg(i));
        db.exec("COMMIT");
        db.exec("DELETE FROM m WHERE id % 7 = 0; DROP TABLE gone;");
        db.close();
        ASSERT_TRUE(reader.loadDb(path));
    }

    QTemporaryDir dir;
    QString path;
    SQliteDbUtil reader;
};

} // namespace

// The documented lists are built on these walks (and the digests pin them); what is left is
// what only the walks do: progress, views, and stopping early.
TEST_F(Scanner, WalksReportProgressReadInPlaceAndStopWhenAsked) {
    SQliteScanner scanner(reader);
    const int pages = reader.tables.value("m").pages.size();
    int pagesDone = 0, viewed = 0;
    scanner.setProgress([&](int done, int total) { pagesDone = total == pages ? done : -1; });
    EXPECT_TRUE(scanner.forEachRecordView("m", [&](const SQliteScanner::RecordView& v) {
        // A value's bytes are the ones its reading takes; the view decodes them as the record does.
        qint64 n = 0;
        const uchar* text = v.bytes(1, &n);
        EXPECT_EQ(QString::fromLatin1(reinterpret_cast<const char*>(text), int(n)), v.value(1).toString());
        v.bytes(0, &n); // the id, stored as NULL
        EXPECT_EQ(n, 0);
        return ++viewed, true;
    }));
    EXPECT_EQ(pagesDone, pages);
    EXPECT_EQ(viewed, 172);
    scanner.setProgress(nullptr);
    // A callback that says no ends the walk at once; the stop flag ends it before a page.
    int seen = 0;
    EXPECT_FALSE(scanner.forEachRecord("m", [&](const QList<QVariant>&) { return ++seen < 5; }));
    EXPECT_EQ(seen, 5);
    seen = 0;
    EXPECT_FALSE(scanner.forEachLostRecordInFreeSpace(
        "s", false, [&](const QList<QVariant>&, const SQliteScanner::Location&) { return ++seen < 3; }));
    EXPECT_EQ(seen, 3);
    reader.stopSearch();
    EXPECT_FALSE(scanner.forEachRecord("m", [](const QList<QVariant>&) { return true; }));
}

TEST_F(Scanner, LocationsPointAtTheCandidateInTheFile) {
    const QByteArray file = readFile(path);
    SQliteScanner scanner(reader);
    int checked = 0;
    auto check = [&](const QList<QVariant>& r, const SQliteScanner::Location& at) {
        // At the offset lies the blob's serial type, and its bytes follow (unless the block
        // ended first).
        QByteArray copy = file.mid(int(at.fileOffset()), 9);
        QDataStream s(&copy, QIODevice::ReadOnly);
        int len = 0;
        const qint64 type = reader.readVarInt(&s, &len);
        const QByteArray blob = r.at(0).toByteArray();
        if (type != 12 + 2 * blob.size()) return true;
        EXPECT_EQ(file.mid(int(at.fileOffset()) + len, blob.size()), blob);
        return ++checked, true;
    };
    for (int page : reader.tables.value("m").pages)
        for (const SQliteScanner::Area& area : scanner.areasInPage(page))
            EXPECT_EQ(file.mid(int(area.start), area.bytes.size()), area.bytes);
    scanner.forEachLostRecord("m", "b", false, check);
    scanner.forEachLostRecordInFreeSpace("b", false, check);
    EXPECT_GT(checked, 100);
}
