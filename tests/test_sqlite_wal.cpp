// The write-ahead log and rollback journal readers and the live view, against the sqlite3
// library: logs written with automatic checkpoints off and copied while the writer is still
// open, as a phone image holds them. The engine, run on a scratch copy, is the oracle.
#include "SqliteFixtures.h"

#include "SQliteDbUtil.h"
#include "SQliteLiveView.h"
#include "SQliteRecovery.h"

#include <QDir>
#include <QSet>
#include <QTemporaryDir>

using namespace fixtures;

namespace {

using Rows = QList<QList<QVariant>>;

// A writer that stays open, as the application on the phone does.
class Writer : public EngineDb {
public:
    explicit Writer(const QString& path) : EngineDb(path) {
        exec("PRAGMA page_size=1024; PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0; PRAGMA "
             "secure_delete=OFF;");
        exec("CREATE TABLE m (id INTEGER PRIMARY KEY, body TEXT, n INTEGER)");
    }
    void add(int from, int to) {
        exec("BEGIN");
        for (int id = from; id <= to; ++id)
            exec(QString("INSERT INTO m VALUES (%1, 'message %1 %2', %3)")
                     .arg(id)
                     .arg(QString(id % 50, 'w'))
                     .arg(id % 300));
        exec("COMMIT");
    }
};

// What the engine sees, on a scratch copy (it checkpoints or rolls back what it finds).
Rows engineRows(const QString& db, const QString& scratch) {
    return EngineDb(copyAside(db, scratch), false).rows("SELECT id, body, n FROM m ORDER BY id");
}

// What the reader sees on the view (the id column, stored as NULL, is left out).
Rows viewRows(const QString& db, SQliteLiveView& view, bool mainFileOnly = false) {
    SQliteDbUtil reader;
    EXPECT_TRUE(view.load(reader, db, mainFileOnly)) << view.note().toStdString();
    Rows rows;
    for (const QList<QVariant>& r : reader.fetchRecordsInTable("m"))
        rows.append({r.at(0).toLongLong(), r.at(2).toString(), r.at(3).toLongLong()});
    return rows;
}

QSet<QString> recoveredBodies(const QString& db) {
    SQliteLiveView view;
    QSet<QString> bodies;
    for (const SQliteRecovery::Record& r : recoverRecords(db, "m", &view, false))
        bodies.insert(r.values.at(1).toString());
    return bodies;
}

void flipByte(const QString& path, qint64 at) {
    QByteArray bytes = readFile(path);
    bytes[int(at)] = char(bytes[int(at)] ^ 0x5a);
    writeFile(path, bytes);
}

// The phone's database at phone/chat.db, its writer open for the test's length.
class WalTest : public ::testing::Test {
protected:
    QTemporaryDir dir;
    QString path = (QDir().mkpath(dir.filePath("phone")), dir.filePath("phone/chat.db"));
    QString folder(const QString& name) const { return dir.filePath(name); }
};

} // namespace

TEST_F(WalTest, LiveRowsAreTheWritersAndDeletedRowsComeBackFromOlderVersions) {
    Writer w(path);
    w.add(1, 300);
    w.exec("PRAGMA wal_checkpoint(TRUNCATE)");
    w.add(301, 420); // only in the log from here on
    QSet<QString> deleted;
    for (int id = 5; id <= 420; id += 9) {
        deleted.insert(QString("message %1 %2").arg(id).arg(QString(id % 50, 'w')));
        w.exec(QString("DELETE FROM m WHERE id = %1").arg(id));
    }
    w.exec("UPDATE m SET body = 'edited' WHERE id = 7");
    const QString copy = copyAside(path, folder("image"));

    SQliteLiveView view;
    const Rows rows = viewRows(copy, view);
    EXPECT_EQ(view.applied(), SQliteLiveView::Log);
    EXPECT_EQ(rows, engineRows(copy, folder("scratch")));
    EXPECT_EQ(rows.size(), 420 - deleted.size());
    const SQliteWal& log = view.log();
    EXPECT_FALSE(log.bigEndianChecksums()); // the engine writes its own byte order
    EXPECT_TRUE(log.header.checksumValid);
    for (const SQliteWal::Frame& f : log.frames)
        EXPECT_TRUE(f.valid && f.committed && f.generation == 0) << f.index;
    // The main file alone is the checkpointed state: none of the later rows, all 300 earlier ones.
    SQliteLiveView alone;
    EXPECT_EQ(viewRows(copy, alone, true).size(), 300);

    // Every deleted row survives whole in a page version the view does not show.
    const QSet<QString> found = recoveredBodies(copy);
    EXPECT_TRUE(found.contains(deleted)) << (deleted - found).size() << " missing";
}

