// Unusual files: header checks, the deliberate 32-bit wraps and reads after close. Damaged
// files and chains that loop are swept by the digests (test_sqlite_digest) and the fuzz replay.
#include "SqliteFixtures.h"

#include "SQliteDbUtil.h"

#include <QTemporaryDir>

using namespace fixtures;

namespace {

QByteArray headerOnly(const QByteArray& magic, quint16 pageSize, quint32 pageCount, int fileSize) {
    QByteArray h = magic.leftJustified(16, '\0', true) + be16(pageSize) +
                   QByteArray("\x01\x01\x00\x40\x20\x20", 6) + be32(1) + be32(pageCount);
    return (h.leftJustified(56, '\0') + be32(1)).leftJustified(fileSize, '\0'); // UTF-8
}

} // namespace

TEST(LoadChecks, MagicSizeAndPageSize) {
    QTemporaryDir dir;
    const QString path = dir.filePath("x.db");
    EXPECT_FALSE(SQliteDbUtil().loadDb(dir.filePath("missing.db")));
    struct Case {
        QByteArray file;
        bool loads;
    };
    const QList<Case> cases = {
        {headerOnly("SQLite format 3", 512, 1, 512), true},
        {headerOnly("SQLite format 4", 512, 1, 512), false},
        {headerOnly("sqlite format 3", 512, 1, 512), false},
        {headerOnly("SQLite format 3", 512, 1, 99), false},
        {headerOnly("SQLite format 3", 1, 2, 131072), false},     // 64 KiB pages, stored as 1
        {headerOnly("SQLite format 3", 512, 8388609, 512), true}, // 512 × 8388609 wraps to 512
        {readFile(QString(UTILS_SOURCE_DIR) + "/fuzz/seeds/sqlite/chat-1024.db") + "!",
         false}, // trailing bytes
    };
    for (const Case& c : cases) {
        writeFile(path, c.file);
        SQliteDbUtil r;
        EXPECT_EQ(r.loadDb(path), c.loads) << c.file.left(16).constData() << " " << c.file.size();
        EXPECT_EQ(r.header.magic.isEmpty(), !c.file.startsWith("SQLite format 3") || c.file.size() < 100);
        // A failed size check leaves the free list and the schema unread.
        EXPECT_TRUE(c.loads ? r.pages.keys() == QList<int>{1}
                            : r.tables.isEmpty() && r.freeListPages.isEmpty());
    }
}

TEST(LoadChecks, ThirtyTwoBitPositionsAndReadsAfterClose) {
    QTemporaryDir dir;
    const QString path = dir.filePath("big.db");
    EngineDb(path).exec("PRAGMA page_size=32768; CREATE TABLE t(a); INSERT INTO t VALUES (1);");
    SQliteDbUtil big;
    ASSERT_TRUE(big.loadDb(path));
    // seekInPage forms its position in 32-bit signed arithmetic, seekToPage in 64 bits.
    EXPECT_FALSE(big.seekInPage(65537, 0));   // 2^31: negative once wrapped
    EXPECT_TRUE(big.seekInPage(131073, 100)); // 2^32 + 100 wraps to 100
    EXPECT_EQ(big.file->pos(), 100);
    EXPECT_TRUE(big.seekToPage(2));
    EXPECT_EQ(big.file->pos(), 32768);
    // After close every read comes back short; a short string is empty, not null.
    big.close();
    EXPECT_TRUE(big.readBytes(10).isEmpty() && big.readPageData(1).isEmpty());
    EXPECT_TRUE(big.readString(4).isEmpty() && !big.readString(4).isNull());
}
