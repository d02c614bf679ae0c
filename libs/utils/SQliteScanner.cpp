#include "SQliteScanner.h"

#include "ByteCursor.h"
#include "SQliteBtree.h"
#include "SQliteCodec.h"
#include "SQliteDbUtil.h"
#include "SQliteFormat.h"
#include "SQliteSchema.h"
#include "SQliteSource.h"

#include <QSet>
#include <QtAlgorithms>

#include <algorithm>
#include <cstring>
#include <vector>

using namespace sqliteio;
using sqlitefmt::readVarint;

struct SQliteScanner::Private {
    explicit Private(SQliteDbUtil& reader) : db(reader) {}

    SQliteDbUtil& db;
    ProgressCallback progress;
    std::vector<int> types;
    QByteArray payload;
    RecordView view;

    bool decodeCell(SQliteSource& src, const sqlitefmt::Geometry& g, qint64 pos, RecordView& out);
    void readPayload(qint64 rowid, const uchar* p, qint64 n, RecordView& out);
    // A block by position in the file: the unallocated gap or a freeblock of a page.
    struct Span {
        Region region;
        qint64 start;
        qint64 length;
    };
    std::vector<Span> spans;
    void spansInPage(SQliteSource& src, int page);

    // Scans a block; when the block lies in the reader's cache (source given), it is read
    // again from there after a callback that made the cache move.
    bool scan(const uchar* data, qint64 size, const SQliteCodec::Pattern& pattern, bool withHeader,
              Location where, const FoundCallback& callback, SQliteSource* source = nullptr);
    bool walkPage(int page, const ViewCallback& callback);
    bool walkTable(const QString& table, const ViewCallback& callback);
};

SQliteScanner::SQliteScanner(SQliteDbUtil& db) : d(new Private(db)) {}
SQliteScanner::~SQliteScanner() = default;

void SQliteScanner::setProgress(ProgressCallback progress) {
    d->progress = std::move(progress);
}

// ---------------------------------------------------------------------------------------------
// Live records

const uchar* SQliteScanner::RecordView::bytes(int i, qint64* n) const {
    *n = m_starts[size_t(i) + 1] - m_starts[size_t(i)];
    return m_payload + m_starts[size_t(i)];
}

QVariant SQliteScanner::RecordView::value(int i) const {
    ByteCursor c(m_payload, m_payloadSize, m_starts[size_t(i)]);
    return SQliteCodec::value(c, m_types[size_t(i)], nullptr, m_encoding);
}

QList<QVariant> SQliteScanner::RecordView::record() const {
    QList<QVariant> record;
    record.reserve(size() + 1);
    record.append(QVariant(qlonglong(m_rowid)));
    for (int i = 0; i < size(); ++i)
        record.append(value(i));
    return record;
}

// The cell at pos as the documented fetchRecordInPage reads it: its payload (the local part,
// then every overflow page whole) is copied into the scanner, so that a view outlives later
// reads of the reader.
bool SQliteScanner::Private::decodeCell(SQliteSource& src, const sqlitefmt::Geometry& g, qint64 pos,
                                        RecordView& out) {
    qint64 got = 0;
    ByteCursor head = src.cursor(pos, 18);
    int n = 0;
    const int payloadSize = narrow32(head.varint(&n));
    const qint64 rowid = head.varint(&n);
    qint64 at = pos + head.pos();
    const qint64 available = std::max<qint64>(0, src.size() - at);

    // Local part and overflow as the file format defines them.
    if (payloadSize <= g.usable - 35) {
        // A negative size asks for everything that is left, as an unsigned count would.
        const qint64 wanted = payloadSize < 0 ? available : std::min<qint64>(payloadSize, available);
        const uchar* p = src.bytes(at, std::min<qint64>(wanted, INT32_MAX), &got);
        payload.resize(int(got));
        std::memcpy(payload.data(), p, size_t(got));
    } else {
        const qint64 local = sqlitefmt::localPayload(payloadSize, g.usable);
        const uchar* p = src.bytes(at, std::max<qint64>(0, local), &got);
        payload = QByteArray(reinterpret_cast<const char*>(p), int(got));
        at += got;
        ByteCursor next = src.cursor(at, sqlitefmt::kOverflowHeaderSize);
        payload += documentedOverflow(src, g, next.u32());
    }
    readPayload(rowid, reinterpret_cast<const uchar*>(payload.constData()), payload.size(), out);
    return true;
}

