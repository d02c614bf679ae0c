// Internal: a thin layer over the installed libplist that gives the library the calling
// conventions and reading of current libplist releases (parse and serialise calls that report
// an error code, one release function for serialised buffers, UIDs read back from XML),
// protects the parser against inputs that the installed release handles badly, and writes
// binary lists in linear time. Not exported; never include from a public header.
#pragma once

#include <plist/plist.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace plistcompat {

// Error codes as current libplist releases name them.
enum Error : int {
    PLIST_ERR_SUCCESS = 0,
    PLIST_ERR_INVALID_ARG = -1,
    PLIST_ERR_FORMAT = -2,
    PLIST_ERR_PARSE = -3,
    PLIST_ERR_NO_MEM = -4,
    PLIST_ERR_UNKNOWN = -255
};

// Deepest nesting of containers accepted by plist_from_memory. Far beyond anything a real
// property list holds; deeper inputs would only serve to exhaust the stack of the recursive
// readers and converters.
constexpr unsigned kMaxDepth = 1000;

// Parses binary or XML bytes. *plist is assigned only on success (a fresh tree owned by the
// caller) and left untouched otherwise. In XML, a dictionary whose only entry is "CF$UID"
// with an integer becomes a UID node, as current releases read it.
Error plist_from_memory(const char* data, uint32_t length, plist_t* plist);
// Serialises node; on success *out is a buffer to release with plist_mem_free.
Error plist_to_xml(plist_t node, char** out, uint32_t* length);
// The binary form is written here rather than by the installed release, whose writer slows
// down with the square of the number of containers (and worse on repeated subtrees).
Error plist_to_bin(plist_t node, char** out, uint32_t* length);
void plist_mem_free(void* buffer);

// The items of an array, in order. The installed release finds an item by index by walking
// the list from its start, so reading a long array index by index takes quadratic time; this
// walks it once with the array iterator.
std::vector<plist_t> arrayItems(plist_t array);
// The keys and values of a dictionary, in its order; the keys are copied, the values borrowed.
std::vector<std::pair<std::string, plist_t>> dictItems(plist_t dict);

// A binary property list read in place: where its objects lie, what their headers say, and
// the references they hold. Positions and counts come from the list itself; the methods check
// them against its bounds (an object's contents are checked by the caller, against dataEnd).
inline uint64_t readBigEndian(const unsigned char* p, unsigned width) {
    uint64_t v = 0;
    for (unsigned i = 0; i < width; ++i)
        v = (v << 8) | p[i];
    return v;
}

struct BinaryList {
    const unsigned char* data = nullptr;
    unsigned offsetSize = 0;
    unsigned refSize = 0;
    uint64_t objectCount = 0;
    uint64_t topObject = 0;
    uint64_t offsetTable = 0;
    uint64_t dataEnd = 0; // objects and the offset table lie before the trailer

    // Offset of object i, or false when it cannot be read.
    bool objectOffset(uint64_t i, uint64_t* offset) const {
        const uint64_t pos = offsetTable + i * offsetSize;
        *offset = readBigEndian(data + pos, offsetSize);
        return *offset < dataEnd;
    }

    // The marker type of the object at offset, its count and where its contents begin.
    bool header(uint64_t offset, unsigned* type, uint64_t* count, uint64_t* contents) const {
        uint64_t pos = offset;
        const unsigned marker = data[pos++];
        *type = marker >> 4;
        *count = marker & 0x0F;
        if (*count == 0x0F) {
            if (pos >= dataEnd) return false;
            const unsigned intMarker = data[pos++];
            if ((intMarker >> 4) != 0x1) return false;
            const unsigned width = 1u << (intMarker & 0x0F);
            if (width > 8 || width > dataEnd - pos) return false;
            *count = readBigEndian(data + pos, width);
            pos += width;
        }
        *contents = pos;
        return true;
    }

    // The header of object i; false when there is no such object or its header cannot be read.
    bool object(uint64_t i, unsigned* type, uint64_t* count, uint64_t* contents) const {
        uint64_t offset = 0;
        return i < objectCount && objectOffset(i, &offset) && header(offset, type, count, contents);
    }

    // Reference k of those that begin at position at.
    uint64_t reference(uint64_t at, uint64_t k) const {
        return readBigEndian(data + at + k * refSize, refSize);
    }

    // The references held by the object at offset: their position and count, and whether the
    // first half of them are dictionary keys. A leaf (or an object that cannot be followed)
    // holds none.
    void references(uint64_t offset, uint64_t* refsAt, uint64_t* refCount, bool* dict) const {
        *refsAt = 0;
        *refCount = 0;
        *dict = false;
        unsigned type = 0;
        uint64_t count = 0;
        uint64_t pos = 0;
        if (!header(offset, &type, &count, &pos)) return;
        if (type != 0xA && type != 0xC && type != 0xD) return;
        const uint64_t perEntry = (type == 0xD) ? 2 : 1;
        if (count > (dataEnd - pos) / refSize / perEntry) return;
        *refsAt = pos;
        *refCount = count * perEntry;
        *dict = type == 0xD;
    }

    // Whether object i is text holding a zero character. The installed release aborts on a
    // dictionary key like that (it checks key lengths with an assertion).
    bool textWithZero(uint64_t i) const {
        unsigned type = 0;
        uint64_t count = 0;
        uint64_t pos = 0;
        if (!object(i, &type, &count, &pos)) return false;
        if (type == 0x5) {
            if (count > dataEnd - pos) return false;
            return std::memchr(data + pos, 0, count) != nullptr;
        }
        if (type == 0x6) {
            if (count > (dataEnd - pos) / 2) return false;
            for (uint64_t k = 0; k < count; ++k)
                if (data[pos + 2 * k] == 0 && data[pos + 2 * k + 1] == 0) return true;
        }
        return false;
    }
};

// Reads the trailer of a binary list ("bplist00") into *list; false when it is not one or its
// trailer does not fit the bytes.
bool parseTrailer(const char* bytes, uint64_t length, BinaryList* list);

} // namespace plistcompat
