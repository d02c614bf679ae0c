#include "SQliteCodec.h"

#include "ByteCursor.h"
#include "SQliteFormat.h"
#include "SQliteSource.h"
#include "SQliteValue.h"

#include <QTextCodec>

#include <algorithm>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

using namespace sqliteio;

namespace {

bool isAscii(const uchar* p, qint64 n) {
    qint64 i = 0;
    for (; i + 8 <= n; i += 8) {
        quint64 word;
        std::memcpy(&word, p + i, 8);
        if (word & 0x8080808080808080ULL) return false;
    }
    for (; i < n; ++i)
        if (p[i] & 0x80) return false;
    return true;
}

} // namespace

QString SQliteCodec::text(const uchar* p, qint64 n, qint32 encoding) {
    static QTextCodec* const utf8 = QTextCodec::codecForName("UTF-8");
    static QTextCodec* const utf16le = QTextCodec::codecForName("UTF-16LE");
    static QTextCodec* const utf16be = QTextCodec::codecForName("UTF-16BE");
    QTextCodec* codec = encoding == 3 ? utf16be : encoding == 2 ? utf16le : utf8;
    if (codec == utf8 && n > 0 && isAscii(p, n))
        return QString::fromLatin1(reinterpret_cast<const char*>(p), int(n));
    return codec->toUnicode(reinterpret_cast<const char*>(p), int(n));
}

QVariant SQliteCodec::value(ByteCursor& c, qint64 serialType, int* len, qint32 encoding) {
    auto setLen = [len](qint64 n) {
        if (len) *len = narrow32(n);
    };
    switch (serialType) {
    case 0:
    case 8:
        setLen(0);
        return QVariant(int(0)); // NULL reads as integer 0
    case 9:
        setLen(0);
        return QVariant(int(1));
    case 1:
        setLen(1);
        return QVariant(int(qint8(quint8(c.be(1)))));
    case 2:
        setLen(2);
        return QVariant(int(qint16(quint16(c.be(2)))));
    case 3: {
        // One byte, then a 16-bit word; the byte is shifted by 8 only and nothing is
        // sign-extended. This is how the reader has always decoded 24-bit integers.
        const quint32 b = quint32(c.be(1));
        const quint32 w = quint32(c.be(2));
        setLen(3);
        return QVariant(int((b << 8) | w));
    }
    case 4:
        setLen(4);
        return QVariant(int(qint32(quint32(c.be(4)))));
    case 5: {
        // 48-bit integer read unsigned: no sign extension.
        const quint64 h = c.be(2);
        const quint64 l = c.be(4);
        setLen(6);
        return QVariant(qlonglong((h << 32) | l));
    }
    case 6:
        setLen(8);
        return QVariant(qlonglong(c.be(8)));
    case 7: {
        const quint64 bits = c.be(8);
        double v;
        std::memcpy(&v, &bits, sizeof v);
        setLen(8);
        return QVariant(v);
    }
    default:
        break;
    }
    if (serialType < 12) return QVariant(); // 10, 11 and negative: reserved, len untouched
    const qint64 n = serialType % 2 == 0 ? (serialType - 12) / 2 : (serialType - 13) / 2;
    setLen(n);
    qint64 got = 0;
    const uchar* p = c.take(std::min<qint64>(n, INT32_MAX), &got);
    if (serialType % 2 == 0) return QVariant(QByteArray(reinterpret_cast<const char*>(p), int(got)));
    return QVariant(text(p, got, encoding));
}

bool SQliteCodec::stored(qint64 serialType, const uchar* p, qint64 avail, qint32 encoding, SQliteValue* out) {
    *out = SQliteValue();
    if (serialType < 0 || serialType == 10 || serialType == 11) return false;
    const qint64 n = sqlitefmt::valueLength(serialType);
    if (n > avail) return false;
    quint64 bits = 0;
    if (serialType <= 7)
        for (qint64 i = 0; i < n; ++i)
            bits = (bits << 8) | p[i];
    switch (serialType) {
    case 0:
        return true;
    case 7:
        out->type = SQliteValue::Real;
        std::memcpy(&out->real, &bits, sizeof bits);
        return true;
    case 8:
    case 9:
        out->type = SQliteValue::Integer;
        out->integer = serialType - 8;
        return true;
    default:
        break;
    }
    if (serialType < 7) {
        // Big-endian two's complement of 1, 2, 3, 4, 6 or 8 bytes.
        const int shift = int(64 - 8 * n);
        out->type = SQliteValue::Integer;
        out->integer = qint64(bits << shift) >> shift;
        return true;
    }
    out->type = serialType % 2 ? SQliteValue::Text : SQliteValue::Blob;
    out->data = p;
    out->size = n;
    out->encoding = encoding;
    return true;
}

