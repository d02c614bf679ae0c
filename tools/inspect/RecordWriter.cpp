#include "RecordWriter.h"

#include <QLocale>
#include <QRegularExpression>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

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

void appendReal(QByteArray& out, double d, RecordWriter::Format format) {
    if (std::isnan(d)) {
        out += format == RecordWriter::Json ? "null" : "NaN";
        return;
    }
    if (std::isinf(d)) {
        if (d < 0) out += '-';
        out += format == RecordWriter::Json ? "9.0e999" : "Inf";
        return;
    }
    char digits[32];
    const auto result = std::to_chars(digits, digits + sizeof digits, d);
    const int n = int(result.ptr - digits);
    out.append(digits, n);
    if (!std::memchr(digits, '.', size_t(n)) && !std::memchr(digits, 'e', size_t(n))) out += ".0";
}

bool isAscii(const uchar* p, qint64 n) {
    for (qint64 k = 0; k < n; ++k)
        if (p[k] >= 0x80) return false;
    return true;
}

// The value's text as UTF-8 with the escapes of the format (none in CSV, where a quote doubles).
void appendTextValue(QByteArray& out, const SQliteValue& v, RecordWriter::Format format) {
    const bool bytes = v.encoding != 2 && v.encoding != 3 && isAscii(v.data, v.size);
    out += '"';
    if (format == RecordWriter::Csv) {
        const QByteArray text =
            bytes ? QByteArray::fromRawData(reinterpret_cast<const char*>(v.data), int(v.size))
                  : v.text().toUtf8();
        const char* p = text.constData();
        const char* const end = p + text.size();
        while (p < end) { // every quote doubled
            const char* quote = static_cast<const char*>(std::memchr(p, '"', size_t(end - p)));
            const char* stop = quote ? quote + 1 : end;
            out.append(p, int(stop - p));
            if (quote) out += '"';
            p = stop;
        }
    } else if (bytes) {
        appendEscaped(out, v.data, int(v.size), format == RecordWriter::Json);
    } else {
        appendUtf8(out, v.text(), format == RecordWriter::Json);
    }
    out += '"';
}

} // namespace

void RecordWriter::appendValue(QByteArray& out, const SQliteValue& value, Format format) {
    switch (value.type) {
    case SQliteValue::Null:
        if (format != Csv) out += format == Json ? "null" : "NULL";
        break;
    case SQliteValue::Integer:
        appendNumber(out, value.integer);
        break;
    case SQliteValue::Real:
        appendReal(out, value.real, format);
        break;
    case SQliteValue::Text:
        appendTextValue(out, value, format);
        break;
    case SQliteValue::Blob: {
        const QByteArray bytes =
            QByteArray::fromRawData(reinterpret_cast<const char*>(value.data), int(value.size));
        if (format == Csv)
            out += "x'" + bytes.toHex() + "'";
        else
            appendBlob(out, bytes, format == Json);
        break;
    }
    }
}

// What each format makes of the writer's calls; the writer counts the records and buffers.
class RecordWriter::Sink {
public:
    virtual ~Sink() = default;
    virtual void begin(QByteArray&) {}
    virtual void end(QByteArray&, qint64 /*count*/) {}
    virtual void line(QByteArray&, const QString&) {}
    virtual void row(QByteArray&, const QList<QVariant>&) {}
    // index counts the records written before this one.
    virtual void values(QByteArray& out, qint64 index, const QString& prefix, const QList<QVariant>& values,
                        const char* nullText) = 0;
    virtual void view(QByteArray& out, qint64 index, const SQliteScanner::RecordView& view) = 0;
    virtual void stored(QByteArray& out, qint64 index, const SQliteTableReader::Row& row) = 0;
    virtual void object(QByteArray& out, qint64 index, std::initializer_list<Field> fields,
                        const QList<QVariant>& values) = 0;
};

