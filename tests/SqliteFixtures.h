// Helpers for the SQLite reader tests: databases made with the sqlite3 library in a temporary
// folder, and byte patches at page offsets.
#pragma once

#include "TestSupport.h"

#include "SQliteDbUtil.h"
#include "SQliteLiveView.h"
#include "SQliteRecovery.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>

namespace fixtures {

// A database made by the real engine; exec() runs SQL on it while it is open.
class EngineDb {
public:
    // A new database at path, or with fresh false the one already there.
    explicit EngineDb(const QString& path, bool fresh = true) {
        if (fresh) QFile::remove(path);
        if (sqlite3_open(path.toUtf8().constData(), &m_db) != SQLITE_OK)
            ADD_FAILURE() << "cannot create " << path.toStdString();
    }
    ~EngineDb() { close(); }
    void exec(const QString& sql) {
        char* error = nullptr;
        if (sqlite3_exec(m_db, sql.toUtf8().constData(), nullptr, nullptr, &error) != SQLITE_OK) {
            ADD_FAILURE() << "sqlite3: " << (error ? error : "?") << " in " << sql.toStdString();
            sqlite3_free(error);
        }
    }
    // Runs a statement with bound parameters once per call of bind.
    void insert(const QString& sql, const std::function<void(sqlite3_stmt*)>& bind) {
        sqlite3_stmt* st = nullptr;
        ASSERT_EQ(sqlite3_prepare_v2(m_db, sql.toUtf8().constData(), -1, &st, nullptr), SQLITE_OK)
            << sqlite3_errmsg(m_db);
        bind(st);
        EXPECT_EQ(sqlite3_step(st), SQLITE_DONE) << sqlite3_errmsg(m_db);
        sqlite3_finalize(st);
    }
    // The rows of a query as the engine gives them: integers, floats, text, blobs, NULL.
    QList<QList<QVariant>> rows(const QString& sql) {
        QList<QList<QVariant>> rows;
        sqlite3_stmt* st = nullptr;
        if (sqlite3_prepare_v2(m_db, sql.toUtf8().constData(), -1, &st, nullptr) != SQLITE_OK) return rows;
        while (sqlite3_step(st) == SQLITE_ROW) {
            QList<QVariant> row;
            for (int c = 0; c < sqlite3_column_count(st); ++c) {
                const int type = sqlite3_column_type(st, c);
                const char* bytes = static_cast<const char*>(sqlite3_column_blob(st, c));
                row << (type == SQLITE_INTEGER ? QVariant(qlonglong(sqlite3_column_int64(st, c)))
                        : type == SQLITE_FLOAT ? QVariant(sqlite3_column_double(st, c))
                        : type == SQLITE_TEXT
                            ? QVariant(QString::fromUtf8(bytes, sqlite3_column_bytes(st, c)))
                        : type == SQLITE_BLOB ? QVariant(QByteArray(bytes, sqlite3_column_bytes(st, c)))
                                              : QVariant());
            }
            rows << row;
        }
        sqlite3_finalize(st);
        return rows;
    }
    void close() {
        if (m_db) sqlite3_close(m_db);
        m_db = nullptr;
    }

private:
    sqlite3* m_db = nullptr;
};

// Copies the database and whatever lies beside it to folder/name, as an image would hold them.
inline QString copyAside(const QString& db, const QString& folder, const QString& name = "db") {
    QDir().mkpath(folder);
    for (const char* suffix : {"", "-wal", "-journal"})
        if (QFile::exists(db + suffix)) QFile::copy(db + suffix, folder + "/" + name + suffix);
    return folder + "/" + name;
}

// The records recovered from table, searching the page versions view does not show too when given.
inline QList<SQliteRecovery::Record> recoverRecords(const QString& path, const QString& table,
                                                    SQliteLiveView* view = nullptr, bool held = true) {
    SQliteDbUtil db;
    EXPECT_TRUE(view ? view->load(db, path) : db.loadDb(path)) << path.toStdString();
    SQliteRecovery recovery(db);
    recovery.setLiveView(view);
    EXPECT_TRUE(recovery.setTable(table)) << recovery.error().toStdString();
    recovery.setHeldIncluded(held);
    return recovery.recover();
}

// Beside folder/wal.db, its write-ahead log; beside folder/journal.db, the hot journal of a
// transaction that never finished: both copied while the writer was still open.
inline void makeLogCopies(const QString& folder) {
    const QString scratch = folder + "/.writer";
    QDir().mkpath(scratch);
    for (const char* kind : {"wal", "journal"}) {
        const QString db = scratch + "/" + kind + ".db";
        EngineDb w(db);
        w.exec(QString("PRAGMA page_size=1024; PRAGMA cache_size=2; PRAGMA secure_delete=OFF; PRAGMA "
                       "journal_mode=%1; PRAGMA wal_autocheckpoint=0; "
                       "CREATE TABLE m (id INTEGER PRIMARY KEY, body TEXT, n INTEGER);")
                   .arg(kind == QString("wal") ? "WAL" : "DELETE"));
        w.exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200) "
               "INSERT INTO m SELECT i, printf('message %d', i), i FROM n");
        w.exec(kind == QString("wal") ? "DELETE FROM m WHERE id % 4 = 0"
                                      : "BEGIN; DELETE FROM m WHERE id % 4 = 0;");
        copyAside(db, folder, QString(kind) + ".db");
    }
    QDir(scratch).removeRecursively();
}

// Overwrites bytes at offset within page (1-based) of the file.
inline void patch(const QString& path, int pageSize, int page, int offset, const QByteArray& bytes) {
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::ReadWrite));
    ASSERT_TRUE(f.seek(qint64(page - 1) * pageSize + offset));
    f.write(bytes);
}

inline QByteArray be16(int v) {
    QByteArray b(2, '\0');
    b[0] = char((v >> 8) & 0xFF);
    b[1] = char(v & 0xFF);
    return b;
}

inline QByteArray be32(quint32 v) {
    QByteArray b(4, '\0');
    for (int i = 0; i < 4; ++i)
        b[i] = char((v >> (24 - 8 * i)) & 0xFF);
    return b;
}

} // namespace fixtures
