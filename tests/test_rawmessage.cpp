#include "RawMessage.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/unknown_field_set.h>
#include <google/protobuf/wire_format_lite.h>

#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>

using google::protobuf::UnknownFieldSet;
using google::protobuf::io::CodedOutputStream;
using google::protobuf::io::StringOutputStream;
using WFL = google::protobuf::internal::WireFormatLite;

namespace {

std::string encode(const std::function<void(CodedOutputStream*)>& write) {
    std::string bytes;
    {
        StringOutputStream stream(&bytes);
        CodedOutputStream out(&stream);
        write(&out);
    }
    return bytes;
}

bool load(RawMessage& m, const std::string& bytes) {
    return m.merge(bytes.data(), int(bytes.size()));
}

} // namespace

TEST(RawMessage, ScalarsAndConversions) {
    // Every scalar wire type, a negative int32 as a ten-byte varint, a ZigZag field and a repeat.
    const std::string bytes = encode([](CodedOutputStream* o) {
        WFL::WriteUInt32(1, 150, o);
        WFL::WriteInt32(2, -5, o);
        WFL::WriteSInt32(3, -1, o);
        WFL::WriteFixed32(4, 0xffffffffu, o);
        WFL::WriteFixed64(5, 0x100000002ull, o);
        WFL::WriteUInt32(6, 1, o);
        WFL::WriteUInt32(6, 2, o);
        WFL::WriteString(7, std::string("A\0B", 3), o);
    });
    RawMessage m;
    ASSERT_TRUE(load(m, bytes));
    EXPECT_EQ(m.parseInt("1", -1), 150);
    EXPECT_EQ(m.parseStr("1", "d"), "150");
    EXPECT_EQ(m.parseInt("8", -1), -1);
    EXPECT_EQ(m.parseInt("2", 0), -5);
    EXPECT_EQ(m.parseInt64("2", 0), -5);
    EXPECT_EQ(m.parseStr("2", ""), "18446744073709551611");
    EXPECT_EQ(m.parseInt("3", 0), 1); // no ZigZag decoding
    EXPECT_EQ(m.parseInt("4", 0), -1);
    EXPECT_EQ(m.parseInt64("4", 0), 4294967295LL);
    EXPECT_EQ(m.parseStr("4", ""), "4294967295");
    EXPECT_EQ(m.parseInt("5", 0), 2);
    EXPECT_EQ(m.parseInt64("5", 0), 0x100000002LL);
    EXPECT_EQ(m.parseInt("6", 0), 1);    // first occurrence
    EXPECT_EQ(m.parseStr("7", ""), "A"); // text ends at the zero byte
    EXPECT_EQ(m.parseInt("7", 9), 9);
    EXPECT_EQ(m.parseInt64("7", -3), -3);
    EXPECT_EQ(m.parseInt("1.1", 0), 150); // a scalar keeps the lookup in the same set

    UnknownFieldSet set;
    set.AddFixed64(1, ~0ull);
    set.AddGroup(2);
    std::string text;
    int i32 = 0;
    long long i64 = 0;
    EXPECT_TRUE(convertUnknownField(set.field(0), text) && convertUnknownField(set.field(0), i32) &&
                convertUnknownField(set.field(0), i64));
    EXPECT_EQ(text, "18446744073709551615");
    EXPECT_EQ(i32, -1);
    EXPECT_EQ(i64, -1);
    EXPECT_FALSE(convertUnknownField(set.field(1), text) || convertUnknownField(set.field(1), i32) ||
                 convertUnknownField(set.field(1), i64));
}

