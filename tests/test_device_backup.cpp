// Device backups made by scripts/corpus/make_backup.py (Python's sqlite3 and plistlib), read by the library
// and by utils-inspect: both index formats, missing and unindexed stored files, a database with a
// -wal sibling, and hostile entries, which must never lead a write out of the extraction folder.
#include "DeviceBackup.h"
#include "TestSupport.h"
#include "ToolRun.h"

#include <QCryptographicHash>
#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <plist/plist.h>

namespace {

const QDateTime kMtime = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
const char* const kSms = "Library/SMS/sms.db";

class Backups : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir = new QTemporaryDir;
        ready = makeBackups(dir->filePath("cases"));
    }
    static void TearDownTestSuite() { delete dir; }
    void SetUp() override { ASSERT_TRUE(ready) << "the backups could not be generated"; }
    static QString backup(const char* name) { return dir->filePath(QString("cases/") + name); }
    static QTemporaryDir* dir;
    static bool ready;
};
QTemporaryDir* Backups::dir = nullptr;
bool Backups::ready = false;

TEST_F(Backups, BothIndexFormats) {
    for (const char* format : {"db", "mbdb"}) {
        SCOPED_TRACE(format);
        const bool legacy = format == QString("mbdb");
        DeviceBackup b;
        ASSERT_TRUE(b.open(backup(format))) << b.error().toStdString(); // db: 16 bytes after its last page
        EXPECT_EQ(b.format(), legacy ? DeviceBackup::ManifestMbdb : DeviceBackup::ManifestDb);
        const DeviceBackup::Info& info = b.info();
        EXPECT_EQ(info.deviceName, "Test Phone");
        EXPECT_EQ(info.productVersion, "17.1");
        EXPECT_EQ(info.date, QDateTime(QDate(2024, 3, 1), QTime(12, 30), Qt::UTC));
        EXPECT_FALSE(info.encrypted);
        EXPECT_EQ(info.applications.size(), legacy ? 2 : 3);
        EXPECT_EQ(b.notes().filter("Status.plist: not in the backup").size(), legacy ? 1 : 0);
        EXPECT_EQ(b.entries().size(), legacy ? 16 : 18);

        const DeviceBackup::Entry* sms = b.find("HomeDomain", kSms);
        ASSERT_TRUE(sms);
        EXPECT_EQ(sms->kind, DeviceBackup::File);
        EXPECT_EQ(sms->mode, 0100644u);
        EXPECT_EQ(qint64(sms->size), QFileInfo(b.storedFile(*sms)).size());
        EXPECT_EQ(sms->modified, kMtime);
        EXPECT_EQ(sms->born, kMtime.addSecs(-100));
        EXPECT_EQ(sms->changed, legacy ? QDateTime() : kMtime.addSecs(1));
        EXPECT_EQ(sms->userId, 501);
        EXPECT_EQ(b.storedFile(*sms),
                  b.folder() + (legacy ? "/" : "/" + sms->fileId.left(2) + "/") + sms->fileId);

        const DeviceBackup::Entry* link = b.find("HomeDomain", "Library/link");
        ASSERT_TRUE(link);
        EXPECT_EQ(link->kind, DeviceBackup::Link);
        EXPECT_EQ(link->linkTarget, "/etc");
        EXPECT_EQ(b.find("HomeDomain", "Library")->kind, DeviceBackup::Folder);
        EXPECT_EQ(b.find("HomeDomain", "Library/huge.bin")->size, (quint64(1) << 63) + 1); // exact
        EXPECT_FALSE(b.find("HomeDomain", "Library/Caches/gone.txt")->present());
        EXPECT_FALSE(b.find("HomeDomain", "library/sms/sms.db"));
        EXPECT_EQ(b.unindexedFiles(), QStringList{legacy ? QString(40, 'f') : "ff/" + QString(40, 'f')});
        for (const DeviceBackup::Entry& e : b.entries())
            EXPECT_EQ(b.find(e.domain, e.path), &e) << e.path.toStdString(); // sorted as find searches
    }
}

