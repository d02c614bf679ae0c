// Deleted-record recovery: real deletions made by the engine with secure_delete off, and
// hand-patched pages for the exact layouts of gaps, freeblocks and free-list pages.
#include "SqliteFixtures.h"

#include "SQliteDbUtil.h"

#include <QSet>
#include <QTemporaryDir>

using namespace fixtures;

namespace {

QString body(int id) {
    return QString("message %1: the meeting moved to room %2, bring the signed contract").arg(id).arg(id * 7);
}

QSet<QString> texts(const QList<QList<QVariant>>& records, int column) {
    QSet<QString> found;
    for (const auto& r : records)
        if (r.size() > column && r.at(column).type() == QVariant::String)
            found.insert(r.at(column).toString());
    return found;
}

// A two-page database (512-byte pages): the schema on page 1 and table t(a, b) with one row on
// page 2, whose gap and freeblocks the tests then write by hand.
class HandLayout : public ::testing::Test {
protected:
    void SetUp() override {
        path = dir.filePath("hand.db");
        EngineDb db(path);
        db.exec("PRAGMA page_size=512; CREATE TABLE t(a, b); INSERT INTO t VALUES (1, 'x');");
    }
    void load() { ASSERT_TRUE(reader.loadDb(path)); }
    void write(int page, int offset, const QByteArray& bytes) { patch(path, 512, page, offset, bytes); }

    QTemporaryDir dir;
    QString path;
    SQliteDbUtil reader;
};

} // namespace

TEST(Recovery, DeletedRowsAreFoundInGapsFreeblocksAndFreePages) {
    QTemporaryDir dir;
    const QString path = dir.filePath("chat.db");
    QSet<QString> deleted, dropped;
    {
        EngineDb db(path);
        db.exec("PRAGMA page_size=1024; PRAGMA secure_delete=OFF; PRAGMA auto_vacuum=NONE;");
        db.exec("CREATE TABLE msg (id INTEGER PRIMARY KEY, body TEXT, flag INTEGER)");
        db.exec("CREATE TABLE old (id INTEGER PRIMARY KEY, note TEXT)");
        db.exec("BEGIN");
        // Rowids from 200 and payloads over 127 bytes: the 4 bytes that a freeblock header
        // overwrites are exactly the payload length and the rowid.
        for (int id = 200; id < 260; ++id)
            db.exec(QString("INSERT INTO msg VALUES (%1, '%2', %3)").arg(id).arg(body(id)).arg(id % 3));
        for (int id = 1; id <= 40; ++id)
            db.exec(QString("INSERT INTO old VALUES (%1, 'archived note number %1')").arg(id));
        db.exec("COMMIT");
        // One row here and there: no page becomes empty enough to be rebalanced.
        for (int id : {203, 211, 219, 226, 234, 241}) {
            db.exec(QString("DELETE FROM msg WHERE id = %1").arg(id));
            deleted.insert(body(id));
        }
        for (int id = 1; id <= 40; ++id)
            dropped.insert(QString("archived note number %1").arg(id));
        db.exec("DROP TABLE old");
        EXPECT_GT(db.pragma("freelist_count"), 0);
    }

    SQliteDbUtil reader;
    ASSERT_TRUE(reader.loadDb(path));
    // Without the header flag a candidate starts at its first serial type: cells in the gap and
    // cells whose first 4 bytes became a freeblock header are both found.
    const auto anywhere = reader.searchLostRecord("msg", "nsi", false);
    EXPECT_TRUE(texts(anywhere, 1).contains(deleted)) << texts(anywhere, 1).size();
    for (const auto& r : anywhere)
        EXPECT_EQ(r.size(), 3);
    // With it, whole cells read with their rowid first.
    for (const auto& r : reader.searchLostRecord("msg", "nsi", true)) {
        ASSERT_EQ(r.size(), 4);
        EXPECT_EQ(r.at(0).type(), QVariant::Int);
        if (deleted.contains(r.at(2).toString())) {
            EXPECT_EQ(r.at(2).toString(), body(r.at(0).toInt()));
        }
    }
    // The dropped table's pages are on the free list; its rows are there.
    const auto freed = reader.searchLostRecordInFreeSpace("ns", false);
    const QSet<QString> found = texts(freed, 1);
    // Most come back as records of their own; a candidate decoded at a misaligned offset can
    // swallow the start of the next cell (the scan resumes after what it decoded).
    EXPECT_GE(QSet<QString>(found).intersect(dropped).size(), 35);
    // Live rows are never reported from the live cells themselves.
    const QSet<QString> liveTexts = texts(reader.fetchRecordsInTable("msg"), 2);
    EXPECT_EQ(liveTexts.size(), 54);
}

