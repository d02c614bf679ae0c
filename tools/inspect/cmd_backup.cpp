// backup: a device backup folder summarised, listed, or extracted into a domain/path tree.
#include "Command.h"

#include "BackupInput.h"
#include "DeviceBackup.h"
#include "RecordWriter.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QMap>
#include <QRegExp>
#include <QSet>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace inspect;

namespace {

using Entry = DeviceBackup::Entry;

// ISO-8601 in UTC ("2023-11-14T22:13:20Z"); empty for an invalid time. Written by hand: Qt's
// formatting would take a third of a listing's time.
QString timeText(const QDateTime& time) {
    if (!time.isValid()) return QString();
    const QDateTime utc = time.toUTC();
    const QDate d = utc.date();
    const QTime t = utc.time();
    char text[40];
    const int n = std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", d.year(), d.month(),
                                d.day(), t.hour(), t.minute(), t.second());
    return QString::fromLatin1(text, n);
}

QString modeText(quint32 mode) {
    char text[16];
    return QString::fromLatin1(text, std::snprintf(text, sizeof text, "%06o", mode));
}

QString entryName(const Entry& e) {
    return printable(e.path.isEmpty() ? e.domain : e.domain + '/' + e.path);
}

// --domain D (exactly) and --path GLOB (* and ? match any character, "/" included).
struct Filter {
    QString domain;
    QRegExp glob;
    bool matches(const Entry& e) const {
        return (domain.isEmpty() || e.domain == domain) && (glob.isEmpty() || glob.exactMatch(e.path));
    }
};

int summary(const DeviceBackup& backup, bool opened, bool json) {
    const DeviceBackup::Info& info = backup.info();
    QMap<QString, int> domains;
    int kinds[4] = {0, 0, 0, 0}, present = 0, missing = 0, refused = 0;
    for (const Entry& e : backup.entries()) {
        ++domains[e.domain];
        ++kinds[e.kind];
        if (e.kind == DeviceBackup::File) ++(e.present() ? present : missing);
        if (!e.problem.isEmpty()) ++refused;
    }
    const QString format = backup.format() == DeviceBackup::ManifestDb     ? "Manifest.db"
                           : backup.format() == DeviceBackup::ManifestMbdb ? "Manifest.mbdb"
                                                                           : "none";
    if (json) {
        QJsonObject perDomain;
        for (auto it = domains.constBegin(); it != domains.constEnd(); ++it)
            perDomain[it.key()] = it.value();
        printJson(QJsonObject{
            {"folder", backup.folder()},
            {"device", QJsonObject{{"name", info.deviceName},
                                   {"productType", info.productType},
                                   {"version", info.productVersion},
                                   {"build", info.buildVersion},
                                   {"serialNumber", info.serialNumber},
                                   {"uniqueIdentifier", info.uniqueIdentifier}}},
            {"date", info.date.isValid() ? QJsonValue(timeText(info.date)) : QJsonValue()},
            {"encrypted", info.encrypted},
            {"propertyLists", QJsonArray::fromStringList(info.propertyLists)},
            {"index", opened ? QJsonValue(format) : QJsonValue()},
            {"entries", backup.entries().size()},
            {"files", kinds[DeviceBackup::File]},
            {"folders", kinds[DeviceBackup::Folder]},
            {"links", kinds[DeviceBackup::Link]},
            {"present", present},
            {"missing", missing},
            {"refused", refused},
            {"unindexed", QJsonArray::fromStringList(backup.unindexedFiles())},
            {"domains", perDomain},
            {"applications", QJsonArray::fromStringList(info.applications)},
        });
    } else {
        auto known = [](const QString& text) { return text.isEmpty() ? QString("?") : printable(text); };
        out("Backup:       " + backup.folder());
        out(QString("Device:       %1 (%2), serial number %3")
                .arg(known(info.deviceName), known(info.productType), known(info.serialNumber)));
        out(QString("System:       %1 (build %2)").arg(known(info.productVersion), known(info.buildVersion)));
        out("Backup date:  " + (info.date.isValid() ? timeText(info.date) : QString("?")));
        out(QString("Encrypted:    %1").arg(info.encrypted ? "yes (decryption is not supported)" : "no"));
        if (opened) {
            out(QString("Index:        %1, %2 entries (files %3, folders %4, links %5%6)")
                    .arg(format)
                    .arg(backup.entries().size())
                    .arg(kinds[DeviceBackup::File])
                    .arg(kinds[DeviceBackup::Folder])
                    .arg(kinds[DeviceBackup::Link])
                    .arg(kinds[DeviceBackup::Unknown] ? QString(", of unknown kind %1").arg(kinds[0]) : ""));
            out(QString("Stored files: %1 present, %2 missing, %3 not named by the index")
                    .arg(present)
                    .arg(missing)
                    .arg(backup.unindexedFiles().size()));
            if (refused) out(QString("Refused:      %1 entries whose domain or path is unsafe").arg(refused));
        }
        out(QString("Applications: %1%2")
                .arg(info.applications.size())
                .arg(info.applications.isEmpty() ? ""
                                                 : " (" + printable(info.applications.join(", ")) + ")"));
        if (!domains.isEmpty()) out("Entries per domain:");
        for (auto it = domains.constBegin(); it != domains.constEnd(); ++it)
            out(QString("%1  %2").arg(it.value(), 8).arg(printable(it.key())));
    }
    for (const QString& n : backup.notes())
        note(printable(n));
    return opened ? Ok : fail(backup.folder() + ": " + backup.error());
}

