#include "SQliteLoader.h"

#include "SQliteDbUtil.h"
#include "SQliteFormat.h"
#include "SQliteSource.h"

#include <QFile>

using namespace sqlitefmt;

namespace {

QString bytesText(qint64 n) {
    return n == 1 ? QStringLiteral("1 byte") : QString("%1 bytes").arg(n);
}

QString pagesText(qint64 n) {
    return n == 1 ? QStringLiteral("1 page") : QString("%1 pages").arg(n);
}

} // namespace

SQliteLoader::Report SQliteLoader::load(SQliteDbUtil& db, const QString& path, Mode mode) {
    return load(db, QSharedPointer<QFile>(new QFile(path)), mode);
}

SQliteLoader::Report SQliteLoader::load(SQliteDbUtil& db, QSharedPointer<QFile> file, Mode mode) {
    Report r;
    auto fail = [&r](Failure failure, const QString& reason) {
        r.failure = failure;
        r.reason = reason;
        return r;
    };
    SQliteSource& source = *db.m_source.get();
    source.largePages = mode == LikeTheEngine;
    if (mode == Documented) {
        SQliteDbUtil::LoadStep failed = SQliteDbUtil::Loaded;
        const bool loaded = db.loadFile(file, &failed);
        r.pageSize = db.header.pageSize;
        r.pageCount = db.header.pageCount;
        if (loaded) return r;
        if (failed == SQliteDbUtil::Opening) return fail(CannotOpen, "cannot open for reading");
        if (failed == SQliteDbUtil::Header) return fail(NotADatabase, "not an SQLite 3 database");
        const qint64 size = db.stream->device()->size();
        // The documented check multiplies in 32 bits.
        const qint64 expected =
            sqliteio::narrow32(qint64(quint32(db.header.pageSize) * quint32(db.header.pageCount)));
        if (failed == SQliteDbUtil::Pages)
            return fail(
                SizeMismatch,
                QString("size %1 does not match the header's %2 of %3 bytes (%4, as the documented loader "
                        "multiplies them in 32 bits)")
                    .arg(size)
                    .arg(pagesText(quint32(db.header.pageCount)))
                    .arg(db.header.pageSize)
                    .arg(expected));
        return fail(FreeListBroken,
                    QString("the free list leads to a trunk page outside the file (first trunk %1)")
                        .arg(quint32(db.header.firstFreeListTrunk)));
    }

    // Like the engine: the documented steps, each reading what the engine reads.
    SQliteDbUtil::LoadStep failed = SQliteDbUtil::Loaded;
    if (!db.openFile(std::move(file), &failed)) {
        if (failed == SQliteDbUtil::Opening) return fail(CannotOpen, "cannot open for reading");
        return fail(NotADatabase, db.file->size() < kDatabaseHeaderSize ? "too short for an SQLite 3 database"
                                                                        : "not an SQLite 3 database");
    }
    const SQliteDbHeader& h = db.header;
    const Geometry g = sqliteGeometry(db);
    r.pageSize = g.pageSize;
    if (!validPageSize(g.pageSize))
        return fail(BadPageSize, QString("page size %1 in the header").arg(h.pageSize));
    if (g.usable < kSmallestUsable)
        return fail(BadPageSize, QString("%1 reserved bytes leave fewer than %2 usable in pages of %3 bytes")
                                     .arg(h.reservedSpace)
                                     .arg(kSmallestUsable)
                                     .arg(g.pageSize));
    const qint64 size = db.stream->device()->size();
    const qint64 wholePages = size / g.pageSize;
    const qint64 counted = quint32(h.pageCount);
    const bool countValid = counted != 0 && h.changeCounter == h.versionValidFor;
    qint64 pages = wholePages;
    if (countValid && counted <= wholePages) {
        pages = counted;
        if (size > pages * g.pageSize)
            r.tolerated
                << QString("%1 after its last page (the header counts %2 of %3 bytes); left alone, as the "
                           "engine leaves them")
                       .arg(bytesText(size - pages * g.pageSize), pagesText(counted))
                       .arg(g.pageSize);
    } else {
        if (countValid)
            r.tolerated << QString(
                               "the header counts %1, the file holds only %2 whole (the engine calls such a "
                               "file malformed): the pages it holds are read")
                               .arg(pagesText(counted))
                               .arg(wholePages);
        else if (counted == 0)
            r.tolerated
                << QString("the header's page count is 0: the file's length gives %1, as the engine takes it")
                       .arg(pagesText(wholePages));
        else if (counted != wholePages)
            r.tolerated
                << QString("the header's page count (%1) is stale: its change counter (%2) differs from its "
                           "version-valid-for number (%3), so the file's length gives %4, as the engine "
                           "takes it")
                       .arg(counted)
                       .arg(quint32(h.changeCounter))
                       .arg(quint32(h.versionValidFor))
                       .arg(pagesText(wholePages));
        if (size % g.pageSize)
            r.tolerated
                << QString("%1 after the last whole page; left out").arg(bytesText(size % g.pageSize));
    }
    if (h.pageSize == 1) r.tolerated << "pages of 65,536 bytes (stored as 1 in the header)";
    if (size > INT32_MAX) r.tolerated << "a file past 2 GiB, read with 64-bit offsets";
    r.pageCount = pages;
    if (pages < 1) return fail(NoPages, "no whole page in the file");
    for (qint64 n = 1; n <= pages; ++n)
        db.parsePage(quint32(n));

    // The free list, up to where its chain leaves the database or comes back on itself.
    qint64 lastNext = 0, dropped = 0;
    const qint64 outside = sqliteio::walkFreeList(
        source, g, quint32(h.firstFreeListTrunk), [pages](qint64 t) { return t <= pages; },
        [&](qint64 trunk, qint64 next, const std::vector<quint32>& leaves) {
            db.freeListPages.append(int(trunk));
            for (quint32 leaf : leaves) {
                if (leaf >= 1 && leaf <= pages)
                    db.freeListPages.append(int(leaf));
                else
                    ++dropped;
            }
            lastNext = next;
        });
    if (outside)
        r.tolerated
            << QString(
                   "the free list leads to trunk page %1, past the last page (%2): it is read up to there")
                   .arg(outside)
                   .arg(pages);
    else if (lastNext)
        r.tolerated << QString("the free list's trunk chain comes back to page %1: it is read up to there")
                           .arg(lastNext);
    if (dropped)
        r.tolerated << QString("%1 free-list leaf numbers past the last page are left out").arg(dropped);
    db.parseTables();
    return r;
}
