// SQliteRecovery: patterns from declared types, whole records with where they lay, overflow
// chains, and every reason for holding a candidate back. Deletions are made by the sqlite3
// library, whose deleted rows are the truth; the reasons are shown on hand-written cells.
#include "SqliteFixtures.h"

#include "SQliteDbUtil.h"
#include "SQliteRecovery.h"

#include <QSet>
#include <QTemporaryDir>

#include <cstring>

using namespace fixtures;

namespace {

using Records = QList<SQliteRecovery::Record>;

QByteArray cell(qint64 rowid, const QByteArray& types, const QByteArray& values) {
    const QByteArray record = char(types.size() + 1) + types + values;
    return QByteArray(1, char(record.size())) + char(rowid) + record;
}

QByteArray be64(double v) {
    quint64 bits;
    std::memcpy(&bits, &v, 8);
    return be32(quint32(bits >> 32)) + be32(quint32(bits));
}

} // namespace

TEST(SQliteRecoverySchema, PatternsFollowTheDeclaredTypes) {
    QTemporaryDir dir;
    const QString path = dir.filePath("schema.db");
    {
        EngineDb db(path);
        db.exec("CREATE TABLE a (id INTEGER PRIMARY KEY, n INT, r REAL, t VARCHAR(20), b BLOB, x, num "
                "DECIMAL(10, 2), "
                "\"quoted, col\" text NOT NULL DEFAULT 'x,y'); CREATE TABLE b (k INTEGER, v TEXT, PRIMARY "
                "KEY (k)); "
                "CREATE TABLE c (k INTEGER PRIMARY KEY DESC, v); CREATE TABLE d (k INT PRIMARY KEY, v CLOB); "
                "CREATE TABLE e (k INTEGER, v, PRIMARY KEY (k, v)); CREATE TABLE w (k TEXT PRIMARY KEY, v) "
                "WITHOUT ROWID");
    }
    SQliteDbUtil db;
    ASSERT_TRUE(db.loadDb(path));
    struct Case {
        QString table, given, pattern, error;
    };
    // clang-format off
    const QList<Case> cases = {
        {"a", "", "nddtaaat", ""}, {"b", "", "nt", ""}, {"c", "", "da", ""}, {"d", "", "dt", ""}, {"e", "", "da", ""},
        {"a", "isiissst", "isiissst", ""}, {"w", "", "ta", ""}, {"nope", "", "", "no table named 'nope'"},
        {"b", "ntd", "", "the pattern has 3 letters, table 'b' has 2 columns"}, {"b", "nq", "", "bad pattern letter 'q'"},
    };
    // clang-format on
    for (const Case& c : cases) {
        SQliteRecovery recovery(db);
        EXPECT_EQ(recovery.setTable(c.table, c.given), c.error.isEmpty()) << c.table.toStdString();
        EXPECT_EQ(recovery.pattern(), c.pattern) << c.table.toStdString();
        EXPECT_TRUE(recovery.error().contains(c.error)) << recovery.error().toStdString();
    }
    SQliteRecovery a(db);
    a.setTable("a");
    EXPECT_EQ(a.columnNames(), (QStringList{"id", "n", "r", "t", "b", "x", "num", "quoted, col"}));
    EXPECT_EQ(a.declaredTypes().at(6), QString("DECIMAL(10, 2)"));
    EXPECT_EQ(a.rowidAlias(), 0);
    // A pattern given once is not kept for the next call.
    ASSERT_TRUE(a.setTable("a", "isiissst"));
    ASSERT_TRUE(a.setTable("a"));
    EXPECT_EQ(a.pattern(), QString("nddtaaat"));
}

