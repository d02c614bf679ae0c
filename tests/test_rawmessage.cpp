#include "RawMessage.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format_lite.h>

#include "TestSupport.h"

#include <functional>
#include <memory>

using WFL = google::protobuf::internal::WireFormatLite;
using Out = google::protobuf::io::CodedOutputStream;

namespace {
// Bytes written by protobuf's own encoder; the coded stream is flushed before the bytes are returned.
std::string encode(const std::function<void(Out*)>& write) {
    std::string bytes;
    google::protobuf::io::StringOutputStream stream(&bytes);
    write(std::make_unique<Out>(&stream).get());
    return bytes;
}
bool load(RawMessage& m, const std::string& bytes) {
    return m.merge(bytes.data(), int(bytes.size()));
}
} // namespace

TEST(RawMessage, ScalarsPathsAndGroups) {
    const std::string inner = encode([](Out* o) { WFL::WriteUInt32(1, 99, o); });
    RawMessage m;
    ASSERT_TRUE(load(m, encode([&](Out* o) {
                         WFL::WriteUInt32(1, 150, o);
                         WFL::WriteInt32(2, -5, o); // ten-byte varint
                         WFL::WriteSInt32(3, -1, o);
                         WFL::WriteFixed32(4, 0xffffffffu, o);
                         WFL::WriteFixed64(5, 0x100000002ull, o);
                         WFL::WriteUInt32(6, 1, o);
                         WFL::WriteUInt32(6, 2, o);
                         WFL::WriteString(7, std::string("A\0B", 3), o);
                         WFL::WriteBytes(8, inner, o);
                         WFL::WriteTag(9, WFL::WIRETYPE_START_GROUP, o);
                         WFL::WriteUInt32(1, 42, o);
                         WFL::WriteBytes(2, "", o);
                         WFL::WriteTag(9, WFL::WIRETYPE_END_GROUP, o);
                     })));
    // No ZigZag decoding (3); a repeated field gives its first occurrence (6); a scalar (1.1) and bytes that
    // are no message (7.1) keep the lookup in the same set; std::stoi lets blanks, a sign and trailing junk
    // pass; an empty nested message (9.2) has no fields; bytes and groups are no number; empty parts fail.
    const std::pair<const char*, int> ints[] = {
        {"1", 150},   {"2", -5},    {"3", 1},    {"4", -1},   {"5", 2},       {"6", 1},
        {"1.1", 150}, {"7.1", 150}, {"8.1", 99}, {"9.1", 42}, {" 8x.+1", 99}, {"9.2.1", -9},
        {"7", -9},    {"9", -9},    {"", -9},    {"1.", -9},  {".1", -9},     {"8..1", -9}};
    for (const auto& [path, value] : ints)
        EXPECT_EQ(m.parseInt(path, -9), value) << path;
    EXPECT_EQ(m.parseInt64("2", 0), -5);
    EXPECT_EQ(m.parseInt64("4", 0), 4294967295LL);
    EXPECT_EQ(m.parseInt64("7", -3), -3);
    EXPECT_EQ(m.parseStr("1", ""), "150");
    EXPECT_EQ(m.parseStr("2", ""), "18446744073709551611");
    EXPECT_EQ(m.parseStr("7", ""), "A"); // text ends at a zero byte
    EXPECT_EQ(m.parseStr("8", ""), QString::fromUtf8(inner.c_str()));
    EXPECT_EQ(m.parseStr("9", "d"), "d");
    EXPECT_THROW(m.parseStr("8.a", ""), std::invalid_argument);
    EXPECT_THROW(m.parseInt64("99999999999", 0), std::out_of_range);
}

TEST(RawMessage, LoadingAndFailures) {
    RawMessage m;
    EXPECT_EQ(m.parseInt("x", 3), 3); // nothing loaded: no lookup, no exception
    ASSERT_TRUE(load(m, "\x08\x96\x01"));
    EXPECT_FALSE(load(m, "\x08")); // truncated varint
    EXPECT_EQ(m.m_message, nullptr);
    EXPECT_EQ(m.parseInt("1", 5), 5);
    ASSERT_TRUE(load(m, "\x10\x01")); // nothing of an earlier load is kept
    EXPECT_EQ(m.parseInt("1", -1), -1);
    m.release();
    EXPECT_EQ(m.m_pool, nullptr);

    QTemporaryDir dir;
    EXPECT_TRUE(m.mergeFile(writeFile(dir, "empty", "").toStdString()));
    EXPECT_EQ(m.parseStr("1", "d"), "d");
    EXPECT_TRUE(m.mergeFile(writeFile(dir, "full", "\x12\x03\x08\x96\x01").toStdString()));
    EXPECT_EQ(m.parseInt64("2.1", 0), 150);
    EXPECT_FALSE(m.mergeFile(dir.filePath("missing").toStdString()));
    EXPECT_EQ(m.parseInt64("2.1", 0), 0);
}
