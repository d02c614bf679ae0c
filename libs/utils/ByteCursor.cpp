#include "ByteCursor.h"

#include "SQliteFormat.h"

qint64 ByteCursor::varint(int* len) {
    const qint64 left = remaining();
    const sqlitefmt::Varint v = sqlitefmt::readVarint(left > 0 ? m_data + m_pos : m_data, left);
    m_pos += v.length;
    if (len) *len = v.length;
    return qint64(v.value);
}
