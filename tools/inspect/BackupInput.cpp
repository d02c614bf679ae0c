#include "BackupInput.h"

#include "Command.h"
#include "DeviceBackup.h"

#include <QFileInfo>
#include <QHash>

#include <algorithm>
#include <memory>

namespace inspect {

namespace {

// What an input resolved from a backup came from: the backup folder, and the stored files of
// its log and journal; by the stored file it was resolved to.
struct Resolved {
    QString folder, wal, journal;
};
QHash<QString, Resolved>& resolved() {
    static QHash<QString, Resolved> inputs;
    return inputs;
}

// Where the "::" after the backup folder stands in path; -1 when path names no file in a backup.
int backupSeparator(const QString& path) {
    int separator = path.indexOf("::");
    while (separator > 0 && !QFileInfo(path.left(separator)).isDir())
        separator = path.indexOf("::", separator + 1);
    return separator > 0 ? separator : -1;
}

} // namespace

QString backupFolder(const QString& path) {
    const int separator = backupSeparator(path);
    return separator < 0 ? resolved().value(path).folder : path.left(separator);
}

bool resolveBackupInput(QString& path) {
    const int separator = backupSeparator(path);
    if (separator < 0) return true;
    const QString folder = path.left(separator), name = path.mid(separator + 2);
    const int slash = name.indexOf('/');
    const QString domain = name.left(slash), inside = slash < 0 ? QString() : name.mid(slash + 1);
    // A backup is opened once, however many of its files the command line names.
    static QHash<QString, std::shared_ptr<DeviceBackup>> opened;
    std::shared_ptr<DeviceBackup>& slot = opened[folder];
    if (!slot) {
        slot = std::make_shared<DeviceBackup>();
        if (!slot->open(folder)) {
            const QString error = slot->error();
            slot.reset();
            return fail(folder + ": " + error), false;
        }
    }
    const DeviceBackup& backup = *slot;
    const QString what = printable(path);
    if (backup.info().encrypted)
        return fail(what + ": the backup is encrypted, its stored files are cipher text, and decryption is "
                           "not supported"),
               false;
    const DeviceBackup::Entry* entry = backup.find(domain, inside);
    if (!entry) return fail(what + ": not in the backup's index"), false;
    if (!entry->problem.isEmpty()) return fail(what + ": refused: " + entry->problem), false;
    if (entry->kind == DeviceBackup::Folder) return fail(what + ": is a folder, not a file"), false;
    if (entry->kind == DeviceBackup::Link)
        return fail(what + ": is a link to " + printable(entry->linkTarget) + ", which is not followed"),
               false;
    if (!entry->present())
        return fail(QString("%1: its stored file %2 is not in the backup")
                        .arg(what, printable(entry->fileId))),
               false;
    auto companion = [&](const char* suffix) {
        const DeviceBackup::Entry* e = backup.find(domain, inside + suffix);
        return e && e->problem.isEmpty() && e->present() && e->kind != DeviceBackup::Folder &&
                       e->kind != DeviceBackup::Link
                   ? backup.storedFile(*e)
                   : QString();
    };
    path = backup.storedFile(*entry);
    resolved().insert(path, {folder, companion("-wal"), companion("-journal")});
    return true;
}

QString companionFile(const QString& path, const QString& suffix) {
    const auto it = resolved().constFind(path);
    if (it == resolved().constEnd()) return path + suffix;
    return suffix == "-wal" ? it->wal : suffix == "-journal" ? it->journal : QString();
}

} // namespace inspect
