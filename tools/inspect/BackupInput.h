// Files inside a device backup named on the command line as DIR::DOMAIN/PATH: DIR is the backup
// folder, DOMAIN/PATH an entry of its index. Every reading command accepts such a name where it
// takes an input file (through checkInputFile).
#pragma once

#include <QString>

namespace inspect {

// When path has the form DIR::DOMAIN/PATH and DIR is a folder, replaces path by the stored file
// that the backup's index names DOMAIN/PATH and returns true. Prints why and returns false when
// that cannot be read: DIR is no readable backup or an encrypted one, or the entry is not in its
// index, is a folder or a link (never followed), has a path refused as unsafe, or is not stored.
// Any other path is left as it is (true).
bool resolveBackupInput(QString& path);

// The backup folder DIR of a path DIR::DOMAIN/PATH whose DIR is a folder, or of the stored file
// such a path was resolved to; empty for any other path.
QString backupFolder(const QString& path);

// The write-ahead log (suffix "-wal") or rollback journal ("-journal") of an input file: the file
// beside it, or for a file resolved from a backup the stored file of the entry DOMAIN/PATH-wal
// (or -journal), empty when the index has none that can be read.
QString companionFile(const QString& path, const QString& suffix);

} // namespace inspect
