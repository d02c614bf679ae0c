// Internal: a thin layer over the installed libplist that gives the library the calling
// conventions and reading of current libplist releases (parse and serialise calls that report
// an error code, one release function for serialised buffers, UIDs read back from XML),
// protects the parser against inputs that the installed release handles badly, and writes
// binary lists in linear time. Not exported; never include from a public header.
#pragma once

#include <plist/plist.h>

#include <cstdint>
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

} // namespace plistcompat