TEST_F(Backups, HostileEntriesAreRefused) {
    const QJsonArray hostile = QJsonDocument::fromJson(readFile(dir->filePath("cases/cases.json")))
                                   .object()
                                   .value("hostile")
                                   .toArray();
    ASSERT_EQ(hostile.size(), 6);
    for (const char* format : {"db", "mbdb"}) {
        DeviceBackup b;
        ASSERT_TRUE(b.open(backup(format)));
        int refused = 0;
        for (const DeviceBackup::Entry& e : b.entries())
            refused += !e.problem.isEmpty();
        EXPECT_EQ(refused, hostile.size()) << format;
        for (const QJsonValue& h : hostile) {
            const DeviceBackup::Entry* e = b.find(h["domain"].toString(), h["path"].toString());
            ASSERT_TRUE(e) << h["what"].toString().toStdString();
            EXPECT_FALSE(e->problem.isEmpty()) << h["what"].toString().toStdString();
        }
    }
    // A fileID that is no hash names no stored file, whatever lies at that path.
    DeviceBackup b;
    ASSERT_TRUE(b.open(backup("db")));
    EXPECT_EQ(b.find("HomeDomain", "Library/badid.txt")->fileId, "../../Info.plist");
    EXPECT_TRUE(b.storedFile(*b.find("HomeDomain", "Library/badid.txt")).isEmpty());

    const struct {
        const char* domain;
        QString path;
        const char* problem; // empty: safe
    } paths[] = {
        {"HomeDomain", "", ""},
        {"HomeDomain", "Library/..data/x.", ""},
        {"HomeDomain", "a//b", "empty or '.' part"},
        {"HomeDomain", "a/./b", "empty or '.' part"},
        {"HomeDomain", "a/", "empty or '.' part"},
        {"HomeDomain", "a/../b", "'..'"},
        {"HomeDomain", "x\x7f", "control"},
        {"HomeDomain", QString("x") + QChar(0x85), "control"},
        {"", "x", "empty domain"},
        {"..", "x", "domain is '..'"},
        {"A/B", "x", "'/'"},
    };
    for (const auto& p : paths) {
        const QString problem = DeviceBackup::pathProblem(p.domain, p.path);
        EXPECT_TRUE(*p.problem ? problem.contains(p.problem) : problem.isEmpty())
            << p.domain << "/" << p.path.toStdString() << ": " << problem.toStdString();
    }
}

TEST_F(Backups, MetadataIndexAndEncryption) {
    DeviceBackup b;
    ASSERT_TRUE(b.open(backup("db")));
    const DeviceBackup::Entry* garbage = b.find("HomeDomain", "Library/garbage.txt");
    EXPECT_FALSE(garbage->hasMetadata);
    EXPECT_FALSE(garbage->metadataError.isEmpty());
    EXPECT_EQ(garbage->kind, DeviceBackup::File); // from the index's flags
    EXPECT_TRUE(garbage->present());
    EXPECT_EQ(b.notes().filter("garbage.txt").size(), 1);

    // An archive in XML is read as the binary one is.
    plist_t root = plistDict({{"Size", plist_new_uint(42)}, {"Mode", plist_new_uint(0120755)}});
    plist_t archive = plistDict({{"$top", plistDict({{"root", plist_new_uid(1)}})},
                                 {"$objects", plistArray({plist_new_string("$null"), root})}});
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(archive, &xml, &length);
    DeviceBackup::Entry e;
    EXPECT_TRUE(DeviceBackup::readMetadata(QByteArray(xml, int(length)), e));
    EXPECT_EQ(e.size, 42u);
    EXPECT_EQ(DeviceBackup::kindOfMode(e.mode), DeviceBackup::Link);
    free(xml);
    plist_free(archive);

    // The legacy index cut inside its last record keeps what it held, and says so.
    QByteArray index = readFile(backup("mbdb") + "/Manifest.mbdb");
    writeFile(dir->filePath("cut/Manifest.mbdb"), index.left(index.size() - 7));
    ASSERT_TRUE(b.open(dir->filePath("cut")));
    EXPECT_EQ(b.entries().size(), 16);
    EXPECT_EQ(b.notes().filter("cut short").size(), 1);

    ASSERT_FALSE(b.open(backup("encrypted")));
    EXPECT_TRUE(b.info().encrypted);
    EXPECT_TRUE(b.error().contains("encrypted")) << b.error().toStdString();
    EXPECT_EQ(b.info().deviceName, "Test Phone");
    for (const QString& notBackup : {dir->filePath("cases"), dir->filePath("cases/cases.json")})
        EXPECT_FALSE(b.open(notBackup)) << notBackup.toStdString();
}