TEST_F(WalTest, BrokenLogsReadAsTheEngineReadsThem) {
    Writer w(path);
    w.add(1, 100);
    w.exec("PRAGMA wal_checkpoint(TRUNCATE)");
    for (int t = 0; t < 6; ++t)
        w.add(101 + 20 * t, 120 + 20 * t); // six transactions in the log
    const QString original = copyAside(path, folder("image"));
    SQliteWal whole;
    ASSERT_TRUE(whole.load(SQliteLiveView::logPath(original)));
    const qint64 frameSize = 24 + whole.header.pageSize;
    const int lastCommit = whole.frames.size();

    struct Case {
        const char* what;
        std::function<void(const QString&)> damage;
        int validFrames; // -1: all
    };
    const SQliteWal::Frame middle = whole.frames.at(whole.frames.size() / 2);
    const QList<Case> cases = {
        {"cut off in the middle of a frame",
         [&](const QString& db) { QFile(db + "-wal").resize(32 + frameSize * (lastCommit - 1) + 100); },
         lastCommit - 1},
        {"a flipped byte in a frame's page",
         [&](const QString& db) { flipByte(db + "-wal", middle.offset + 24 + 300); }, middle.index - 1},
        {"a flipped salt", [&](const QString& db) { flipByte(db + "-wal", middle.offset + 9); },
         middle.index - 1},
    };
    int n = 0;
    for (const Case& c : cases) {
        const QString copy = copyAside(original, folder(QString("case%1").arg(++n)));
        c.damage(copy);
        SQliteLiveView view;
        const Rows rows = viewRows(copy, view);
        EXPECT_EQ(rows, engineRows(copy, folder(QString("scratch%1").arg(n)))) << c.what;
        int valid = 0;
        for (const SQliteWal::Frame& f : view.log().frames) {
            valid += f.valid;
            EXPECT_TRUE(f.valid || !f.committed) << f.index;
        }
        EXPECT_EQ(valid, c.validFrames) << c.what;
    }
    SQliteWal cut;
    cut.load(folder("case1/db-wal"));
    EXPECT_EQ(cut.trailingBytes, 100);
}

TEST_F(WalTest, RestartedLogKeepsOlderGenerationsBehindTheNewFrames) {
    Writer w(path);
    w.add(1, 400); // a long log
    for (int id = 10; id <= 400; id += 10)
        w.exec(QString("DELETE FROM m WHERE id = %1").arg(id));
    w.exec("PRAGMA wal_checkpoint(RESTART)");
    w.add(401, 405); // the log starts over at its first frame, with new salts
    const QString copy = copyAside(path, folder("image"));
    SQliteLiveView view;
    EXPECT_EQ(viewRows(copy, view), engineRows(copy, folder("scratch")));
    const SQliteWal& log = view.log();
    QMap<int, int> generations;
    for (const SQliteWal::Frame& f : log.frames)
        ++generations[f.generation];
    ASSERT_EQ(generations.keys(), (QList<int>{0, 1}));
    EXPECT_TRUE(log.frames.first().generation == 0 && log.frames.last().generation == 1);
    // The older generation still chains frame to frame, and its last commit stands.
    EXPECT_TRUE(log.frames.last().valid && log.frames.last().committed);
    EXPECT_TRUE(recoveredBodies(copy).contains(QString("message 10 %1").arg(QString(10, 'w'))));
}

TEST_F(WalTest, ChecksumsInEitherByteOrder) {
    Writer w(path);
    w.add(1, 50);
    w.exec("PRAGMA wal_checkpoint(TRUNCATE)");
    w.add(51, 80);
    const QString copy = copyAside(path, folder("image"));
    // The same log with big-endian checksums, which the engine reads as well.
    QByteArray log = readFile(copy + "-wal");
    const bool big = uchar(log[3]) & 1; // 0x377f0683: big-endian words
    log.replace(0, 4, be32(big ? 0x377f0682 : 0x377f0683));
    SQliteWal parsed;
    ASSERT_TRUE(parsed.load(copy + "-wal"));
    quint32 s1 = 0, s2 = 0;
    SQliteWal::checksum(reinterpret_cast<const uchar*>(log.constData()), 24, !big, &s1, &s2);
    log.replace(24, 8, be32(s1) + be32(s2));
    for (const SQliteWal::Frame& f : parsed.frames) {
        SQliteWal::checksum(reinterpret_cast<const uchar*>(log.constData()) + f.offset, 8, !big, &s1, &s2);
        SQliteWal::checksum(reinterpret_cast<const uchar*>(log.constData()) + f.offset + 24,
                            parsed.header.pageSize, !big, &s1, &s2);
        log.replace(int(f.offset) + 16, 8, be32(s1) + be32(s2));
    }
    const QString swapped = copyAside(copy, folder("swapped"));
    writeFile(swapped + "-wal", log);
    const Rows engine = engineRows(swapped, folder("scratch"));
    EXPECT_EQ(engine.size(), 80); // the engine takes the converted log
    for (const QString& db : {copy, swapped}) {
        SQliteLiveView view;
        EXPECT_EQ(viewRows(db, view), engine);
        EXPECT_EQ(view.log().bigEndianChecksums(), db == swapped ? !big : big);
        EXPECT_EQ(view.log().committedPages().size(), parsed.committedPages().size());
    }
}

TEST_F(WalTest, HotJournalIsRolledBackInTheViewOnly) {
    makeLogCopies(folder("image")); // journal.db: its unfinished transaction has reached the main file
    const QString copy = folder("image/journal.db");
    SQliteLiveView view;
    const Rows rows = viewRows(copy, view);
    ASSERT_EQ(view.applied(), SQliteLiveView::Journal) << view.note().toStdString();
    EXPECT_TRUE(view.journal().isHot());
    for (const SQliteJournal::Record& r : view.journal().records)
        EXPECT_TRUE(r.valid) << r.index;
    EXPECT_EQ(rows.size(), 200);
    EXPECT_EQ(rows, engineRows(copy, folder("scratch")));
    SQliteLiveView alone; // the main file as the unfinished transaction left it
    EXPECT_NE(viewRows(copy, alone, true), rows);
}
