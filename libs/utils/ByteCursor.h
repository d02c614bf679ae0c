// A read position over bytes in memory that never trusts a length: every read checks that it
// fits before it touches a byte (pos + n <= end, computed without overflow) and comes back short
// at the end. It answers the way a big-endian data stream over the same bytes would: a
// fixed-width number that does not fit whole reads as 0, and the position still moves past the
// bytes that were there. The binary readers of the library decode through it.
#pragma once

#include <QtGlobal>

class ByteCursor {
public:
    ByteCursor() = default;
    ByteCursor(const uchar* data, qint64 size, qint64 pos = 0)
        : m_data(data), m_size(size < 0 ? 0 : size), m_pos(pos) {}

    qint64 pos() const { return m_pos; }
    qint64 size() const { return m_size; }
    const uchar* data() const { return m_data; }
    void seek(qint64 pos) { m_pos = pos; }
    bool atEnd() const { return remaining() == 0; }
    qint64 remaining() const { return m_pos >= 0 && m_pos < m_size ? m_size - m_pos : 0; }
    bool has(qint64 n) const { return n >= 0 && n <= remaining(); }

    // Up to n bytes from the position (fewer at the end, none for a negative n); moves past them.
    const uchar* take(qint64 n, qint64* got) {
        const qint64 available = remaining();
        *got = n < 0 ? 0 : (n < available ? n : available);
        const uchar* p = *got > 0 ? m_data + m_pos : m_data;
        m_pos += *got;
        return p;
    }
    // An unsigned big-endian number of width bytes (1 to 8); 0 when it does not fit whole.
    quint64 be(int width) {
        qint64 got = 0;
        const uchar* p = take(width, &got);
        if (got != width) return 0;
        quint64 v = 0;
        for (int i = 0; i < width; ++i)
            v = (v << 8) | p[i];
        return v;
    }
    quint8 u8() { return quint8(be(1)); }
    quint16 u16() { return quint16(be(2)); }
    quint32 u32() { return quint32(be(4)); }
    quint64 u64() { return be(8); }
    quint32 u32le() {
        const quint32 v = u32();
        return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
    }

    // An SQLite varint: up to nine bytes, the ninth taken whole. At the end it is 0 with length
    // 0; cut short, it is the value built so far with the bytes actually read.
    qint64 varint(int* len);

private:
    const uchar* m_data = nullptr;
    qint64 m_size = 0;
    qint64 m_pos = 0;
};
