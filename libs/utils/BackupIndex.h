// Internal: the readers of a device backup's file index for DeviceBackup: the manifest database
// (through an immutable read-only connection of the sqlite3 library) and the legacy binary
// index, each entry with the metadata of its keyed archive or record. Not exported; never
// include from a public header.
#pragma once

#include "DeviceBackup.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

namespace backupindex {

// Property-list dates count from 2001-01-01 00:00:00 UTC.
constexpr qint64 kUnixSecondsAt2001 = 978307200;

// The rows of the table Files (fileID, domain, relativePath, flags, file), in table order, the
// metadata blob of each decoded. False with *error set when the file is no SQLite database
// (*cipherText then true: an encrypted index), or has no such table. What was read past (bytes
// after the last page, rows on pages that cannot be believed) is added to notes.
bool readManifestDb(const QString& path, QVector<DeviceBackup::Entry>& entries, QString* error,
                    bool* cipherText, QStringList* notes);

// The records of a legacy index (signature "mbdb") held in memory. Every length is checked: a
// record cut short by the end of the data is kept with what it held and a metadataError. False
// with *error set without the signature.
bool readMbdb(const QByteArray& data, QVector<DeviceBackup::Entry>& entries, QString* error);

// The metadata of an entry from its keyed archive in the binary property-list form, read in
// place (no tree is built: a listing reads one archive per entry): size, mode, times, owner,
// inode, protection class and link target. False with entry.metadataError set otherwise.
bool readArchivedFile(const QByteArray& binaryList, DeviceBackup::Entry& entry);

// Unix seconds as a UTC time; invalid outside years 1 to 9999 instead of overflowing.
QDateTime utcTime(qint64 unixSeconds);
// Seconds (with a fraction) since the epoch given in Unix seconds (978307200 for the 2001 of
// property-list dates), as a UTC time; invalid when out of range.
QDateTime utcTime(double seconds, qint64 epoch);

} // namespace backupindex