void SQliteScanner::Private::readPayload(qint64 rowid, const uchar* p, qint64 n, RecordView& out) {
    out.m_rowid = rowid;
    out.m_encoding = db.header.textEncoding;
    out.m_payload = p;
    out.m_payloadSize = n;
    out.m_types.clear();
    out.m_starts.clear();
    // Serial types are narrowed to 32 bits, and values follow them directly: the documented
    // reading does not use the header size to reposition.
    qint64 headerSize = 0;
    bool wellFormed = false;
    qint64 at = sqlitefmt::readRecordHeader(p, n, &headerSize, &wellFormed,
                                            [&out](qint64 type) { out.m_types.push_back(narrow32(type)); });
    out.m_starts.push_back(at);
    for (int type : out.m_types) {
        at += std::min(sqlitefmt::valueLength(type), std::max<qint64>(0, n - at));
        out.m_starts.push_back(at);
    }
}

QList<QVariant> SQliteScanner::recordAt(int page, unsigned short offset) {
    const auto it = d->db.pages.constFind(page);
    if (it == d->db.pages.constEnd() || it->type != sqlitefmt::TableLeaf) return {};
    const sqlitefmt::Geometry g = sqliteGeometry(d->db);
    SQliteSource& src = sqliteSource(d->db);
    const qint64 pos = wrapped32Position(g.pageSize, page, offset);
    if (!src.canSeek(pos)) return {};
    d->decodeCell(src, g, pos, d->view);
    return d->view.record();
}

bool SQliteScanner::Private::walkPage(int page, const ViewCallback& callback) {
    const auto it = db.pages.constFind(page);
    if (it == db.pages.constEnd() || it->type != sqlitefmt::TableLeaf) return true;
    const sqlitefmt::Geometry g = sqliteGeometry(db);
    SQliteSource& src = sqliteSource(db);
    for (quint16 offset : it->cellOffsets) {
        const qint64 pos = wrapped32Position(g.pageSize, page, offset);
        if (!src.canSeek(pos)) continue;
        decodeCell(src, g, pos, view);
        // A record without a value is no record.
        if (view.size() >= 1 && !callback(view)) return false;
    }
    return true;
}

bool SQliteScanner::Private::walkTable(const QString& table, const ViewCallback& callback) {
    const auto it = db.tables.constFind(table);
    if (it == db.tables.constEnd()) return true;
    const QList<int> pages = it->pages;
    for (int i = 0; i < pages.size(); ++i) {
        if (stopRequested(db)) return false;
        if (!walkPage(pages.at(i), callback)) return false;
        if (progress) progress(i + 1, pages.size());
    }
    return true;
}

bool SQliteScanner::forEachRecordView(const QString& table, const ViewCallback& callback) {
    return d->walkTable(table, callback);
}

bool SQliteScanner::forEachRecord(const QString& table, const RecordCallback& callback) {
    return d->walkTable(table, [&callback](const RecordView& view) { return callback(view.record()); });
}

bool SQliteScanner::forEachRecordInPage(int page, const RecordCallback& callback) {
    return d->walkPage(page, [&callback](const RecordView& view) { return callback(view.record()); });
}

// ---------------------------------------------------------------------------------------------
// The deleted-record scan

namespace {

// A varint read straight from a block, as the stream reader would read it there: 0 with length 0
// at the end, the bits so far when cut short.
inline qint64 varintAt(const uchar* data, qint64 size, qint64 pos, int* len) {
    if (pos >= size) {
        *len = 0;
        return 0;
    }
    if (data[pos] < 0x80) {
        *len = 1;
        return data[pos];
    }
    const sqlitefmt::Varint v = readVarint(data + pos, size - pos);
    *len = v.length;
    return qint64(v.value);
}

} // namespace

