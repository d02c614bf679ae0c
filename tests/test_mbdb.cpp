// Legacy backup index: header checks, every record field, empty markers, derived fields and
// truncated input, on hand-built index files.
#include "MbdbUtil.h"

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <QBuffer>
#include <QDataStream>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

namespace {

// Builds index bytes field by field, big-endian.
class Writer {
public:
    Writer& header(const QByteArray& signature = "mbdb") {
        bytes += signature + QByteArray("\x05\x00", 2);
        return *this;
    }
    Writer& field(const QByteArray& value) { return u16(quint16(value.size())).raw(value); }
    Writer& empty() { return u16(0xFFFF); }
    Writer& u8(quint8 v) { return raw(QByteArray(1, char(v))); }
    Writer& u16(quint16 v) { return number(v); }
    Writer& u32(quint32 v) { return number(v); }
    Writer& u64(quint64 v) { return number(v); }
    Writer& raw(const QByteArray& b) {
        bytes += b;
        return *this;
    }
    QByteArray bytes;

private:
    template <typename T> Writer& number(T v) {
        for (int shift = int(sizeof(T)) * 8 - 8; shift >= 0; shift -= 8)
            bytes += char((v >> shift) & 0xFF);
        return *this;
    }
};

// The fixed-width part of a record: mode up to the property count.
Writer& fixedFields(Writer& w, quint16 mode, qint64 size, quint8 propertyCount) {
    return w.u16(mode)
        .u64(0x0102030405060708ULL)
        .u32(501)
        .u32(quint32(-20))
        .u32(1300000000)
        .u32(1300000001)
        .u32(quint32(-1))
        .u64(quint64(size))
        .u8(3)
        .u8(propertyCount);
}

QString sha1Hex(const QByteArray& text) {
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(text.constData()), size_t(text.size()), digest);
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(digest), SHA_DIGEST_LENGTH).toHex());
}

struct ToolRun {
    int code = -1;
    QByteArray out;
    QByteArray err;
};

// Runs utils-inspect with args; code -1 when it could not be run or did not finish.
ToolRun runTool(const QStringList& args) {
    ToolRun run;
    QProcess process;
    process.start(QString(UTILS_TOOL_PATH), args);
    if (!process.waitForFinished(60000)) return run;
    run.code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

class MbdbTest : public ::testing::Test {
protected:
    QString write(const QByteArray& bytes) {
        const QString path = dir.filePath(QString("index%1.mbdb").arg(++count));
        QFile f(path);
        EXPECT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(bytes);
        return path;
    }
    QList<QSharedPointer<MbdbRecord>> load(const QByteArray& bytes) {
        EXPECT_TRUE(util.loadDb(write(bytes)));
        return util.fetchRecords();
    }
    QTemporaryDir dir;
    MbdbUtil util;
    int count = 0;
};

} // namespace

TEST_F(MbdbTest, HeaderChecks) {
    EXPECT_TRUE(util.loadDb(write(Writer().header().bytes)));
    EXPECT_TRUE(util.fetchRecords().isEmpty());
    EXPECT_TRUE(util.parseHeader());
    EXPECT_TRUE(util.seek(6));

    EXPECT_FALSE(util.loadDb(write(Writer().header("MBDB").bytes)));
    EXPECT_FALSE(util.loadDb(write("mb")));
    EXPECT_FALSE(util.loadDb(write(QByteArray())));
    EXPECT_FALSE(util.loadDb(dir.filePath("missing.mbdb")));
    EXPECT_FALSE(util.loadDb(dir.path()));

    // The version bytes are not examined.
    EXPECT_TRUE(util.loadDb(write(QByteArray("mbdb\xff\xff", 6))));

    MbdbUtil fresh; // nothing loaded: no stream, nothing to read
    EXPECT_FALSE(fresh.parseHeader());
    EXPECT_FALSE(fresh.seek(0));
    EXPECT_TRUE(fresh.fetchRecords().isEmpty());
    EXPECT_TRUE(fresh.readString().isEmpty());
    EXPECT_TRUE(fresh.readData().isEmpty());
}

