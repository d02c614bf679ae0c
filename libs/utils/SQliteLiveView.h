// The database as the engine would see it, without the engine and without writing a byte: the
// main file with the last committed version of each page from the write-ahead log beside it
// (path-wal) applied and its size taken from the log's last commit, or, when a hot rollback
// journal (path-journal) lies beside it, with the journal's page images written back and its
// size put back as before the unfinished transaction. The result is held as an image in memory:
// the pages stay in the files and are read from them as they are needed, and no -shm file or
// anything else is created. A reader loaded on the view gives the results of a database
// checkpointed (or rolled back) at that moment.
//
// The view also lists the versions of pages that it does not show (pages of the main file that
// the log replaces, earlier and uncommitted log frames, frames of older generations, journal
// images), in which SQliteRecovery searches for what was deleted or changed since.
#pragma once

#include "SQliteJournal.h"
#include "SQliteLoader.h"
#include "SQliteWal.h"
#include "utils_export.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

#include <memory>

class SQliteDbUtil;

class UTILS_EXPORT SQliteLiveView {
public:
    enum Applied { MainFileOnly, Log, Journal };

    // A version of a page that the view does not show.
    struct Version {
        enum Kind { MainFile, LogFrame, JournalRecord };
        Kind kind = MainFile;
        int page = 0;
        int index = 0;            // the frame or record number (1 for the first); 0 for the main file
        QString describe() const; // "main file (superseded)", "log frame 12", "journal record 3"
    };

    SQliteLiveView();
    ~SQliteLiveView();
    SQliteLiveView(const SQliteLiveView&) = delete;
    SQliteLiveView& operator=(const SQliteLiveView&) = delete;

    static QString logPath(const QString& path) { return path + "-wal"; }
    static QString journalPath(const QString& path) { return path + "-journal"; }

    // Loads db from path, applying the log or the journal beside it unless mainFileOnly. The
    // result is loadDb's: false when the database itself cannot be read. A log or journal that
    // cannot be used leaves the view on the main file alone, and note() says why.
    bool load(SQliteDbUtil& db, const QString& path, bool mainFileOnly = false);
    // The same, loading the database (or the view over it) as mode says: the report says why the
    // load failed or what it read past.
    SQliteLoader::Report open(SQliteDbUtil& db, const QString& path, SQliteLoader::Mode mode,
                              bool mainFileOnly = false);
    // The same with the log and the journal read from the files named (an empty name: none),
    // for a database whose companions are not stored beside it under its own name.
    SQliteLoader::Report open(SQliteDbUtil& db, const QString& path, const QString& logFile,
                              const QString& journalFile, SQliteLoader::Mode mode, bool mainFileOnly = false);
    Applied applied() const { return m_applied; }
    // What the view did with what lay beside the database, for the user: empty when nothing did.
    QString note() const { return m_note; }

    const SQliteWal& log() const { return m_log; }
    const SQliteJournal& journal() const { return m_journal; }

    // The versions the view does not show, the newest first: log frames (valid ones the view
    // does not use, uncommitted ones, older generations), then the main file's pages that the log
    // or journal replaces, then journal images that a rollback does not use.
    QList<Version> hiddenVersions() const;
    QByteArray pageData(const Version& version) const;

private:
    QString m_path;
    Applied m_applied = MainFileOnly;
    QString m_note;
    SQliteWal m_log;
    SQliteJournal m_journal;
    quint32 m_pageSize = 0;
    QMap<quint32, int> m_shown; // page: the frame or record the view shows
};