bool SQliteCodec::extendedLetterAccepts(ushort code, int serialType) {
    if (code == 't') return serialType == 0 || serialType >= 12;
    if (code == 'a') return (serialType >= 0 && serialType <= 9) || serialType >= 12;
    return letterAccepts(code, serialType);
}

SQliteCodec::Pattern::Pattern(const QString& pattern, bool extended) : m_codes(size_t(pattern.size())) {
    const auto accepts = extended ? &extendedLetterAccepts : &letterAccepts;
    for (int i = 0; i < pattern.size(); ++i)
        m_codes[size_t(i)] = pattern.at(i).unicode();
    m_small.resize(m_codes.size() * 128);
    m_large.resize(m_codes.size());
    for (size_t i = 0; i < m_codes.size(); ++i) {
        for (int t = 0; t < 128; ++t)
            m_small[i * 128 + size_t(t)] = accepts(m_codes[i], t);
        m_large[i] = uchar((accepts(m_codes[i], 128) ? 1 : 0) | (accepts(m_codes[i], 129) ? 2 : 0) |
                           (accepts(m_codes[i], -1) ? 4 : 0));
    }
    for (size_t i = 0; i < 4 && i < m_codes.size(); ++i) {
        Letter& f = m_letters[i];
        const ushort code = m_codes[i];
        if (code >= '0' && code <= '9') {
            f.equal1 = uchar(code - '0');
        } else if (code == 'b' || code == 's') {
            f.equal1 = 0;
            f.from = true;
            f.lo = code == 'b' ? 12 : 13;
            f.parity = code == 'b' ? 0 : 1;
        } else if (code == 'd' || code == 'i') {
            f.upTo = true;
            f.hi = code == 'd' ? 9 : 11;
            f.ex = code == 'd' ? 0xFF : 7;
        } else if (code == 'f' || code == 'n') {
            f.equal1 = 0;
            f.equal2 = code == 'f' ? 7 : 0xFF;
        } else if (extended && (code == 't' || code == 'a')) {
            f.equal1 = 0;
            f.from = true;
            f.lo = 12;
            f.anyParity = true;
            f.upTo = code == 'a';
            f.hi = 9;
        }
        // The vector test stands in for the table only where it gives the same answers.
        bool same = true;
        for (int b = 0; b < 128; ++b) {
            const bool vector = b == f.equal1 || b == f.equal2 || (f.upTo && b <= f.hi && b != f.ex) ||
                                (f.from && b >= f.lo && (f.anyParity || (b & 1) == f.parity));
            same = same && vector == bool(m_small[i * 128 + size_t(b)]);
        }
#if defined(__SSE2__)
        f.vector = same;
#endif
    }
    m_vector = !m_codes.empty();
    for (size_t i = 0; i < 4 && i < m_codes.size(); ++i)
        m_vector = m_vector && m_letters[i].vector;
}

// Bit i: the serial type of the varint at p + i is not refused on sight by letter index (the
// test one lane at a time, for letters or builds without the vector test).
quint32 SQliteCodec::Pattern::types16(const uchar* p, int index) const {
    const quint32 parity = m_large[size_t(index)];
    const bool oddOk = parity & 2, evenOk = parity & 1;
    quint32 bits = 0;
    for (int i = 0; i < 16; ++i) {
        const uchar* q = p + i;
        bool open;
        if (q[0] < 0x80) {
            open = m_small[size_t(index) * 128 + q[0]];
        } else {
            const int last = q[1] < 0x80 ? q[1] : q[2] < 0x80 ? q[2] : q[3] < 0x80 ? q[3] : -1;
            open = q[0] == 0x80 || last < 0 || ((last & 1) ? oddOk : evenOk);
        }
        bits |= quint32(open) << i;
    }
    return bits;
}

