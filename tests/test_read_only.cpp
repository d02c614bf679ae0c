// Examined files are only ever read: every reader of the library and every reading command of
// utils-inspect runs over real files in a folder of their own, and afterwards each file's bytes and
// modification time and the folder's listing must be as before (no -journal, -wal, -shm or lock
// file). A new reader, command or file is one row. The device backups (scripts/corpus/make_backup.py) are
// checked file by file, down their folders.
#include "SqliteFixtures.h"
#include "ToolRun.h"

#include "DbUtils.h"
#include "DeviceBackup.h"
#include "MMKVParser.h"
#include "MbdbUtil.h"
#include "NSKeyedArchiver.h"
#include "OSUtils.h"
#include "PlistUtils.h"
#include "RawMessage.h"
#include "SQliteDbUtil.h"
#include "SQliteLiveView.h"
#include "SQliteRecovery.h"
#include "SQliteScanner.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDirIterator>
#include <plist/plist.h>

namespace {

const QByteArray kArchive = R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>
<key>$archiver</key><string>NSKeyedArchiver</string><key>$version</key><integer>100000</integer>
<key>$top</key><dict><key>root</key><dict><key>CF$UID</key><integer>1</integer></dict></dict>
<key>$objects</key><array><string>$null</string><string>grüße</string></array></dict></plist>)";

// The examined folder, made once; every file dated 2001, so that a write would show.
class ReadOnly : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir = new QTemporaryDir;
        QFile::copy(QString(UTILS_SOURCE_DIR) + "/examples/chat.db", path("chat.db"));
        fixtures::makeLogCopies(dir->path()); // wal.db with wal.db-wal, journal.db with journal.db-journal
        void* tree = nullptr;
        ASSERT_TRUE(PlistUtils::loadFromData(kArchive, tree));
        const QByteArray bplist = PlistUtils::savaToBinFromByteArray(tree);
        plist_free(static_cast<plist_t>(tree));
        for (const char* mode : {"DELETE", "WAL"}) { // in WAL mode a log is beside it while it is open
            fixtures::EngineDb db(path(QString("Manifest-%1.db").arg(mode)));
            db.exec("CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, file BLOB)");
            db.exec(QString("INSERT INTO Files VALUES ('abc', 'D', x'0102'); PRAGMA journal_mode = %1")
                        .arg(mode));
        }
        const QPair<const char*, QByteArray> files[] = {
            {"archive.xml", kArchive},
            {"archive.bplist", bplist},
            {"Manifest.mbdb", // one record: HomeDomain, a.txt, mode 100644, size 9, property k = v
             QByteArray::fromHex("6d6264620500000a486f6d65446f6d61696e0005612e747874ffffffffffff81a4"
                                 "01010101010101010101010101010101010101010101010101010101"
                                 "0000000000000009030100016b000176")},
            {"mmkv.default", QByteArray::fromHex("0c00000001046e616d650504416e6e61")}, // name = "Anna"
            {"message.pb", QByteArray::fromHex("0a0568656c6c6f109601")},               // 1: "hello", 2: 150
            {"voice.slk", silkNote(60, true)},
            {"3f2a9c", silkNote(152, true)},
            {"cut.slk", "\x02#!SILK"},
            {"cut.xml", "<plist><dict><key>a</key>"},
            {"x.gif", "GIF89a"},
            {"tone.wav", wavFile(1000, 2000)},
            {"note.z", deflated("evidence")},
        };
        for (const auto& file : files)
            writeFile(path(file.first), file.second);
        ASSERT_TRUE(makeBackups(path("backups")));
        for (const QFileInfo& i : QDir(dir->path()).entryInfoList(QDir::Files)) {
            QFile f(i.filePath());
            ASSERT_TRUE(f.open(QIODevice::ReadWrite) &&
                        f.setFileTime(QDateTime(QDate(2001, 1, 1), QTime(12, 0), Qt::UTC),
                                      QFileDevice::FileModificationTime));
        }
    }
    static void TearDownTestSuite() { delete dir; }
    static QString path(const QString& name) { return dir->filePath(name); }

    static std::string listing() {
        QStringList out;
        for (QDirIterator it(dir->path(),
                             QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                             QDirIterator::Subdirectories);
             it.hasNext();) {
            const QFileInfo i(it.next());
            out << i.filePath() + " " + i.lastModified().toUTC().toString(Qt::ISODate) + " " +
                       QCryptographicHash::hash(readFile(i.filePath()), QCryptographicHash::Sha1).toHex();
        }
        out.sort();
        return out.join('\n').toStdString();
    }

    static QTemporaryDir* dir;
};
QTemporaryDir* ReadOnly::dir = nullptr;

} // namespace

