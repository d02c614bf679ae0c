// Hostile and unusual files: header checks, the deliberate 32-bit wraps, loops in every chain
// the reader follows, and a deterministic sweep of mutated databases (plus every input a fuzzer
// ever crashed on, kept under fuzz/crashes/sqlite/).
#include "SqliteFixtures.h"

#include "SQliteDbUtil.h"

#include <QDir>
#include <QSet>
#include <QTemporaryDir>

using namespace fixtures;

namespace {

QByteArray headerOnly(const QByteArray& magic, quint16 pageSize, quint32 pageCount) {
    QByteArray h = magic.leftJustified(16, '\0', true);
    h += be16(pageSize);
    h += QByteArray("\x01\x01\x00\x40\x20\x20", 6);
    h += be32(1) + be32(pageCount) + be32(0) + be32(0);
    h = h.leftJustified(56, '\0') + be32(1); // text encoding
    return h.leftJustified(100, '\0');
}

// Exercises everything a caller does with a loaded database.
void readEverything(SQliteDbUtil& reader) {
    for (const SQliteTable& t : reader.fetchAllTable()) {
        reader.fetchRecordsInTable(t.name);
        reader.searchLostRecord(t.name, "isb", true);
        reader.searchLostRecord(t.name, "nsi", false);
    }
    reader.searchLostRecordInFreeSpace("isd", false);
}

QString makeRichDb(const QString& path, int pageSize) {
    EngineDb db(path);
    db.exec(QString("PRAGMA page_size=%1; PRAGMA secure_delete=OFF;").arg(pageSize));
    db.exec("CREATE TABLE m (id INTEGER PRIMARY KEY, who TEXT, body TEXT, at INTEGER, pic BLOB)");
    db.exec("CREATE INDEX m_who ON m(who)");
    db.exec("CREATE TABLE gone (x, y)");
    db.exec("BEGIN");
    for (int i = 1; i <= 60; ++i)
        db.exec(QString("INSERT INTO m VALUES (%1, 'user%2', '%3', %4, zeroblob(%5))")
                    .arg(i)
                    .arg(i % 4)
                    .arg(QString(i * 13 % 900, QChar('a' + i % 26)))
                    .arg(qint64(i) * 1000003)
                    .arg(i % 7 == 0 ? 1200 : 3));
    for (int i = 0; i < 30; ++i)
        db.exec(QString("INSERT INTO gone VALUES (%1, 'dropped %1')").arg(i));
    db.exec("COMMIT");
    db.exec("DELETE FROM m WHERE id % 5 = 0; DROP TABLE gone;");
    return path;
}

} // namespace

TEST(LoadChecks, MagicSizeAndPageSize) {
    QTemporaryDir dir;
    const QString path = dir.filePath("x.db");
    SQliteDbUtil fresh;
    EXPECT_EQ(fresh.header.pageSize, 0);
    EXPECT_EQ(fresh.header.pageCount, 0);
    EXPECT_FALSE(fresh.stopRequested);
    EXPECT_FALSE(fresh.loadDb(dir.filePath("missing.db")));

    writeFile(path, headerOnly("SQLite format 3", 512, 1).leftJustified(512, '\0'));
    SQliteDbUtil ok;
    EXPECT_TRUE(ok.loadDb(path));
    EXPECT_EQ(ok.header.magic, QString("SQLite format 3"));

    for (const QByteArray& magic : {QByteArray("SQLite format 4"), QByteArray("sqlite format 3")}) {
        writeFile(path, headerOnly(magic, 512, 1).leftJustified(512, '\0'));
        SQliteDbUtil r;
        EXPECT_FALSE(r.loadDb(path)) << magic.constData();
        EXPECT_TRUE(r.header.magic.isEmpty());
    }
    writeFile(path, headerOnly("SQLite format 3", 512, 1).left(99));
    EXPECT_FALSE(SQliteDbUtil().loadDb(path));

    // 64 KiB pages are stored as 1 and fail the size check.
    writeFile(path, headerOnly("SQLite format 3", 1, 2).leftJustified(131072, '\0'));
    EXPECT_FALSE(SQliteDbUtil().loadDb(path));

    // Trailing bytes after the last page: rejected before the free list and schema are read.
    makeRichDb(path, 1024);
    QByteArray bytes = readFile(path);
    writeFile(path, bytes + "!");
    SQliteDbUtil trailing;
    EXPECT_FALSE(trailing.loadDb(path));
    EXPECT_TRUE(trailing.tables.isEmpty());
    EXPECT_TRUE(trailing.freeListPages.isEmpty());
}

TEST(LoadChecks, DeliberateThirtyTwoBitWraps) {
    QTemporaryDir dir;
    const QString path = dir.filePath("wrap.db");
    // 512 × 8388609 = 2^32 + 512: the product wraps to the file's size, so the file loads.
    writeFile(path, headerOnly("SQLite format 3", 512, 8388609).leftJustified(512, '\0'));
    SQliteDbUtil wrapped;
    EXPECT_TRUE(wrapped.loadDb(path));
    EXPECT_EQ(wrapped.pages.keys(), QList<int>{1});

    // seekInPage forms its position in 32-bit signed arithmetic.
    const QString bigPath = dir.filePath("big.db");
    EngineDb(bigPath).exec("PRAGMA page_size=32768; CREATE TABLE t(a);");
    SQliteDbUtil big;
    ASSERT_TRUE(big.loadDb(bigPath));
    EXPECT_FALSE(big.seekInPage(65537, 0));   // 2^31: negative once wrapped
    EXPECT_TRUE(big.seekInPage(131073, 100)); // 2^32 + 100 wraps to 100
    EXPECT_EQ(big.file->pos(), 100);
    EXPECT_TRUE(big.seekToPage(2)); // computed in 64 bits
    EXPECT_EQ(big.file->pos(), 32768);
}

