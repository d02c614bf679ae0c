#include "SQliteFormat.h"

namespace sqlitefmt {

qint64 localPayload(qint64 payload, qint64 usable, bool table) {
    const qint64 maxLocal = table ? usable - 35 : (usable - 12) * 64 / 255 - 23;
    if (payload <= maxLocal) return payload;
    const qint64 minLocal = (usable - 12) * 32 / 255 - 23;
    const qint64 k = usable - 4 > 0 ? minLocal + (payload - minLocal) % (usable - 4) : minLocal;
    return k <= maxLocal ? k : minLocal;
}

bool readCell(const uchar* image, qint64 usable, int type, qint64 offset, Cell& out) {
    out = Cell();
    out.offset = offset;
    if (offset < 0 || offset >= usable || !isBtreePage(type)) return false;
    qint64 at = offset;
    if (isInterior(type)) {
        if (at + 4 > usable) return false;
        out.leftChild = get32(image + at);
        at += 4;
    }
    if (type != TableInterior) {
        const Varint payload = readVarint(image + at, usable - at);
        if (!payload.complete || payload.value > quint64(INT32_MAX)) return false;
        out.payloadSize = qint64(payload.value);
        at += payload.length;
    }
    if (isTablePage(type)) {
        const Varint rowid = readVarint(image + at, usable - at);
        if (!rowid.complete) return false;
        out.rowid = qint64(rowid.value);
        at += rowid.length;
        if (type == TableInterior) return true;
    }
    out.payloadAt = at;
    out.local = localPayload(out.payloadSize, usable, type == TableLeaf);
    if (out.local < 0 || at + out.local > usable) return false;
    if (out.local < out.payloadSize) {
        if (at + out.local + kOverflowHeaderSize > usable) return false;
        out.overflow = get32(image + at + out.local);
    }
    return true;
}

} // namespace sqlitefmt
