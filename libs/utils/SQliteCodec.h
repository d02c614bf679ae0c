// Decoding of SQLite record values and type patterns from bytes in memory. A value has two
// readings: the documented one of SQliteDbUtil::readValue and cellData2String (NULL as integer
// 0, the 24- and 48-bit quirks, values cut short at the end), which the documented operations
// and their scans use, and the value as SQLite stores it (SQliteValue), which everything that
// shows or compares what a file holds uses. Internal to the library.
#pragma once

#include <QString>
#include <QVariant>

#include <vector>

class ByteCursor;
struct SQliteValue;

class SQliteCodec {
public:
    // Text in the database's encoding (1 or any other value UTF-8, 2 UTF-16LE, 3 UTF-16BE),
    // exactly as cellData2String decodes it.
    static QString text(const uchar* bytes, qint64 n, qint32 encoding);
    // One record value read at the cursor, as readValue reads it from a stream over the same
    // bytes: NULL as integer 0, the 24- and 48-bit readings, short values cut at the end, and
    // len (when given) set to the nominal byte count, or left alone for serial types 10 and 11.
    static QVariant value(ByteCursor& cursor, qint64 serialType, int* len, qint32 encoding);
    // The value as SQLite stores it, from the avail bytes at p: false when the value does not
    // fit them, or its serial type is the reserved 10 or 11 (or below 0).
    static bool stored(qint64 serialType, const uchar* p, qint64 avail, qint32 encoding, SQliteValue* out);
    // Whether a pattern letter (its UTF-16 code) accepts a serial type, as fieldsMatch answers.
    static bool letterAccepts(ushort code, int serialType);
    // The same with two more letters, for the recovery of whole records: t (NULL, text or blob)
    // and a (any serial type a record may hold).
    static bool extendedLetterAccepts(ushort code, int serialType);

    // A type pattern with its answers for every one-byte serial type worked out once.
    class Pattern {
    public:
        explicit Pattern(const QString& pattern, bool extended = false);
        int size() const { return int(m_codes.size()); }
        bool matches(int index, int serialType) const {
            if (serialType >= 0 && serialType < 128) return m_small[size_t(index) * 128 + size_t(serialType)];
            // Past 127 a letter tells serial types apart by parity only, below 0 not at all.
            const uchar large = m_large[size_t(index)];
            return serialType < 0 ? (large & 4) : (large & (serialType % 2 ? 2 : 1));
        }
        // One bit for each of the 16 candidates starting at p to p + 15, set unless the first
        // letters refuse the candidate's first serial types on sight: a one-byte serial type
        // a letter refuses, or one of two to four bytes (128 or more) of a parity it refuses.
        // Up to four letters are looked at, each only after one-byte serial types before it.
        // With the header flag only the first letter is, after a rowid and a header size of
        // up to four bytes together. Reads p[0] to p[31].
        quint32 candidates16(const uchar* p, bool withHeader) const;
        // Whether the first letter refuses the serial type of the varint at p (avail bytes
        // from p to the end of the block), when its first two bytes tell; false otherwise.
        bool firstRefuses(const uchar* p, qint64 avail) const {
            const uchar b0 = p[0];
            if (b0 < 0x80) return !m_small[b0];
            if (b0 == 0x80 || avail < 2 || p[1] >= 0x80) return false;
            return !(m_large[0] & ((p[1] & 1) ? 2 : 1)); // two bytes: 128 or more, by parity
        }

    private:
        std::vector<ushort> m_codes;
        std::vector<uchar> m_small;
        std::vector<uchar> m_large; // 1 even types past 127, 2 odd ones, 4 negative ones
        // The first letter's one-byte serial types as the sets the vector test checks:
        // equal to one of two values, at most hi (but not ex), or at least lo with a parity.
        struct Letter {
            uchar equal1 = 0xFF, equal2 = 0xFF, hi = 0, ex = 0xFF, lo = 0xFF, parity = 0;
            bool upTo = false, from = false, anyParity = false;
            bool vector = false; // the sets give the same answers as the table
        } m_letters[4];
        bool m_vector = false; // the first four letters all have their vector test
        quint32 types16(const uchar* p, int index) const;
        quint32 open16(const uchar* p, int index, int shift, quint32 high, quint32 odd, quint32 is80) const;
    };
};
