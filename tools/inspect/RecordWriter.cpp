#include "RecordWriter.h"

#include <QLocale>
#include <QRegularExpression>

#include <charconv>
#include <cmath>
#include <cstdio>

namespace inspect {

namespace {

constexpr int kFlushAt = 1 << 20;

void appendNumber(QByteArray& out, qlonglong v) {
    char digits[24];
    const auto result = std::to_chars(digits, digits + sizeof digits, v);
    out.append(digits, int(result.ptr - digits));
}

// UTF-16 to UTF-8, with the escapes of the text rendering or of JSON strings. A lone
// surrogate is written as '?', as Qt's encoder writes it: the output stays valid UTF-8.
// Units are UTF-16 code units, or bytes of ASCII text.
template <typename Unit> void appendEscaped(QByteArray& out, const Unit* p, int n, bool json) {
    static const char hex[] = "0123456789abcdef";
    const int start = out.size();
    out.resize(start + 6 * n); // the longest form of a UTF-16 unit: \u00XX, or 3 bytes of UTF-8
    char* const begin = out.data();
    char* d = begin + start;
    for (int i = 0; i < n; ++i) {
        const uint c = p[i];
        if (c >= 0x20 && c < 0x80) {
            if (json && (c == '"' || c == '\\')) *d++ = '\\';
            *d++ = char(c);
        } else if (c < 0x20) {
            const char named = c == '\n' ? 'n' : c == '\r' ? 'r' : c == '\t' ? 't' : 0;
            if (named) {
                *d++ = '\\';
                *d++ = named;
            } else if (!json) {
                *d++ = char(c);
            } else {
                const char* e = c == '\b' ? "\\b" : c == '\f' ? "\\f" : nullptr;
                if (e) {
                    *d++ = e[0];
                    *d++ = e[1];
                } else {
                    *d++ = '\\', *d++ = 'u', *d++ = '0', *d++ = '0', *d++ = hex[c >> 4], *d++ = hex[c & 15];
                }
            }
        } else if (c < 0x800) {
            *d++ = char(0xC0 | (c >> 6));
            *d++ = char(0x80 | (c & 0x3F));
        } else if (c >= 0xD800 && c < 0xDC00 && i + 1 < n && p[i + 1] >= 0xDC00 && p[i + 1] < 0xE000) {
            const uint u = 0x10000 + ((c - 0xD800) << 10) + (p[++i] - 0xDC00);
            *d++ = char(0xF0 | (u >> 18));
            *d++ = char(0x80 | ((u >> 12) & 0x3F));
            *d++ = char(0x80 | ((u >> 6) & 0x3F));
            *d++ = char(0x80 | (u & 0x3F));
        } else if (c >= 0xD800 && c < 0xE000) {
            *d++ = '?';
        } else {
            *d++ = char(0xE0 | (c >> 12));
            *d++ = char(0x80 | ((c >> 6) & 0x3F));
            *d++ = char(0x80 | (c & 0x3F));
        }
    }
    out.resize(int(d - begin));
}

void appendUtf8(QByteArray& out, const QString& text, bool json) {
    appendEscaped(out, text.utf16(), text.size(), json);
}

// A blob: base64 in a JSON string, or its first 64 bytes in hex and its size when longer.
void appendBlob(QByteArray& out, const QByteArray& bytes, bool json) {
    if (json) {
        out += '"' + bytes.toBase64() + '"';
        return;
    }
    out += "x'" + bytes.left(64).toHex() + "'";
    if (bytes.size() > 64) out += "...(" + QByteArray::number(bytes.size()) + " bytes)";
}

} // namespace

RecordWriter::RecordWriter(Format format) : m_format(format) {
    m_buffer.reserve(kFlushAt + 65536);
    if (json()) m_buffer += '[';
}

RecordWriter::~RecordWriter() {
    finish();
}

void RecordWriter::finish() {
    if (m_finished) return;
    m_finished = true;
    if (json()) m_buffer += m_count ? "\n]\n" : "]\n";
    fwrite(m_buffer.constData(), 1, size_t(m_buffer.size()), stdout);
    fflush(stdout);
    m_buffer.clear();
}

void RecordWriter::flushIfFull() {
    if (m_buffer.size() < kFlushAt) return;
    fwrite(m_buffer.constData(), 1, size_t(m_buffer.size()), stdout);
    m_buffer.resize(0);
}

void RecordWriter::line(const QString& text) {
    if (m_format != Text) return;
    appendUtf8(m_buffer, text, false);
    m_buffer += '\n';
    flushIfFull();
}

void RecordWriter::beginItem() {
    if (json()) m_buffer += m_count ? ",\n" : "\n";
    ++m_count;
}

void RecordWriter::appendValues(const QList<QVariant>& values, const char* nullText) {
    for (int i = 0; i < values.size(); ++i) {
        if (i) m_buffer += json() ? "," : " | ";
        json() ? appendJson(m_buffer, values.at(i)) : appendText(m_buffer, values.at(i), nullText);
    }
}

void RecordWriter::record(const QList<QVariant>& values) {
    beginItem();
    if (json()) m_buffer += '[';
    appendValues(values);
    m_buffer += json() ? "]" : "\n";
    flushIfFull();
}

// Text and blobs straight from the record's bytes; everything else, and text that is not
// plain ASCII in a byte encoding, through the value the reader decodes.
void RecordWriter::appendViewValue(const SQliteScanner::RecordView& view, int i) {
    const int type = view.serialType(i);
    qint64 n = 0;
    if (type >= 12) {
        const uchar* p = view.bytes(i, &n);
        const char* c = reinterpret_cast<const char*>(p);
        if (type % 2 == 0) {
            appendBlob(m_buffer, QByteArray::fromRawData(c, int(n)), json());
            return;
        }
        bool ascii = view.textEncoding() != 2 && view.textEncoding() != 3;
        for (qint64 k = 0; ascii && k < n; ++k)
            ascii = p[k] < 0x80;
        if (ascii) {
            m_buffer += '"';
            appendEscaped(m_buffer, p, int(n), json());
            m_buffer += '"';
            return;
        }
    }
    json() ? appendJson(m_buffer, view.value(i)) : appendText(m_buffer, view.value(i));
}

void RecordWriter::record(const SQliteScanner::RecordView& view) {
    beginItem();
    if (json()) m_buffer += '[';
    appendNumber(m_buffer, view.rowid());
    for (int i = 0; i < view.size(); ++i) {
        m_buffer += json() ? "," : " | ";
        appendViewValue(view, i);
    }
    m_buffer += json() ? "]" : "\n";
    flushIfFull();
}

void RecordWriter::object(std::initializer_list<Field> fields, const QList<QVariant>& values) {
    if (!json()) {
        QList<QVariant> all;
        for (const Field& f : fields)
            all.append(f.second);
        m_format == Csv ? csvRow(all + values) : record(all + values);
        return;
    }
    beginItem();
    m_buffer += '{';
    bool first = true;
    for (const Field& f : fields) {
        if (!first) m_buffer += ',';
        first = false;
        m_buffer += '"';
        m_buffer += f.first;
        m_buffer += "\":";
        appendJson(m_buffer, f.second);
    }
    if (!values.isEmpty()) {
        m_buffer += ",\"values\":[";
        appendValues(values);
        m_buffer += ']';
    }
    m_buffer += '}';
    flushIfFull();
}

void RecordWriter::textRecord(const QString& prefix, const QList<QVariant>& values, const char* nullText) {
    ++m_count;
    appendUtf8(m_buffer, prefix, false);
    appendValues(values, nullText);
    m_buffer += '\n';
    flushIfFull();
}

void RecordWriter::csvRow(const QList<QVariant>& cells) {
    ++m_count;
    for (int i = 0; i < cells.size(); ++i) {
        if (i) m_buffer += ',';
        const QVariant& v = cells.at(i);
        switch (int(v.type())) {
        case QMetaType::UnknownType:
            break;
        case QMetaType::QByteArray:
            m_buffer += "x'" + v.toByteArray().toHex() + "'";
            break;
        case QMetaType::QString:
        case QMetaType::QStringList: {
            const QString text = v.type() == QVariant::StringList ? v.toStringList().join(' ') : v.toString();
            static const QRegularExpression special("[,\"\r\n]"); // compiled once, not per cell
            if (!text.contains(special)) {
                m_buffer += text.toUtf8();
                break;
            }
            m_buffer += '"' + QString(text).replace('"', "\"\"").toUtf8() + '"';
            break;
        }
        case QMetaType::Double:
            m_buffer += QByteArray::number(v.toDouble(), 'g', 17);
            break;
        default:
            m_buffer += v.toString().toUtf8();
            break;
        }
    }
    m_buffer += "\r\n";
    flushIfFull();
}

void RecordWriter::appendText(QByteArray& out, const QVariant& value, const char* nullText) {
    switch (int(value.type())) {
    case QMetaType::UnknownType:
        out += nullText;
        break;
    case QMetaType::Int:
    case QMetaType::LongLong:
        appendNumber(out, value.toLongLong());
        break;
    case QMetaType::QByteArray:
        appendBlob(out, value.toByteArray(), false);
        break;
    case QMetaType::QString:
        out += '"';
        appendUtf8(out, value.toString(), false);
        out += '"';
        break;
    case QMetaType::Double:
        out += QByteArray::number(value.toDouble(), 'g', 17);
        break;
    default:
        out += value.toString().toUtf8();
        break;
    }
}

void RecordWriter::appendJsonString(QByteArray& out, const QString& text) {
    out += '"';
    appendUtf8(out, text, true);
    out += '"';
}

void RecordWriter::appendJson(QByteArray& out, const QVariant& value) {
    switch (int(value.type())) {
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
        appendNumber(out, value.toLongLong());
        break;
    case QMetaType::ULongLong:
        out += QByteArray::number(value.toULongLong());
        break;
    case QMetaType::Bool:
        out += value.toBool() ? "true" : "false";
        break;
    case QMetaType::Double:
    case QMetaType::Float: {
        const double d = value.toDouble();
        out += std::isfinite(d) ? QByteArray::number(d, 'g', QLocale::FloatingPointShortest)
                                : QByteArray("null");
        break;
    }
    case QMetaType::QString:
        appendJsonString(out, value.toString());
        break;
    case QMetaType::QStringList: {
        out += '[';
        const QStringList list = value.toStringList();
        for (int i = 0; i < list.size(); ++i) {
            if (i) out += ',';
            appendJsonString(out, list.at(i));
        }
        out += ']';
        break;
    }
    case QMetaType::QByteArray:
        appendBlob(out, value.toByteArray(), true);
        break;
    default:
        if (value.isValid() && value.canConvert<QString>())
            appendJsonString(out, value.toString());
        else
            out += "null";
        break;
    }
}

} // namespace inspect
