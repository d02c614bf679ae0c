// The reader's deleted-record scan: real deletions made by the engine with secure_delete off,
// and hand-written pages for the exact layouts of gaps, freeblocks and free-list pages.
#include "SqliteFixtures.h"

#include "SQliteDbUtil.h"

#include <QSet>
#include <QTemporaryDir>

using namespace fixtures;

namespace {

using Records = QList<QList<QVariant>>;

QString body(int id) {
    return QString("message %1: the meeting moved to room %2, bring the signed contract").arg(id).arg(id * 7);
}

QSet<QString> texts(const Records& records, int column) {
    QSet<QString> found;
    for (const auto& r : records)
        if (r.size() > column && r.at(column).type() == QVariant::String)
            found.insert(r.at(column).toString());
    return found;
}

// A two-page database (512-byte pages): the schema on page 1 and table t(a, b) with one row on
// page 2, whose gap and freeblocks are then written by hand.
struct HandLayout {
    QTemporaryDir dir;
    QString path = dir.filePath("hand.db");
    HandLayout() {
        EngineDb(path).exec("PRAGMA page_size=512; CREATE TABLE t(a, b); INSERT INTO t VALUES (1, 'x');");
    }
    HandLayout& write(int page, int offset, const QByteArray& bytes) {
        patch(path, 512, page, offset, bytes);
        return *this;
    }
    SQliteDbUtil reader;
    SQliteDbUtil& load() {
        EXPECT_TRUE(reader.loadDb(path));
        return reader;
    }
};

} // namespace

TEST(Recovery, DeletedRowsAreFoundInGapsFreeblocksAndFreePages) {
    QTemporaryDir dir;
    const QString path = dir.filePath("chat.db");
    QSet<QString> deleted, dropped;
    {
        EngineDb db(path);
        db.exec("PRAGMA page_size=1024; PRAGMA secure_delete=OFF; PRAGMA auto_vacuum=NONE;");
        db.exec("CREATE TABLE msg (id INTEGER PRIMARY KEY, body TEXT, flag INTEGER); CREATE TABLE old (id "
                "INTEGER "
                "PRIMARY KEY, note TEXT); BEGIN;");
        // Rowids from 200 and payloads over 127 bytes: the 4 bytes that a freeblock header
        // overwrites are exactly the payload length and the rowid.
        for (int id = 200; id < 260; ++id)
            db.exec(QString("INSERT INTO msg VALUES (%1, '%2', %3)").arg(id).arg(body(id)).arg(id % 3));
        for (int id = 1; id <= 40; ++id) {
            db.exec(QString("INSERT INTO old VALUES (%1, 'archived note number %1')").arg(id));
            dropped.insert(QString("archived note number %1").arg(id));
        }
        db.exec("COMMIT");
        for (int id : {203, 211, 219, 226, 234, 241}) { // here and there: no page is rebalanced
            db.exec(QString("DELETE FROM msg WHERE id = %1").arg(id));
            deleted.insert(body(id));
        }
        db.exec("DROP TABLE old");
    }
    SQliteDbUtil reader;
    ASSERT_TRUE(reader.loadDb(path));
    // Without the header flag a candidate starts at its first serial type: cells in the gap and
    // cells whose first 4 bytes became a freeblock header are both found.
    const Records anywhere = reader.searchLostRecord("msg", "nsi", false);
    EXPECT_TRUE(texts(anywhere, 1).contains(deleted)) << texts(anywhere, 1).size();
    // With it, whole cells read with their rowid (an int) first.
    for (const auto& r : reader.searchLostRecord("msg", "nsi", true)) {
        ASSERT_EQ(r.size(), 4);
        EXPECT_EQ(r.at(0).type(), QVariant::Int);
        EXPECT_TRUE(!deleted.contains(r.at(2).toString()) || r.at(2).toString() == body(r.at(0).toInt()));
    }
    // The dropped table's pages are on the free list. A candidate decoded at a misaligned offset
    // can swallow the start of the next cell (the scan resumes after what it decoded).
    EXPECT_GE(texts(reader.searchLostRecordInFreeSpace("ns", false), 1).intersect(dropped).size(), 35);
}