int list(const DeviceBackup& backup, const Filter& filter, RecordWriter::Format format) {
    RecordWriter writer(format);
    if (format == RecordWriter::Csv)
        writer.csvRow({"domain", "path", "fileID", "kind", "size", "mode", "mtime", "present", "linkTarget",
                       "problem"});
    for (const Entry& e : backup.entries()) {
        if (!filter.matches(e)) continue;
        if (format == RecordWriter::Text) {
            QString line = QString("%1\t%2\t%3\t%4\t%5\t%6\t%7\t%8")
                               .arg(printable(e.fileId), DeviceBackup::kindName(e.kind), modeText(e.mode))
                               .arg(e.size)
                               .arg(e.modified.isValid() ? timeText(e.modified) : QString("-"),
                                    e.present()                    ? "present"
                                    : e.kind == DeviceBackup::File ? "missing"
                                                                   : "-",
                                    printable(e.domain), printable(e.path));
            if (e.kind == DeviceBackup::Link) line += " -> " + printable(e.linkTarget);
            if (!e.problem.isEmpty()) line += "  [refused: " + e.problem + "]";
            out(line); // tabs as they are: RecordWriter::line would escape them
            continue;
        }
        const QVariant none;
        writer.object({{"domain", e.domain},
                       {"path", e.path},
                       {"fileID", e.fileId},
                       {"kind", DeviceBackup::kindName(e.kind)},
                       {"size", qulonglong(e.size)},
                       {"mode", format == RecordWriter::Json ? QVariant(e.mode) : QVariant(modeText(e.mode))},
                       {"mtime", e.modified.isValid() ? QVariant(timeText(e.modified)) : none},
                       {"present", e.present()},
                       {"linkTarget", e.kind == DeviceBackup::Link ? QVariant(e.linkTarget) : none},
                       {"problem", e.problem.isEmpty() ? none : QVariant(e.problem)}});
    }
    writer.finish();
    for (const QString& n : backup.notes())
        note(printable(n));
    return Ok;
}

// Writes every file of the extraction below one folder without ever leaving it: folders are made
// one part at a time and an existing part must be a real folder (a link is never followed), and
// files are opened without following a link at their own name.
class Extraction {
public:
    Extraction(const QString& out, bool force) : m_out(out), m_force(force) {}

