#include "PlistCompat.h"

#include <QString>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace plistcompat {

bool parseTrailer(const char* bytes, uint64_t length, BinaryList* list) {
    if (length < 8 + 32 || std::memcmp(bytes, "bplist00", 8) != 0) return false;
    list->data = reinterpret_cast<const unsigned char*>(bytes);
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

namespace {

// The installed parser copies an object once for every reference to it, so a small binary
// list whose containers share references nests into a tree of exponential size. Lists
// whose tree would exceed this many nodes (or four per input byte, whichever is larger) are
// refused. A list where only leaves are shared builds at most one node per reference, and
// every reference takes at least one byte, so real lists stay far below the bound.
constexpr uint64_t kMinNodeBudget = uint64_t(1) << 20;
constexpr uint64_t kNodesPerByte = 4;

// Walks the object graph from the top object without recursion and reports the size and
// depth of the tree the parser would build. A reference cycle (which the parser refuses
// itself) or a dictionary key holding a zero character reports false.
bool binaryTreeShape(const BinaryList& list, uint64_t budget, uint64_t* nodes, uint64_t* depth) {
    enum : unsigned char { Unseen, Open, Done };
    const uint64_t n = list.objectCount;
    std::vector<unsigned char> state(n, Unseen);
    std::vector<uint64_t> size(n, 0);
    std::vector<uint32_t> height(n, 0);
    std::vector<unsigned char> keyChecked(n, 0);

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
        bool dict = false;
        if (list.objectOffset(object, &offset))
            list.references(offset, &frame.refsAt, &frame.refCount, &dict);
        for (uint64_t k = 0; dict && k < frame.refCount / 2; ++k) {
            const uint64_t key = list.reference(frame.refsAt, k);
            if (key >= n || keyChecked[key]) continue; // each key text is scanned once
            keyChecked[key] = 1;
            if (list.textWithZero(key)) return false;
        }
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
            const uint64_t child = list.reference(top.refsAt, top.next);
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
        // An empty element <array/> opens nothing. The tag ends before the next '<', which
        // keeps the whole scan linear.
        uint64_t j = nameLength;
        while (j < nameLeft && name[j] != '>' && name[j] != '<')
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
        const std::vector<plist_t> items = arrayItems(node);
        for (uint32_t i = 0; i < items.size(); ++i) {
            plist_t item = items[i];
            if (plist_t uid = uidFromDictionary(item))
                plist_array_set_item(node, uid, i);
            else
                convertXmlUids(item, depth + 1);
        }
    } else if (type == PLIST_DICT) {
        // The entries are collected before any is replaced: replacing while iterating is not safe.
        for (const auto& [key, value] : dictItems(node)) {
            if (plist_t uid = uidFromDictionary(value))
                plist_dict_set_item(node, key.c_str(), uid);
            else
                convertXmlUids(value, depth + 1);
        }
    }
}

// The installed binary writer looks every container up in a table whose hash does not tell
// containers apart, so its time grows with the square of the number of arrays and
// dictionaries, and faster still on trees with many equal subtrees (as parsing a list with
// shared references produces). This writer is linear: leaves with equal encodings are
// stored once, as the installed writer does; containers are written as they are. Integers,
// reals and dates are encoded as the installed writer encodes them.
class BinaryWriter {
public:
    bool write(plist_t root, std::string* out) {
        if (!root) return false;
        struct Pending {
            plist_t node;
            size_t parent; // object index of the container that refers to node
        };
        std::vector<Pending> stack;
        const size_t none = size_t(-1);
        stack.push_back({root, none});
        while (!stack.empty()) {
            const Pending item = stack.back();
            stack.pop_back();
            const plist_type type = plist_get_node_type(item.node);
            size_t index = 0;
            if (type == PLIST_ARRAY || type == PLIST_DICT) {
                index = m_objects.size();
                m_objects.emplace_back();
                Object& object = m_objects.back();
                object.container = true;
                object.marker = type == PLIST_ARRAY ? 0xA0 : 0xD0;
                std::vector<plist_t> children;
                if (type == PLIST_ARRAY) {
                    children = arrayItems(item.node);
                } else if (!collectDict(item.node, index, &children)) {
                    return false;
                }
                m_objects[index].count = children.size();
                for (auto it = children.rbegin(); it != children.rend(); ++it)
                    stack.push_back({*it, index});
            } else {
                std::string bytes;
                if (!encodeLeaf(item.node, type, &bytes)) return false;
                index = leafIndex(bytes);
            }
            if (item.parent == none)
                m_top = index;
            else
                m_objects[item.parent].refs.push_back(index);
        }
        serialise(out);
        return true;
    }

private:
    struct Object {
        bool container = false;
        unsigned char marker = 0;
        size_t count = 0;
        std::vector<size_t> refs; // a dictionary's keys first, then its values
        std::string bytes;        // the encoding of a leaf
    };

    bool collectDict(plist_t node, size_t index, std::vector<plist_t>* values) {
        std::vector<size_t> keys;
        for (const auto& [key, value] : dictItems(node)) {
            std::string bytes;
            encodeText(key.c_str(), key.size(), &bytes);
            keys.push_back(leafIndex(bytes));
            values->push_back(value);
        }
        m_objects[index].refs = std::move(keys);
        return true;
    }

    size_t leafIndex(const std::string& bytes) {
        const auto found = m_leaves.find(bytes);
        if (found != m_leaves.end()) return found->second;
        const size_t index = m_objects.size();
        m_objects.emplace_back();
        m_objects.back().bytes = bytes;
        m_leaves.emplace(bytes, index);
        return index;
    }

    static void appendBigEndian(std::string* out, uint64_t value, unsigned width) {
        for (int shift = int(width) * 8 - 8; shift >= 0; shift -= 8)
            out->push_back(char((value >> shift) & 0xFF));
    }

    static void appendInteger(std::string* out, uint64_t value) {
        if (value <= 0xFF) {
            out->push_back(char(0x10));
            appendBigEndian(out, value, 1);
        } else if (value <= 0xFFFF) {
            out->push_back(char(0x11));
            appendBigEndian(out, value, 2);
        } else if (value <= 0xFFFFFFFFULL) {
            out->push_back(char(0x12));
            appendBigEndian(out, value, 4);
        } else if (value <= uint64_t(INT64_MAX)) {
            out->push_back(char(0x13));
            appendBigEndian(out, value, 8);
        } else {
            out->push_back(char(0x14)); // 128 bits: the value is not negative
            appendBigEndian(out, 0, 8);
            appendBigEndian(out, value, 8);
        }
    }

    static void appendHeader(std::string* out, unsigned type, uint64_t count) {
        if (count < 15) {
            out->push_back(char(type | count));
        } else {
            out->push_back(char(type | 0x0F));
            appendInteger(out, count);
        }
    }

    static void appendDouble(std::string* out, unsigned char marker, double value) {
        uint64_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        out->push_back(char(marker));
        appendBigEndian(out, bits, 8);
    }

    // The installed release keeps a date as one double but hands it out as whole seconds and
    // microseconds, and loses the sign of the fraction before 2001. The exact encoding is
    // taken from its own writer for the lone node (a date is a single object, at offset 8).
    static void appendDate(plist_t node, std::string* out) {
        char* bytes = nullptr;
        uint32_t length = 0;
        ::plist_to_bin(node, &bytes, &length);
        if (bytes && length >= 17 && static_cast<unsigned char>(bytes[8]) == 0x33) {
            out->append(bytes + 8, 9);
            std::free(bytes);
            return;
        }
        std::free(bytes);
        int32_t seconds = 0;
        int32_t micros = 0;
        plist_get_date_val(node, &seconds, &micros);
        appendDouble(out, 0x33, double(seconds) + double(micros) / 1000000.0);
    }

    // ASCII text as bytes, anything else as UTF-16 big-endian.
    static void encodeText(const char* text, size_t length, std::string* out) {
        bool ascii = true;
        for (size_t i = 0; i < length && ascii; ++i)
            ascii = static_cast<unsigned char>(text[i]) < 0x80;
        if (ascii) {
            appendHeader(out, 0x50, length);
            out->append(text, length);
            return;
        }
        const QString utf16 = QString::fromUtf8(text, int(std::min<size_t>(length, INT32_MAX)));
        appendHeader(out, 0x60, uint64_t(utf16.size()));
        for (const QChar c : utf16)
            appendBigEndian(out, c.unicode(), 2);
    }

    static bool encodeLeaf(plist_t node, plist_type type, std::string* out) {
        switch (type) {
        case PLIST_BOOLEAN: {
            uint8_t value = 0;
            plist_get_bool_val(node, &value);
            out->push_back(char(value ? 0x09 : 0x08));
            return true;
        }
        case PLIST_UINT: {
            uint64_t value = 0;
            plist_get_uint_val(node, &value);
            appendInteger(out, value);
            return true;
        }
        case PLIST_REAL: {
            double value = 0;
            plist_get_real_val(node, &value);
            appendDouble(out, 0x23, value);
            return true;
        }
        case PLIST_DATE:
            appendDate(node, out);
            return true;
        case PLIST_DATA: {
            uint64_t length = 0;
            const char* bytes = plist_get_data_ptr(node, &length);
            appendHeader(out, 0x40, bytes ? length : 0);
            if (bytes) out->append(bytes, length);
            return true;
        }
        case PLIST_STRING: {
            uint64_t length = 0;
            const char* text = plist_get_string_ptr(node, &length);
            encodeText(text ? text : "", text ? length : 0, out);
            return true;
        }
        case PLIST_KEY: {
            char* text = nullptr;
            plist_get_key_val(node, &text);
            encodeText(text ? text : "", text ? std::strlen(text) : 0, out);
            std::free(text);
            return true;
        }
        case PLIST_UID: {
            // Readers take UIDs of at most four bytes; archives never need more.
            uint64_t value = 0;
            plist_get_uid_val(node, &value);
            value &= 0xFFFFFFFFULL;
            const unsigned width = widthFor(value);
            out->push_back(char(0x80 | (width - 1)));
            appendBigEndian(out, value, width);
            return true;
        }
        default:
            return false; // the installed writer has no encoding for other nodes either
        }
    }

    static unsigned widthFor(uint64_t value) {
        return value <= 0xFF ? 1 : value <= 0xFFFF ? 2 : value <= 0xFFFFFFFFULL ? 4 : 8;
    }

    void serialise(std::string* out) const {
        const unsigned refSize = widthFor(m_objects.size());
        std::vector<uint64_t> offsets;
        offsets.reserve(m_objects.size());
        out->assign("bplist00");
        for (const Object& object : m_objects) {
            offsets.push_back(out->size());
            if (!object.container) {
                out->append(object.bytes);
                continue;
            }
            appendHeader(out, object.marker, object.count);
            for (size_t ref : object.refs)
                appendBigEndian(out, ref, refSize);
        }
        const uint64_t table = out->size();
        const unsigned offsetSize = widthFor(table);
        for (uint64_t offset : offsets)
            appendBigEndian(out, offset, offsetSize);
        out->append(6, '\0');
        out->push_back(char(offsetSize));
        out->push_back(char(refSize));
        appendBigEndian(out, m_objects.size(), 8);
        appendBigEndian(out, m_top, 8);
        appendBigEndian(out, table, 8);
    }

    std::vector<Object> m_objects;
    std::unordered_map<std::string, size_t> m_leaves;
    size_t m_top = 0;
};

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
    std::string bytes;
    BinaryWriter writer;
    if (!writer.write(node, &bytes)) return PLIST_ERR_FORMAT;
    if (bytes.size() > UINT32_MAX) return PLIST_ERR_NO_MEM;
    *out = static_cast<char*>(std::malloc(bytes.size()));
    if (!*out) return PLIST_ERR_NO_MEM;
    std::memcpy(*out, bytes.data(), bytes.size());
    *length = uint32_t(bytes.size());
    return PLIST_ERR_SUCCESS;
}

void plist_mem_free(void* buffer) {
    // The installed release allocates serialised buffers with malloc.
    std::free(buffer);
}

std::vector<plist_t> arrayItems(plist_t array) {
    std::vector<plist_t> items;
    if (!array || plist_get_node_type(array) != PLIST_ARRAY) return items;
    items.reserve(plist_array_get_size(array));
    plist_array_iter it = nullptr;
    plist_array_new_iter(array, &it);
    if (!it) return items;
    for (;;) {
        plist_t item = nullptr;
        plist_array_next_item(array, it, &item);
        if (!item) break;
        items.push_back(item);
    }
    std::free(it);
    return items;
}

std::vector<std::pair<std::string, plist_t>> dictItems(plist_t dict) {
    std::vector<std::pair<std::string, plist_t>> items;
    if (!dict || plist_get_node_type(dict) != PLIST_DICT) return items;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(dict, &it);
    if (!it) return items;
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(dict, it, &key, &value);
        if (key && value) items.emplace_back(key, value);
        std::free(key);
        if (!key || !value) break;
    }
    std::free(it);
    return items;
}

} // namespace plistcompat