TEST(SQliteRecovery, RowsTheEngineDeletedComeBackWholeAndExact) {
    QTemporaryDir dir;
    const QString path = dir.filePath("chat.db");
    QMap<qint64, QList<QVariant>> deleted;
    {
        EngineDb db(path);
        db.exec("PRAGMA page_size=1024; PRAGMA secure_delete=OFF; CREATE TABLE m (id INTEGER PRIMARY KEY, "
                "who TEXT, "
                "body TEXT, n INTEGER, r REAL, pic BLOB); CREATE TABLE other (a TEXT, b TEXT); BEGIN;");
        // Integers of every width, both signs; NULLs; text of all lengths; small blobs.
        const qint64 numbers[] = {
            0,       1,           -100,           30000,           -8000000,
            8000000, -2000000000, 140000000000LL, -140000000000LL, 4611686018427387904LL};
        for (int id = 1; id <= 300; ++id) {
            const QString who = id % 7 ? QString("'+44 7700 9%1'").arg(id, 5, 10, QChar('0')) : "NULL";
            const QString body =
                QString("'message %1: %2'").arg(id).arg(QString(id % 40 * 3, QChar('a' + id % 26)));
            db.exec(QString("INSERT INTO m VALUES (%1, %2, %3, %4, %5, %6)")
                        .arg(id)
                        .arg(who, body)
                        .arg(numbers[id % 10])
                        .arg(id % 3 ? QString::number(id / 8.0) : "NULL")
                        .arg(id % 5 ? "NULL" : QString("x'%1'").arg(id, 6, 16, QChar('0'))));
        }
        for (int i = 0; i < 40; ++i)
            db.exec(QString("INSERT INTO other VALUES ('row %1', 'of another table')").arg(i));
        db.exec("COMMIT");
        for (const QList<QVariant>& row : db.rows("SELECT * FROM m WHERE id % 9 = 4"))
            deleted.insert(row.at(0).toLongLong(), row);
        for (qint64 id : deleted.keys()) // one at a time, as a user deletes messages
            db.exec(QString("DELETE FROM m WHERE id = %1").arg(id));
        db.exec("UPDATE m SET body = 'edited' WHERE id IN (10, 20, 30)");
        db.exec("DROP TABLE other");
    }

    QSet<qint64> found;
    int recovered = 0;
    const QByteArray file = readFile(path);
    for (const SQliteRecovery::Record& r : recoverRecords(path, "m")) {
        if (r.verdict == SQliteRecovery::Held) {
            // Whatever is held back is no deleted row, or one already reported.
            EXPECT_TRUE(r.reasons.contains(SQliteRecovery::kDuplicate) ||
                        !deleted.values().contains(r.values))
                << r.reasons.join(',').toStdString();
            continue;
        }
        ++recovered;
        // Every record passed on is a deleted row, value for value and type for type; its
        // rowid, when known, is the row's own.
        QList<QVariant> values = r.values;
        qint64 id = r.rowidKnown ? r.rowid : -1;
        for (auto it = deleted.constBegin(); id < 0 && it != deleted.constEnd(); ++it)
            if (it.value().mid(1) == values.mid(1)) id = it.key();
        ASSERT_TRUE(deleted.contains(id)) << r.values.at(2).toString().toStdString();
        const QList<QVariant> expected = deleted.value(id);
        for (int c = 1; c < 6; ++c)
            EXPECT_TRUE(values.at(c) == expected.at(c) && values.at(c).type() == expected.at(c).type())
                << id << " " << c;
        EXPECT_EQ(values.at(0), r.rowidKnown ? QVariant(id) : QVariant());
        EXPECT_EQ(r.fileOffset, qint64(r.page - 1) * 1024 + r.offset);
        EXPECT_LT(r.fileOffset, file.size());
        found.insert(id);
    }
    EXPECT_EQ(found.size(), recovered); // no row twice
    EXPECT_GE(found.size(), deleted.size() * 9 / 10) << found.size() << " of " << deleted.size();
}