bool SQliteScanner::Private::scan(const uchar* data, qint64 size, const SQliteCodec::Pattern& pattern,
                                  bool withHeader, Location where, const FoundCallback& callback,
                                  SQliteSource* source) {
    quint64 generation = source ? source->generation() : 0;
    const int fields = pattern.size();
    if (size <= 0 || fields == 0) return true; // with no serial types every candidate is all-NULL
    types.resize(size_t(fields));
    const qint64 span = fields + (withHeader ? 2 : 0); // varints of a candidate
    const qint32 encoding = db.header.textEncoding;

    // Candidates are first sifted 16 at a time. The data has SQliteSource::kPadding bytes after
    // its end that may be read; a candidate whose first varints could reach past the end is left
    // to the full test below, which stops at the end as the stream reader does.
    constexpr qint64 kReach = 8;
    qint64 pos = 0;
    qint64 base = -16; // the window of candidates sifted last: base to base + 15
    quint32 open = 0;
    while (pos < size) {
        if (pos >= base + 16) {
            base = pos;
            open = pattern.candidates16(data + pos, withHeader);
            const qint64 exact = size - kReach - base; // lanes before it read only the block
            if (exact < 16) open |= exact <= 0 ? 0xFFFFu : (0xFFFFu << exact) & 0xFFFFu;
        }
        const quint32 rest = open >> (pos - base);
        if (!rest) {
            pos = base + 16;
            continue;
        }
        pos += qCountTrailingZeroBits(rest);
        // A quick refusal that gives what the full test would: inside a run of zero bytes every
        // varint is 0, so the candidate is refused or all-NULL.
        if (data[pos] == 0) {
            qint64 end = pos;
            quint64 word = 0;
            while (end + 8 <= size && (std::memcpy(&word, data + end, 8), word == 0))
                end += 8;
            while (end < size && data[end] == 0)
                ++end;
            if (end == size) break;
            if (end - span + 1 > pos) {
                pos = end - span + 1;
                continue;
            }
        }
        qint64 consumed = 0;
        int len = 0;
        int rowid = 0;
        if (withHeader) {
            rowid = narrow32(varintAt(data, size, pos, &len));
            consumed += len;
            varintAt(data, size, pos + consumed, &len); // header size: read, never checked
            consumed += len;
        }
        bool accepted = true;
        bool allNull = true;
        for (int i = 0; i < fields; ++i) {
            const int type = narrow32(varintAt(data, size, pos + consumed, &len));
            types[size_t(i)] = type;
            consumed += len;
            if (!pattern.matches(i, type)) {
                accepted = false;
                break;
            }
            if (type != 0) allNull = false;
        }
        if (!accepted || allNull) {
            ++pos;
            continue;
        }
        bool tooLarge = false;
        for (int i = 0; i < fields && !tooLarge; ++i) {
            const int t = types[size_t(i)];
            if (t >= 12 && t % 2 == 0 && t - 12 >= 4194306) tooLarge = true; // BLOB over 2 MiB
            if (t >= 13 && t % 2 == 1 && t - 12 > 4097) tooLarge = true;     // text over 2048 bytes
        }
        if (tooLarge) {
            ++pos;
            continue;
        }

        QList<QVariant> record;
        record.reserve(fields + (withHeader ? 1 : 0));
        if (withHeader) record.append(QVariant(rowid));
        ByteCursor values(data, size, pos + consumed);
        // One byte count shared by the values of a candidate: a reserved type leaves it
        // unwritten and so counts the previous value's length again.
        int valueLen = 0;
        for (int i = 0; i < fields; ++i) {
            record.append(SQliteCodec::value(values, types[size_t(i)], &valueLen, encoding));
            consumed += valueLen;
        }
        where.offset = pos;
        if (!callback(record, where)) return false;
        if (source && source->generation() != generation) {
            qint64 got = 0;
            data = source->bytes(where.blockStart, size, &got);
            generation = source->generation();
            if (got != size) return true; // the reader was closed under the walk
        }
        pos = pos + consumed + 1;
    }
    return true;
}

bool SQliteScanner::searchBlock(const QByteArray& block, const QString& pattern, bool withHeader,
                                const FoundCallback& callback) {
    // A copy held while the callbacks run, with the padding the scan may read past its end.
    std::vector<uchar> bytes(size_t(block.size()) + SQliteSource::kPadding, 0);
    std::memcpy(bytes.data(), block.constData(), size_t(block.size()));
    return d->scan(bytes.data(), block.size(), SQliteCodec::Pattern(pattern), withHeader, Location(),
                   callback);
}

void SQliteScanner::Private::spansInPage(SQliteSource& src, int page) {
    using namespace sqlitefmt;
    spans.clear();
    const auto it = db.pages.constFind(page);
    if (it == db.pages.constEnd() || it->type != TableLeaf) return;
    const Geometry g = sqliteGeometry(db);

    // The unallocated gap: from the end of the cell pointer array (the database header of
    // page 1 is not counted) to the start of the cell content area.
    const qint64 pointersEnd = kLeafHeaderSize + 2 * qint64(it->cellCount);
    const qint64 start = g.pagePosition(page) + pointersEnd;
    const qint64 contentStart = it->cellContentStart == 0 ? 65536 : it->cellContentStart;
    const qint64 length = contentStart - pointersEnd;
    if (length > 0 && src.canSeek(start)) spans.push_back({Gap, start, length});

    // The freeblocks, each read from after its 4-byte header for the whole size that header
    // gives, which counts the header itself: every block runs 4 bytes past the freeblock's end.
    // Offsets are read as signed 16-bit numbers and positions formed in 32 bits.
    qint64 blockStart = 0;
    walkFreeblocks(
        it->firstFreeblock,
        [&](qint64 offset, qint64* next, qint64* size) {
            // Computed unsigned in 32 bits: an offset past the page end wraps and does not stop.
            if (quint32(g.pageSize) - (quint32(g.pageSize - g.usable) + quint32(offset)) < 4) return false;
            const qint64 at = wrapped32Position(g.pageSize, page, int(offset));
            if (!src.canSeek(at)) return false;
            ByteCursor c = src.cursor(at, kFreeblockHeaderSize);
            *next = qint16(c.u16());
            *size = qint16(c.u16());
            blockStart = at + c.pos();
            return true;
        },
        [&](qint64, qint64, qint64 size) {
            spans.push_back({Freeblock, blockStart, std::max<qint64>(0, size)});
            return true;
        });
}

