// Legacy backup index: header checks, every record field, empty markers, derived fields,
// truncated input and the mbdb subcommand, on hand-built index files.
#include "MbdbUtil.h"

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <utility>

namespace {

// Index bytes, field by field, big-endian.
struct Writer {
    QByteArray bytes;
    Writer& header(const QByteArray& signature = "mbdb") {
        return raw(signature + QByteArray("\x05\x00", 2));
    }
    Writer& field(const QByteArray& value) { return number(quint16(value.size()), 2).raw(value); }
    Writer& empty() { return number(0xFFFF, 2); }
    Writer& number(quint64 v, int width) {
        for (int shift = width * 8 - 8; shift >= 0; shift -= 8)
            bytes += char((v >> shift) & 0xFF);
        return *this;
    }
    Writer& raw(const QByteArray& b) {
        bytes += b;
        return *this;
    }
    // mode, inode, user, group, three times, size, protection class, property count
    Writer& fixed(quint16 mode, qint64 size, quint8 properties) {
        const std::pair<quint64, int> fields[] = {{mode, 2},        {0x0102030405060708ULL, 8},
                                                  {501, 4},         {quint32(-20), 4},
                                                  {1300000000, 4},  {1300000001, 4},
                                                  {quint32(-1), 4}, {quint64(size), 8},
                                                  {3, 1},           {properties, 1}};
        for (const auto& f : fields)
            number(f.first, f.second);
        return *this;
    }
};

// The file id computed independently of the library.
QString sha1Hex(const QByteArray& text) {
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(text.constData()), size_t(text.size()), digest);
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(digest), SHA_DIGEST_LENGTH).toHex());
}

class Mbdb : public ::testing::Test {
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

TEST_F(Mbdb, HeaderChecks) {
    EXPECT_TRUE(load(Writer().header().bytes).isEmpty());
    EXPECT_TRUE(util.loadDb(write(QByteArray("mbdb\xff\xff", 6)))); // version bytes not examined
    EXPECT_FALSE(util.loadDb(write(Writer().header("MBDB").bytes)));
    EXPECT_FALSE(util.loadDb(write("mb")));
    EXPECT_FALSE(util.loadDb(dir.filePath("missing.mbdb")));
    EXPECT_FALSE(util.loadDb(dir.path()));

    MbdbUtil fresh; // nothing loaded: no stream, nothing to read
    EXPECT_FALSE(fresh.parseHeader());
    EXPECT_TRUE(fresh.fetchRecords().isEmpty());
    EXPECT_TRUE(fresh.readString().isEmpty());
}

TEST_F(Mbdb, ReadsEveryFieldAndTheMarkers) {
    Writer w;
    w.header()
        .field("HomeDomain")
        .field("Library/Preferences/x.plist")
        .field("../target")
        .field(QByteArray(20, '\x11'))
        .field(QByteArray(4, '\x01') + QByteArray(40, '\x22'))
        .fixed(0100644, 123, 3)
        .field("com.example.a")
        .field("first")
        .field("zero")
        .field(QByteArray("be\0fore", 7))
        .field("com.example.a")
        .field("last");
    // Empty path, link target by marker, a 3-byte key, size 0.
    w.field("AppDomain-com.example").field("").empty().empty().field("abc").fixed(040755, 0, 0);
    // A zero-length link target, UTF-8 text, a domain with a zero byte, a negative size.
    w.field(QByteArray("Camera\0Junk", 11)).field("DCIM/\xc3\xa9t\xc3\xa9.jpg").field("").field("").empty();
    w.fixed(0100600, -5, 1).empty().empty();

    const auto records = load(w.bytes);
    ASSERT_EQ(records.size(), 3);
    const MbdbRecord& r = *records.at(0);
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
    EXPECT_EQ(r.properties, (QMap<QString, QString>{{"com.example.a", "last"}, {"zero", "be"}}));

    const MbdbRecord& folder = *records.at(1);
    EXPECT_TRUE(folder.fileId.isEmpty());
    EXPECT_TRUE(folder.linkTarget.isEmpty());
    EXPECT_TRUE(folder.dataHash.isEmpty());
    EXPECT_TRUE(folder.encryptionKey.isEmpty());
    EXPECT_EQ(folder.type, 2);

    const MbdbRecord& photo = *records.at(2);
    EXPECT_EQ(photo.domain, QString("Camera"));
    EXPECT_EQ(photo.path, QString::fromUtf8("DCIM/été.jpg"));
    EXPECT_EQ(photo.fileId, sha1Hex("Camera-DCIM/\xc3\xa9t\xc3\xa9.jpg"));
    EXPECT_EQ(photo.type, 1);
    EXPECT_EQ(photo.properties, (QMap<QString, QString>{{"", ""}}));

    EXPECT_TRUE(util.fetchRecords().isEmpty()); // the stream is at its end
    EXPECT_TRUE(util.seek(6));
    EXPECT_FALSE(util.loadDb(dir.filePath("missing"))); // leaves the stream as it was
    EXPECT_EQ(util.fetchRecords().size(), 3);
}

TEST_F(Mbdb, TruncatedRecordsComeBackWithZeros) {
    // Cut inside the properties: a value announcing 16 bytes gets 2, the second pair is missing.
    Writer w;
    w.header()
        .field("HomeDomain")
        .field("Library/x")
        .empty()
        .empty()
        .empty()
        .fixed(0100644, 9, 2)
        .field("name");
    auto records = load(w.raw(QByteArray("\x00\x10sh", 4)).bytes);
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records.first()->size, 9);
    EXPECT_EQ(records.first()->properties, (QMap<QString, QString>{{"name", ""}, {"", ""}}));

