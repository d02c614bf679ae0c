// Streams records to stdout as they are found, in constant memory: text lines (values joined
// by " | ", as toText renders them), one JSON array written a piece at a time (values as
// toJson renders them: blobs as base64, invalid values as null), or CSV rows (RFC 4180; NULL
// empty, blobs as x'hex').
#pragma once

#include "SQliteScanner.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVariant>

#include <initializer_list>
#include <utility>

namespace inspect {

class RecordWriter {
public:
    enum Format { Text, Json, Csv };
    explicit RecordWriter(bool json) : RecordWriter(json ? Json : Text) {}
    explicit RecordWriter(Format format);
    ~RecordWriter();
    RecordWriter(const RecordWriter&) = delete;
    RecordWriter& operator=(const RecordWriter&) = delete;

    bool json() const { return m_format == Json; }
    Format format() const { return m_format; }
    qint64 count() const { return m_count; }

    // Text only: a line of its own (a header, a group title, a count).
    void line(const QString& text);
    // One record: a text line, or a JSON array of its values.
    void record(const QList<QVariant>& values);
    // The same for a live record read in place: its rowid, then its values.
    void record(const SQliteScanner::RecordView& view);
    // One record as a JSON object: the named scalar fields, then "values" (left out without
    // values); as text or CSV, the fields' values, then the record's values.
    using Field = std::pair<const char*, QVariant>;
    void object(std::initializer_list<Field> fields, const QList<QVariant>& values = {});
    // Text: prefix, then the values joined, NULL (an invalid value) written as nullText.
    void textRecord(const QString& prefix, const QList<QVariant>& values, const char* nullText);
    // CSV: one row of cells.
    void csvRow(const QList<QVariant>& cells);
    // Ends the JSON array (the destructor does it too) and flushes.
    void finish();

    static void appendText(QByteArray& out, const QVariant& value, const char* nullText = "?");
    static void appendJson(QByteArray& out, const QVariant& value);
    static void appendJsonString(QByteArray& out, const QString& text);

private:
    void beginItem();
    void appendValues(const QList<QVariant>& values, const char* nullText = "?");
    void appendViewValue(const SQliteScanner::RecordView& view, int i);
    void flushIfFull();

    Format m_format;
    bool m_finished = false;
    qint64 m_count = 0;
    QByteArray m_buffer;
};

} // namespace inspect