// The three steps of an examination, and what DIR::DOMAIN/PATH refuses.
TEST_F(Backups, ToolSummaryListAndFilesInside) {
    SKIP_WITHOUT_TOOL();
    const QString db = backup("db"), mbdb = backup("mbdb");
    const struct {
        QStringList args;
        int code;
        QByteArray out;
    } runs[] = {
        {{"backup", db}, 0, "Encrypted:    no"},
        {{"backup", mbdb}, 0, "      14  HomeDomain"},
        {{"backup", backup("encrypted")}, 1, "Encrypted:    yes"},
        {{"backup", db, "--list", "--path", "*.db*"}, 0, "\tpresent\tHomeDomain\tLibrary/SMS/sms.db-wal\n"},
        {{"backup", db, "--list", "--csv", "--domain", "MediaDomain"},
         0,
         "MediaDomain,Media/notes/note.txt,13f5a299824ca1d7b57dd4befa9f90acee3bc482,file,9,100644,"
         "2023-11-14T22:13:20Z,true,,\r\n"},
        {{"backup", db, "--list", "--json", "--path", "*huge*"}, 0, "\"size\":9223372036854775809,"},
        {{"backup", db, "--list", "--json", "--csv"}, 2, ""},
        {{"rows", db + "::HomeDomain/" + kSms, "message"}, 0, "(5 rows)"}, // 2 of them in the -wal
        {{"rows", mbdb + "::HomeDomain/" + kSms, "message", "--no-wal"}, 0, "(3 rows)"},
        {{"wal", db + "::HomeDomain/" + kSms}, 0, "2 frames: 2 committed"},
        {{"plist", db + "::HomeDomain/Library/Preferences/com.example.settings.plist"}, 0, "\"Anna\""},
        {{"classify", mbdb + "::HomeDomain/Library/Preferences/com.example.settings.plist"}, 0, "other"},
        {{"plist", db + "::HomeDomain/Library/link/passwd"}, 1, ""},
        {{"plist", db + "::HomeDomain/../../escape.txt"}, 1, ""},
        {{"plist", db + "::HomeDomain/Library/link"}, 1, ""},
        {{"plist", db + "::HomeDomain/Library/badid.txt"}, 1, ""},
        {{"plist", db + "::HomeDomain/Library/Caches/gone.txt"}, 1, ""},
        {{"plist", backup("encrypted") + "::HomeDomain/" + kSms}, 1, ""},
    };
    for (const auto& run : runs) {
        const ToolRun r = runTool(run.args);
        const std::string what = run.args.join(' ').toStdString();
        EXPECT_EQ(r.code, run.code) << what << ": " << r.err.toStdString();
        EXPECT_TRUE(r.out.contains(run.out)) << what << ":\n" << r.out.toStdString();
        if (run.code) {
            EXPECT_EQ(r.err.count(QByteArrayLiteral("\n")), 1) << what << ": " << r.err.toStdString();
        }
    }
    const QJsonArray all = QJsonDocument::fromJson(toolOut({"backup", db, "--list", "--json"}, 0)).array();
    ASSERT_EQ(all.size(), 18);
    EXPECT_EQ(all.at(0).toObject().keys(), (QStringList{"domain", "fileID", "kind", "linkTarget", "mode",
                                                        "mtime", "path", "present", "problem", "size"}));
}