    // Cut inside the fixed fields; and a length beyond the file, even the largest one.
    records = load(Writer().header().field("D").field("p").empty().empty().empty().number(0100644, 2).bytes);
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records.first()->mode, 0100644);
    EXPECT_EQ(records.first()->size, 0);
    EXPECT_EQ(records.first()->type, 2);
    EXPECT_EQ(records.first()->fileId, sha1Hex("D-p"));
    records = load(Writer().header().number(0xFFFE, 2).raw("xyz").bytes);
    ASSERT_EQ(records.size(), 1);
    EXPECT_TRUE(records.first()->domain.isEmpty());

    EXPECT_EQ(MbdbUtil::readBytes(nullptr, 10), QByteArray());
}

TEST_F(Mbdb, InspectToolListsRecords) {
    if (QString(UTILS_TOOL_PATH).isEmpty()) GTEST_SKIP() << "utils-inspect not built";
    Writer w;
    w.header()
        .field("HomeDomain")
        .field("Library/Preferences/x.plist")
        .empty()
        .empty()
        .empty()
        .fixed(0100644, 123, 1);
    const QString path = write(w.field("k").field("v").bytes);
    auto run = [](const QStringList& args, int code) {
        QProcess tool;
        tool.start(QString(UTILS_TOOL_PATH), args);
        EXPECT_TRUE(tool.waitForFinished(60000));
        EXPECT_EQ(tool.exitCode(), code);
        return tool.readAllStandardOutput();
    };
    EXPECT_TRUE(run({"mbdb", path}, 0).startsWith("1716f8954804ed65ce49136002f8ece136feea57\t100644\t123\t"));
    const QJsonObject record =
        QJsonDocument::fromJson(run({"mbdb", "--json", path}, 0)).array().at(0).toObject();
    EXPECT_EQ(record.value("path"), QJsonValue("Library/Preferences/x.plist"));
    EXPECT_EQ(record.value("lastModified"), QJsonValue(1300000000));
    EXPECT_EQ(record.value("properties"), QJsonValue(QJsonObject{{"k", "v"}}));
    EXPECT_TRUE(run({"mbdb", write(Writer().header("MBDB").bytes)}, 1).isEmpty());
}