TEST_F(HandLayout, GapScanFindsCandidatesByPatternWithAndWithoutHeader) {
    // Header size 3, an 8-bit integer and a 2-byte text, then the values 5 and "he".
    write(2, 10, QByteArray("\x03\x01\x11\x05he", 6));
    load();
    EXPECT_EQ(reader.getUnAllocSpaceInPage(2).size(), 1);
    EXPECT_EQ(reader.searchLostRecord("t", "is", false), (QList<QList<QVariant>>{{5, QString("he")}}));

    // The same cell with its payload length and rowid in front, searched at the rowid.
    write(2, 10, QByteArray("\x07\x2a\x03\x01\x11\x05he", 8));
    SQliteDbUtil again;
    ASSERT_TRUE(again.loadDb(path));
    EXPECT_EQ(again.searchLostRecord("t", "is", true), (QList<QList<QVariant>>{{42, 5, QString("he")}}));
    EXPECT_TRUE(again.searchLostRecord("t", "", true).isEmpty());
    EXPECT_TRUE(again.searchLostRecord("nope", "is", true).isEmpty());
}

TEST_F(HandLayout, FreeblocksRunFourBytesLongAndChainsStop) {
    // Page 2 header: first freeblock at 200; 200 -> 300 -> back to 200.
    write(2, 1, be16(200));
    write(2, 200, be16(300) + be16(8) + QByteArray("ABCDEFGH"));
    write(2, 300, be16(200) + be16(6) + QByteArray("abcdef"));
    load();
    const QList<QByteArray> blocks = reader.getFragmentSpaceInPage(2);
    // Each block is read from after its 4-byte header for the full size: 4 bytes past its end.
    EXPECT_EQ(blocks, (QList<QByteArray>{"ABCDEFGH", "abcdef"}));
    const QList<QByteArray> all = reader.fetchFragmentBlockInPage(2);
    ASSERT_EQ(all.size(), 3);
    EXPECT_EQ(all.mid(1), blocks);
    EXPECT_EQ(all.first(), reader.getUnAllocSpaceInPage(2).first());
}

TEST_F(HandLayout, FreeblockOffsetsNearAndPastThePageEnd) {
    write(2, 1, be16(510)); // 512 - 510 < 4: nothing is read
    load();
    EXPECT_TRUE(reader.getFragmentSpaceInPage(2).isEmpty());

    // An offset past the page wraps the unsigned check and is followed into the next bytes.
    write(2, 1, be16(600));
    SQliteDbUtil past;
    ASSERT_TRUE(past.loadDb(path));
    EXPECT_EQ(past.getFragmentSpaceInPage(2).size(), 1);
}

TEST_F(HandLayout, GapIsAbsentWhenContentStartsAfterThePointers) {
    write(2, 5, be16(10)); // cell content start = 8 + 2 × 1
    load();
    EXPECT_TRUE(reader.getUnAllocSpaceInPage(2).isEmpty());
    EXPECT_TRUE(reader.getUnAllocSpaceInPage(99).isEmpty());
}

TEST_F(HandLayout, FreeListTrunksAndLeavesAreSearchedPastTheirFirst12Bytes) {
    // Pages 3 (trunk, one leaf) and 4 (leaf); the trunk's next pointer loops to itself.
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::Append));
    f.write(QByteArray(1024, '\0'));
    f.close();
    write(1, 28, be32(4));                        // page count
    write(1, 32, be32(3));                        // first trunk
    write(1, 36, be32(2));                        // free pages
    write(3, 0, be32(3) + be32(1) + be32(4));     // next trunk 3 (a loop), one leaf: page 4
    write(4, 0, QByteArray("\x01\x11\x07no", 5)); // within the skipped 12 bytes
    write(4, 12, QByteArray("\x01\x11\x09ok", 5));
    load();
    EXPECT_EQ(reader.freeListPages, (QList<int>{3, 4}));
    EXPECT_EQ(reader.searchLostRecordInFreeSpace("is", false), (QList<QList<QVariant>>{{9, QString("ok")}}));

    // A trunk that is not a page of the file fails the load.
    write(1, 32, be32(9));
    SQliteDbUtil bad;
    EXPECT_FALSE(bad.loadDb(path));
}

