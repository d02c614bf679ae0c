// SQliteLoader and SQliteTableReader: files the engine reads, read as it reads them, and the
// reasons a load gives when it fails or what it read past.
#include "SqliteFixtures.h"

#include "SQliteLoader.h"
#include "SQliteTableReader.h"

using namespace fixtures;

namespace {

// Rows as the engine returns them, through the reader loaded like the engine.
QList<QList<QVariant>> readerRows(const QString& path, const QString& table,
                                  SQliteLoader::Report* report = nullptr,
                                  SQliteTableReader::Problems* problems = nullptr) {
    SQliteDbUtil db;
    const SQliteLoader::Report r = SQliteLoader::load(db, path, SQliteLoader::LikeTheEngine);
    if (report) *report = r;
    SQliteTableReader reader(db);
    EXPECT_TRUE(reader.setTable(table)) << reader.error().toStdString();
    const QList<QList<QVariant>> rows = reader.rows();
    if (problems) *problems = reader.problems();
    return rows;
}

void makeDb(const QString& path, int pageSize) {
    EngineDb db(path);
    db.exec(QString("PRAGMA page_size=%1; PRAGMA secure_delete=OFF;").arg(pageSize));
    db.exec("CREATE TABLE m (id INTEGER PRIMARY KEY, n INT, t TEXT, r REAL, b BLOB)");
    db.exec("CREATE TABLE k (a TEXT, b INT, PRIMARY KEY (b, a)) WITHOUT ROWID");
    db.exec(
        "WITH RECURSIVE s(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM s WHERE i < 300) "
        "INSERT INTO m SELECT i, i * 100001 - 8388608, printf('row %d %.*c', i, i % 7 * 300, 'x'), i % 3, "
        "CASE WHEN i % 5 = 0 THEN NULL ELSE CAST(printf('%.*c', i % 40, 'b') AS BLOB) END FROM s");
    db.exec("INSERT INTO k SELECT t, -n FROM m WHERE id % 3 = 0");
    db.exec("DELETE FROM m WHERE id % 4 = 0"); // a free list
}

} // namespace

TEST(SQliteLoader, ReadsWhatTheEngineReadsAndSaysWhatItReadPast) {
    QTemporaryDir dir;
    const QString original = dir.filePath("o.db"), large = dir.filePath("large.db");
    makeDb(original, 1024);
    makeDb(large, 65536);
    EngineDb engine(original, false);
    const QList<QList<QVariant>> rowid = engine.rows("SELECT rowid, * FROM m"),
                                 keyed = engine.rows("SELECT * FROM k");
    engine.close();
    ASSERT_GT(rowid.size(), 200);

    struct Damage {
        const char* name;
        std::function<void(QByteArray&)> apply;
        SQliteLoader::Failure documented;
        const char* tolerated;
    };
    const QList<Damage> damages = {
        {"intact", [](QByteArray&) {}, SQliteLoader::NoFailure, nullptr},
        {"trailing", [](QByteArray& b) { b += QByteArray(16, 'x'); }, SQliteLoader::SizeMismatch,
         "16 bytes after its last page"},
        {"count 0", [](QByteArray& b) { b.replace(28, 4, be32(0)); }, SQliteLoader::SizeMismatch,
         "page count is 0"},
        {"stale count", [](QByteArray& b) { b.replace(28, 4, be32(3)).replace(92, 4, be32(1)); },
         SQliteLoader::SizeMismatch, "is stale"},
        {"trunk past the end", [](QByteArray& b) { b.replace(32, 4, be32(99999)); },
         SQliteLoader::FreeListBroken, "trunk page 99999, past the last page"},
    };
    for (const Damage& d : damages) {
        QByteArray bytes = readFile(original);
        d.apply(bytes);
        const QString path = dir.filePath("damaged.db");
        writeFile(path, bytes);
        SQliteDbUtil documented;
        EXPECT_EQ(SQliteLoader::load(documented, path, SQliteLoader::Documented).failure, d.documented)
            << d.name;
        SQliteLoader::Report report;
        EXPECT_EQ(readerRows(path, "m", &report), rowid) << d.name;
        EXPECT_EQ(readerRows(path, "k"), keyed) << d.name;
        EXPECT_TRUE(report.ok()) << d.name;
        EXPECT_EQ(report.tolerated.join('\n').contains(d.tolerated ? d.tolerated : "\x01"),
                  d.tolerated != nullptr)
            << d.name << ": " << report.tolerated.join('\n').toStdString();
    }

    // Pages of 64 KiB, stored as 1.
    SQliteDbUtil documented;
    EXPECT_EQ(SQliteLoader::load(documented, large, SQliteLoader::Documented).failure,
              SQliteLoader::SizeMismatch);
    SQliteLoader::Report report;
    EXPECT_EQ(readerRows(large, "m", &report), rowid);
    EXPECT_EQ(report.pageSize, 65536);

    for (const auto& bad :
         {QPair<QByteArray, SQliteLoader::Failure>{"SQLite format 3", SQliteLoader::NotADatabase},
          {QByteArray(100, 'x'), SQliteLoader::NotADatabase}}) {
        writeFile(dir.filePath("bad.db"), bad.first);
        EXPECT_EQ(SQliteLoader::load(documented, dir.filePath("bad.db"), SQliteLoader::LikeTheEngine).failure,
                  bad.second);
    }
    EXPECT_EQ(SQliteLoader::load(documented, dir.filePath("missing.db"), SQliteLoader::LikeTheEngine).failure,
              SQliteLoader::CannotOpen);
}

TEST(SQliteTableReader, SkipsWhatCannotBeBelievedAndReadsTheRest) {
    QTemporaryDir dir;
    const QString path = dir.filePath("d.db");
    makeDb(path, 1024);
    EngineDb engine(path, false);
    const int total = engine.rows("SELECT rowid FROM m").size();
    // A leaf of m, and a record whose payload overflows, by the engine's own accounting.
    const QList<QList<QVariant>> leaf =
        engine.rows("SELECT pageno FROM dbstat WHERE name = 'm' AND pagetype = 'leaf' LIMIT 1 OFFSET 2");
    engine.close();
    ASSERT_FALSE(leaf.isEmpty()) << "dbstat is not compiled into the sqlite3 library";

    QByteArray bytes = readFile(path);
    bytes[int((leaf.first().first().toLongLong() - 1) * 1024)] =
        char(0x0A); // a table leaf now says index leaf
    writeFile(path, bytes);
    SQliteTableReader::Problems problems;
    const QList<QList<QVariant>> rows = readerRows(path, "m", nullptr, &problems);
    EXPECT_EQ(problems.pages, 1);
    EXPECT_GT(rows.size(), 0);
    EXPECT_LT(rows.size(), total);
    EXPECT_TRUE(problems.first.contains("a page of type 10 where a table b-tree page belongs"))
        << problems.first.toStdString();

    SQliteDbUtil db;
    ASSERT_TRUE(SQliteLoader::load(db, path, SQliteLoader::LikeTheEngine).ok());
    SQliteTableReader reader(db);
    EXPECT_FALSE(reader.setTable("missing"));
    EXPECT_EQ(reader.error(), QString("no table named 'missing'"));
}
