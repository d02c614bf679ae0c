// The fuzz input as a file, for readers that take a path: one temporary file, rewritten for
// every input.
#pragma once

#include <QTemporaryFile>

#include <cstddef>
#include <cstdint>

inline QString fuzzInputFile(const uint8_t* data, size_t size) {
    static QTemporaryFile file;
    if (!file.isOpen() && !file.open()) return QString();
    file.resize(0);
    file.seek(0);
    file.write(reinterpret_cast<const char*>(data), qint64(size));
    file.flush();
    return file.fileName();
}