TEST(Recovery, HandWrittenGapsFreeblocksAndFreePages) {
    { // Header size 3, an 8-bit integer and a 2-byte text: found from its first serial type, or
      // from its rowid when the payload length and rowid are in front.
        HandLayout h;
        SQliteDbUtil& r = h.write(2, 10, QByteArray("\x03\x01\x11\x05he", 6)).load();
        EXPECT_EQ(r.getUnAllocSpaceInPage(2).size(), 1);
        EXPECT_EQ(r.searchLostRecord("t", "is", false), (Records{{5, QString("he")}}));
        HandLayout withRowid;
        SQliteDbUtil& w = withRowid.write(2, 10, QByteArray("\x07\x2a\x03\x01\x11\x05he", 8)).load();
        EXPECT_EQ(w.searchLostRecord("t", "is", true), (Records{{42, 5, QString("he")}}));
        EXPECT_TRUE(w.searchLostRecord("t", "", true).isEmpty() &&
                    w.searchLostRecord("nope", "is", true).isEmpty());
        // A sticky stop: every later search and traversal returns at once, but a block handed
        // over directly is still scanned (the flag is checked per page).
        w.stopSearch();
        EXPECT_TRUE(w.searchLostRecord("t", "is", true).isEmpty() && w.fetchRecordsInTable("t").isEmpty());
        EXPECT_TRUE(w.searchLostRecordInFreeSpace("is", false).isEmpty());
        EXPECT_FALSE(w.searchInBlock(QByteArray("\x01\x11\x05he", 5), "is", false).isEmpty());
    }
    { // Freeblocks 200 -> 300 -> back to 200: each read from after its header for its whole
      // size, 4 bytes past its end; the loop stops; the gap comes first.
        HandLayout h;
        h.write(2, 1, be16(200))
            .write(2, 200, be16(300) + be16(8) + "ABCDEFGH")
            .write(2, 300, be16(200) + be16(6) + "abcdef");
        SQliteDbUtil& r = h.load();
        EXPECT_EQ(r.getFragmentSpaceInPage(2), (QList<QByteArray>{"ABCDEFGH", "abcdef"}));
        EXPECT_EQ(r.fetchFragmentBlockInPage(2), r.getUnAllocSpaceInPage(2) + r.getFragmentSpaceInPage(2));
    }
    for (const auto& c : {qMakePair(510, 0), qMakePair(600, 1)}) { // 512 - 510 < 4; past the page wraps
        HandLayout h;
        EXPECT_EQ(h.write(2, 1, be16(c.first)).load().getFragmentSpaceInPage(2).size(), c.second) << c.first;
    }
    { // No gap when the cell content starts right after the pointers, nor on a page not indexed.
        HandLayout h;
        SQliteDbUtil& r = h.write(2, 5, be16(10)).load();
        EXPECT_TRUE(r.getUnAllocSpaceInPage(2).isEmpty() && r.getUnAllocSpaceInPage(99).isEmpty());
    }
    { // Pages 3 (a trunk whose next pointer loops to itself, one leaf) and 4 (the leaf): every
      // free page is searched past its first 12 bytes.
        HandLayout h;
        QFile f(h.path);
        ASSERT_TRUE(f.open(QIODevice::Append) && f.write(QByteArray(1024, '\0')) == 1024);
        f.close();
        h.write(1, 28, be32(4) + be32(3) + be32(2)).write(3, 0, be32(3) + be32(1) + be32(4));
        h.write(4, 0, QByteArray("\x01\x11\x07no", 5)).write(4, 12, QByteArray("\x01\x11\x09ok", 5));
        SQliteDbUtil& r = h.load();
        EXPECT_EQ(r.freeListPages, (QList<int>{3, 4}));
        EXPECT_EQ(r.searchLostRecordInFreeSpace("is", false), (Records{{9, QString("ok")}}));
        h.write(1, 32, be32(9)); // a trunk that is not a page of the file fails the load
        EXPECT_FALSE(SQliteDbUtil().loadDb(h.path));
    }
}

TEST(SearchInBlock, SizeLimitsAllNullAndTheSharedByteCount) {
    SQliteDbUtil reader;
    struct Case {
        QByteArray block;
        const char* pattern;
        Records found;
    };
    const QByteArray text2048 = QByteArray("\x01\xa0\x0d\x05", 4) + QByteArray(2048, '\0');
    const QList<Case> cases = {
        {text2048, "1s", {{5, QString(2048, QChar(0))}}}, // 2048 bytes of text: accepted
        {QByteArray("\x01\xa0\x0f\x05", 4) + QByteArray(2049, '\0'), "1s", {}}, // 2049: not
        {QByteArray("\x01\x82\x80\x80\x0c\x05", 6),
         "1b",
         {{5, QByteArray()}}},                                 // a 2097152-byte blob: accepted
        {QByteArray("\x01\x82\x80\x80\x0e\x05", 6), "1b", {}}, // 2097153: not
        {QByteArray(64, '\0'), "isbdf", {}},                   // all NULL, though 0 fits every letter
        {QByteArray(), "i", {}},
        // Serial type 10 leaves the byte count of the value before in place, so the scan resumes
        // one byte further than it decoded: at 0x09 0x01 rather than at 0x01 0x01.
        {QByteArray("\x01\x0a\x05\x01\x01\x09\x01\x02", 8), "ii", {{5, QVariant()}, {1, 2}}},
        {QByteArray("\x04\x11", 2), "is", {{0, QString("")}}}, // past its block: full length, empty values
    };
    for (const Case& c : cases) {
        const Records found = reader.searchInBlock(c.block, c.pattern, false);
        EXPECT_EQ(found, c.found) << c.block.left(8).toHex().constData();
        EXPECT_TRUE(found.isEmpty() || found.first().at(0).type() == QVariant::Int);
    }
}

TEST(SearchInBlock, PatternLetters) {
    SQliteDbUtil r;
    const QList<std::tuple<QString, QList<int>, QList<int>>> cases = {
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
    for (const auto& [pattern, accepts, refuses] : cases) {
        for (int t : accepts)
            EXPECT_TRUE(r.fieldsMatch(t, pattern, 0)) << pattern.toStdString() << " " << t;
        for (int t : refuses)
            EXPECT_FALSE(r.fieldsMatch(t, pattern, 0)) << pattern.toStdString() << " " << t;
    }
    EXPECT_FALSE(r.fieldsMatch(0, "ii", 2) || r.fieldsMatch(0, "ii", -1));
}
