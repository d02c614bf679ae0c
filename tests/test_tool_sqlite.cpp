// utils-inspect's SQLite subcommands on the bundled sample and on bad input.
#include "SqliteFixtures.h"
#include "ToolRun.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QTemporaryDir>

namespace {

const QString kSample = QString(UTILS_SOURCE_DIR) + "/examples/chat.db";

} // namespace

TEST(ToolSqlite, TablesRowsAndRecoveryOnTheSample) {
    SKIP_WITHOUT_TOOL();
    const ToolRun tables = runTool({"tables", kSample});
    ASSERT_EQ(tables.code, 0) << tables.err.toStdString();
    EXPECT_TRUE(tables.out.contains("columns: id (rowid), chat_id, sender, body, sent_at, is_from_me"));
    EXPECT_TRUE(tables.out.contains("contact  root 2"));

    const ToolRun rows = runTool({"rows", kSample, "message", "--json"});
    ASSERT_EQ(rows.code, 0);
    const QJsonArray records = QJsonDocument::fromJson(rows.out).array();
    ASSERT_EQ(records.size(), 98);
    const QJsonArray first = records.first().toArray();
    EXPECT_EQ(first.size(), 7);
    EXPECT_EQ(first.at(0).toInt(), 1);
    EXPECT_TRUE(first.at(3).isString());
    EXPECT_EQ(first.at(4).toString(), QString("Are you home tonight?"));
    EXPECT_TRUE(first.at(5).isDouble());

    const ToolRun recovered =
        runTool({"recover", kSample, "message", "iissii", "--raw", "--with-header", "--free-list", "--json"});
    ASSERT_EQ(recovered.code, 0);
    bool accountNumber = false, fromFreePage = false;
    for (const QJsonValue& v : QJsonDocument::fromJson(recovered.out).array()) {
        const QJsonObject o = v.toObject();
        const QJsonArray values = o.value("values").toArray();
        if (values.at(4).toString().contains("GB29 NWBK")) accountNumber = values.at(0).toInt() == 25;
        if (o.value("source").toString() == "free-list pages" &&
            values.at(4).toString().startsWith("Auto-reply 8"))
            fromFreePage = true;
    }
    EXPECT_TRUE(accountNumber);
    EXPECT_TRUE(fromFreePage);

    const ToolRun contact = runTool({"recover", kSample, "contact", "sss", "--raw"});
    EXPECT_EQ(contact.code, 0);
    EXPECT_TRUE(contact.out.contains("\"Oskar Lind\" | \"+46 70 123 45 67\""));

    // Records with where they lay, in declared column order, NULL as NULL.
    const ToolRun text = runTool({"recover", kSample, "contact"});
    EXPECT_TRUE(text.out.contains(
        "page 2, offset 846, freeblock, start rebuilt: NULL | \"Oskar Lind\" | \"+46 70 123 45 67\""))
        << text.out.toStdString();
    const QJsonArray json =
        QJsonDocument::fromJson(runTool({"recover", kSample, "message", "--json"}).out).array();
    bool reassembledRowid = false;
    for (const QJsonValue& v : json) {
        const QJsonObject o = v.toObject();
        EXPECT_EQ(o.value("verdict").toString(), QString("recovered"));
        EXPECT_EQ(o.value("values").toArray().size(), 6);
        if (o.value("rowid").toInt() == 85)
            reassembledRowid = o.value("values").toArray().at(0).toInt() == 85 &&
                               o.value("region") == "free page" && o.value("page").toInt() > 0 &&
                               o.value("offset").toInt() > 0;
    }
    EXPECT_TRUE(reassembledRowid);
}