TEST_F(ReadOnly, LibraryReaders) {
    const QList<QPair<const char*, std::function<void()>>> readers = {
        {"SQliteDbUtil",
         [] {
             SQliteDbUtil db;
             ASSERT_TRUE(db.loadDb(path("chat.db")));
             for (const SQliteTable& t : db.fetchAllTable()) {
                 db.fetchRecordsInTable(t.name);
                 db.searchLostRecord(t.name, "is", true);
             }
             EXPECT_FALSE(db.searchLostRecordInFreeSpace("iissii", true).isEmpty());
         }},
        {"SQliteLiveView, SQliteRecovery, SQliteWal, SQliteJournal",
         [] {
             for (const char* name : {"wal.db", "journal.db"}) {
                 SQliteDbUtil db;
                 SQliteLiveView view;
                 ASSERT_TRUE(view.load(db, path(name)) && view.applied() != SQliteLiveView::MainFileOnly)
                     << name;
                 EXPECT_EQ(db.fetchRecordsInTable("m").size(), name == QString("wal.db") ? 150 : 200) << name;
                 SQliteRecovery recovery(db);
                 recovery.setLiveView(&view);
                 ASSERT_TRUE(recovery.setTable("m"));
                 recovery.recover();
                 SQliteScanner(db).pageOwners();
             }
         }},
        {"PlistUtils, NSKeyedArchiver",
         [] {
             for (const char* name : {"archive.xml", "archive.bplist"}) {
                 void* tree = nullptr;
                 ASSERT_TRUE(PlistUtils::loadFromFile(path(name), tree)) << name;
                 plist_free(static_cast<plist_t>(tree));
                 NSKeyedArchiver archive;
                 EXPECT_TRUE(archive.loadFromFile(path(name)) && archive.loadRootFromFile(path(name)))
                     << name;
             }
         }},
        {"MbdbUtil",
         [] {
             MbdbUtil index;
             EXPECT_TRUE(index.loadDb(path("Manifest.mbdb")) && index.fetchRecords().size() == 1);
         }},
        {"DbUtils",
         [] {
             for (const char* name : {"Manifest-DELETE.db", "Manifest-WAL.db"}) {
                 QSqlDatabase db = DbUtils::dataBase(MANIFESTDB, path(name));
                 ASSERT_TRUE(db.open());
                 EXPECT_EQ(DbUtils::rowCount(db, "SELECT COUNT(*) FROM Files"), 1);
                 EXPECT_EQ(DbUtils::readManifestBlobData(db, "abc"), QByteArray("\x01\x02"));
                 db.close();
             }
         }},
        {"DeviceBackup",
         [] {
             DeviceBackup backup;
             for (const char* name : {"backups/db", "backups/mbdb"}) {
                 ASSERT_TRUE(backup.open(path(name))) << name;
                 EXPECT_TRUE(backup.storedFile(*backup.find("HomeDomain", "Library/SMS/sms.db"))
                                 .endsWith("3d0d7e5fb2ce288813306e4d4636395e047a3d28"));
             }
             EXPECT_FALSE(backup.open(path("backups/encrypted")));
         }},
        {"MMKVParser", [] { EXPECT_EQ(MMKVParser(path("mmkv.default")).getString("name"), "Anna"); }},
        {"RawMessage", [] { EXPECT_TRUE(RawMessage().mergeFile(path("message.pb").toStdString())); }},
        {"OSUtils",
         [] {
             LogCapture quiet; // the header probes log what they read
             EXPECT_EQ(OSUtils::readSilk(path("voice.slk")), 1);
             EXPECT_EQ(OSUtils::getMediaDuration("tone.wav", path("tone.wav"), "mm:ss"), "00:02");
             for (const QFileInfo& i : QDir(dir->path()).entryInfoList(QDir::Files)) {
                 OSUtils::getFileType(i.filePath());
                 OSUtils::isPictureMagic(i.filePath()) || OSUtils::isVideoMagic(i.filePath());
             }
         }},
    };
    const std::string before = listing();
    for (const auto& reader : readers) {
        reader.second();
        EXPECT_EQ(listing(), before) << reader.first;
    }
}