TEST(LoadChecks, CloseKeepsIndexesAndReadsComeBackShort) {
    QTemporaryDir dir;
    const QString path = makeRichDb(dir.filePath("c.db"), 1024);
    SQliteDbUtil reader;
    ASSERT_TRUE(reader.loadDb(path));
    const int pageCount = reader.pages.size();
    reader.close();
    EXPECT_EQ(reader.pages.size(), pageCount);
    EXPECT_TRUE(reader.tables.contains("m"));
    EXPECT_TRUE(reader.fetchRecordsInTable("m").isEmpty());
    EXPECT_TRUE(reader.readBytes(10).isEmpty());
    EXPECT_TRUE(reader.readPageData(1).isEmpty());
    EXPECT_FALSE(reader.readString(4).isNull()); // short: empty, not null
    EXPECT_TRUE(reader.readString(4).isEmpty());
}

TEST(Loops, OverflowChainsBTreeChildrenAndFreeListsThatLoopStop) {
    QTemporaryDir dir;
    const QString path = dir.filePath("loop.db");
    {
        EngineDb db(path);
        db.exec("PRAGMA page_size=512; CREATE TABLE t(a INTEGER PRIMARY KEY, b BLOB);");
        db.exec("INSERT INTO t VALUES (1, randomblob(3000));");
    }
    SQliteDbUtil intact;
    ASSERT_TRUE(intact.loadDb(path));
    const QByteArray blob = intact.fetchRecordsInTable("t").at(0).at(2).toByteArray();
    ASSERT_EQ(blob.size(), 3000);
    // Pages 3.. are the overflow chain: make its third page point back to the first.
    patch(path, 512, 5, 0, be32(3));
    SQliteDbUtil looped;
    ASSERT_TRUE(looped.loadDb(path));
    const auto rows = looped.fetchRecordsInTable("t");
    ASSERT_EQ(rows.size(), 1);
    EXPECT_EQ(rows.at(0).at(2).toByteArray(), blob.left(rows.at(0).at(2).toByteArray().size()));
    EXPECT_LT(rows.at(0).at(2).toByteArray().size(), 3000);
    EXPECT_TRUE(looped.readOverFlowData(0).isEmpty());
    EXPECT_TRUE(looped.readOverFlowData(100000).isEmpty());

    // A b-tree whose right-most child points back at its root.
    const QString deep = dir.filePath("deep.db");
    {
        EngineDb db(deep);
        db.exec("PRAGMA page_size=512; CREATE TABLE t(a INTEGER PRIMARY KEY, b TEXT); BEGIN;");
        for (int i = 0; i < 400; ++i)
            db.exec(QString("INSERT INTO t VALUES (%1, '%2')").arg(i).arg(QString(40, 'q')));
        db.exec("COMMIT");
    }
    SQliteDbUtil tree;
    ASSERT_TRUE(tree.loadDb(deep));
    const int root = tree.tables.value("t").rootPage;
    ASSERT_EQ(tree.pages.value(root).type, 5);
    patch(deep, 512, root, 8, be32(quint32(root)));
    SQliteDbUtil cyclic;
    ASSERT_TRUE(cyclic.loadDb(deep));
    const QList<int> leaves = cyclic.tables.value("t").pages;
    EXPECT_FALSE(leaves.isEmpty());
    EXPECT_EQ(QSet<int>(leaves.begin(), leaves.end()).size(), leaves.size());
    EXPECT_LT(leaves.size(), tree.tables.value("t").pages.size());
}

TEST(Mutations, DamagedDatabasesNeverCrashOrHang) {
    QTemporaryDir dir;
    const QString base = makeRichDb(dir.filePath("base.db"), 512);
    const QByteArray original = readFile(base);
    const int pageSize = 512;
    const QString path = dir.filePath("mutant.db");
    quint32 seed = 12345;
    auto next = [&seed](quint32 bound) {
        seed = seed * 1664525u + 1013904223u;
        return (seed >> 8) % bound;
    };
    int loaded = 0;
    for (int round = 0; round < 300; ++round) {
        QByteArray bytes = original;
        const int changes = 1 + int(next(8));
        for (int c = 0; c < changes; ++c) {
            // Mostly page headers, cell pointers and the database header, where damage matters.
            const int page = int(next(quint32(bytes.size() / pageSize)));
            const int offset =
                next(3) == 0 ? int(next(pageSize)) : int(next(24)) + (page == 0 ? 100 * int(next(2)) : 0);
            const int at = page * pageSize + offset;
            bytes[at] = char(next(4) == 0 ? 0xFF : next(256));
        }
        writeFile(path, bytes);
        SQliteDbUtil reader;
        if (!reader.loadDb(path)) continue;
        ++loaded;
        readEverything(reader);
    }
    EXPECT_GT(loaded, 100);

    // Inputs that once made a fuzzer fail stay here for good.
    const QDir crashes(QString(UTILS_SOURCE_DIR) + "/fuzz/crashes/sqlite");
    for (const QString& name : crashes.entryList(QDir::Files)) {
        SQliteDbUtil reader;
        if (reader.loadDb(crashes.filePath(name))) readEverything(reader);
    }
}