#if defined(__SSE2__)
// Serial types at p + shift + i for i < 16, judged by letter index, from the bits of the 32
// bytes at p: top bit set, low bit set, equal to 0x80.
quint32 SQliteCodec::Pattern::open16(const uchar* p, int index, int shift, quint32 high, quint32 odd,
                                     quint32 is80) const {
    const Letter& f = m_letters[index];
    const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + shift));
    auto eq = [](__m128i a, int b) { return _mm_cmpeq_epi8(a, _mm_set1_epi8(char(b))); };
    __m128i accept = _mm_or_si128(eq(v0, f.equal1), eq(v0, f.equal2));
    if (f.upTo) {
        const __m128i upTo = _mm_cmpeq_epi8(_mm_min_epu8(v0, _mm_set1_epi8(char(f.hi))), v0);
        accept = _mm_or_si128(accept, _mm_andnot_si128(eq(v0, f.ex), upTo));
    }
    if (f.from) {
        const __m128i from = _mm_cmpeq_epi8(_mm_max_epu8(v0, _mm_set1_epi8(char(f.lo))), v0);
        const __m128i one = _mm_set1_epi8(1);
        accept = _mm_or_si128(accept,
                              f.anyParity ? from : _mm_and_si128(from, eq(_mm_and_si128(v0, one), f.parity)));
    }
    const quint32 h0 = high >> shift, h1 = high >> (shift + 1), h2 = high >> (shift + 2),
                  h3 = high >> (shift + 3);
    // A varint of two to four bytes ends at its first byte below 0x80.
    const quint32 end1 = ~h1, end2 = h1 & ~h2, end3 = h1 & h2 & ~h3;
    const quint32 ends = end1 | end2 | end3;
    quint32 open = (is80 >> shift) | ~ends;
    const quint32 parity = m_large[size_t(index)];
    if (parity & 3) {
        const quint32 o =
            (end1 & (odd >> (shift + 1))) | (end2 & (odd >> (shift + 2))) | (end3 & (odd >> (shift + 3)));
        open |= (o & ((parity & 2) ? ~0u : 0u)) | (ends & ~o & ((parity & 1) ? ~0u : 0u));
    }
    return ((~h0 & quint32(_mm_movemask_epi8(accept))) | (h0 & open)) & 0xFFFF;
}
#endif

quint32 SQliteCodec::Pattern::candidates16(const uchar* p, bool withHeader) const {
    // The bits of the 32 bytes at p, worked out once: top bit set (the varint goes on) and, for
    // the vector test, low bit set and equal to 0x80.
    quint32 high = 0, odd = 0, is80 = 0;
#if defined(__SSE2__)
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16));
    const __m128i one = _mm_set1_epi8(1), x80 = _mm_set1_epi8(char(0x80));
    auto bits = [](__m128i x, __m128i y) {
        return quint32(_mm_movemask_epi8(x)) | quint32(_mm_movemask_epi8(y)) << 16;
    };
    high = bits(a, b);
    if (m_vector) {
        odd = bits(_mm_cmpeq_epi8(_mm_and_si128(a, one), one), _mm_cmpeq_epi8(_mm_and_si128(b, one), one));
        is80 = bits(_mm_cmpeq_epi8(a, x80), _mm_cmpeq_epi8(b, x80));
    }
#else
    for (int i = 0; i < 32; ++i)
        high |= quint32(p[i] >> 7) << i;
#endif
    // Bit i: the serial type at p + shift + i is not refused on sight by letter index.
    auto types = [&](int index, int shift) {
#if defined(__SSE2__)
        if (m_vector) return open16(p, index, shift, high, odd, is80);
#endif
        return types16(p + shift, index);
    };
    if (!withHeader) {
        quint32 open = types(0, 0);
        quint32 shortSoFar = 0xFFFF; // the serial types before letter k were one byte each
        for (int k = 1; k < 4 && k < size() && open; ++k) {
            shortSoFar &= ~(high >> (k - 1));
            open &= (~shortSoFar & 0xFFFF) | types(k, k);
        }
        return open;
    }
    // The first serial type follows the rowid and the header size: at p + 2 when both are one
    // byte, at p + 3 or p + 4 when they take three or four bytes together. Longer ones leave
    // the candidate open.
    const quint32 h0 = high, h1 = high >> 1, h2 = high >> 2, h3 = high >> 3;
    const quint32 at2 = ~h0 & ~h1 & 0xFFFF;
    const quint32 at3 = ((h0 & ~h1 & ~h2) | (~h0 & h1 & ~h2)) & 0xFFFF;
    const quint32 at4 = ((h0 & ~h1 & h2) | (h0 & h1 & ~h2) | (~h0 & h1 & h2)) & ~h3 & 0xFFFF;
    const quint32 longer = ~(at2 | at3 | at4) & 0xFFFF;
    return longer | (at2 & types(0, 2)) | (at3 & types(0, 3)) | (at4 & types(0, 4));
}

bool SQliteCodec::letterAccepts(ushort code, int serialType) {
    if (code >= 256) return false;
    const char c = char(code);
    if (c >= '0' && c <= '9') return serialType == c - '0';
    switch (c) {
    case 'b':
        return serialType == 0 || (serialType >= 12 && serialType % 2 == 0);
    case 'd':
        return serialType <= 9;
    case 'f':
        return serialType == 0 || serialType == 7;
    case 'i':
        return serialType <= 11 && serialType != 7;
    case 'n':
        return serialType == 0;
    case 's':
        return serialType == 0 || (serialType >= 13 && serialType % 2 == 1);
    default:
        return false;
    }
}