// Every file extraction writes lies inside OUT, whatever the backup says; the backup is unchanged.
TEST_F(Backups, ExtractionStaysInsideOut) {
    SKIP_WITHOUT_TOOL();
    auto tree = [](const QString& root) {
        QStringList files;
        for (QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                             QDirIterator::Subdirectories);
             it.hasNext();) {
            it.next();
            files << it.filePath().mid(root.size()) + " " +
                         QString::number(it.fileInfo().lastModified().toSecsSinceEpoch()) +
                         (it.fileInfo().isSymLink() ? " link" : "");
        }
        files.sort();
        return files;
    };
    for (const char* format : {"db", "mbdb"}) {
        SCOPED_TRACE(format);
        const QString sandbox = dir->filePath(QString("sandbox-") + format), out = sandbox + "/a/b/out";
        QDir().mkpath(sandbox + "/elsewhere");
        const QStringList before = tree(backup(format));
        const ToolRun r = runTool({"backup", backup(format), "--extract", out});
        EXPECT_EQ(r.code, 1); // the hostile entries and the missing file are reported
        EXPECT_EQ(r.err.count("not extracted: "), format == QString("db") ? 8 : 7) << r.err.toStdString();
        EXPECT_EQ(tree(backup(format)), before);
        for (const QString& f : tree(sandbox))
            EXPECT_TRUE(f.startsWith("/a ") || f.startsWith("/a/b ") || f.startsWith("/a/b/out") ||
                        f.startsWith("/elsewhere "))
                << f.toStdString();
        EXPECT_TRUE(tree(out).filter(" link").isEmpty());
        EXPECT_EQ(readFile(out + "/LINKS"), "HomeDomain/Library/link -> /etc\n");
        EXPECT_EQ(QFileInfo(out + "/MediaDomain/Media/notes/note.txt").lastModified(), kMtime);
        EXPECT_EQ(QFileInfo(out + "/HomeDomain/Library").lastModified(), kMtime);
        EXPECT_TRUE(readFile(out + "/SHA256SUMS")
                        .contains(QCryptographicHash::hash("evidence\n", QCryptographicHash::Sha256).toHex() +
                                  "  MediaDomain/Media/notes/note.txt\n"));

        // Existing files, and a link planted in OUT, stop it; --force goes on but never through the link.
        EXPECT_EQ(runTool({"backup", backup(format), "--extract", out}).code, 1);
        QDir(out + "/HomeDomain/Library/SMS").removeRecursively();
        QFile::link(sandbox + "/elsewhere", out + "/HomeDomain/Library/SMS");
        EXPECT_EQ(runTool({"backup", backup(format), "--extract", out, "--force"}).code, 1);
        EXPECT_TRUE(tree(sandbox + "/elsewhere").isEmpty());
        EXPECT_EQ(tree(backup(format)), before);
    }
    EXPECT_EQ(runTool({"backup", backup("db"), "--extract", backup("db") + "/ff/out"}).code, 2);
    EXPECT_EQ(runTool({"backup", backup("db"), "--extract", dir->filePath("cases"), "--force"}).code, 2);
    EXPECT_EQ(runTool({"backup", backup("encrypted"), "--extract", dir->filePath("enc")}).code, 1);
    EXPECT_FALSE(QFileInfo::exists(dir->filePath("enc")));

    // Nor does a command that writes a file, even with --force, given an input inside the backup.
    const QString stored = backup("db") + "/3d/3d0d7e5fb2ce288813306e4d4636395e047a3d28";
    const QByteArray sms = readFile(stored);
    for (const QString& to : {stored, backup("db") + "/3d/sms.gz"})
        EXPECT_EQ(runTool({"gzip", backup("db") + "::HomeDomain/" + kSms, to, "--force"}).code, 1);
    // manifest resolves its input before it looks at --out: the backup is known all the same.
    EXPECT_EQ(runTool({"manifest", backup("db") + "::HomeDomain/" + kSms, "abc", "--out",
                       backup("db") + "/3d/m", "--force"})
                  .code,
              1);
    EXPECT_EQ(readFile(stored), sms);
    EXPECT_FALSE(QFileInfo::exists(backup("db") + "/3d/sms.gz"));
    EXPECT_FALSE(QFileInfo::exists(backup("db") + "/3d/m"));
}

} // namespace
