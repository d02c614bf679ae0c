// Decoding of SQLite record values and type patterns from bytes in memory, with the readings of
// SQliteDbUtil::readValue, cellData2String and fieldsMatch: the reader and its scans decode
// through these. Internal to the library.
#pragma once

#include <QString>
#include <QVariant>

#include <vector>

class ByteCursor;

class SQliteCodec {
public:
    // Text in the database's encoding (1 or any other value UTF-8, 2 UTF-16LE, 3 UTF-16BE),
    // exactly as cellData2String decodes it.
    static QString text(const uchar* bytes, qint64 n, qint32 encoding);
    // One record value read at the cursor, as readValue reads it from a stream over the same
    // bytes: NULL as integer 0, the 24- and 48-bit readings, short values cut at the end, and
    // len (when given) set to the nominal byte count, or left alone for serial types 10 and 11.
    static QVariant value(ByteCursor& cursor, qint64 serialType, int* len, qint32 encoding);
    // Whether a pattern letter (its UTF-16 code) accepts a serial type, as fieldsMatch answers.
    static bool letterAccepts(ushort code, int serialType);

    // A type pattern with its answers for every one-byte serial type worked out once.
    class Pattern {
    public:
        explicit Pattern(const QString& pattern);
        int size() const { return int(m_codes.size()); }
        bool matches(int index, int serialType) const {
            if (serialType >= 0 && serialType < 128) return m_small[size_t(index) * 128 + size_t(serialType)];
            return letterAccepts(m_codes[size_t(index)], serialType);
        }
        // Whether the first letter accepts a one-byte serial type (b < 128).
        bool firstAcceptsByte(uchar b) const { return m_small[b]; }

    private:
        std::vector<ushort> m_codes;
        std::vector<uchar> m_small;
    };
};
