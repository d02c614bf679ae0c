// A device backup folder read as evidence: its property lists (Info.plist, Manifest.plist,
// Status.plist), its file index (Manifest.db, or Manifest.mbdb in older backups) with the
// metadata of every entry, and the stored files that hold the entries' contents, each under a
// hashed name (the entry's fileID) in a folder named by the name's first two hex digits, or
// directly in the backup folder in older backups.
//
// The folder is only read: nothing is written, and nothing is created beside it (the manifest
// database is read by the project's own page reader, which takes no lock and makes no -wal or
// -shm file; a damaged page costs only the entries it held, and notes() says so). Nothing read from the
// backup is trusted: lengths are checked before they are used, every domain and path is checked before it may
// serve as a file name (see Entry::problem), stored files are looked for only under names of 40 hex digits,
// and a stored file that is a link or anything but a plain file is not taken.
#pragma once

#include "utils_export.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QVector>

class UTILS_EXPORT DeviceBackup {
public:
    enum Kind { Unknown, File, Folder, Link };
    enum Format { NoIndex, ManifestDb, ManifestMbdb };

    // What the property lists say; each field empty (or invalid) when no list says it.
    struct Info {
        QString deviceName;
        QString productType;
        QString productVersion;
        QString buildVersion;
        QString serialNumber;
        QString uniqueIdentifier;
        QDateTime date;            // when the backup was made, in UTC
        bool encrypted = false;    // Manifest.plist says so, or the index is cipher text
        QStringList applications;  // bundle identifiers, sorted
        QStringList propertyLists; // the lists that were read, of Info.plist, Manifest.plist, Status.plist
    };

    struct Entry {
        QString domain;
        QString path;     // relative to the domain; empty for the domain's own folder
        QString fileId;   // the stored file's name, as the index gives it
        qint64 flags = 0; // the index's flags column (Manifest.db only)
        Kind kind = Unknown;
        // From the entry's keyed archive (Manifest.db) or record (Manifest.mbdb): exact values,
        // times in UTC (invalid when absent or out of range).
        bool hasMetadata = false;
        quint64 size = 0;
        quint32 mode = 0;
        QDateTime modified, changed, born;
        qint64 userId = 0, groupId = 0;
        quint64 inode = 0;
        qint64 protectionClass = 0;
        QString linkTarget;
        QString metadataError; // why the metadata could not be read; empty when it was
        // Why domain and path must not be used as a file name: absolute, holding "..", an empty
        // or "." part, a NUL or another control character, a domain with a "/", or a path that
        // passes through an entry that is a link. Empty when they are safe.
        QString problem;
        // Where the stored file is: in the folder named by the first two digits of fileId
        // (XX/fileId), directly in the backup folder (older backups), or not in the backup.
        enum Storage : quint8 { NotStored, InHashFolder, InBackupFolder };
        Storage storage = NotStored;
        bool present() const { return storage != NotStored; }
    };

    DeviceBackup();

    // Reads the folder: the property lists that are there, the index, and the names of the
    // stored files. False when the folder cannot be read or its index cannot (missing, damaged,
    // or encrypted); error() says why, and info() holds what the property lists said.
    bool open(const QString& folder);
    const QString& error() const { return m_error; }
    // Things noticed on the way that are no failure: missing property lists, a log beside the
    // manifest database, a cut index, entries whose metadata could not be read.
    const QStringList& notes() const { return m_notes; }

    const QString& folder() const { return m_folder; }
    Format format() const { return m_format; }
    const Info& info() const { return m_info; }
    // Every entry of the index, sorted by domain, then path.
    const QVector<Entry>& entries() const { return m_entries; }
    // The entry with exactly this domain and path (the first, when the index has it twice); null
    // when the index has none.
    const Entry* find(const QString& domain, const QString& path) const;
    // The absolute path of an entry's stored file; empty when it is not in the backup.
    QString storedFile(const Entry& entry) const;
    // Stored files (relative to the folder, sorted) that no entry of the index names.
    const QStringList& unindexedFiles() const { return m_unindexed; }

    // Why this domain and path must not be used as a file name, or empty (see Entry::problem;
    // links are checked by open, which knows the other entries).
    static QString pathProblem(const QString& domain, const QString& path);
    // Decodes an entry's keyed-archive metadata blob (as Manifest.db stores it) into entry:
    // size, mode, times, owner, inode, protection class and link target. False, with
    // metadataError set, when the blob is not such an archive.
    static bool readMetadata(const QByteArray& blob, Entry& entry);
    static Kind kindOfMode(quint32 mode);
    static QString kindName(Kind kind); // "file", "folder", "link", "unknown"

private:
    void readPropertyLists();
    bool readIndex();
    void findStoredFiles();

    QString m_folder;
    QString m_error;
    QStringList m_notes;
    Format m_format = NoIndex;
    Info m_info;
    QVector<Entry> m_entries;
    QStringList m_unindexed;
};