QList<SQliteScanner::Area> SQliteScanner::areasInPage(int page) {
    QList<Area> areas;
    SQliteSource& src = sqliteSource(d->db);
    d->spansInPage(src, page);
    for (const Private::Span& span : d->spans) {
        qint64 got = 0;
        const uchar* p = src.bytes(span.start, span.length, &got);
        areas.append({span.region, page, span.start, QByteArray(reinterpret_cast<const char*>(p), int(got))});
    }
    return areas;
}

bool SQliteScanner::forEachLostRecord(const QString& table, const QString& pattern, bool withHeader,
                                      const FoundCallback& callback) {
    const auto it = d->db.tables.constFind(table);
    if (it == d->db.tables.constEnd()) return true;
    const SQliteCodec::Pattern compiled(pattern);
    const QList<int> pages = it->pages;
    for (int i = 0; i < pages.size(); ++i) {
        if (stopRequested(d->db)) return false;
        SQliteSource& src = sqliteSource(d->db);
        d->spansInPage(src, pages.at(i));
        const std::vector<Private::Span> spans = d->spans;
        for (const Private::Span& span : spans) {
            qint64 got = 0;
            const uchar* p = src.bytes(span.start, span.length, &got);
            const Location where{span.region, pages.at(i), span.start, 0};
            if (!d->scan(p, got, compiled, withHeader, where, callback, &src)) return false;
        }
        if (d->progress) d->progress(i + 1, pages.size());
    }
    return true;
}

bool SQliteScanner::forEachLostRecordInFreeSpace(const QString& pattern, bool withHeader,
                                                 const FoundCallback& callback) {
    SQliteDbUtil& db = d->db;
    const SQliteCodec::Pattern compiled(pattern);
    const sqlitefmt::Geometry g = sqliteGeometry(db);
    const qint64 length = g.usable - 12;
    const QList<int> pages = db.freeListPages;
    for (int i = 0; i < pages.size(); ++i) {
        if (stopRequested(db)) return false;
        // The first 12 bytes of every free page (trunk or leaf) are skipped.
        const int page = pages.at(i);
        SQliteSource& src = sqliteSource(db);
        const qint64 start = g.pagePosition(page) + 12;
        if (page >= 1 && length > 0 && src.canSeek(start)) {
            qint64 got = 0;
            const uchar* p = src.bytes(start, length, &got);
            const Location where{FreePage, page, start, 0};
            if (!d->scan(p, got, compiled, withHeader, where, callback, &src)) return false;
        }
        if (d->progress) d->progress(i + 1, pages.size());
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Pages in use

QMap<int, QString> SQliteScanner::pageOwners() {
    QMap<int, QString> owners;
    SQliteBtree tree(d->db);
    if (tree.geometry().usable < sqlitefmt::kSmallestUsable) return owners;
    std::vector<qint64> overflow;
    for (const SQliteSchema::Object& o : SQliteSchema::read(d->db)) {
        if (o.rootPage < 1 || owners.contains(int(o.rootPage))) continue;
        const auto unowned = [&owners](qint64 page) { return !owners.contains(int(page)); };
        tree.walk(
            o.rootPage,
            [&](const SQliteBtree::Entry& e) {
                if (!e.cell.overflow) return true;
                overflow.clear();
                tree.overflowPages(e.cell, overflow, unowned);
                for (qint64 page : overflow)
                    owners.insert(int(page), o.name);
                return true;
            },
            [&](qint64 page, int) {
                if (unowned(page)) owners.insert(int(page), o.name);
            });
    }
    return owners;
}

QList<int> SQliteScanner::leafPages(qint64 root) {
    QList<int> leaves;
    for (qint64 page : SQliteBtree(d->db).leafPages(root))
        leaves.append(int(page));
    return leaves;
}
