// Streams records to stdout as they are found, in constant memory, through one sink per format:
// text lines (values joined by " | ", as toText renders them), one JSON array written a piece at
// a time (values as toJson renders them: blobs as base64, invalid values as null), or CSV rows
// (RFC 4180; NULL empty, blobs as x'hex'). Every record, however it is handed over, is written
// in the writer's format.
#pragma once

#include "SQliteScanner.h"
#include "SQliteTableReader.h"
#include "SQliteValue.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVariant>

#include <initializer_list>
#include <memory>
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
    // One record: a text line, a JSON array of its values or a CSV row.
    void record(const QList<QVariant>& values);
    // The same for a live record read in place: its rowid, then its values.
    void record(const SQliteScanner::RecordView& view);
    // A live row as the engine reads it: its rowid when the table has one, then its values (see
    // appendValue).
    void record(const SQliteTableReader::Row& row);
    // One record as a JSON object: the named scalar fields, then "values" (left out without
    // values); as text or CSV, the fields' values, then the record's values.
    using Field = std::pair<const char*, QVariant>;
    void object(std::initializer_list<Field> fields, const QList<QVariant>& values = {});
    // One record with a prefix before its values in text, NULL (an invalid value) written there as
    // nullText; JSON and CSV write the values as record() does.
    void textRecord(const QString& prefix, const QList<QVariant>& values, const char* nullText);
    // CSV only: one row of cells that is no record (a header row); the other formats leave it out.
    void csvRow(const QList<QVariant>& cells);
    // Ends the JSON array (the destructor does it too) and flushes.
    void finish();

    static void appendText(QByteArray& out, const QVariant& value, const char* nullText = "?");
    static void appendJson(QByteArray& out, const QVariant& value);
    static void appendJsonString(QByteArray& out, const QString& text);
    // One CSV cell: NULL empty, blobs as x'hex', text quoted when it holds a comma, a quote or a
    // line break.
    static void appendCsv(QByteArray& out, const QVariant& value);

    // A value as SQLite stores it. NULL is NULL in text, null in JSON and an empty CSV field; a
    // float always shows a point or an exponent, so that it is told from an integer (infinity is
    // Inf in text and CSV, 9.0e999 in JSON, where a number cannot be infinite); text is quoted
    // (in CSV always, so that an empty text is told from NULL); a blob is x'hex' in text (its
    // first 64 bytes) and CSV, base64 in JSON.
    static void appendValue(QByteArray& out, const SQliteValue& value, Format format);

    class Sink;

private:
    void written();

    Format m_format;
    std::unique_ptr<Sink> m_sink;
    bool m_finished = false;
    qint64 m_count = 0;
    QByteArray m_buffer;
};

} // namespace inspect
