#include "SQliteWal.h"

#include "ByteCursor.h"
#include "SQliteFormat.h"

#include <QFile>

#include <algorithm>

namespace {

constexpr qint64 kHeaderSize = 32;
constexpr qint64 kFrameHeaderSize = 24;

} // namespace

void SQliteWal::checksum(const uchar* data, qint64 size, bool bigEndian, quint32* s1, quint32* s2) {
    quint32 a = *s1, b = *s2;
    for (qint64 i = 0; i + 8 <= size; i += 8) {
        const uchar* p = data + i;
        const quint32 x0 = bigEndian
                               ? (quint32(p[0]) << 24 | quint32(p[1]) << 16 | quint32(p[2]) << 8 | p[3])
                               : (quint32(p[3]) << 24 | quint32(p[2]) << 16 | quint32(p[1]) << 8 | p[0]);
        const quint32 x1 = bigEndian
                               ? (quint32(p[4]) << 24 | quint32(p[5]) << 16 | quint32(p[6]) << 8 | p[7])
                               : (quint32(p[7]) << 24 | quint32(p[6]) << 16 | quint32(p[5]) << 8 | p[4]);
        a += x0 + b;
        b += x1 + a;
    }
    *s1 = a;
    *s2 = b;
}

bool SQliteWal::load(const QString& path) {
    m_path = path;
    m_error.clear();
    header = Header();
    frames.clear();
    trailingBytes = 0;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return m_error = "cannot open for reading", false;
    const QByteArray head = file.read(kHeaderSize);
    if (head.size() < kHeaderSize) return m_error = "too short for a write-ahead log", false;
    ByteCursor c(reinterpret_cast<const uchar*>(head.constData()), head.size());
    header.magic = c.u32();
    header.formatVersion = c.u32();
    header.pageSize = c.u32();
    header.checkpointSequence = c.u32();
    header.salt1 = c.u32();
    header.salt2 = c.u32();
    header.checksum1 = c.u32();
    header.checksum2 = c.u32();
    if ((header.magic & 0xFFFFFFFE) != 0x377f0682) return m_error = "not a write-ahead log", false;
    if (!sqlitefmt::validPageSize(header.pageSize))
        return m_error = QString("page size %1 in the log's header").arg(header.pageSize), false;
    const bool big = bigEndianChecksums();
    quint32 s1 = 0, s2 = 0;
    checksum(reinterpret_cast<const uchar*>(head.constData()), 24, big, &s1, &s2);
    header.checksumValid = s1 == header.checksum1 && s2 == header.checksum2;

    // Every whole frame, each checked against the frames before it.
    const qint64 frameSize = kFrameHeaderSize + header.pageSize;
    const qint64 count = (file.size() - kHeaderSize) / frameSize;
    trailingBytes = (file.size() - kHeaderSize) % frameSize;
    bool currentRun = header.checksumValid;
    QMap<quint64, int> generations; // salts of older generations, by order met
    for (qint64 i = 0; i < count; ++i) {
        const QByteArray bytes = file.read(frameSize);
        if (bytes.size() < frameSize) break;
        const uchar* p = reinterpret_cast<const uchar*>(bytes.constData());
        ByteCursor f(p, kFrameHeaderSize);
        Frame frame;
        frame.index = int(i + 1);
        frame.offset = kHeaderSize + i * frameSize;
        frame.page = f.u32();
        frame.databaseSize = f.u32();
        frame.salt1 = f.u32();
        frame.salt2 = f.u32();
        frame.checksum1 = f.u32();
        frame.checksum2 = f.u32();
        const bool current = frame.salt1 == header.salt1 && frame.salt2 == header.salt2;
        const Frame* prev = frames.isEmpty() ? nullptr : &frames.last();
        const bool sameRun = prev && prev->salt1 == frame.salt1 && prev->salt2 == frame.salt2;
        // The checksum goes on from the header for the current generation, and from the frame
        // before for an older one.
        quint32 a = current ? s1 : prev ? prev->checksum1 : 0;
        quint32 b = current ? s2 : prev ? prev->checksum2 : 0;
        checksum(p, 8, big, &a, &b);
        checksum(p + kFrameHeaderSize, header.pageSize, big, &a, &b);
        const bool chained = a == frame.checksum1 && b == frame.checksum2 && frame.page != 0;
        if (current) {
            // The current generation starts the file and ends at its first frame that fails.
            frame.valid = currentRun && chained && (i == 0 || sameRun);
            currentRun = frame.valid;
            s1 = a;
            s2 = b;
        } else {
            // Salt-1 goes up by one at every restart of the log: an older generation is named by
            // how many restarts ago it was written (or, failing that, by the order it is met in).
            const quint64 salts = (quint64(frame.salt1) << 32) | frame.salt2;
            const quint32 ago = header.salt1 - frame.salt1;
            if (!generations.contains(salts))
                generations.insert(salts,
                                   ago >= 1 && ago < 1000000 ? int(ago) : 1000000 + generations.size());
            frame.generation = generations.value(salts);
            // The first frame left of an older run has no predecessor to be checked against: the
            // frame after it, chaining from it, vouches for it.
            frame.valid = sameRun && chained;
            const bool prevFirstOfRun = frames.size() < 2 || frames[frames.size() - 2].salt1 != prev->salt1 ||
                                        frames[frames.size() - 2].salt2 != prev->salt2;
            if (frame.valid && prevFirstOfRun && prev->page != 0) frames.last().valid = true;
        }
        frames.append(frame);
    }

    // Committed: valid frames up to the last valid commit frame of their run.
    bool committing = false;
    for (int i = frames.size() - 1; i >= 0; --i) {
        Frame& f = frames[i];
        const bool runEnds =
            i + 1 >= frames.size() || frames[i + 1].generation != f.generation || !frames[i + 1].valid;
        if (runEnds) committing = false;
        if (f.valid && f.isCommit()) committing = true;
        f.committed = committing && f.valid;
        if (!f.valid) committing = false;
    }
    return true;
}

QByteArray SQliteWal::pageData(const Frame& frame) const {
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(frame.offset + kFrameHeaderSize)) return QByteArray();
    return file.read(header.pageSize);
}

quint32 SQliteWal::committedSize() const {
    quint32 size = 0;
    for (const Frame& f : frames)
        if (f.generation == 0 && f.committed && f.isCommit()) size = f.databaseSize;
    return size;
}

int SQliteWal::committedFrames() const {
    return int(std::count_if(frames.begin(), frames.end(), [](const Frame& f) { return f.committed; }));
}

QMap<quint32, int> SQliteWal::committedPages() const {
    QMap<quint32, int> latest;
    for (int i = 0; i < frames.size(); ++i)
        if (frames[i].generation == 0 && frames[i].committed) latest.insert(frames[i].page, i);
    return latest;
}