    // Makes the folders of OUT/rel (rel itself too when folder); false with *why set.
    bool makeFolders(const QString& rel, bool folder, QString* why) {
        const QStringList parts = rel.split('/');
        QString dir = m_out;
        for (int i = 0; i < parts.size() - (folder ? 0 : 1); ++i) {
            dir += '/' + parts.at(i);
            if (m_made.contains(dir)) continue;
            const QByteArray name = QFile::encodeName(dir);
            if (::mkdir(name.constData(), 0755) != 0 && errno != EEXIST)
                return *why = QString("cannot make %1: %2").arg(dir, strerror(errno)), false;
            struct stat st;
            if (::lstat(name.constData(), &st) != 0 || !S_ISDIR(st.st_mode))
                return *why = QString("%1 is a link or a file, not a folder; it is not followed").arg(dir),
                       false;
            m_made.insert(dir);
        }
        return true;
    }

    // Copies from to OUT/rel, with mtime when it is valid; the file's SHA-256 in *sha256.
    bool copy(const QString& from, const QString& rel, const QDateTime& mtime, qint64* bytes,
              QByteArray* sha256, QString* why) {
        const int in = ::open(QFile::encodeName(from).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        struct stat st;
        if (in < 0 || ::fstat(in, &st) != 0 || !S_ISREG(st.st_mode)) {
            *why =
                QString("cannot read the stored file: %1").arg(in < 0 ? strerror(errno) : "not a plain file");
            if (in >= 0) ::close(in);
            return false;
        }
        const int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | (m_force ? O_TRUNC : O_EXCL);
        const int to = ::open(QFile::encodeName(m_out + '/' + rel).constData(), flags, 0644);
        if (to < 0) {
            *why = errno == EEXIST  ? QString("exists (--force overwrites it)")
                   : errno == ELOOP ? QString("a link stands at its name; it is not followed")
                                    : QString(strerror(errno));
            ::close(in);
            return false;
        }
        QCryptographicHash hash(QCryptographicHash::Sha256);
        QByteArray buffer(1 << 20, Qt::Uninitialized);
        *bytes = 0;
        bool ok = true;
        for (;;) {
            const ssize_t n = ::read(in, buffer.data(), size_t(buffer.size()));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                ok = n == 0;
                break;
            }
            hash.addData(buffer.constData(), int(n));
            for (ssize_t done = 0; ok && done < n;) {
                const ssize_t w = ::write(to, buffer.constData() + done, size_t(n - done));
                if (w < 0 && errno != EINTR) ok = false;
                if (w > 0) done += w;
            }
            if (!ok) break;
            *bytes += n;
        }
        if (ok && mtime.isValid()) {
            const timespec times[2] = {{0, UTIME_OMIT}, {time_t(mtime.toSecsSinceEpoch()), 0}};
            ::futimens(to, times);
        }
        if (!ok) *why = QString("copy failed: %1").arg(strerror(errno));
        ok = (::close(to) == 0) && ok;
        ::close(in);
        *sha256 = hash.result().toHex();
        return ok;
    }

    void setFolderTime(const QString& rel, const QDateTime& mtime) {
        if (!mtime.isValid()) return;
        const timespec times[2] = {{0, UTIME_OMIT}, {time_t(mtime.toSecsSinceEpoch()), 0}};
        ::utimensat(AT_FDCWD, QFile::encodeName(m_out + '/' + rel).constData(), times, AT_SYMLINK_NOFOLLOW);
    }

    bool writeList(const QString& name, const QByteArray& text) {
        const int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | (m_force ? O_TRUNC : O_EXCL);
        const int fd = ::open(QFile::encodeName(m_out + '/' + name).constData(), flags, 0644);
        const bool ok = fd >= 0 && ::write(fd, text.constData(), size_t(text.size())) == text.size();
        return (fd < 0 || ::close(fd) == 0) && ok;
    }

private:
    QString m_out;
    bool m_force;
    QSet<QString> m_made;
};

