// SQliteSchema: CREATE TABLE statements understood as the engine understands them.
#include "SQliteSchema.h"

#include <gtest/gtest.h>

namespace {

using S = SQliteSchema;

struct Case {
    const char* sql;
    QStringList names;
    QStringList types;
    int alias;
    QList<int> key;
    QList<int> storage;
};

} // namespace

TEST(SQliteSchema, ColumnsKeysAndStorageOfCreateStatements) {
    const QList<Case> cases = {
        // Table constraints are no columns; a composite key is no rowid alias.
        {"CREATE TABLE t(a, b, PRIMARY KEY(a, b))", {"a", "b"}, {"", ""}, -1, {0, 1}, {0, 1}},
        // Quotes of all four kinds with doubled quotes inside, comments with commas, nested
        // parentheses, a string default holding a comma, constraints without commas between.
        {"CREATE TABLE \"x\"\"y\" ([a b] INTEGER PRIMARY KEY, `c``d` VARCHAR ( 10 ) DEFAULT 'x,y', 'e' /* f, "
         "g */ "
         "REAL CHECK (e > (1)), h DECIMAL(10,5) REFERENCES p(q) ON DELETE SET DEFAULT NOT NULL, "
         "CONSTRAINT k UNIQUE (\"c`d\") CHECK (h <> 0))",
         {"a b", "c`d", "e", "h"},
         {"INTEGER", "VARCHAR ( 10 )", "REAL", "DECIMAL(10,5)"},
         0,
         {0},
         {0, 1, 2, 3}},
        // INTEGER PRIMARY KEY DESC on the column is no alias; DESC in the table's key is one.
        {"CREATE TABLE t(id INTEGER PRIMARY KEY DESC, x)", {"id", "x"}, {"INTEGER", ""}, -1, {0}, {0, 1}},
        {"CREATE TABLE t(id integer, x, PRIMARY KEY(id DESC))", {"id", "x"}, {"integer", ""}, 0, {0}, {0, 1}},
        {"CREATE TABLE t(id INT PRIMARY KEY, x)", {"id", "x"}, {"INT", ""}, -1, {0}, {0, 1}},
        // Without rowid, the key's columns lie first in a record, once each.
        {"CREATE TABLE t(k TEXT, v, a INT, PRIMARY KEY(a, k, a)) WITHOUT ROWID",
         {"k", "v", "a"},
         {"TEXT", "", "INT"},
         -1,
         {2, 0},
         {1, 2, 0}},
        // Virtual generated columns lie in no record.
        {"CREATE TABLE IF NOT EXISTS main.t(a INT, b AS (a * (2)), c INT GENERATED ALWAYS AS (a + 1) STORED, "
         "d)",
         {"a", "b", "c", "d"},
         {"INT", "", "INT", ""},
         -1,
         {},
         {0, -1, 1, 2}},
        // A comment after the name, before the column list, that holds an opening parenthesis.
        {"CREATE TABLE [t] -- e, f (\n(x ANY) STRICT", {"x"}, {"ANY"}, -1, {}, {0}},
    };
    for (const Case& c : cases) {
        const S::Table t = S::parseCreateTable(QString::fromUtf8(c.sql));
        ASSERT_TRUE(t.ok) << c.sql << ": " << t.error.toStdString();
        EXPECT_EQ(t.columnNames(), c.names) << c.sql;
        QStringList types;
        QList<int> storage;
        for (const S::Column& column : t.columns) {
            types << column.declaredType;
            storage << column.storage;
        }
        EXPECT_EQ(types, c.types) << c.sql;
        EXPECT_EQ(t.rowidAlias, c.alias) << c.sql;
        EXPECT_EQ(t.primaryKey, c.key) << c.sql;
        EXPECT_EQ(storage, c.storage) << c.sql;
    }
    EXPECT_EQ(S::parseCreateTable("CREATE TABLE \"x\"\"y\" (a)").name, QString("x\"y"));
    EXPECT_TRUE(S::parseCreateTable("CREATE TABLE t(a) WITHOUT ROWID, STRICT").strict);
    const S::Table fts = S::parseCreateTable("CREATE VIRTUAL TABLE f USING fts5(a, b)");
    EXPECT_TRUE(fts.ok && fts.isVirtual && fts.module == "fts5");
    for (const char* bad :
         {"CREATE TABLE", "CREATE TABLE t", "CREATE TABLE t(", "CREATE INDEX i ON t(a)", ""})
        EXPECT_FALSE(S::parseCreateTable(bad).ok) << bad;
}

TEST(SQliteSchema, AffinityAndTheDefaultsOfAddedColumns) {
    const QList<QPair<const char*, S::Affinity>> affinities = {{"VARCHAR(10)", S::TextAffinity},
                                                               {"FLOATING POINT", S::IntegerAffinity},
                                                               {"CHARINT", S::IntegerAffinity},
                                                               {"REALBLOB", S::BlobAffinity},
                                                               {"", S::BlobAffinity},
                                                               {"DECIMAL(10,5)", S::NumericAffinity},
                                                               {"DOUBLE PRECISION", S::RealAffinity},
                                                               {"clob", S::TextAffinity},
                                                               {"STRING", S::NumericAffinity}};
    for (const auto& a : affinities)
        EXPECT_EQ(S::affinityOf(a.first), a.second) << a.first;

    // A row written before a column was added reads the column's literal default, worked out
    // from its own text: small integers are integers, other numbers their text given the
    // column's affinity (NUMERIC's when it has none).
    const S::Table t = S::parseCreateTable("CREATE TABLE t(a DEFAULT -0x10, b TEXT DEFAULT 5, c DEFAULT 1.0, "
                                           "d TEXT DEFAULT 1.50, e INTEGER DEFAULT ' "
                                           "12 ', f REAL DEFAULT '7', g DEFAULT (NULL), h DEFAULT "
                                           "CURRENT_TIME, i DEFAULT x'00ff', j DEFAULT TRUE, "
                                           "k NUMERIC DEFAULT '1e5', l DEFAULT 'x''y')");
    const QList<QVariant> defaults = {qlonglong(-16),  QString("5"),      qlonglong(1),
                                      QString("1.50"), qlonglong(12),     qlonglong(7),
                                      QVariant(),      QVariant(),        QByteArray("\x00\xff", 2),
                                      qlonglong(1),    qlonglong(100000), QString("x'y")};
    ASSERT_EQ(t.columns.size(), defaults.size());
    for (int i = 0; i < defaults.size(); ++i) {
        const QVariant& got = t.columns.at(i).defaultValue;
        EXPECT_TRUE(got == defaults.at(i) && got.type() == defaults.at(i).type())
            << t.columns.at(i).name.toStdString() << ": " << got.toString().toStdString();
    }
}