TEST_F(MbdbTest, ReadsEveryFieldOfARecord) {
    Writer w;
    w.header()
        .field("HomeDomain")
        .field("Library/Preferences/x.plist")
        .field("../target")
        .field(QByteArray(20, '\x11'))
        .field(QByteArray("\x00\x00\x00\x02", 4) + QByteArray(40, '\x22'));
    fixedFields(w, 0100644, 123, 3)
        .field("com.example.a")
        .field("first")
        .field("zero")
        .field(QByteArray("be\0fore", 7))
        .field("com.example.a")
        .field("last");
    const auto records = load(w.bytes);
    ASSERT_EQ(records.size(), 1);
    const MbdbRecord& r = *records.first();
    EXPECT_EQ(r.domain, QString("HomeDomain"));
    EXPECT_EQ(r.path, QString("Library/Preferences/x.plist"));
    EXPECT_EQ(r.linkTarget, QString("../target"));
    EXPECT_EQ(r.dataHash, QByteArray(20, '\x11'));
    EXPECT_EQ(r.encryptionKey, QByteArray(40, '\x22'));
    EXPECT_EQ(r.fileId, sha1Hex("HomeDomain-Library/Preferences/x.plist"));
    EXPECT_EQ(r.fileId, QString("1716f8954804ed65ce49136002f8ece136feea57"));
    EXPECT_EQ(r.mode, 0100644);
    EXPECT_EQ(r.inode, 0x0102030405060708ULL);
    EXPECT_EQ(r.userId, 501);
    EXPECT_EQ(r.groupId, -20);
    EXPECT_EQ(r.lastModified, 1300000000);
    EXPECT_EQ(r.lastAccessed, 1300000001);
    EXPECT_EQ(r.created, -1);
    EXPECT_EQ(r.size, 123);
    EXPECT_EQ(r.type, 1);
    EXPECT_EQ(r.protectionClass, 3);
    EXPECT_EQ(r.propertyCount, 3);
    // A repeated name keeps the last value; a value ends at its first zero byte.
    EXPECT_EQ(r.properties, (QMap<QString, QString>{{"com.example.a", "last"}, {"zero", "be"}}));

    // A second fetch without a new load finds the stream at its end.
    EXPECT_TRUE(util.fetchRecords().isEmpty());
    EXPECT_TRUE(util.seek(6));
    EXPECT_EQ(util.fetchRecords().size(), 1);
}

TEST_F(MbdbTest, EmptyMarkersAndDerivedFields) {
    Writer w;
    w.header();
    // Path empty, link target by marker, key of 3 bytes, size 0.
    w.field("AppDomain-com.example").field("").empty().empty().field("abc");
    fixedFields(w, 040755, 0, 0);
    // Link target of length 0, a name with a zero byte, UTF-8 text, size 1.
    w.field("CameraRollDomain").field("Media/DCIM/\xc3\xa9t\xc3\xa9.jpg").field("").field("").empty();
    fixedFields(w, 0100600, 1, 1).empty().empty();
    w.field(QByteArray("Home\0Junk", 9)).field("a").field("").field("").empty();
    fixedFields(w, 0100600, -5, 0);

    const auto records = load(w.bytes);
    ASSERT_EQ(records.size(), 3);
    const MbdbRecord& dirEntry = *records.at(0);
    EXPECT_TRUE(dirEntry.fileId.isEmpty());
    EXPECT_TRUE(dirEntry.linkTarget.isEmpty());
    EXPECT_TRUE(dirEntry.dataHash.isEmpty());
    EXPECT_TRUE(dirEntry.encryptionKey.isEmpty());
    EXPECT_EQ(dirEntry.type, 2);

    const MbdbRecord& photo = *records.at(1);
    EXPECT_EQ(photo.path, QString::fromUtf8("Media/DCIM/été.jpg"));
    EXPECT_TRUE(photo.linkTarget.isEmpty());
    EXPECT_EQ(photo.fileId, sha1Hex("CameraRollDomain-Media/DCIM/\xc3\xa9t\xc3\xa9.jpg"));
    EXPECT_EQ(photo.type, 1);
    EXPECT_EQ(photo.properties, (QMap<QString, QString>{{"", ""}}));

    const MbdbRecord& cut = *records.at(2);
    EXPECT_EQ(cut.domain, QString("Home"));
    EXPECT_EQ(cut.fileId, sha1Hex("Home-a"));
    EXPECT_EQ(cut.size, -5);
    EXPECT_EQ(cut.type, 1);
}