TEST(SQliteRecovery, OverflowChainsAreReassembledOrReportedPartial) {
    QTemporaryDir dir;
    const QString path = dir.filePath("long.db");
    const QString longText = QString("start ") + QString(5000, QChar('x')) + " end";
    {
        EngineDb db(path);
        db.exec("PRAGMA page_size=1024; PRAGMA secure_delete=OFF; CREATE TABLE t (id INTEGER PRIMARY KEY, "
                "body TEXT);");
        // A free list with a trunk already, so that the freed overflow pages become its leaves.
        db.exec("CREATE TABLE filler (x); INSERT INTO filler VALUES (zeroblob(12000)); DROP TABLE filler;");
        db.exec(QString("INSERT INTO t VALUES (1, 'short'), (2, '%1'), (3, 'after')").arg(longText));
        db.exec("DELETE FROM t WHERE id = 2");
    }
    // Without a free list, the first overflow page freed becomes its trunk: the chain stops
    // there, before the trunk's page numbers could be read as text.
    const QString trunk = dir.filePath("trunk.db");
    {
        EngineDb db(trunk);
        db.exec("PRAGMA page_size=1024; PRAGMA secure_delete=OFF; CREATE TABLE t (id INTEGER PRIMARY KEY, "
                "body TEXT);");
        db.exec(QString("INSERT INTO t VALUES (1, 'short'), (2, '%1'), (3, 'after')").arg(longText));
        db.exec("DELETE FROM t WHERE id = 2");
    }
    const QString copy = dir.filePath("reused.db");
    QFile::copy(path, copy);
    {
        // A new row of another table takes free pages for its own overflow: the chain breaks.
        EngineDb db(copy, false);
        db.exec(QString("CREATE TABLE u (x); INSERT INTO u VALUES ('%1')").arg(QString(3000, QChar('y'))));
    }
    for (const QString& p : {path, copy, trunk}) {
        const Records records = recoverRecords(p, "t", nullptr, false);
        ASSERT_EQ(records.size(), 1) << p.toStdString();
        const SQliteRecovery::Record& r = records.first();
        const QString body = r.values.at(1).toString();
        if (p == path) {
            EXPECT_EQ(r.overflow, SQliteRecovery::Reassembled);
            EXPECT_EQ(r.verdict, SQliteRecovery::Recovered);
            EXPECT_EQ(body, longText);
            EXPECT_FALSE(r.rowidKnown); // the freeblock header took the cell's first four bytes
            EXPECT_EQ(r.region, SQliteRecovery::Freeblock);
        } else {
            EXPECT_EQ(r.overflow, SQliteRecovery::Broken);
            EXPECT_EQ(r.verdict, SQliteRecovery::Partial);
            EXPECT_TRUE(longText.startsWith(body) && body.size() > 100 && body.size() < longText.size());
        }
    }
}

TEST(SQliteRecovery, CandidatesAreHeldBackForEachReason) {
    QTemporaryDir dir;
    const QString base = dir.filePath("base.db");
    {
        EngineDb db(base);
        db.exec(
            "PRAGMA page_size=1024; CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT, n INTEGER, r REAL);");
        db.exec("INSERT INTO t VALUES (1, 'live', 5, 2.5)");
    }
    const QByteArray types("\x00\x17\x01\x07", 4); // NULL, 5 bytes of text, 8-bit integer, float
    const QByteArray hello = QByteArray("hello") + '\x2a' + be64(1.5);
    struct Case {
        const char* what;
        QByteArray at200, at400; // cells written at offsets 200 and 400 (or 980) of the table's page
        QStringList reasons;     // of the record at 200 (or at 400 when given)
        QList<QVariant> values;
    };
    const QList<Case> cases = {
        {"a whole cell", cell(7, types, hello), {}, {}, {qlonglong(7), "hello", qlonglong(42), 1.5}},
        {"a live row's copy",
         cell(1, QByteArray("\x00\x15\x01\x07", 4), "live" + QByteArray(1, 5) + be64(2.5)),
         {},
         {"live"},
         {}},
        {"an earlier version",
         cell(1, QByteArray("\x00\x15\x01\x07", 4), "live" + QByteArray(1, 5) + be64(1.5)),
         {},
         {"superseded"},
         {}},
        {"invalid UTF-8", cell(7, types, "he\xff\xfeo" + hello.mid(5)), {}, {"encoding"}, {}},
        {"control characters",
         cell(7, types, QByteArray("\x01\x02\x03o\x05", 5) + hello.mid(5)),
         {},
         {"encoding"},
         {}},
        {"an integral float in an integer column",
         cell(7, QByteArray("\x00\x17\x07\x07", 4), "hello" + be64(3.0) + be64(1.5)),
         {},
         {"affinity"},
         {}},
        {"nothing but NULLs and zeros, its rowid lost",
         QByteArray("\x05\x00\x0d\x08\x00", 5),
         {},
         {"empty"},
         {}},
        {"a value past the end of its block",
         {},
         cell(7, types, hello),
         {"layout"},
         {qlonglong(7), "hello", qlonglong(42), QVariant()}},
        {"the same record twice", cell(7, types, hello), cell(8, types, hello), {"duplicate"}, {}},
    };
    for (const Case& c : cases) {
        const QString path = writeFile(dir, "case.db", readFile(base));
        const int second = c.at200.isEmpty() ? 990 : 400; // a cell at 990 runs into the one at the page's end
        patch(path, 1024, 2, 200, c.at200);
        patch(path, 1024, 2, second, c.at400);
        const Records records = recoverRecords(path, "t");
        const int offset = c.at400.isEmpty() ? 200 : second;
        const SQliteRecovery::Record* r = nullptr;
        for (const SQliteRecovery::Record& x :
             records) // at the cell, or at the record when the cell's length is off
            if (x.offset == offset || x.offset == offset + 2) r = &x;
        ASSERT_TRUE(r) << c.what;
        EXPECT_EQ(r->reasons, c.reasons) << c.what << ": " << r->reasons.join(',').toStdString();
        EXPECT_EQ(r->verdict, c.reasons.isEmpty() ? SQliteRecovery::Recovered : SQliteRecovery::Held)
            << c.what;
        EXPECT_EQ(r->region, SQliteRecovery::Gap);
        if (!c.values.isEmpty()) {
            EXPECT_EQ(r->values, c.values) << c.what;
        }
    }

    // A freed cell: the freeblock header took its payload length, rowid, header size and the
    // rowid alias's NULL type; the rest is read without them.
    const QString path = writeFile(dir, "freeblock.db", readFile(base));
    const QByteArray rest = types.mid(1) + hello;
    patch(path, 1024, 2, 1, be16(600));
    patch(path, 1024, 2, 600, be16(0) + be16(4 + rest.size()) + rest);
    patch(path, 1024, 2, 5, be16(500)); // the cell content area starts before it
    const Records records = recoverRecords(path, "t");
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records.first().region, SQliteRecovery::Freeblock);
    EXPECT_EQ(records.first().offset, 604);
    EXPECT_FALSE(records.first().rowidKnown);
    EXPECT_EQ(records.first().values, (QList<QVariant>{QVariant(), "hello", qlonglong(42), 1.5}));
}

