// The SQLite 3 file format as the library's readers decode it: the database header's fields,
// page types and the b-tree page header, the varint and record-header readers, cells, and one
// walk for each chain a file holds (cell pointers, freeblocks, overflow pages, the free list).
//
// This layer decodes and never decides: every walk stops at a link it has met before, and
// otherwise hands each step to the caller, which says whether it believes it. The documented
// readings keep their own rules on top of it (positions wrapped at 32 bits, a page size taken
// literally); the readers that show what a file holds check every page and cell against the
// page it lies in. Internal to the library.
#pragma once

#include <QtGlobal>

#include <algorithm>
#include <unordered_set>
#include <vector>

namespace sqlitefmt {

// ---------------------------------------------------------------------------------------------
// The database header: the first 100 bytes of page 1.

constexpr qint64 kDatabaseHeaderSize = 100;
constexpr char kMagic[] = "SQLite format 3"; // followed by a zero byte

namespace header {
enum Offset : int {
    Magic = 0,
    PageSize = 16, // 2 bytes; 1 stands for 65,536
};
} // namespace header

enum TextEncoding : qint32 { Utf8 = 1, Utf16le = 2, Utf16be = 3 };

constexpr qint64 kLargestPage = 65536;
// A page's usable size is never below this in a database the engine writes.
constexpr qint64 kSmallestUsable = 480;

// The page size a header stores in its 2-byte field: 65,536 does not fit and is stored as 1.
inline qint64 pageSizeOfField(quint32 field) {
    return field == 1 ? kLargestPage : field;
}
inline bool validPageSize(qint64 size) {
    return size >= 512 && size <= kLargestPage && (size & (size - 1)) == 0;
}

// ---------------------------------------------------------------------------------------------
// Pages

enum PageType : quint8 { IndexInterior = 2, TableInterior = 5, IndexLeaf = 10, TableLeaf = 13 };

inline bool isBtreePage(int type) {
    return type == IndexInterior || type == TableInterior || type == IndexLeaf || type == TableLeaf;
}
inline bool isInterior(int type) {
    return type == IndexInterior || type == TableInterior;
}
inline bool isTablePage(int type) {
    return type == TableInterior || type == TableLeaf;
}

// The b-tree page header: 8 bytes on a leaf, 12 on an interior page, after the database header
// on page 1.
namespace page {
enum Offset : int {
    Type = 0,
    FirstFreeblock = 1,
    CellCount = 3,
    ContentStart = 5,
    FragmentedBytes = 7,
    RightChild = 8
};
}
constexpr int kLeafHeaderSize = 8;
constexpr int kInteriorHeaderSize = 12;
inline int btreeHeaderSize(int type) {
    return isInterior(type) ? kInteriorHeaderSize : kLeafHeaderSize;
}
// Where the b-tree header of a page lies in the page.
inline qint64 btreeHeaderOffset(qint64 pageNo) {
    return pageNo == 1 ? kDatabaseHeaderSize : 0;
}

// A freeblock starts with the offset of the next one and its own size (which counts these 4
// bytes); an overflow page with the number of the next; a free-list trunk with the next trunk,
// its count of leaves and their numbers.
constexpr int kFreeblockHeaderSize = 4;
constexpr int kOverflowHeaderSize = 4;
namespace trunk {
enum Offset : int { Next = 0, LeafCount = 4, Leaves = 8 };
}

inline quint32 get16(const uchar* p) {
    return (quint32(p[0]) << 8) | p[1];
}
inline quint32 get32(const uchar* p) {
    return (quint32(p[0]) << 24) | (quint32(p[1]) << 16) | (quint32(p[2]) << 8) | p[3];
}

// The size of a page and what can be used of it, and the database's text encoding, as a reader
// takes them.
struct Geometry {
    qint64 pageSize = 0;
    qint64 usable = 0; // page size less the reserved bytes at the end of every page
    qint32 encoding = Utf8;
    qint64 pagePosition(qint64 pageNo) const { return (pageNo - 1) * pageSize; }
};

// ---------------------------------------------------------------------------------------------
// Varints and records

// An SQLite varint: up to nine bytes, each of the first eight giving 7 bits while its top bit is
// set, the ninth 8 bits.
struct Varint {
    quint64 value = 0; // the bits read, also when cut short
    int length = 0;    // bytes read: 0 at the end, all there were when cut short
    bool complete = false;
};

inline Varint readVarint(const uchar* p, qint64 available) {
    Varint v;
    if (available <= 0) return v;
    if (p[0] < 0x80) {
        v.value = p[0];
        v.length = 1;
        v.complete = true;
        return v;
    }
    quint64 value = 0;
    int n = 0;
    while (n < available) {
        const uchar b = p[n++];
        if (n == 9) {
            value = (value << 8) | b;
            v.complete = true;
            break;
        }
        value = (value << 7) | (b & 0x7F);
        if (!(b & 0x80)) {
            v.complete = true;
            break;
        }
    }
    v.value = value;
    v.length = n;
    return v;
}

// The header of a record: its size, then one serial type per value. The serial types are read
// while they start inside the header and the payload; one cut short by the payload's end is
// kept as read. Values start at size in a well-formed record; the documented readings start
// them where the serial types ended.
struct RecordHeader {
    qint64 size = 0;
    std::vector<qint64> types;
    bool wellFormed = false; // every varint whole, and the serial types fill the header exactly
};
// The same reading with each serial type handed to push(type) instead of kept; returns where
// the serial types ended, and sets size and whether the header is well formed.
template <typename Push>
inline qint64 readRecordHeader(const uchar* payload, qint64 size, qint64* headerSize, bool* wellFormed,
                               Push push) {
    const Varint head = readVarint(payload, size);
    *headerSize = qint64(head.value);
    qint64 at = head.length;
    bool whole = head.complete;
    while (at < *headerSize && at < size) {
        const Varint type = readVarint(payload + at, size - at);
        push(qint64(type.value));
        whole = whole && type.complete;
        at += type.length;
    }
    *wellFormed = whole && head.length > 0 && at == *headerSize;
    return at;
}
inline void readRecordHeader(const uchar* payload, qint64 size, RecordHeader& out) {
    out.types.clear();
    readRecordHeader(payload, size, &out.size, &out.wellFormed,
                     [&out](qint64 type) { out.types.push_back(type); });
}

// The bytes a value of a serial type takes: none for NULL, 0, 1, the reserved 10 and 11, and
// anything below 0.
inline qint64 valueLength(qint64 serialType) {
    static const qint64 fixed[] = {0, 1, 2, 3, 4, 6, 8, 8, 0, 0, 0, 0};
    if (serialType < 0) return 0;
    if (serialType < 12) return fixed[serialType];
    return (serialType - 12 - serialType % 2) / 2;
}

// The bytes of a payload that its cell keeps on a page of usable bytes, the rest going to
// overflow pages: for a table leaf's cell (table) or an index cell.
qint64 localPayload(qint64 payload, qint64 usable, bool table = true);

// One cell of a b-tree page image.
struct Cell {
    qint64 offset = 0;      // in the page
    quint32 leftChild = 0;  // interior pages
    qint64 rowid = 0;       // table pages
    qint64 payloadSize = 0; // leaves and index pages
    qint64 payloadAt = 0;   // offset of the payload in the page
    qint64 local = 0;       // bytes of it on the page
    quint32 overflow = 0;   // first overflow page, 0 when the payload is all on the page
};
// Reads the cell at offset of a page image of type type with usable bytes; false when the cell
// does not lie whole inside the usable part of the page.
bool readCell(const uchar* image, qint64 usable, int type, qint64 offset, Cell& out);

// ---------------------------------------------------------------------------------------------
// Walks. Each stops at a link it has met before, so that no damaged file can make it loop.

// A set of page numbers or offsets met on a walk: a few kept in a list, more in a hash set.
class SeenSet {
public:
    // False when value was met before.
    bool insert(qint64 value) {
        if (m_many.empty()) {
            if (std::find(m_few.begin(), m_few.end(), value) != m_few.end()) return false;
            if (m_few.size() < 16) {
                m_few.push_back(value);
                return true;
            }
            m_many.insert(m_few.begin(), m_few.end());
        }
        return m_many.insert(value).second;
    }

private:
    std::vector<qint64> m_few;
    std::unordered_set<qint64> m_many;
};

// The cell pointers of a b-tree page whose header is at hdr in the image: visit(index, offset)
// for each, in order, while it returns true. Pointers past the image's end are not visited.
template <typename Visit> void forEachCellPointer(const uchar* image, qint64 size, qint64 hdr, Visit visit) {
    if (hdr + kLeafHeaderSize > size) return;
    const int type = image[hdr + page::Type];
    const qint64 count = get16(image + hdr + page::CellCount);
    const qint64 first = hdr + btreeHeaderSize(type);
    for (qint64 i = 0; i < count && first + 2 * i + 2 <= size; ++i)
        if (!visit(int(i), qint64(get16(image + first + 2 * i)))) return;
}

// The children of an interior page whose header is at hdr: the page numbers its cells hold, in
// order, then its right child.
template <typename Visit> void forEachChild(const uchar* image, qint64 usable, qint64 hdr, Visit visit) {
    forEachCellPointer(image, usable, hdr, [&](int, qint64 offset) {
        if (offset + 4 <= usable) visit(qint64(get32(image + offset)));
        return true;
    });
    visit(qint64(get32(image + hdr + page::RightChild)));
}

// A freeblock chain from the offset first: read(offset, &next, &size) reads the header of the
// freeblock at offset (false: the chain ends), visit(offset, next, size) takes it (false: the
// chain ends). The chain also ends at offset 0 and at an offset met before.
template <typename Read, typename Visit> void walkFreeblocks(qint64 first, Read read, Visit visit) {
    SeenSet seen;
    for (qint64 offset = first; offset != 0 && seen.insert(offset);) {
        qint64 next = 0, size = 0;
        if (!read(offset, &next, &size) || !visit(offset, next, size)) return;
        offset = next;
    }
}

// An overflow chain, or the free list's trunk chain, from the page first: visit(page) handles
// the page and returns the number of the next (0, or anything below it, to end the chain). The
// chain also ends at a page met before.
template <typename Visit> void walkChain(qint64 first, Visit visit) {
    SeenSet seen;
    for (qint64 page = first; page > 0 && seen.insert(page);)
        page = visit(page);
}

} // namespace sqlitefmt
