#include "JsonText.h"

#include "RecordWriter.h"

namespace inspect {

void JsonText::item() {
    ++m_values;
    if (m_afterKey) {
        m_afterKey = false;
        return;
    }
    if (m_empty.empty()) return;
    if (!m_empty.back()) m_text += ',';
    m_empty.back() = false;
}

void JsonText::open(char c) {
    item();
    m_text += c;
    m_empty.push_back(true);
}

void JsonText::close(char c) {
    m_text += c;
    m_empty.pop_back();
}

void JsonText::key(const QString& name) {
    if (!m_empty.back()) m_text += ',';
    m_empty.back() = false;
    RecordWriter::appendJsonString(m_text, name);
    m_text += ':';
    m_afterKey = true;
}

void JsonText::value(const QString& text) {
    item();
    RecordWriter::appendJsonString(m_text, text);
}

// Numbers as the records of every command write them: exact integers, and reals that read back
// the same and stay reals (2.0, not 2; infinities as out-of-range numbers, NaN as null).
void JsonText::value(qint64 number) {
    item();
    RecordWriter::appendJson(m_text, QVariant(qlonglong(number)));
}

void JsonText::value(quint64 number) {
    item();
    RecordWriter::appendJson(m_text, QVariant(qulonglong(number)));
}

void JsonText::value(double number) {
    item();
    RecordWriter::appendJson(m_text, QVariant(number));
}

void JsonText::value(bool b) {
    item();
    m_text += b ? "true" : "false";
}

void JsonText::null() {
    item();
    m_text += "null";
}

void JsonText::raw(const QByteArray& json) {
    item();
    m_text += json;
}

void printJsonObject(const QList<QPair<QString, QVariant>>& members) {
    JsonText json;
    json.beginObject();
    for (const auto& m : members) {
        json.key(m.first);
        QByteArray value;
        RecordWriter::appendJson(value, m.second);
        json.raw(value);
    }
    json.endObject();
    printJsonText(json.text());
}

void printJsonText(const QByteArray& json) {
    int depth = 0, deepest = 0;
    bool inString = false;
    for (int i = 0; i < json.size(); ++i) {
        const char c = json.at(i);
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            deepest = std::max(deepest, ++depth);
        } else if (c == '}' || c == ']') {
            --depth;
        }
    }
    QByteArray text;
    if (deepest > 32) {
        text = json;
    } else {
        text.reserve(json.size() * 2);
        auto newline = [&text](int level) {
            text += '\n';
            text += QByteArray(4 * level, ' ');
        };
        inString = false;
        for (int i = 0; i < json.size(); ++i) {
            char c = json.at(i);
            text += c;
            if (inString) {
                if (c == '\\')
                    text += json.at(++i);
                else if (c == '"')
                    inString = false;
            } else if (c == '"') {
                inString = true;
            } else if (c == ':') {
                text += ' ';
            } else if (c == ',') {
                newline(depth);
            } else if ((c == '{' || c == '[') && i + 1 < json.size() &&
                       (json.at(i + 1) == '}' || json.at(i + 1) == ']')) {
                c = json.at(++i); // an empty container stays on its line
                text += c;
            } else if (c == '{' || c == '[') {
                newline(++depth);
                continue;
            }
            // A value ends here: the bracket that closes its container goes on a line of its own.
            if (!inString && i + 1 < json.size() && (json.at(i + 1) == '}' || json.at(i + 1) == ']'))
                newline(--depth);
        }
    }
    text += '\n';
    fwrite(text.constData(), 1, size_t(text.size()), stdout);
}

} // namespace inspect