namespace {

// The deleted rows of a table as the engine held them, keyed by their first value.
QMap<QString, QList<QVariant>> keyed(const QList<QList<QVariant>>& rows) {
    QMap<QString, QList<QVariant>> map;
    for (const QList<QVariant>& row : rows)
        map.insert(row.first().toString(), row);
    return map;
}

} // namespace

TEST(SQliteRecovery, OverwrittenStartsAreRebuiltWithoutARowidAlias) {
    // Declared columns, small rowids, no rowid alias: a freeblock header covers the payload
    // length, the rowid, the header size and the first serial type of every freed cell.
    QTemporaryDir dir;
    const QString path = dir.filePath("plain.db");
    struct Table {
        const char* name;
        const char* create;
        const char* rows; // rows inserted, one statement
        const char* gone; // which are deleted
    };
    const QList<Table> tables = {
        {"people", "CREATE TABLE people (name TEXT, age INT, city TEXT)",
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 60) "
         "INSERT INTO people SELECT printf('person %d', i), 20 + i, printf('town %d', i % 7) FROM n",
         "rowid % 5 = 2"},
        {"keyed", "CREATE TABLE keyed (code TEXT PRIMARY KEY, n INT, note TEXT) WITHOUT ROWID",
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 60) "
         "INSERT INTO keyed SELECT printf('code-%03d', i), i * 1000, printf('note %d', i) FROM n",
         "n % 5000 = 2000"},
    };
    QMap<QString, QMap<QString, QList<QVariant>>> deleted;
    {
        EngineDb db(path);
        db.exec("PRAGMA page_size=1024; PRAGMA secure_delete=OFF;");
        for (const Table& t : tables) {
            db.exec(t.create);
            db.exec(t.rows);
            deleted[t.name] = keyed(db.rows(QString("SELECT * FROM %1 WHERE %2").arg(t.name, t.gone)));
            db.exec(QString("DELETE FROM %1 WHERE %2").arg(t.name, t.gone));
        }
    }
    for (const Table& t : tables) {
        QSet<QString> found;
        int rebuilt = 0;
        for (const SQliteRecovery::Record& r : recoverRecords(path, t.name, nullptr, false)) {
            const QString key = r.values.first().toString();
            ASSERT_TRUE(deleted[t.name].contains(key)) << t.name << ": " << key.toStdString();
            EXPECT_EQ(r.values, deleted[t.name].value(key)) << t.name << ": " << key.toStdString();
            EXPECT_EQ(r.table, QString(t.name));
            EXPECT_FALSE(r.dropped);
            EXPECT_FALSE(found.contains(key));
            found.insert(key);
            if (!r.rebuilt.isEmpty()) ++rebuilt;
        }
        // Every freed cell lost its start; all of them come back.
        EXPECT_EQ(found.size(), deleted[t.name].size()) << t.name;
        EXPECT_GT(rebuilt, 0) << t.name;
    }
}