TEST(SearchInBlock, SizeLimitsAllNullAndTheSharedByteCount) {
    SQliteDbUtil reader;
    // Text of 2048 bytes (serial type 4109) is accepted, 2049 (4111) is not.
    const QByteArray zeros(2048, '\0');
    EXPECT_EQ(reader.searchInBlock(QByteArray("\x01\xa0\x0d\x05", 4) + zeros, "1s", false).size(), 1);
    EXPECT_TRUE(reader.searchInBlock(QByteArray("\x01\xa0\x0f\x05", 4) + zeros, "1s", false).isEmpty());
    // A blob of 2097152 bytes is accepted, one of 2097153 is not.
    EXPECT_EQ(reader.searchInBlock(QByteArray("\x01\x82\x80\x80\x0c\x05", 6), "1b", false).size(), 1);
    EXPECT_TRUE(reader.searchInBlock(QByteArray("\x01\x82\x80\x80\x0e\x05", 6), "1b", false).isEmpty());
    // All-NULL candidates are never returned, though 0 fits every letter.
    EXPECT_TRUE(reader.searchInBlock(QByteArray(64, '\0'), "isbdf", false).isEmpty());
    EXPECT_TRUE(reader.searchInBlock(QByteArray(), "i", false).isEmpty());
    // Serial type 10 leaves the byte count of the previous value in place, so the scan resumes
    // one byte further than the bytes it decoded: at 0x09 0x01 rather than at 0x01 0x01.
    const QList<QList<QVariant>> found =
        reader.searchInBlock(QByteArray("\x01\x0a\x05\x01\x01\x09\x01\x02", 8), "ii", false);
    ASSERT_EQ(found.size(), 2);
    EXPECT_EQ(found.at(0).at(0), QVariant(5));
    EXPECT_FALSE(found.at(0).at(1).isValid());
    EXPECT_EQ(found.at(1), (QList<QVariant>{1, 2}));
    // A record running past its block keeps its full length with empty values.
    EXPECT_EQ(reader.searchInBlock(QByteArray("\x04\x11", 2), "is", false),
              (QList<QList<QVariant>>{{0, QString("")}}));
}

TEST(SearchInBlock, PatternLetters) {
    SQliteDbUtil r;
    struct Case {
        QString pattern;
        QList<int> accepts, refuses;
    };
    const QList<Case> cases = {
        {"b", {0, 12, 14, 100}, {1, 7, 9, 13, -2}},
        {"d", {0, 1, 6, 7, 8, 9, -3}, {10, 11, 12, 13}},
        {"f", {0, 7}, {1, 6, 8, 12, 13}},
        {"i", {0, 1, 6, 8, 9, 10, 11, -1}, {7, 12, 13}},
        {"n", {0}, {1, 7, 9, 12, 13}},
        {"s", {0, 13, 15, 4109}, {1, 7, 12, 14}},
        {"3", {3}, {0, 2, 4}},
        {"x", {}, {0, 1}},
        {QString::fromUtf8("é"), {}, {0}},
        {QString(QChar(0x0101)), {}, {0}},
    };
    for (const Case& c : cases) {
        for (int t : c.accepts)
            EXPECT_TRUE(r.fieldsMatch(t, c.pattern, 0)) << c.pattern.toStdString() << " " << t;
        for (int t : c.refuses)
            EXPECT_FALSE(r.fieldsMatch(t, c.pattern, 0)) << c.pattern.toStdString() << " " << t;
    }
    EXPECT_FALSE(r.fieldsMatch(0, "ii", 2));
    EXPECT_FALSE(r.fieldsMatch(0, "ii", -1));
}

TEST_F(HandLayout, StopIsStickyAndEndsEverySearch) {
    write(2, 10, QByteArray("\x03\x01\x11\x05he", 6));
    load();
    ASSERT_FALSE(reader.searchLostRecord("t", "is", false).isEmpty());
    reader.stopSearch();
    EXPECT_TRUE(reader.searchLostRecord("t", "is", false).isEmpty());
    EXPECT_TRUE(reader.searchLostRecord("t", "is", false).isEmpty());
    EXPECT_TRUE(reader.fetchRecordsInTable("t").isEmpty());
    EXPECT_TRUE(reader.searchLostRecordInFreeSpace("is", false).isEmpty());
    // A block handed over directly is still scanned: the flag is checked per page.
    EXPECT_FALSE(reader.searchInBlock(QByteArray("\x01\x11\x05he", 5), "is", false).isEmpty());
}
