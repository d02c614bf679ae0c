#include "SQliteLiveView.h"

#include "SQliteDbUtil.h"
#include "SQliteFormat.h"
#include "SQliteSource.h"

#include <QFile>
#include <QFileInfo>
#include <QSharedPointer>

#include <algorithm>
#include <cstring>

using namespace sqliteio;

namespace {

// Positional read of a file, which leaves its position alone.
qint64 readAt(QFile& file, qint64 pos, char* out, qint64 n) {
    if (!file.isOpen() || pos < 0 || n <= 0) return 0;
    const qint64 got = SQliteSource::readAt(file.handle(), pos, reinterpret_cast<uchar*>(out), n);
    if (got >= 0) return got;
    if (!file.seek(pos)) return 0;
    return std::max<qint64>(0, file.read(out, n));
}

// The main file as the view shows it: pages replaced by images in another file (the log or the
// journal), and a size of its own. It is the reader's file, so that closing the reader closes
// it and every read comes back short, as with the file alone.
class OverlayFile : public QFile {
public:
    OverlayFile(const QString& path, const QString& imagesPath, qint64 pageSize, qint64 size,
                const QMap<quint32, qint64>& images)
        : QFile(path), m_main(path), m_images(imagesPath), m_pageSize(pageSize), m_size(size),
          m_offsets(images) {
        // The reader's cache must read through readData, not around it.
        setProperty("utils.overlay", true);
    }
    bool open(OpenMode mode) override {
        m_pos = 0;
        if (!m_offsets.isEmpty() && !m_images.open(QIODevice::ReadOnly)) return false;
        return m_main.open(QIODevice::ReadOnly) && QFile::open(mode | QIODevice::Unbuffered);
    }
    void close() override {
        m_images.close();
        m_main.close();
        QFile::close();
    }
    qint64 size() const override { return m_size; }
    bool atEnd() const override { return !isOpen() || pos() >= m_size; }
    bool seek(qint64 pos) override {
        if (!QFile::seek(pos)) return false;
        m_pos = pos;
        return true;
    }

protected:
    qint64 readData(char* data, qint64 maxSize) override {
        qint64 done = 0;
        while (done < maxSize && m_pos < m_size) {
            const quint32 page = quint32(m_pos / m_pageSize + 1);
            const qint64 inPage = m_pos % m_pageSize;
            const qint64 n = std::min({maxSize - done, m_pageSize - inPage, m_size - m_pos});
            const auto it = m_offsets.constFind(page);
            qint64 got = it != m_offsets.constEnd() ? readAt(m_images, it.value() + inPage, data + done, n)
                                                    : readAt(m_main, m_pos, data + done, n);
            if (got < n && it == m_offsets.constEnd() && isOpen()) {
                // A page the database has grown to, which no file holds: it reads as zeros.
                std::memset(data + done + got, 0, size_t(n - got));
                got = n;
            }
            if (got <= 0) break;
            done += got;
            m_pos += got;
        }
        return done;
    }
    qint64 writeData(const char*, qint64) override { return -1; }

private:
    QFile m_main; // the pages the view keeps as they are
    QFile m_images;
    qint64 m_pageSize;
    qint64 m_size;
    QMap<quint32, qint64> m_offsets; // page: where its image starts in m_images
    qint64 m_pos = 0;
};

quint32 mainPageSize(const QString& path) {
    using namespace sqlitefmt;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return 0;
    const QByteArray head = file.read(header::PageSize + 2);
    if (head.size() < header::PageSize + 2) return 0;
    return quint32(
        pageSizeOfField(get16(reinterpret_cast<const uchar*>(head.constData()) + header::PageSize)));
}

} // namespace

QString SQliteLiveView::Version::describe() const {
    switch (kind) {
    case LogFrame:
        return QString("log frame %1").arg(index);
    case JournalRecord:
        return QString("journal record %1").arg(index);
    default:
        return QStringLiteral("main file (superseded)");
    }
}

SQliteLiveView::SQliteLiveView() = default;
SQliteLiveView::~SQliteLiveView() = default;

bool SQliteLiveView::load(SQliteDbUtil& db, const QString& path, bool mainFileOnly) {
    return open(db, path, SQliteLoader::Documented, mainFileOnly).ok();
}

SQliteLoader::Report SQliteLiveView::open(SQliteDbUtil& db, const QString& path, SQliteLoader::Mode mode,
                                          bool mainFileOnly) {
    return open(db, path, logPath(path), journalPath(path), mode, mainFileOnly);
}

