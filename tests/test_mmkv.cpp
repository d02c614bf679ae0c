#include "MMKVParser.h"

#include "TestSupport.h"

namespace {
QByteArray hex(const char* text) {
    return QByteArray::fromHex(text);
}
MMKVParser parse(const QByteArray& data) {
    MMKVParser p{QString()}; // no file: starts empty
    p.loadFromData(data);
    return p;
}
std::pair<int, int> varint(const char* text) { // the value and the bytes consumed
    const QByteArray b = hex(text);
    int v = 7;
    const int length =
        int(MMKVParser::readVarint32(b.constData(), b.constData() + b.size(), &v) - b.constData());
    return {v, length};
}
} // namespace

TEST(MMKVParser, VarintReader) {
    EXPECT_EQ(varint(""), std::make_pair(0, 0));
    EXPECT_EQ(varint("80"), std::make_pair(0, 1));
    EXPECT_EQ(varint("ffffffffffffffffff01"), std::make_pair(-1, 5)); // sign-extended: only five bytes read
    EXPECT_EQ(varint("808080807f"), std::make_pair(int(0xf0000000u), 5)); // low four bits of the fifth byte
    EXPECT_EQ(varint("96"), std::make_pair(0x16, 1));                     // cut by the end: the bits so far
}

TEST(MMKVParser, EntriesAndGetters) {
    // Header, then uid=96 01, neg=-1 (5 bytes), name="hello", bad=length past data, empty, uid again,
    // zero padding and an entry behind it that must not be read.
    MMKVParser p = parse(hex("20000000 05 03756964029601 036e656705ffffffff0f 046e616d6506 0568656c6c6f"
                             "0362616406 0968656c6c6f 05656d70747900 0375696401 07 0000 016b0176"));
    EXPECT_EQ(p.m_entries.keys(), QStringList({"bad", "empty", "name", "neg", "uid"}));
    EXPECT_EQ(p.getInt("uid"), 7); // last occurrence wins
    EXPECT_EQ(p.getInt("neg"), -1);
    EXPECT_EQ(p.getString("name"), "hello");
    EXPECT_EQ(p.getString("bad"), "");
    EXPECT_TRUE(p.m_entries.value("empty").isEmpty());
    EXPECT_EQ(p.getInt("empty") + p.getInt("missing"), 0);
    EXPECT_TRUE(p.getString("missing").isEmpty());

    // A five-byte header varint; a value length past the data keeps the key empty and reads on.
    MMKVParser q = parse(hex("00000000 ffffffffff 0161 10 0162 0107"));
    EXPECT_EQ(q.m_entries, (QMap<QString, QByteArray>{{"a", ""}, {"b", "\x07"}}));
    q.loadFromData(hex("00000000 8001 0162029601 016301 01")); // loading again merges
    EXPECT_EQ(q.m_entries.size(), 3);
    EXPECT_EQ(q.getInt("b"), 150);

    EXPECT_TRUE(parse(hex("01020304")).m_entries.isEmpty());
    QTemporaryDir dir;
    EXPECT_TRUE(MMKVParser(dir.filePath("missing")).m_entries.isEmpty());
}
