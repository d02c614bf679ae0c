#include "MMKVParser.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <random>

namespace {

QByteArray bytes(std::initializer_list<int> list) {
    QByteArray b;
    for (int v : list)
        b.append(char(v));
    return b;
}

// A store as written to disk: content length, a varint, then key and value fields.
QByteArray store(const QList<QPair<QByteArray, QByteArray>>& entries, const QByteArray& header = "\x05") {
    QByteArray b = bytes({0x20, 0, 0, 0}) + header;
    for (const auto& e : entries)
        b += char(e.first.size()) + e.first + char(e.second.size()) + e.second;
    return b;
}

MMKVParser fromData(const QByteArray& data) {
    MMKVParser p(QString{}); // no file: starts empty
    p.loadFromData(data);
    return p;
}

} // namespace

TEST(MMKVReaders, VarintAndLengthBoundaries) {
    int v = 7;
    const QByteArray one = bytes({0x80});
    EXPECT_EQ(MMKVParser::readVarint32(one.constData(), one.constData(), &v), one.constData());
    EXPECT_EQ(v, 0);
    EXPECT_EQ(MMKVParser::readVarint32(one.constData(), one.constData() + 1, &v), one.constData() + 1);
    EXPECT_EQ(v, 0);

    const QByteArray minusOne10 = QByteArray(9, char(0xff)) + char(0x01);
    EXPECT_EQ(MMKVParser::readVarint32(minusOne10.constData(), minusOne10.constData() + 10, &v),
              minusOne10.constData() + 5); // stops after five bytes
    EXPECT_EQ(v, -1);
    const QByteArray fifth = bytes({0x80, 0x80, 0x80, 0x80, 0x7f}); // only the low 4 bits of byte 5
    MMKVParser::readVarint32(fifth.constData(), fifth.constData() + 5, &v);
    EXPECT_EQ(v, int(0xf0000000u));
    const QByteArray cut = bytes({0x96}); // ends at the buffer with the bits read so far
    MMKVParser::readVarint32(cut.constData(), cut.constData() + 1, &v);
    EXPECT_EQ(v, 0x16);

    QString s = "x";
    const QByteArray longLen = bytes({0x09, 'h', 'e', 'l', 'l', 'o'});
    EXPECT_EQ(MMKVParser::readString(longLen.constData(), longLen.constData() + 6, &s),
              longLen.constData() + 1);
    EXPECT_TRUE(s.isEmpty());
    const QByteArray negative = bytes({0xff, 0xff, 0xff, 0xff, 0x0f, 'a'});
    QByteArray d = "x";
    EXPECT_EQ(MMKVParser::readData(negative.constData(), negative.constData() + 6, &d),
              negative.constData() + 5);
    EXPECT_TRUE(d.isNull());
    const QByteArray good = bytes({0x02, 'o', 'k', 'z'});
    EXPECT_EQ(MMKVParser::readData(good.constData(), good.constData() + 4, &d), good.constData() + 3);
    EXPECT_EQ(d, QByteArray("ok"));
}

TEST(MMKVParser, EntriesAndTypedGetters) {
    MMKVParser p = fromData(store({{"uid", bytes({0x96, 0x01})},
                                   {"neg", bytes({0xff, 0xff, 0xff, 0xff, 0x0f})},
                                   {"neg10", QByteArray(9, char(0xff)) + char(0x01)},
                                   {"name", bytes({0x05, 'h', 'e', 'l', 'l', 'o'})},
                                   {"bad", bytes({0x09, 'h', 'e', 'l', 'l', 'o'})},
                                   {"empty", QByteArray()},
                                   {"uid", bytes({0x07})}}) +
                            QByteArray(16, '\0') + store({{"late", "x"}}).mid(5));
    EXPECT_EQ(p.m_entries.keys(), QStringList({"bad", "empty", "name", "neg", "neg10", "uid"}));
    EXPECT_EQ(p.getInt("uid"), 7); // the last occurrence wins
    EXPECT_EQ(p.getInt("neg"), -1);
    EXPECT_EQ(p.getInt("neg10"), -1);
    EXPECT_EQ(p.getString("name"), "hello");
    EXPECT_EQ(p.getString("bad"), "");
    EXPECT_TRUE(p.m_entries.contains("empty"));
    EXPECT_EQ(p.getInt("empty"), 0);
    EXPECT_EQ(p.getInt("missing"), 0);
    EXPECT_EQ(p.getString("missing"), "");

    // The single entry of the documented example, behind a two-byte header varint.
    MMKVParser q = fromData(store({{"uid", bytes({0x96, 0x01})}}, bytes({0x80, 0x01})));
    EXPECT_EQ(q.m_entries.value("uid"), bytes({0x96, 0x01}));
    EXPECT_EQ(q.getInt("uid"), 150);
    // A five-byte header varint whose last byte still has its high bit set.
    EXPECT_EQ(fromData(store({{"k", "v"}}, QByteArray(5, char(0xff)))).m_entries.value("k"), QByteArray("v"));
}

TEST(MMKVParser, BadLengthsMergingAndFiles) {
    // A value length past the data keeps the key with an empty value and reads on after the length.
    MMKVParser p = fromData(bytes({0, 0, 0, 0, 0, 0x01, 'a', 0x10, 0x01, 'b', 0x01, 0x07}));
    EXPECT_EQ(p.m_entries.size(), 2);
    EXPECT_TRUE(p.m_entries.value("a").isEmpty());
    EXPECT_EQ(p.getInt("b"), 7);
    // Loading again merges; later values win.
    p.loadFromData(store({{"b", bytes({0x08})}, {"c", bytes({0x01})}}));
    EXPECT_EQ(p.m_entries.size(), 3);
    EXPECT_EQ(p.getInt("b"), 8);

    EXPECT_TRUE(fromData(bytes({1, 2, 3, 4})).m_entries.isEmpty());
    QTemporaryDir dir;
    EXPECT_TRUE(MMKVParser(dir.filePath("missing")).m_entries.isEmpty());
    QFile f(dir.filePath("store"));
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(store({{"uid", bytes({0x96, 0x01})}}) + QByteArray(4096 - 13, '\0'));
    f.close();
    EXPECT_EQ(MMKVParser(f.fileName()).getInt("uid"), 150);
}

TEST(MMKVParser, MalformedBytesNeverReadOutOfBounds) {
    std::mt19937 rng(42);
    for (int round = 0; round < 3000; ++round) {
        // Exact-size heap copies so that ASan sees any read past the end.
        QByteArray data(int(rng() % 40), Qt::Uninitialized);
        for (char& c : data)
            c = char(rng() % 4 == 0 ? 0xff : rng() % 8);
        MMKVParser p = fromData(data);
        for (auto it = p.m_entries.cbegin(); it != p.m_entries.cend(); ++it) {
            p.getInt(it.key());
            p.getString(it.key());
        }
    }
}