int extract(const DeviceBackup& backup, const Filter& filter, const QString& outFolder, bool force) {
    if (backup.info().encrypted)
        return fail(backup.folder() +
                    ": the backup is encrypted, its stored files are cipher text, and decryption is not "
                    "supported; nothing was extracted");
    const QString target = QDir::cleanPath(QFileInfo(outFolder).absoluteFilePath());
    // Where OUT is, or would be made: below its nearest existing folder, with links resolved.
    QString existing = target;
    while (!QFileInfo::exists(existing) && QFileInfo(existing).path() != existing)
        existing = QFileInfo(existing).path();
    const QString real = QFileInfo(existing).canonicalFilePath(),
                  root = QFileInfo(backup.folder()).canonicalFilePath();
    if (real == root || real.startsWith(root + '/'))
        return fail(outFolder + ": is inside the backup, which is never written", Usage);
    if (QFileInfo::exists(target) && !QFileInfo(target).isDir())
        return fail(outFolder + ": is not a folder", Usage);
    // A domain named as the backup folder would lead into it from a folder that holds it.
    if (QFileInfo::exists(target) && root.startsWith(QFileInfo(target).canonicalFilePath() + '/'))
        return fail(outFolder + ": holds the backup, which is never written; extract elsewhere", Usage);
    if (!force &&
        !QDir(target).isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System))
        return fail(outFolder + ": is not empty (--force writes into it, over the files there)");
    if (!QDir().mkpath(target)) return fail(outFolder + ": cannot make the folder");

    Extraction extraction(target, force);
    QByteArray sums, links;
    QSet<QString> written;
    QList<const Entry*> folders;
    qint64 files = 0, bytes = 0, skipped = 0;
    auto skip = [&skipped](const Entry& e, const QString& why) {
        ++skipped;
        note(QString("not extracted: %1: %2").arg(entryName(e), printable(why)));
    };
    for (const Entry& e : backup.entries()) {
        if (!filter.matches(e)) continue;
        const QString rel = e.path.isEmpty() ? e.domain : e.domain + '/' + e.path;
        if (!e.problem.isEmpty()) {
            skip(e, "refused: " + e.problem);
            continue;
        }
        if (e.kind == DeviceBackup::Link) {
            links += (printable(rel) + " -> " + printable(e.linkTarget) + '\n').toUtf8();
            continue;
        }
        QString why;
        if (e.kind == DeviceBackup::Folder) {
            if (extraction.makeFolders(rel, true, &why))
                folders << &e;
            else
                skip(e, why);
            continue;
        }
        if (!e.present()) {
            if (e.kind == DeviceBackup::File)
                skip(e, "its stored file " + e.fileId + " is not in the backup");
            continue;
        }
        if (written.contains(rel)) {
            skip(e, "another entry of the same domain and path was written");
            continue;
        }
        qint64 copied = 0;
        QByteArray sha256;
        if (!extraction.makeFolders(rel, false, &why) ||
            !extraction.copy(backup.storedFile(e), rel, e.modified, &copied, &sha256, &why)) {
            skip(e, why);
            continue;
        }
        written.insert(rel);
        sums += sha256 + "  " + rel.toUtf8() + '\n';
        ++files;
        bytes += copied;
        if (e.hasMetadata && quint64(copied) != e.size)
            note(QString("%1: the index gives a size of %2 bytes, the stored file holds %3")
                     .arg(entryName(e))
                     .arg(e.size)
                     .arg(copied));
        if (files % 1000 == 0) progress(QString("extracted %1 files...").arg(files));
    }
    // Children were written after their folders; dating the folders last, deepest first, keeps it.
    for (int i = folders.size() - 1; i >= 0; --i) {
        const Entry& e = *folders.at(i);
        extraction.setFolderTime(e.path.isEmpty() ? e.domain : e.domain + '/' + e.path, e.modified);
    }
    progress(QString());
    if (!extraction.writeList("SHA256SUMS", sums) ||
        (!links.isEmpty() && !extraction.writeList("LINKS", links)))
        return fail(outFolder + ": cannot write SHA256SUMS or LINKS");
    out(QString("extracted %1 files (%2 bytes) and %3 folders into %4; SHA-256 of each file in SHA256SUMS%5")
            .arg(files)
            .arg(bytes)
            .arg(folders.size())
            .arg(target, links.isEmpty() ? QString() : QString("; links recorded in LINKS, not made")));
    return skipped ? fail(QString("%1 entries not extracted (see above)").arg(skipped)) : Ok;
}