namespace {

QList<QVariant> fieldValues(std::initializer_list<RecordWriter::Field> fields,
                            const QList<QVariant>& values) {
    QList<QVariant> all;
    for (const RecordWriter::Field& f : fields)
        all.append(f.second);
    return all + values;
}

// A row as the engine reads it: the rowid when it has one, then the values, separated.
void appendRow(QByteArray& out, const SQliteTableReader::Row& row, RecordWriter::Format format,
               const char* separator) {
    if (row.hasRowid()) appendNumber(out, row.rowid());
    for (int i = 0; i < row.size(); ++i) {
        if (i || row.hasRowid()) out += separator;
        RecordWriter::appendValue(out, row.value(i), format);
    }
}

// Text and blobs of a record read in place straight from its bytes: true when written. Other
// values, and text that is not plain ASCII in a byte encoding, go through the decoded value.
bool appendViewBytes(QByteArray& out, const SQliteScanner::RecordView& view, int i, bool json) {
    const int type = view.serialType(i);
    if (type < 12) return false;
    qint64 n = 0;
    const uchar* p = view.bytes(i, &n);
    const char* c = reinterpret_cast<const char*>(p);
    if (type % 2 == 0) {
        appendBlob(out, QByteArray::fromRawData(c, int(n)), json);
        return true;
    }
    if (view.textEncoding() == 2 || view.textEncoding() == 3) return false;
    if (!isAscii(p, n)) return false;
    out += '"';
    appendEscaped(out, p, int(n), json);
    out += '"';
    return true;
}

// A record read in place: its rowid, then each of its values after the separator.
void appendView(QByteArray& out, const SQliteScanner::RecordView& view, const char* separator, bool json) {
    appendNumber(out, view.rowid());
    for (int i = 0; i < view.size(); ++i) {
        out += separator;
        if (appendViewBytes(out, view, i, json)) continue;
        json ? RecordWriter::appendJson(out, view.value(i)) : RecordWriter::appendText(out, view.value(i));
    }
}

class TextSink : public RecordWriter::Sink {
public:
    void line(QByteArray& out, const QString& text) override {
        appendUtf8(out, text, false);
        out += '\n';
    }
    void values(QByteArray& out, qint64, const QString& prefix, const QList<QVariant>& values,
                const char* nullText) override {
        appendUtf8(out, prefix, false);
        for (int i = 0; i < values.size(); ++i) {
            if (i) out += " | ";
            RecordWriter::appendText(out, values.at(i), nullText);
        }
        out += '\n';
    }
    void view(QByteArray& out, qint64, const SQliteScanner::RecordView& view) override {
        appendView(out, view, " | ", false);
        out += '\n';
    }
    void stored(QByteArray& out, qint64, const SQliteTableReader::Row& row) override {
        appendRow(out, row, RecordWriter::Text, " | ");
        out += '\n';
    }
    void object(QByteArray& out, qint64 index, std::initializer_list<RecordWriter::Field> fields,
                const QList<QVariant>& values) override {
        this->values(out, index, QString(), fieldValues(fields, values), "?");
    }
};

class JsonSink : public RecordWriter::Sink {
public:
    void begin(QByteArray& out) override { out += '['; }
    void end(QByteArray& out, qint64 count) override { out += count ? "\n]\n" : "]\n"; }
    void values(QByteArray& out, qint64 index, const QString&, const QList<QVariant>& values,
                const char*) override {
        out += index ? ",\n[" : "\n[";
        appendArray(out, values);
        out += ']';
    }
    void view(QByteArray& out, qint64 index, const SQliteScanner::RecordView& view) override {
        out += index ? ",\n[" : "\n[";
        appendView(out, view, ",", true);
        out += ']';
    }
    void stored(QByteArray& out, qint64 index, const SQliteTableReader::Row& row) override {
        out += index ? ",\n[" : "\n[";
        appendRow(out, row, RecordWriter::Json, ",");
        out += ']';
    }
    void object(QByteArray& out, qint64 index, std::initializer_list<RecordWriter::Field> fields,
                const QList<QVariant>& values) override {
        out += index ? ",\n{" : "\n{";
        bool first = true;
        for (const RecordWriter::Field& f : fields) {
            if (!first) out += ',';
            first = false;
            RecordWriter::appendJsonString(out, QString::fromUtf8(f.first));
            out += ':';
            RecordWriter::appendJson(out, f.second);
        }
        if (!values.isEmpty()) {
            out += ",\"values\":[";
            appendArray(out, values);
            out += ']';
        }
        out += '}';
    }

private:
    static void appendArray(QByteArray& out, const QList<QVariant>& values) {
        for (int i = 0; i < values.size(); ++i) {
            if (i) out += ',';
            RecordWriter::appendJson(out, values.at(i));
        }
    }
};

class CsvSink : public RecordWriter::Sink {
public:
    void row(QByteArray& out, const QList<QVariant>& cells) override {
        for (int i = 0; i < cells.size(); ++i) {
            if (i) out += ',';
            RecordWriter::appendCsv(out, cells.at(i));
        }
        out += "\r\n";
    }
    void values(QByteArray& out, qint64, const QString&, const QList<QVariant>& values,
                const char*) override {
        row(out, values);
    }
    void view(QByteArray& out, qint64, const SQliteScanner::RecordView& view) override {
        appendNumber(out, view.rowid());
        for (int i = 0; i < view.size(); ++i) {
            out += ',';
            RecordWriter::appendCsv(out, view.value(i));
        }
        out += "\r\n";
    }
    void stored(QByteArray& out, qint64, const SQliteTableReader::Row& row) override {
        appendRow(out, row, RecordWriter::Csv, ",");
        out += "\r\n";
    }
    void object(QByteArray& out, qint64, std::initializer_list<RecordWriter::Field> fields,
                const QList<QVariant>& values) override {
        row(out, fieldValues(fields, values));
    }
};

std::unique_ptr<RecordWriter::Sink> sinkFor(RecordWriter::Format format) {
    switch (format) {
    case RecordWriter::Json:
        return std::make_unique<JsonSink>();
    case RecordWriter::Csv:
        return std::make_unique<CsvSink>();
    default:
        return std::make_unique<TextSink>();
    }
}

} // namespace

