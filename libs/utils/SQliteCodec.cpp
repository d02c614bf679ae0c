#include "SQliteCodec.h"

#include "ByteCursor.h"
#include "SQliteSource.h"

#include <QTextCodec>

#include <algorithm>
#include <cstring>

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

SQliteCodec::Pattern::Pattern(const QString& pattern) : m_codes(size_t(pattern.size())) {
    for (int i = 0; i < pattern.size(); ++i)
        m_codes[size_t(i)] = pattern.at(i).unicode();
    m_small.resize(m_codes.size() * 128);
    for (size_t i = 0; i < m_codes.size(); ++i)
        for (int t = 0; t < 128; ++t)
            m_small[i * 128 + size_t(t)] = letterAccepts(m_codes[i], t);
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