TEST(ToolSqlite, ValuesKeepTheirTypesAndTextSurvivesEscaping) {
    SKIP_WITHOUT_TOOL();
    QTemporaryDir dir;
    const QString path = dir.filePath("b.db");
    const QString tricky = QString::fromUtf8("a\"b\\c\nd\te\x01 \xc3\xa9 \xf0\x9f\x98\x80");
    {
        fixtures::EngineDb db(path);
        db.exec("PRAGMA secure_delete=OFF; CREATE TABLE b(x BLOB, r REAL, t TEXT);");
        db.exec("INSERT INTO b VALUES (x'00ff10', 2.5, CAST(x'ff41' AS TEXT)), (NULL, 1e999, '" +
                QString(tricky).replace("'", "''") + "')");
    }
    // Streamed JSON: blobs as base64, NULL as null, infinity as the number SQLite writes for it,
    // text intact (invalid UTF-8 arrives as replacement characters).
    const ToolRun rows = runTool({"rows", path, "b", "--json"});
    ASSERT_EQ(rows.code, 0);
    EXPECT_TRUE(rows.out.contains(",null,9.0e999,")) << rows.out.toStdString();
    QJsonParseError error;
    const QJsonArray records =
        QJsonDocument::fromJson(QByteArray(rows.out).replace("9.0e999", "1"), &error).array();
    ASSERT_EQ(error.error, QJsonParseError::NoError) << rows.out.toStdString();
    EXPECT_EQ(records.at(0).toArray(), (QJsonArray{1, "AP8Q", 2.5,
                                                   QString::fromUtf8("\xef\xbf\xbd"
                                                                     "A")}));
    EXPECT_EQ(records.at(1).toArray(), (QJsonArray{2, QJsonValue::Null, 1, tricky}));
    const ToolRun text = runTool({"rows", path, "b"});
    EXPECT_TRUE(text.out.contains("1 | x'00ff10' | 2.5 | \""));
    EXPECT_TRUE(text.out.contains("\\nd\\te")) << text.out.toStdString();
    EXPECT_TRUE(text.out.endsWith("(2 rows)\n"));
    const ToolRun freeList = runTool({"freelist", path, "bf"});
    EXPECT_EQ(freeList.code, 0);
    EXPECT_TRUE(freeList.out.startsWith("free-list pages: []"));
}

TEST(ToolSqlite, BadInputGivesOneLineAndNonZeroExit) {
    SKIP_WITHOUT_TOOL();
    struct Case {
        QStringList args;
        int code;
        QString message;
    };
    const QString readme = QString(UTILS_SOURCE_DIR) + "/README.md";
    const QList<Case> cases = {
        {{"tables", readme}, 1, "not an SQLite 3 database"},
        {{"tables", "/nonexistent/x.db"}, 1, "no such file"},
        {{"tables", QString(UTILS_SOURCE_DIR)}, 1, "is a folder"},
        {{"rows", kSample, "nope"}, 1, "no table named 'nope'"},
        {{"recover", kSample, "message", "iqs", "--raw"}, 2, "bad pattern letter 'q' at position 2"},
        {{"recover", kSample, "message", "", "--raw"}, 2, "empty pattern"},
        {{"recover", kSample, "message", "ndd"},
         2,
         "the pattern has 3 letters, table 'message' has 6 columns"},
        {{"recover", kSample, "message", "--with-header"}, 2, "--with-header belongs to --raw"},
        {{"rows", kSample}, 2, "missing argument"},
        {{"tables", kSample, "--bogus"}, 2, "unknown option --bogus"},
        {{"frobnicate"}, 2, "unknown command"},
    };
    for (const Case& c : cases) {
        const ToolRun r = runTool(c.args);
        EXPECT_EQ(r.code, c.code) << c.args.join(' ').toStdString();
        EXPECT_TRUE(r.err.contains(c.message.toUtf8())) << r.err.toStdString();
        EXPECT_EQ(r.err.count('\n'), 1) << r.err.toStdString();
        EXPECT_TRUE(r.out.isEmpty());
    }
    const ToolRun help = runTool({"recover", "--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_TRUE(help.out.startsWith("usage: utils-inspect recover DB [TABLE [PATTERN]]"));
}
