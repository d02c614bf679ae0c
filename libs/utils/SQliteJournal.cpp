#include "SQliteJournal.h"

#include "ByteCursor.h"
#include "SQliteFormat.h"

#include <QFile>

namespace {

const uchar kMagic[8] = {0xd9, 0xd5, 0x05, 0xf9, 0x20, 0xa1, 0x63, 0xd7};

} // namespace

quint32 SQliteJournal::checksum(const uchar* data, quint32 pageSize, quint32 nonce) {
    quint32 sum = nonce;
    for (qint64 i = qint64(pageSize) - 200; i > 0; i -= 200)
        sum += data[i];
    return sum;
}

bool SQliteJournal::load(const QString& path, quint32 pageSize) {
    m_path = path;
    m_error.clear();
    header = Header();
    records.clear();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return m_error = "cannot open for reading", false;
    const qint64 size = file.size();
    const QByteArray head = file.read(28);
    ByteCursor c(reinterpret_cast<const uchar*>(head.constData()), head.size());
    qint64 got = 0;
    const uchar* magic = c.take(8, &got);
    header.magicValid = got == 8 && std::equal(magic, magic + 8, kMagic);
    header.recordCount = c.u32();
    header.nonce = c.u32();
    header.initialSize = c.u32();
    header.sectorSize = c.u32();
    header.pageSize = c.u32();

    // Segments: a header padded to a sector, then its records; the next header starts at the
    // sector boundary after them. Without a header, the records are looked for after the
    // first sector of each size a journal may have.
    QList<quint32> sectors;
    quint32 page = pageSize;
    // Sectors are powers of two from 512 bytes to 64 KiB, like pages.
    using sqlitefmt::validPageSize;
    if (header.magicValid && validPageSize(header.sectorSize) && validPageSize(header.pageSize)) {
        sectors << header.sectorSize;
        page = header.pageSize;
    } else if (!header.magicValid) {
        for (quint32 s = 512; s <= 65536; s *= 2)
            sectors << s;
    }
    if (!validPageSize(page)) return m_error = "no page size to read the records with", false;
    const qint64 recordSize = 4 + qint64(page) + 4;
    QByteArray bytes(int(recordSize), '\0');
    for (quint32 sector : sectors) {
        qint64 segment = 0;
        while (segment + sector < size) {
            qint64 count = (size - segment - sector) / recordSize;
            quint32 nonce = 0;
            bool checked = false;
            if (header.magicValid) {
                // Later segments have headers of their own.
                file.seek(segment);
                const QByteArray h = file.read(28);
                if (h.size() < 28 ||
                    !std::equal(h.constData(), h.constData() + 8, reinterpret_cast<const char*>(kMagic)))
                    break;
                ByteCursor hc(reinterpret_cast<const uchar*>(h.constData()) + 8, 20);
                const quint32 n = hc.u32();
                nonce = hc.u32();
                checked = true;
                if (n != 0xFFFFFFFF) count = std::min<qint64>(count, n);
            }
            qint64 at = segment + sector;
            for (qint64 i = 0; i < count; ++i, at += recordSize) {
                if (!file.seek(at) || file.read(bytes.data(), recordSize) != recordSize) break;
                const uchar* p = reinterpret_cast<const uchar*>(bytes.constData());
                Record r;
                r.index = records.size() + 1;
                r.offset = at;
                r.page = ByteCursor(p, 4).u32();
                r.checksum = ByteCursor(p + 4 + page, 4).u32();
                r.valid = checked && r.page != 0 && r.checksum == checksum(p + 4, page, nonce);
                // Without a header, a record is believed while its page number is one a
                // database of this size could have.
                if (!checked && (r.page == 0 || qint64(r.page) * page > qint64(1) << 40)) break;
                records.append(r);
            }
            if (!header.magicValid) break;
            segment = (at + sector - 1) / sector * sector;
        }
        if (!records.isEmpty()) {
            header.sectorSize = header.magicValid ? header.sectorSize : sector;
            break;
        }
    }
    header.pageSize = page;
    if (records.isEmpty()) return m_error = "no page record in the journal", false;
    return true;
}

QByteArray SQliteJournal::pageData(const Record& record) const {
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(record.offset + 4)) return QByteArray();
    return file.read(header.pageSize);
}

QMap<quint32, int> SQliteJournal::rollbackPages() const {
    QMap<quint32, int> first;
    for (int i = 0; i < records.size(); ++i)
        if (records[i].valid && !first.contains(records[i].page)) first.insert(records[i].page, i);
    return first;
}