TEST_F(MbdbTest, TruncatedRecordsComeBackWithZeros) {
    Writer w;
    w.header().field("HomeDomain").field("Library/x").empty().field(QByteArray(20, 'h')).empty();
    fixedFields(w, 0100644, 9, 2).field("name");
    w.bytes += QByteArray("\x00\x10sh", 4); // value announces 16 bytes, 2 arrive
    auto records = load(w.bytes);
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records.first()->size, 9);
    // The second pair lies wholly past the end: it reads as an empty name and value.
    EXPECT_EQ(records.first()->properties, (QMap<QString, QString>{{"name", ""}, {"", ""}}));

    // Cut inside the fixed fields: what is missing reads as zero.
    Writer shortRecord;
    shortRecord.header().field("D").field("p").empty().empty().empty().u16(0100644).u32(0);
    records = load(shortRecord.bytes);
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records.first()->mode, 0100644);
    EXPECT_EQ(records.first()->inode, 0u);
    EXPECT_EQ(records.first()->size, 0);
    EXPECT_EQ(records.first()->type, 2);
    EXPECT_EQ(records.first()->fileId, sha1Hex("D-p"));

    // A length beyond the file, even the largest one, reads what is there.
    records = load(Writer().header().u16(0xFFFE).raw("xyz").bytes);
    ASSERT_EQ(records.size(), 1);
    EXPECT_TRUE(records.first()->domain.isEmpty());

    QByteArray small("abcdef");
    QBuffer buffer(&small);
    ASSERT_TRUE(buffer.open(QIODevice::ReadOnly));
    QDataStream stream(&buffer);
    EXPECT_EQ(MbdbUtil::readBytes(&stream, 4), QByteArray("abcd"));
    EXPECT_EQ(MbdbUtil::readBytes(&stream, 0xFFFFFFFFUL), QByteArray("ef"));
    EXPECT_EQ(MbdbUtil::readBytes(&stream, 10), QByteArray());
    EXPECT_EQ(MbdbUtil::readBytes(nullptr, 10), QByteArray());
}

TEST_F(MbdbTest, InspectToolListsRecords) {
    if (QString(UTILS_TOOL_PATH).isEmpty()) GTEST_SKIP() << "utils-inspect not built";
    Writer w;
    w.header().field("HomeDomain").field("Library/Preferences/x.plist").empty().empty().empty();
    fixedFields(w, 0100644, 123, 1).field("k").field("v");
    w.field("HomeDomain").field("Library").empty().empty().empty();
    fixedFields(w, 040755, 0, 0);
    const QString path = write(w.bytes);

    ToolRun run = runTool({"mbdb", path});
    ASSERT_EQ(run.code, 0) << run.err.toStdString();
    const QList<QByteArray> lines = run.out.trimmed().split('\n');
    ASSERT_EQ(lines.size(), 2);
    EXPECT_TRUE(lines.at(0).startsWith("1716f8954804ed65ce49136002f8ece136feea57"));
    EXPECT_TRUE(lines.at(0).endsWith("HomeDomain\tLibrary/Preferences/x.plist"));
    EXPECT_TRUE(lines.at(1).contains("040755"));

    run = runTool({"mbdb", "--json", path});
    ASSERT_EQ(run.code, 0);
    const QJsonArray records = QJsonDocument::fromJson(run.out).array();
    ASSERT_EQ(records.size(), 2);
    const QJsonObject first = records.at(0).toObject();
    EXPECT_EQ(first.value("fileId"), QJsonValue(sha1Hex("HomeDomain-Library/Preferences/x.plist")));
    EXPECT_EQ(first.value("size"), QJsonValue(123));
    EXPECT_EQ(first.value("mode"), QJsonValue(0100644));
    EXPECT_EQ(first.value("lastModified"), QJsonValue(1300000000));
    EXPECT_EQ(first.value("properties"), QJsonValue(QJsonObject{{"k", "v"}}));
    EXPECT_EQ(records.at(1).toObject().value("type"), QJsonValue(2));

    run = runTool({"mbdb", write(Writer().header("MBDB").bytes)});
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.err.count('\n'), 1);
    EXPECT_TRUE(run.out.isEmpty());
}