// Each reading command, also when it fails, with what it prints: the tool's suites of record.
TEST_F(ReadOnly, ToolCommands) {
    SKIP_WITHOUT_TOOL();
    const struct {
        QStringList args;
        int code;
        QByteArray out; // a part of the standard output
        int notes = 0;  // lines on stderr of a run that succeeds (what was done with a log or journal)
    } runs[] = {
        {{"tables", "chat.db"}, 0, "2 free-list pages"},
        {{"rows", "chat.db", "message"}, 0, ""},
        {{"recover", "chat.db", "message", "iissii", "--raw", "--with-header", "--free-list"}, 0, ""},
        {{"recover", "chat.db", "message", "--all", "--csv"},
         0,
         "table,dropped,page,offset,region,version,verdict,reasons,rowid,overflow,ambiguous,rebuilt,id,chat_"
         "id,"
         "sender,body,sent_at,is_from_me\r\n"},
        {{"recover", "chat.db", "message", "--all", "--csv"}, 0, ",held,live,"},
        {{"freelist", "chat.db", "is"}, 0, "free-list pages: [11,12]"},
        {{"tables", "wal.db"}, 0, "columns: id (rowid), body", 1},
        {{"rows", "journal.db", "m"}, 0, "(200 rows)", 1},
        {{"recover", "wal.db", "m", "--all"}, 0, "in older page versions", 1},
        {{"recover", "journal.db", "m", "--no-wal"}, 0, "recovered", 1},
        {{"wal", "wal.db"}, 0, "| committed | 0"},
        {{"wal", "journal.db"}, 0, "hot (an unfinished transaction)"},
        {{"wal", "chat.db"}, 1, ""},
        {{"plist", "archive.xml"}, 0, "\"grüße\""}, // UTF-8 as it is
        {{"plist", "archive.bplist"}, 0, "\"$archiver\": \"NSKeyedArchiver\""},
        {{"plist", "cut.xml"}, 1, ""},
        {{"plist", "missing"}, 1, ""},
        {{"plist"}, 2, ""},
        {{"archive", "archive.xml"}, 0, "\"root\": \"grüße\""},
        {{"archive", "archive.bplist", "--root"}, 0, "\"$archiver\": \"NSKeyedArchiver\""},
        {{"archive", "missing"}, 1, ""},
        {{"archive", "--bogus", "archive.xml"}, 2, ""},
        {{"mbdb", "Manifest.mbdb"}, 0, "833e3d3e378f4857514708306539a5da4ba3151d\t100644\t9\t"},
        {{"mbdb", "--json", "Manifest.mbdb"}, 0, "\"properties\": {\n            \"k\": \"v\""},
        {{"mbdb", "cut.xml"}, 1, ""},
        {{"manifest", "Manifest-DELETE.db", "abc"}, 0, "00000000  01 02 "},
        {{"manifest", "Manifest-WAL.db", "abc"}, 0, "00000000  01 02 "},
        {{"manifest", "Manifest-WAL.db", "zzz"}, 1, ""},
        // bytes after the index's last page, and one entry's metadata is no archive
        {{"backup", "backups/db"}, 0, "Entries per domain:", 2},
        {{"backup", "backups/mbdb", "--list", "--json"}, 0, "\"kind\":\"link\"", 2}, // two lists missing
        {{"backup", "backups/encrypted", "--list"}, 1, ""},
        {{"rows", "backups/db::HomeDomain/Library/SMS/sms.db", "message"}, 0, "(5 rows)", 1},
        {{"wal", "backups/mbdb::HomeDomain/Library/SMS/sms.db"}, 0, "| committed | 0"},
        {{"plist", "backups/db::HomeDomain/Library/Preferences/com.example.settings.plist"}, 0, "Anna"},
        {{"plist", "backups/db::HomeDomain/../../escape.txt"}, 1, ""},
        {{"mmkv", "mmkv.default"}, 0, "\"name\" hex=04416e6e61 int=4 string=\"Anna\""},
        {{"protobuf", "message.pb", "1"}, 0, "hello"},
        {{"protobuf", "message.pb", "2", "--as", "int"}, 0, "150"},
        {{"duration", "voice.slk"}, 0, "00:00:01"},
        {{"duration", "3f2a9c", "--name", "voice.slk"}, 0, "00:00:03"}, // the name decides
        {{"duration", "tone.wav"}, 0, "00:00:02"},
        {{"duration", "missing.wav"}, 1, ""},
        {{"duration", "cut.slk"}, 1, ""},
        {{"gunzip", "note.z", "--zlib"}, 0, "evidence"},
        {{"gzip", "tone.wav"}, 0, "\x1f\x8b"},
        {{"classify", "x.gif", "voice.slk"},
         0,
         "x.gif: picture (type 0), SILK candidate: no, picture header: yes"},
        {{"classify", "voice.slk"}, 0, "voice.slk: audio (type 1), SILK candidate: yes"},
        {{"classify", "missing.png", "x.gif", "--json"}, 1, "\"pictureHeader\": true"},
    };
    const std::string before = listing();
    for (const auto& run : runs) {
        QStringList args = run.args;
        for (QString& arg : args)
            if (QFile::exists(path(arg.section("::", 0, 0)))) arg = path(arg); // also DIR::DOMAIN/PATH
        const ToolRun r = runTool(args);
        const std::string what = run.args.join(' ').toStdString();
        EXPECT_EQ(r.code, run.code) << what << ": " << r.err.toStdString();
        EXPECT_TRUE(r.out.contains(run.out)) << what << ":\n" << r.out.toStdString();
        // A failure says why on one line; a database read with its log or journal says so.
        EXPECT_EQ(r.err.count('\n'), run.code == 0 ? run.notes : 1) << what << ": " << r.err.toStdString();
        EXPECT_EQ(listing(), before) << what;
    }
}