int runBackup(const Args& args) {
    const bool listing = args.has("--list"), extracting = args.has("--extract");
    if (listing && extracting) return fail("backup: choose --list or --extract", Usage);
    if (args.has("--json") && args.has("--csv")) return fail("backup: choose --json or --csv", Usage);
    if (extracting && (args.has("--json") || args.has("--csv")))
        return fail("backup: --json and --csv go with the summary or --list", Usage);
    if (args.has("--csv") && !listing) return fail("backup: --csv goes with --list", Usage);
    if (!extracting && args.has("--force")) return fail("backup: --force goes with --extract", Usage);
    if (extracting && args.value("--extract").isEmpty())
        return fail("backup: --extract needs a folder", Usage);
    Filter filter{args.value("--domain"),
                  QRegExp(args.value("--path"), Qt::CaseSensitive, QRegExp::Wildcard)};
    if (!filter.glob.isValid()) return fail("backup: --path: not a valid pattern", Usage);

    const QString folder = args.positional().at(0);
    if (!QFileInfo(folder).isDir())
        return fail(folder + (QFileInfo::exists(folder) ? ": not a folder" : ": no such folder"));
    DeviceBackup backup;
    const bool opened = backup.open(folder);
    if (!listing && !extracting) return summary(backup, opened, args.has("--json"));
    if (!opened) return fail(folder + ": " + backup.error());
    if (extracting) return extract(backup, filter, args.value("--extract"), args.has("--force"));
    return list(backup, filter,
                args.has("--json")  ? RecordWriter::Json
                : args.has("--csv") ? RecordWriter::Csv
                                    : RecordWriter::Text);
}

const Registration backupCommand(
    {"backup",
     "DIR",
     "Reads a device backup folder (Info.plist, Manifest.plist, Status.plist, and the index Manifest.db or\n"
     "Manifest.mbdb) without writing to it, and prints the device, its system version, the backup date,\n"
     "whether it is encrypted, and the count of entries per domain.\n"
     "A file inside a backup can be given to any reading command as DIR::DOMAIN/PATH.",
     {{"--list", nullptr,
       "one line per entry: fileID, kind, mode (octal), size, mtime (UTC), present or\n"
       "missing, domain, path [-> link target] [refused: why its path is unsafe]"},
      {"--json", nullptr,
       "the summary, or with --list one JSON array of {domain, path, fileID, kind, size,\n"
       "mode, mtime, present, linkTarget, problem}"},
      {"--csv", nullptr, "the list as CSV rows with the same fields"},
      {"--domain", "D", "only the entries of domain D"},
      {"--path", "GLOB", "only the entries whose path matches GLOB (* and ? match \"/\" too)"},
      {"--extract", "OUT",
       "copy the stored files to OUT/DOMAIN/PATH with their modification times, list each\n"
       "file's SHA-256 in OUT/SHA256SUMS and the links in OUT/LINKS (links are not made).\n"
       "Entries whose domain or path is absolute, holds \"..\", a NUL or a control\n"
       "character, or passes through a link are refused and reported. OUT must be empty\n"
       "and outside the backup."},
      {"--force", nullptr, "extract into a folder that is not empty, over the files there"}},
     runBackup});

} // namespace