RecordWriter::RecordWriter(Format format) : m_format(format), m_sink(sinkFor(format)) {
    m_buffer.reserve(kFlushAt + 65536);
    m_sink->begin(m_buffer);
}

RecordWriter::~RecordWriter() {
    finish();
}

void RecordWriter::finish() {
    if (m_finished) return;
    m_finished = true;
    m_sink->end(m_buffer, m_count);
    fwrite(m_buffer.constData(), 1, size_t(m_buffer.size()), stdout);
    fflush(stdout);
    m_buffer.clear();
}

// After each record or line: writes the buffer out once it is full.
void RecordWriter::written() {
    if (m_buffer.size() < kFlushAt) return;
    fwrite(m_buffer.constData(), 1, size_t(m_buffer.size()), stdout);
    m_buffer.resize(0);
}

void RecordWriter::line(const QString& text) {
    m_sink->line(m_buffer, text);
    written();
}

void RecordWriter::record(const QList<QVariant>& values) {
    m_sink->values(m_buffer, m_count++, QString(), values, "?");
    written();
}

void RecordWriter::record(const SQliteScanner::RecordView& view) {
    m_sink->view(m_buffer, m_count++, view);
    written();
}

void RecordWriter::record(const SQliteTableReader::Row& row) {
    m_sink->stored(m_buffer, m_count++, row);
    written();
}

void RecordWriter::object(std::initializer_list<Field> fields, const QList<QVariant>& values) {
    m_sink->object(m_buffer, m_count++, fields, values);
    written();
}

void RecordWriter::textRecord(const QString& prefix, const QList<QVariant>& values, const char* nullText) {
    m_sink->values(m_buffer, m_count++, prefix, values, nullText);
    written();
}

void RecordWriter::csvRow(const QList<QVariant>& cells) {
    if (m_format != Csv) return;
    m_sink->row(m_buffer, cells);
    written();
}

void RecordWriter::appendCsv(QByteArray& out, const QVariant& value) {
    switch (int(value.type())) {
    case QMetaType::UnknownType:
        break;
    case QMetaType::QByteArray:
        out += "x'" + value.toByteArray().toHex() + "'";
        break;
    case QMetaType::QString:
    case QMetaType::QStringList: {
        const QString text =
            value.type() == QVariant::StringList ? value.toStringList().join(' ') : value.toString();
        static const QRegularExpression special("[,\"\r\n]");
        if (!text.contains(special)) {
            out += text.toUtf8();
            break;
        }
        out += '"' + QString(text).replace('"', "\"\"").toUtf8() + '"';
        break;
    }
    case QMetaType::Double:
        appendReal(out, value.toDouble(), Csv);
        break;
    default:
        out += value.toString().toUtf8();
        break;
    }
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
        appendReal(out, value.toDouble(), Text);
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
    case QMetaType::Float:
        appendReal(out, value.toDouble(), Json);
        break;
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