TEST(SQliteRecovery, DroppedTablesComeBackUnderTheirOwnNames) {
    QTemporaryDir dir;
    const QString path = dir.filePath("dropped.db");
    QMap<QString, QList<QVariant>> users;
    {
        EngineDb db(path);
        db.exec("PRAGMA page_size=1024; PRAGMA secure_delete=OFF;"
                "CREATE TABLE users (id INTEGER PRIMARY KEY, handle TEXT, joined INT, score REAL);"
                "CREATE TABLE members (id INTEGER PRIMARY KEY, handle TEXT, joined INT, score REAL);"
                "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 80) "
                "INSERT INTO users SELECT i, printf('user_%d', i), 1600000000 + i, i / 4.0 FROM n;"
                "INSERT INTO members VALUES (1, 'still here', 1700000000, 0.5);");
        users = keyed(db.rows("SELECT handle, id, joined, score FROM users"));
        db.exec("DROP TABLE users");
    }
    SQliteDbUtil db;
    ASSERT_TRUE(db.loadDb(path));
    SQliteRecovery recovery(db);
    const QList<SQliteSchema::Object> dropped = recovery.droppedObjects();
    ASSERT_EQ(dropped.size(), 1);
    EXPECT_EQ(dropped.first().name, QString("users"));
    EXPECT_TRUE(dropped.first().sql.startsWith("CREATE TABLE users"));
    EXPECT_EQ(recovery.columnNames("users"), (QStringList{"id", "handle", "joined", "score"}));

    // Asked for by name, or found among all tables: the rows are the users', never the members'.
    ASSERT_TRUE(recovery.setTable("users"));
    QSet<QString> found;
    for (const SQliteRecovery::Record& r : recovery.recover()) {
        const QString handle = r.values.value(1).toString();
        ASSERT_TRUE(users.contains(handle)) << handle.toStdString();
        const QList<QVariant> row = users.value(handle);
        EXPECT_EQ(r.values.mid(1), (QList<QVariant>{handle, row.at(2), row.at(3)}));
        EXPECT_TRUE(r.dropped);
        EXPECT_EQ(r.table, QString("users"));
        found.insert(handle);
    }
    EXPECT_EQ(found.size(), users.size());
    recovery.setAllTables();
    int members = 0, ofUsers = 0;
    for (const SQliteRecovery::Record& r : recovery.recover()) {
        members += r.table == "members";
        ofUsers += r.table == "users" && r.dropped;
    }
    EXPECT_EQ(members, 0);
    EXPECT_EQ(ofUsers, users.size());
}

TEST(SQliteRecovery, RowsOnPagesNoTableOwnsNameEveryTableTheyFit) {
    // Two tables of the same shape: a row on a freed page fits both, and says so.
    QTemporaryDir dir;
    const QString path = dir.filePath("twins.db");
    {
        EngineDb db(path);
        db.exec("PRAGMA page_size=1024; PRAGMA secure_delete=OFF; CREATE TABLE x (a TEXT, b TEXT);"
                "CREATE TABLE y (c TEXT, d TEXT); INSERT INTO y VALUES ('live', 'row');"
                "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100) "
                "INSERT INTO x SELECT printf('first %d', i), printf('second %d', i) FROM n;"
                "DELETE FROM x WHERE rowid > 20;");
    }
    SQliteDbUtil db;
    ASSERT_TRUE(db.loadDb(path));
    SQliteRecovery recovery(db);
    recovery.setAllTables();
    int onFreePages = 0;
    for (const SQliteRecovery::Record& r : recovery.recover()) {
        ASSERT_EQ(r.values.size(), 2);
        if (r.region != SQliteRecovery::FreePage) {
            // A leaf's freed cells are its own table's. (The root's gap also holds cells that
            // the root's interior cells overwrote when the table was taller: not checked here.)
            EXPECT_EQ(r.table, QString("x"));
            EXPECT_TRUE(r.ambiguous.isEmpty());
            continue;
        }
        ++onFreePages;
        const int id = r.values.first().toString().mid(6).toInt();
        EXPECT_EQ(r.values, (QList<QVariant>{QString("first %1").arg(id), QString("second %1").arg(id)}));
        EXPECT_GT(id, 20);
        QStringList fits = r.ambiguous;
        fits << r.table;
        fits.sort();
        EXPECT_EQ(fits, (QStringList{"x", "y"}));
    }
    EXPECT_GT(onFreePages, 0);
}