SQliteLoader::Report SQliteLiveView::open(SQliteDbUtil& db, const QString& path, const QString& logFile,
                                          const QString& journalFile, SQliteLoader::Mode mode,
                                          bool mainFileOnly) {
    m_path = path;
    m_applied = MainFileOnly;
    m_note.clear();
    m_log = SQliteWal();
    m_journal = SQliteJournal();
    m_shown.clear();
    m_pageSize = mainPageSize(path);

    QString imagesPath;
    QMap<quint32, qint64> images;
    qint64 size = QFileInfo(path).size();
    const bool haveLog = !logFile.isEmpty() && QFileInfo(logFile).isFile();
    const bool haveJournal = !journalFile.isEmpty() && QFileInfo(journalFile).isFile();
    // Why a log or journal that was read is not applied; the view then shows the main file alone.
    const QString alone = QStringLiteral("; the main file alone is read");
    const QString asked = QStringLiteral("left aside as asked");
    auto otherPageSize = [this](quint32 size) {
        return m_pageSize && size != m_pageSize
                   ? QString("pages of %1 bytes, the database's are of %2").arg(size).arg(m_pageSize)
                   : QString();
    };
    if (haveLog && m_log.load(logFile)) {
        const QString why = mainFileOnly ? asked
                            : !m_log.header.checksumValid
                                ? "its header's checksum fails, so the engine would ignore it"
                            : m_log.committedSize() == 0 ? "no committed transaction"
                                                         : otherPageSize(m_log.header.pageSize);
        if (!why.isEmpty()) {
            m_note = logFile + ": " + why + alone;
        } else {
            m_applied = Log;
            m_pageSize = m_log.header.pageSize;
            m_shown = m_log.committedPages();
            for (auto it = m_shown.constBegin(); it != m_shown.constEnd(); ++it)
                images.insert(it.key(), m_log.frames.at(it.value()).offset + 24);
            imagesPath = logFile;
            size = qint64(m_log.committedSize()) * m_pageSize;
            m_note =
                QString(
                    "%1: %2 of its %3 frames committed; read as the engine would, without changing a byte")
                    .arg(logFile)
                    .arg(m_log.committedFrames())
                    .arg(m_log.frames.size());
        }
    } else if (haveLog) {
        m_note = logFile + ": " + m_log.error() + alone;
    }
    if (m_applied == MainFileOnly && haveJournal && m_journal.load(journalFile, m_pageSize)) {
        const QString why = mainFileOnly ? asked : otherPageSize(m_journal.header.pageSize);
        if (!m_journal.isHot()) {
            m_note = journalFile + ": the page images of a finished transaction; the recovery searches them";
        } else if (!why.isEmpty()) {
            m_note = journalFile + ": " + why + alone +
                     (mainFileOnly ? ", as the unfinished transaction left it" : "");
        } else {
            m_applied = Journal;
            m_shown = m_journal.rollbackPages();
            for (auto it = m_shown.constBegin(); it != m_shown.constEnd(); ++it)
                images.insert(it.key(), m_journal.records.at(it.value()).offset + 4);
            imagesPath = journalFile;
            if (m_journal.header.initialSize) size = qint64(m_journal.header.initialSize) * m_pageSize;
            m_note = QString("%1: an unfinished transaction, rolled back in the view (%2 pages) without "
                             "changing a byte")
                         .arg(journalFile)
                         .arg(m_shown.size());
        }
    } else if (m_applied == MainFileOnly && haveJournal && m_note.isEmpty()) {
        m_note = journalFile + ": " + m_journal.error();
    }

    // Nothing to lay over the main file: the reader opens it as loadDb does.
    if (m_applied == MainFileOnly) return SQliteLoader::load(db, path, mode);

    // A log or journal may claim a size that no file holds: past the last page any file holds,
    // the view would be nothing but zeros, so it ends there.
    if (m_pageSize && !images.isEmpty()) {
        const qint64 held = std::max(QFileInfo(path).size() / m_pageSize, qint64(images.lastKey()));
        size = std::min(size, held * m_pageSize);
    }

    return SQliteLoader::load(db,
                              QSharedPointer<QFile>(new OverlayFile(
                                  path, imagesPath, std::max<quint32>(m_pageSize, 1), size, images)),
                              mode);
}

QList<SQliteLiveView::Version> SQliteLiveView::hiddenVersions() const {
    QList<Version> versions;
    const qint64 mainPages = m_pageSize ? QFileInfo(m_path).size() / m_pageSize : 0;
    for (int i = m_log.frames.size() - 1; i >= 0; --i) {
        const SQliteWal::Frame& f = m_log.frames.at(i);
        if (f.page == 0 || (m_applied == Log && m_shown.value(f.page, -1) == i)) continue;
        versions.append({Version::LogFrame, int(f.page), f.index});
    }
    if (m_applied != MainFileOnly)
        for (auto it = m_shown.constBegin(); it != m_shown.constEnd(); ++it)
            if (qint64(it.key()) <= mainPages) versions.append({Version::MainFile, int(it.key()), 0});
    for (int i = 0; i < m_journal.records.size(); ++i) {
        const SQliteJournal::Record& r = m_journal.records.at(i);
        if (r.page == 0 || (m_applied == Journal && m_shown.value(r.page, -1) == i)) continue;
        versions.append({Version::JournalRecord, int(r.page), r.index});
    }
    return versions;
}

QByteArray SQliteLiveView::pageData(const Version& version) const {
    switch (version.kind) {
    case Version::LogFrame:
        return version.index >= 1 && version.index <= m_log.frames.size()
                   ? m_log.pageData(m_log.frames.at(version.index - 1))
                   : QByteArray();
    case Version::JournalRecord:
        return version.index >= 1 && version.index <= m_journal.records.size()
                   ? m_journal.pageData(m_journal.records.at(version.index - 1))
                   : QByteArray();
    default: {
        QFile file(m_path);
        if (!file.open(QIODevice::ReadOnly) || !file.seek(qint64(version.page - 1) * m_pageSize))
            return QByteArray();
        return file.read(m_pageSize);
    }
    }
}
