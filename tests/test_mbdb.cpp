// Legacy backup index, on hand-built index files.
#include "MbdbUtil.h"
#include "TestSupport.h"

#include <openssl/sha.h>

#include <initializer_list>

#include <sys/stat.h>

namespace {

const QByteArray kEmpty; // a null array stands for the 0xFFFF empty marker in Writer::fields

// Index bytes, field by field, big-endian.
struct Writer {
    QByteArray bytes = QByteArray("mbdb\x05\x00", 6);
    Writer& fields(std::initializer_list<QByteArray> values) {
        for (const QByteArray& v : values)
            v.isNull() ? number(0xFFFF, 2) : number(quint16(v.size()), 2).raw(v);
        return *this;
    }
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
        number(mode, 2).number(0x0102030405060708ULL, 8).number(501, 4).number(quint32(-20), 4);
        number(1300000000, 4).number(1300000001, 4).number(quint32(-1), 4).number(quint64(size), 8);
        return number(3, 1).number(properties, 1);
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
        return writeFile(dir, QString("index%1.mbdb").arg(++count), bytes);
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
    EXPECT_TRUE(load(Writer().bytes).isEmpty());
    EXPECT_TRUE(util.loadDb(write(QByteArray("mbdb\xff\xff", 6)))); // version bytes not examined
    for (const QString& bad : {write("MBDB\x05"), write("mb"), dir.filePath("missing.mbdb"), dir.path()})
        EXPECT_FALSE(util.loadDb(bad)) << bad.toStdString();
    // A pipe cannot seek: the signature is read from where it stands.
    const QString pipe = dir.filePath("pipe");
    ASSERT_EQ(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
    std::thread writer([&] {
        QFile f(pipe);
        if (f.open(QIODevice::WriteOnly)) f.write("mbdb\x05\x00", 6);
    });
    EXPECT_TRUE(util.loadDb(pipe));
    writer.join();

    MbdbUtil fresh; // nothing loaded: no stream, nothing to read
    EXPECT_FALSE(fresh.parseHeader());
    EXPECT_TRUE(fresh.fetchRecords().isEmpty());
    EXPECT_TRUE(fresh.readString().isEmpty());
}

TEST_F(Mbdb, ReadsEveryFieldAndTheMarkers) {
    Writer w;
    w.fields({"HomeDomain", "Library/Preferences/x.plist", "../target", QByteArray(20, '\x11'),
              QByteArray(4, '\x01') + QByteArray(40, '\x22')});
    w.fixed(0100644, 123, 3).fields({"com.example.a", "first", "zero", QByteArray("be\0fore", 7)});
    w.fields({"com.example.a", "last"});
    // Empty path, link target by marker, a 3-byte key, size 0.
    w.fields({"AppDomain-com.example", "", kEmpty, kEmpty, "abc"}).fixed(040755, 0, 0);
    // A zero-length link target, UTF-8 text, a domain with a zero byte, a negative size.
    w.fields({QByteArray("Camera\0Junk", 11), "DCIM/\xc3\xa9t\xc3\xa9.jpg", "", "", kEmpty});
    w.fixed(0100600, -5, 1).fields({kEmpty, kEmpty});

    const auto records = load(w.bytes);
    ASSERT_EQ(records.size(), 3);
    const MbdbRecord& r = *records.at(0);
    EXPECT_EQ(QStringList({r.domain, r.path, r.linkTarget}),
              QStringList({"HomeDomain", "Library/Preferences/x.plist", "../target"}));
    EXPECT_EQ(r.dataHash, QByteArray(20, '\x11'));
    EXPECT_EQ(r.encryptionKey, QByteArray(40, '\x22'));
    EXPECT_EQ(r.fileId, sha1Hex("HomeDomain-Library/Preferences/x.plist"));
    EXPECT_EQ(
        QList<qint64>({r.mode, qint64(r.inode), r.userId, r.groupId, r.lastModified, r.lastAccessed,
                       r.created, r.size, r.type, r.protectionClass, r.propertyCount}),
        QList<qint64>({0100644, 0x0102030405060708LL, 501, -20, 1300000000, 1300000001, -1, 123, 1, 3, 3}));
    EXPECT_EQ(r.properties, (QMap<QString, QString>{{"com.example.a", "last"}, {"zero", "be"}}));

    const MbdbRecord& folder = *records.at(1);
    EXPECT_TRUE(folder.fileId.isEmpty() && folder.linkTarget.isEmpty());
    EXPECT_TRUE(folder.dataHash.isEmpty() && folder.encryptionKey.isEmpty());
    EXPECT_EQ(folder.type, 2);

    const MbdbRecord& photo = *records.at(2);
    EXPECT_EQ(QStringList({photo.domain, photo.path}),
              QStringList({"Camera", QString::fromUtf8("DCIM/été.jpg")}));
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
    w.fields({"HomeDomain", "Library/x", kEmpty, kEmpty, kEmpty}).fixed(0100644, 9, 2).fields({"name"});
    auto records = load(w.raw(QByteArray("\x00\x10sh", 4)).bytes);
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records.first()->size, 9);
    EXPECT_EQ(records.first()->properties, (QMap<QString, QString>{{"name", ""}, {"", ""}}));

    // Cut inside the fixed fields; and a length beyond the file, even the largest one.
    records = load(Writer().fields({"D", "p", kEmpty, kEmpty, kEmpty}).number(0100644, 2).bytes);
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(QList<qint64>({records.first()->mode, records.first()->size, records.first()->type}),
              QList<qint64>({0100644, 0, 2}));
    records = load(Writer().number(0xFFFE, 2).raw("xyz").bytes);
    ASSERT_EQ(records.size(), 1);
    EXPECT_TRUE(records.first()->domain.isEmpty());
}
