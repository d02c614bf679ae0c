#include "SQliteSource.h"

#include <QFileDevice>
#include <QVariant>

#include <algorithm>
#include <cerrno>

#ifdef Q_OS_UNIX
#include <unistd.h>
#endif

namespace {

constexpr qint64 kAlign = 4096;
constexpr qint64 kChunk = 16 * 1024;      // a stretch read at random
constexpr qint64 kReadAhead = 256 * 1024; // a stretch read right after the previous one
constexpr qint64 kLargest = 1024 * 1024;  // longer reads bypass the cache
constexpr size_t kWindows = 8;
const uchar kNothing[SQliteSource::kPadding + 1] = {};

} // namespace

bool SQliteSource::attach(QIODevice* device) {
    const bool open = device && device->isOpen() && device->isReadable();
    // The same device in the same state as last time: nothing to find out again.
    if (device == m_device && open == m_open && (m_sized || !open)) return open;
    int fd = -1;
#ifdef Q_OS_UNIX
    // A file is read with pread, unless it is a view whose pages come from elsewhere.
    if (open && !device->property("utils.overlay").toBool())
        if (auto* file = qobject_cast<QFileDevice*>(device)) fd = file->handle();
#endif
    // The size is asked once per device: a file being examined keeps its size while it is read.
    if (device != m_device || fd != m_fd || (open && !m_sized)) {
        reset();
        m_device = device;
        m_fd = fd;
        m_size = open ? device->size() : 0;
        m_sized = open;
    }
    m_open = open;
    return open;
}

void SQliteSource::reset() {
    ++m_generation;
    m_windows.clear();
    m_lastEnd = -1;
    m_device = nullptr;
    m_fd = -1;
    m_size = 0;
    m_sized = false;
    m_open = false;
}

bool SQliteSource::canSeek(qint64 pos) const {
    if (!m_open || pos < 0) return false;
    if (m_fd >= 0) return true; // a file seeks anywhere from 0 on
    return m_device->seek(pos);
}

qint64 SQliteSource::readAt(int fd, qint64 pos, uchar* out, qint64 n) {
#ifdef Q_OS_UNIX
    if (fd < 0) return -1;
    qint64 done = 0;
    while (done < n) {
        const ssize_t r = ::pread(fd, out + done, size_t(n - done), off_t(pos + done));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        done += r;
    }
    return done;
#else
    Q_UNUSED(fd);
    Q_UNUSED(pos);
    Q_UNUSED(out);
    Q_UNUSED(n);
    return -1;
#endif
}

qint64 SQliteSource::readInto(qint64 pos, qint64 n, uchar* out) {
    if (!m_open || pos < 0 || n <= 0) return 0;
    const qint64 got = readAt(m_fd, pos, out, n);
    if (got >= 0) return got;
    if (!m_device->seek(pos)) return 0;
    const qint64 r = m_device->read(reinterpret_cast<char*>(out), n);
    return r < 0 ? 0 : r;
}

SQliteSource::Window& SQliteSource::load(qint64 start, qint64 length) {
    Window* slot = nullptr;
    if (m_windows.size() < kWindows) {
        m_windows.emplace_back();
        slot = &m_windows.back();
    } else {
        slot = &*std::min_element(m_windows.begin(), m_windows.end(),
                                  [](const Window& a, const Window& b) { return a.lastUse < b.lastUse; });
    }
    ++m_generation;
    slot->data.resize(size_t(length + kPadding));
    slot->length = readInto(start, length, slot->data.data());
    std::fill(slot->data.begin() + slot->length, slot->data.end(), uchar(0));
    slot->start = start;
    m_lastEnd = start + length;
    return *slot;
}

const uchar* SQliteSource::bytes(qint64 pos, qint64 n, qint64* got) {
    *got = 0;
    if (!m_open || pos < 0 || n <= 0 || pos >= m_size) return kNothing;
    n = std::min(n, m_size - pos);
    for (Window& w : m_windows) {
        if (pos >= w.start && pos + n <= w.start + w.length) {
            w.lastUse = ++m_clock;
            *got = n;
            return w.data.data() + (pos - w.start);
        }
    }
    if (n > kLargest) {
        ++m_generation;
        m_scratch.assign(size_t(n + kPadding), uchar(0));
        *got = readInto(pos, n, m_scratch.data());
        return m_scratch.data();
    }
    const qint64 start = pos - pos % kAlign;
    const qint64 wanted = (pos + n - start + kAlign - 1) / kAlign * kAlign;
    const bool sequential = m_lastEnd >= 0 && start <= m_lastEnd && start + kReadAhead > m_lastEnd;
    Window& w = load(start, std::max(wanted, sequential ? kReadAhead : kChunk));
    w.lastUse = ++m_clock;
    *got = std::max<qint64>(0, std::min<qint64>(n, w.start + w.length - pos));
    return *got > 0 ? w.data.data() + (pos - w.start) : kNothing;
}

ByteCursor SQliteSource::peek(qint64 pos, qint64 n) {
    if (!m_open || pos < 0 || n <= 0 || pos >= m_size) return ByteCursor(kNothing, 0);
    n = std::min(n, m_size - pos);
    for (Window& w : m_windows)
        if (pos >= w.start && pos + n <= w.start + w.length)
            return ByteCursor(w.data.data() + (pos - w.start), n);
    m_peek.resize(size_t(n));
    return ByteCursor(m_peek.data(), readInto(pos, n, m_peek.data()));
}

QByteArray sqliteio::documentedOverflow(SQliteSource& src, const sqlitefmt::Geometry& geometry,
                                        qint64 first) {
    QByteArray content;
    const qint64 usable = std::max<qint64>(0, geometry.usable - sqlitefmt::kOverflowHeaderSize);
    sqlitefmt::walkChain(first, [&](qint64 page) -> qint64 {
        const qint64 pos = geometry.pagePosition(page);
        if (pos >= src.size() || !src.canSeek(pos)) return 0;
        const quint32 next = src.cursor(pos, sqlitefmt::kOverflowHeaderSize).u32();
        qint64 got = 0;
        const uchar* p = src.bytes(pos + sqlitefmt::kOverflowHeaderSize, usable, &got);
        content.append(reinterpret_cast<const char*>(p), int(got));
        return next;
    });
    return content;
}
