#include "PlistCompat.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace plistcompat {

namespace {

// The installed parser copies an object once for every reference to it, so a small binary
// list whose containers share references nests into a tree of exponential size. Lists
// whose tree would exceed this many nodes (or four per input byte, whichever is larger) are
// refused. A list where only leaves are shared builds at most one node per reference, and
// every reference takes at least one byte, so real lists stay far below the bound.
constexpr uint64_t kMinNodeBudget = uint64_t(1) << 20;
constexpr uint64_t kNodesPerByte = 4;

uint64_t readBigEndian(const unsigned char* p, unsigned width) {
    uint64_t v = 0;
    for (unsigned i = 0; i < width; ++i)
        v = (v << 8) | p[i];
    return v;
}

struct BinaryList {
    const unsigned char* data = nullptr;
    uint64_t length = 0;
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

    // The references held by the object at offset: their position and count. A leaf (or an
    // object that cannot be followed) holds none.
    void references(uint64_t offset, uint64_t* refsAt, uint64_t* refCount) const {
        *refsAt = 0;
        *refCount = 0;
        uint64_t pos = offset;
        const unsigned marker = data[pos++];
        const unsigned type = marker >> 4;
        if (type != 0xA && type != 0xC && type != 0xD) return;
        uint64_t count = marker & 0x0F;
        if (count == 0x0F) {
            if (pos >= dataEnd) return;
            const unsigned intMarker = data[pos++];
            if ((intMarker >> 4) != 0x1) return;
            const unsigned width = 1u << (intMarker & 0x0F);
            if (width > 8 || width > dataEnd - pos) return;
            count = readBigEndian(data + pos, width);
            pos += width;
        }
        const uint64_t perEntry = (type == 0xD) ? 2 : 1;
        if (count > (dataEnd - pos) / refSize / perEntry) return;
        *refsAt = pos;
        *refCount = count * perEntry;
    }
};

bool parseTrailer(const char* bytes, uint64_t length, BinaryList* list) {
    if (length < 8 + 32 || std::memcmp(bytes, "bplist00", 8) != 0) return false;
    list->data = reinterpret_cast<const unsigned char*>(bytes);
    list->length = length;
    const unsigned char* trailer = list->data + length - 32;
    list->offsetSize = trailer[6];
    list->refSize = trailer[7];
    list->objectCount = readBigEndian(trailer + 8, 8);
    list->topObject = readBigEndian(trailer + 16, 8);
    list->offsetTable = readBigEndian(trailer + 24, 8);
    list->dataEnd = length - 32;
    if (list->offsetSize < 1 || list->offsetSize > 8 || list->refSize < 1 || list->refSize > 8) return false;
    if (list->objectCount == 0 || list->topObject >= list->objectCount) return false;
    if (list->offsetTable < 8 || list->offsetTable > list->dataEnd) return false;
    if (list->objectCount > (list->dataEnd - list->offsetTable) / list->offsetSize) return false;
    return true;
}

// Walks the object graph from the top object without recursion and reports the size and
// depth of the tree the parser would build. A reference cycle reports false (the parser
// refuses those itself).
bool binaryTreeShape(const BinaryList& list, uint64_t budget, uint64_t* nodes, uint64_t* depth) {
    enum : unsigned char { Unseen, Open, Done };
    const uint64_t n = list.objectCount;
    std::vector<unsigned char> state(n, Unseen);
    std::vector<uint64_t> size(n, 0);
    std::vector<uint32_t> height(n, 0);

    struct Frame {
        uint64_t object;
        uint64_t refsAt;
        uint64_t refCount;
        uint64_t next;
    };
    std::vector<Frame> stack;

    auto open = [&](uint64_t object) -> bool {
        uint64_t offset = 0;
        Frame frame{object, 0, 0, 0};
        if (list.objectOffset(object, &offset)) list.references(offset, &frame.refsAt, &frame.refCount);
        state[object] = Open;
        size[object] = 1;
        height[object] = 1;
        stack.push_back(frame);
        return stack.size() <= kMaxDepth + 1;
    };

    if (!open(list.topObject)) return false;
    while (!stack.empty()) {
        Frame& top = stack.back();
        if (top.next < top.refCount) {
            const uint64_t child =
                readBigEndian(list.data + top.refsAt + top.next * list.refSize, list.refSize);
            ++top.next;
            if (child >= n) continue; // the parser rejects it
            if (state[child] == Open) return false;
            if (state[child] == Unseen) {
                if (!open(child)) return false;
                continue;
            }
            const uint64_t parent = top.object;
            size[parent] += size[child];
            if (height[child] + 1u > height[parent]) height[parent] = height[child] + 1;
            if (size[parent] > budget) return false;
            continue;
        }
        const uint64_t done = top.object;
        state[done] = Done;
        stack.pop_back();
        if (!stack.empty()) {
            const uint64_t parent = stack.back().object;
            size[parent] += size[done];
            if (height[done] + 1u > height[parent]) height[parent] = height[done] + 1;
            if (size[parent] > budget) return false;
        }
    }
    *nodes = size[list.topObject];
    *depth = height[list.topObject];
    return true;
}

// Nesting depth of array and dictionary elements in XML text; stops counting past limit.
uint64_t xmlDepth(const char* data, uint64_t length, uint64_t limit) {
    uint64_t depth = 0;
    uint64_t deepest = 0;
    for (uint64_t i = 0; i + 1 < length; ++i) {
        if (data[i] != '<') continue;
        const char* p = data + i + 1;
        const uint64_t left = length - i - 1;
        // Comments and character data may hold anything; skip them whole.
        const char* skipTo = nullptr;
        if (left >= 3 && std::memcmp(p, "!--", 3) == 0)
            skipTo = "-->";
        else if (left >= 8 && std::memcmp(p, "![CDATA[", 8) == 0)
            skipTo = "]]>";
        if (skipTo) {
            uint64_t j = i + 1;
            while (j + 3 <= length && std::memcmp(data + j, skipTo, 3) != 0)
                ++j;
            i = j + 2;
            continue;
        }
        const bool closing = (*p == '/');
        const char* name = closing ? p + 1 : p;
        const uint64_t nameLeft = closing ? left - 1 : left;
        uint64_t nameLength = 0;
        if (nameLeft >= 5 && std::memcmp(name, "array", 5) == 0)
            nameLength = 5;
        else if (nameLeft >= 4 && std::memcmp(name, "dict", 4) == 0)
            nameLength = 4;
        if (nameLength == 0) continue;
        if (closing) {
            if (depth > 0) --depth;
            continue;
        }
        // An empty element <array/> opens nothing.
        uint64_t j = nameLength;
        while (j < nameLeft && name[j] != '>')
            ++j;
        if (j < nameLeft && j > 0 && name[j - 1] == '/') continue;
        if (++depth > deepest) deepest = depth;
        if (deepest > limit) break;
    }
    return deepest;
}

// XML has no UID element; archives write a reference as a dictionary whose only entry is
// "CF$UID" with an integer. Current libplist releases read such a dictionary back as a UID
// node; the installed release keeps the dictionary. Returns the UID node that replaces node,
// or null when node stays.
plist_t uidFromDictionary(plist_t node) {
    if (plist_get_node_type(node) != PLIST_DICT || plist_dict_get_size(node) != 1) return nullptr;
    plist_t value = plist_dict_get_item(node, "CF$UID");
    if (!value || plist_get_node_type(value) != PLIST_UINT) return nullptr;
    uint64_t uid = 0;
    plist_get_uint_val(value, &uid);
    return plist_new_uid(uid);
}

void convertXmlUids(plist_t node, unsigned depth) {
    if (depth > kMaxDepth) return;
    const plist_type type = plist_get_node_type(node);
    if (type == PLIST_ARRAY) {
        const uint32_t size = plist_array_get_size(node);
        for (uint32_t i = 0; i < size; ++i) {
            plist_t item = plist_array_get_item(node, i);
            if (plist_t uid = uidFromDictionary(item))
                plist_array_set_item(node, uid, i);
            else
                convertXmlUids(item, depth + 1);
        }
    } else if (type == PLIST_DICT) {
        // Replacing entries while iterating is not safe: collect first, then replace.
        std::vector<std::pair<char*, plist_t>> replace;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        if (!it) return;
        for (;;) {
            char* key = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(node, it, &key, &value);
            if (!key || !value) {
                std::free(key);
                break;
            }
            if (plist_t uid = uidFromDictionary(value)) {
                replace.emplace_back(key, uid);
            } else {
                convertXmlUids(value, depth + 1);
                std::free(key);
            }
        }
        std::free(it);
        for (auto& entry : replace) {
            plist_dict_set_item(node, entry.first, entry.second);
            std::free(entry.first);
        }
    }
}

} // namespace