TEST(RawMessage, NestedMessagesGroupsAndDescentQuirks) {
    const std::string inner = encode([](CodedOutputStream* o) { WFL::WriteUInt32(1, 150, o); });
    const std::string bytes = encode([&](CodedOutputStream* o) {
        WFL::WriteUInt32(1, 7, o);
        WFL::WriteBytes(2, inner, o);
        WFL::WriteString(3, "AB", o);
        WFL::WriteTag(4, WFL::WIRETYPE_START_GROUP, o);
        WFL::WriteUInt32(9, 42, o);
        WFL::WriteBytes(10, "", o);
        WFL::WriteTag(4, WFL::WIRETYPE_END_GROUP, o);
    });
    RawMessage m;
    ASSERT_TRUE(load(m, bytes));
    EXPECT_EQ(m.parseInt("2.1", 0), 150);
    EXPECT_EQ(m.parseStr("2", ""), QString::fromUtf8(inner.c_str()));
    EXPECT_EQ(m.parseStr("3", ""), "AB");
    // "AB" is not a message: field 1 is then looked up beside field 3, and found there.
    EXPECT_EQ(m.parseInt("3.1", 0), 7);
    EXPECT_EQ(m.parseInt("3.5", -2), -2);
    EXPECT_EQ(m.parseInt("4.9", 0), 42);
    EXPECT_EQ(m.parseStr("4", "d"), "d");
    EXPECT_EQ(m.parseInt("4.10.1", -4), -4); // an empty nested message has no fields
    EXPECT_EQ(m.parseInt(" 2.+1", 0), 150);  // std::stoi rules: blanks, sign, trailing junk
    EXPECT_EQ(m.parseInt("2x.1y", 0), 150);

    for (const char* path : {"", "1.", ".1", "2..1"})
        EXPECT_EQ(m.parseInt(path, -9), -9) << path;
    EXPECT_THROW(m.parseInt("x", 0), std::invalid_argument);
    EXPECT_THROW(m.parseStr("2.a", ""), std::invalid_argument);
    EXPECT_THROW(m.parseInt64("99999999999", 0), std::out_of_range);
}

TEST(RawMessage, LoadingFailuresAndFiles) {
    RawMessage m;
    EXPECT_EQ(m.parseInt("x", 3), 3); // nothing loaded: no lookup, no exception
    ASSERT_TRUE(load(m, "\x08\x96\x01"));
    EXPECT_FALSE(load(m, "\x08")); // truncated varint
    EXPECT_EQ(m.m_message, nullptr);
    EXPECT_EQ(m.parseInt("1", 5), 5);
    EXPECT_FALSE(m.merge("\x0f", -1));
    ASSERT_TRUE(load(m, "\x10\x01")); // a new load keeps nothing of the earlier one
    EXPECT_EQ(m.parseInt("1", -1), -1);
    m.release();
    m.release();
    EXPECT_EQ(m.m_pool, nullptr);
    EXPECT_EQ(m.parseInt("2", -1), -1);

    QTemporaryDir dir;
    const std::string empty = dir.filePath("empty").toStdString();
    const std::string full = dir.filePath("full").toStdString();
    std::ofstream(empty, std::ios::binary).flush();
    std::ofstream(full, std::ios::binary) << "\x12\x03\x08\x96\x01";
    EXPECT_TRUE(m.mergeFile(empty));
    EXPECT_EQ(m.parseStr("1", "d"), "d");
    EXPECT_TRUE(m.mergeFile(full));
    EXPECT_EQ(m.parseInt64("2.1", 0), 150);
    EXPECT_FALSE(m.mergeFile(dir.filePath("missing").toStdString()));
    EXPECT_EQ(m.parseInt64("2.1", 0), 0);
}

TEST(RawMessage, MalformedBytesAndPaths) {
    std::mt19937 rng(7);
    const char* paths[] = {"1", "1.1", "2.1.3", "1.2.1.2.1", "3.3.3.3.3.3"};
    for (int round = 0; round < 3000; ++round) {
        std::string bytes(rng() % 48, '\0');
        for (char& c : bytes)
            c = char(rng() % 3 == 0 ? rng() : 0x08 + rng() % 28);
        RawMessage m;
        load(m, bytes);
        for (const char* p : paths) {
            m.parseStr(p, "");
            m.parseInt64(p, 0);
        }
    }
}
