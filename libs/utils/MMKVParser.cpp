#include "MMKVParser.h"

#include <QFile>

#include <cstdint>

MMKVParser::MMKVParser(const QString& path) {
    loadFromFile(path);
}

void MMKVParser::loadFromFile(const QString& path) {
    QByteArray data;
    QFile file(path);
    // An empty path is skipped rather than handed to QFile, which would warn about it.
    if (!path.isEmpty() && file.open(QIODevice::ReadOnly)) {
        data = file.readAll();
        file.close();
    }
    loadFromData(data);
}

void MMKVParser::loadFromData(const QByteArray& data) {
    if (data.size() <= 4) return;
    const char* p = data.constData() + 4; // the stored content length is not used
    const char* end = data.constData() + data.size();

    // Skip the varint after the length: at most five bytes, each further one only while the
    // previous byte says another follows.
    for (int i = 0; i < 5 && p < end; ++i) {
        if ((static_cast<uint8_t>(*p++) & 0x80) == 0) break;
    }

    // Entries run to the end of the file; the zero padding reads as an empty key, which ends them.
    while (p < end) {
        QString key;
        p = readString(p, end, &key);
        if (key.isEmpty()) break;
        QByteArray value;
        p = readData(p, end, &value);
        m_entries.insert(key, value);
    }
}

int MMKVParser::getInt(const QString& key) {
    const auto it = m_entries.constFind(key);
    if (it == m_entries.constEnd()) return 0;
    int value = 0;
    readVarint32(it->constData(), it->constData() + it->size(), &value);
    return value;
}

QString MMKVParser::getString(const QString& key) {
    const auto it = m_entries.constFind(key);
    if (it == m_entries.constEnd()) return QString();
    QString value;
    readString(it->constData(), it->constData() + it->size(), &value);
    return value;
}

const char* MMKVParser::readVarint32(const char* p, const char* end, int* out) {
    uint32_t result = 0;
    for (int i = 0; i < 5 && p < end; ++i) {
        const uint32_t byte = static_cast<uint8_t>(*p++);
        if (i == 4) {
            // The fifth byte is taken whole; the shift drops all but its low four bits.
            result |= byte << 28;
            break;
        }
        result |= (byte & 0x7f) << (7 * i);
        if ((byte & 0x80) == 0) break;
    }
    *out = static_cast<int>(result);
    return p;
}

const char* MMKVParser::readString(const char* p, const char* end, QString* out) {
    int length = 0;
    p = readVarint32(p, end, &length);
    if (length > 0 && length <= end - p) {
        *out = QString::fromUtf8(p, length);
        return p + length;
    }
    *out = QString();
    return p;
}

const char* MMKVParser::readData(const char* p, const char* end, QByteArray* out) {
    int length = 0;
    p = readVarint32(p, end, &length);
    if (length > 0 && length <= end - p) {
        *out = QByteArray(p, length);
        return p + length;
    }
    *out = QByteArray();
    return p;
}
