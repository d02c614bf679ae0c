#include "ByteCursor.h"

qint64 ByteCursor::varint(int* len) {
    int n = 0;
    quint64 value = 0;
    while (!atEnd()) {
        const uchar b = m_data[m_pos++];
        if (++n == 9) {
            value = (value << 8) | b;
            break;
        }
        value = (value << 7) | (b & 0x7F);
        if (!(b & 0x80)) break;
    }
    if (len) *len = n;
    return qint64(value);
}
