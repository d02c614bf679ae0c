// JSON written as text, value by value: keys stay in the order they are given and integers are
// exact over the whole signed and unsigned 64-bit range (Qt's JSON classes sort keys and hold
// numbers as doubles).
#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QVariant>

#include <vector>

namespace inspect {

class JsonText {
public:
    void beginObject() { open('{'); }
    void endObject() { close('}'); }
    void beginArray() { open('['); }
    void endArray() { close(']'); }
    // The key of the next value in the object being written.
    void key(const QString& name);

    void value(const QString& text);
    void value(const char* text) { value(QString::fromUtf8(text)); }
    void value(qint64 number);
    void value(quint64 number);
    void value(int number) { value(qint64(number)); }
    void value(double number); // shortest exact form, 2.0 for two; null when not finite
    void value(bool b);
    void null();
    // A value already written as JSON text.
    void raw(const QByteArray& json);

    // key(name), then the value.
    template <typename T> void member(const QString& name, const T& v) {
        key(name);
        value(v);
    }

    const QByteArray& text() const { return m_text; }
    qint64 values() const { return m_values; }

private:
    void item();
    void open(char c);
    void close(char c);

    QByteArray m_text;
    std::vector<bool> m_empty; // per open container: nothing written in it yet
    bool m_afterKey = false;
    qint64 m_values = 0;
};

// Prints one flat JSON object: the members in the order given, each value as
// RecordWriter::appendJson writes it (64-bit integers exact, text escaped, blobs in base64).
void printJsonObject(const QList<QPair<QString, QVariant>>& members);

// Prints JSON text to stdout with a final newline: indented by four spaces a level, or compact
// when nested deeper than 32 levels, where the indentation would outgrow the values.
void printJsonText(const QByteArray& json);

} // namespace inspect
