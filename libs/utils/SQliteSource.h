// Positional reads of the device behind an SQliteDbUtil's stream, with a small cache of
// recently read stretches, so that a page is read from the file once and decoded from memory.
// It answers exactly as a seek followed by a read on that device would: a closed device or a
// negative position fails, and a read past the end comes back short. A file is read with pread,
// which leaves the stream's own position and buffer alone; any other device through seek and
// read. Internal to the library.
#pragma once

#include "ByteCursor.h"
#include "SQliteFormat.h"

#include <QtGlobal>

#include <algorithm>
#include <vector>

class QIODevice;

class SQliteSource {
public:
    // Binds to device (the reader's stream device, possibly none) for the operation that
    // follows; forgets the cached bytes when the device changed. Returns whether the device is
    // open for reading. reset() forgets everything (a new file, or a closed one).
    bool attach(QIODevice* device);
    void reset();

    bool isOpen() const { return m_open; }
    qint64 size() const { return m_size; }
    // Whether a seek of the device to pos would succeed.
    bool canSeek(qint64 pos) const;

    // Up to n bytes at pos, fewer at the end of the device (got receives the count; the
    // pointer is never null). Valid until the next call on this source. kPadding more bytes
    // can be read after them (the file's next bytes, or zeros), so that a scan may look ahead
    // without checking first.
    static constexpr qint64 kPadding = 32;
    const uchar* bytes(qint64 pos, qint64 n, qint64* got);
    // The same bytes under a cursor.
    ByteCursor cursor(qint64 pos, qint64 n) {
        qint64 got = 0;
        const uchar* p = bytes(pos, n, &got);
        return ByteCursor(p, got);
    }
    // pread of n bytes at pos from a file descriptor, all of them unless the file ends first;
    // -1 where there is no such call (or no descriptor).
    static qint64 readAt(int fd, qint64 pos, uchar* out, qint64 n);

    // Changes whenever a pointer handed out by bytes() may have gone stale.
    quint64 generation() const { return m_generation; }
    // A few bytes read on their own, without filling the cache with what surrounds them (a
    // page header when every page is indexed). Valid until the next peek.
    ByteCursor peek(qint64 pos, qint64 n);

    // Whether a page size stored as 1 is taken for 65,536, as the engine takes it: set by the
    // loaders that read what the engine reads, clear for the documented loadDb, which takes the
    // header literally. Kept across reset().
    bool largePages = false;

private:
    struct Window {
        qint64 start = -1;
        qint64 length = 0; // bytes read; data holds kPadding zeros more
        std::vector<uchar> data;
        quint64 lastUse = 0;
    };
    qint64 readInto(qint64 pos, qint64 n, uchar* out);
    Window& load(qint64 start, qint64 length);

    QIODevice* m_device = nullptr;
    int m_fd = -1;
    bool m_open = false;
    bool m_sized = false;
    qint64 m_size = 0;
    quint64 m_clock = 0;
    quint64 m_generation = 0;
    qint64 m_lastEnd = -1; // end of the last stretch read: the next one right after it reads ahead
    std::vector<Window> m_windows;
    std::vector<uchar> m_scratch;
    std::vector<uchar> m_peek;
};

class SQliteDbUtil;

// The source of db, attached to its stream's device for the operation that follows.
SQliteSource& sqliteSource(SQliteDbUtil& db);
// Whether db's stopSearch() was called (its flag is shared with the thread that calls it).
bool stopRequested(const SQliteDbUtil& db);
// The page size, usable bytes and text encoding db's operations work with: its header's, with a
// page size stored as 1 read as 65,536 when it was loaded to read what the engine reads.
sqlitefmt::Geometry sqliteGeometry(SQliteDbUtil& db);

namespace sqliteio {

// 32-bit two's-complement narrowing without implementation-defined conversions.
inline int narrow32(qint64 v) {
    const quint32 u = quint32(quint64(v));
    return u <= quint32(INT32_MAX) ? int(u) : int(qint64(u) - (qint64(1) << 32));
}

// Start of a page, computed in 64 bits.
inline qint64 pagePosition(qint64 pageSize, qint64 page) {
    return (page - 1) * pageSize;
}

// pageSize × (page − 1) + offset in 32-bit signed arithmetic, widened: kept as the documented
// operations always formed positions inside a page (it wraps for positions past 2 GiB).
inline qint64 wrapped32Position(qint64 pageSize, int page, int offset) {
    return narrow32(qint64(quint32(pageSize) * (quint32(page) - 1u) + quint32(offset)));
}

// The content of an overflow chain from page first as the documented readOverFlowData reads it:
// every page whole (its usable bytes after the 4-byte link), the last one too; the chain ends
// at 0, at a page met before or outside the file.
QByteArray documentedOverflow(SQliteSource& src, const sqlitefmt::Geometry& geometry, qint64 first);

// The free list from the trunk page first, as the file links it: visit(trunk, next, leaves) for
// each trunk in chain order with the next trunk's number and the leaf numbers it lists (at
// most as many as a page holds). The
// walk ends at 0, at a trunk met before, or at a trunk that accept(trunk) refuses, which it
// returns (0 otherwise). A trunk that cannot be read is visited without leaves and ends it.
template <typename Accept, typename Visit>
qint64 walkFreeList(SQliteSource& src, const sqlitefmt::Geometry& g, qint64 first, Accept accept,
                    Visit visit) {
    qint64 refused = 0;
    std::vector<quint32> leaves;
    sqlitefmt::walkChain(first, [&](qint64 trunk) -> qint64 {
        leaves.clear();
        if (!accept(trunk)) {
            refused = trunk;
            return 0;
        }
        const qint64 pos = g.pagePosition(trunk);
        if (!src.canSeek(pos)) {
            visit(trunk, qint64(0), leaves);
            return 0;
        }
        ByteCursor head = src.cursor(pos, sqlitefmt::trunk::Leaves);
        const quint32 next = head.u32();
        // A trunk page holds at most (page size − 8) / 4 leaf numbers; a larger count can only
        // come from a damaged page and would read past it.
        const quint32 capacity = g.pageSize > 8 ? quint32((g.pageSize - 8) / 4) : 0;
        const quint32 count = std::min(head.u32(), capacity);
        ByteCursor list = src.cursor(pos + head.pos(), 4 * qint64(count));
        leaves.reserve(count);
        for (quint32 i = 0; i < count; ++i)
            leaves.push_back(list.u32());
        visit(trunk, qint64(next), leaves);
        return next;
    });
    return refused;
}

} // namespace sqliteio