Error plist_from_memory(const char* data, uint32_t length, plist_t* plist) {
    if (!data || length == 0 || !plist) return PLIST_ERR_INVALID_ARG;
    const bool binary = ::plist_is_binary(data, length) != 0;
    if (binary) {
        BinaryList list;
        if (parseTrailer(data, length, &list)) {
            const uint64_t budget = std::max(kMinNodeBudget, kNodesPerByte * uint64_t(length));
            uint64_t nodes = 0;
            uint64_t depth = 0;
            if (!binaryTreeShape(list, budget, &nodes, &depth)) return PLIST_ERR_PARSE;
            if (depth > kMaxDepth) return PLIST_ERR_PARSE;
        }
    } else if (xmlDepth(data, length, kMaxDepth) > kMaxDepth) {
        return PLIST_ERR_PARSE;
    }
    // The installed parser misreads a non-null output pointer as a tree to extend, so it
    // always parses into a fresh local and the caller's pointer changes only on success.
    plist_t parsed = nullptr;
    ::plist_from_memory(data, length, &parsed);
    if (!parsed) return PLIST_ERR_PARSE;
    if (!binary) {
        if (plist_t uid = uidFromDictionary(parsed)) {
            ::plist_free(parsed);
            parsed = uid;
        } else {
            convertXmlUids(parsed, 0);
        }
    }
    *plist = parsed;
    return PLIST_ERR_SUCCESS;
}

Error plist_to_xml(plist_t node, char** out, uint32_t* length) {
    if (!node || !out || !length) return PLIST_ERR_INVALID_ARG;
    *out = nullptr;
    *length = 0;
    ::plist_to_xml(node, out, length);
    if (!*out) return PLIST_ERR_FORMAT;
    return PLIST_ERR_SUCCESS;
}

Error plist_to_bin(plist_t node, char** out, uint32_t* length) {
    if (!node || !out || !length) return PLIST_ERR_INVALID_ARG;
    *out = nullptr;
    *length = 0;
    ::plist_to_bin(node, out, length);
    if (!*out) return PLIST_ERR_FORMAT;
    return PLIST_ERR_SUCCESS;
}

void plist_mem_free(void* buffer) {
    // The installed release allocates serialised buffers with malloc.
    std::free(buffer);
}

} // namespace plistcompat
