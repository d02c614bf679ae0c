#include "DeviceBackup.h"

#include "BackupIndex.h"
#include "PlistCompat.h"
#include "PlistUtils.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QSet>

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

namespace {

// Property lists and legacy indexes larger than this are not read: no real one comes near.
constexpr qint64 kMaxListSize = qint64(256) << 20;
constexpr qint64 kMaxIndexSize = qint64(1) << 30;

using Tree = std::unique_ptr<void, void (*)(void*)>;
void freeTree(void* node) {
    plist_free(static_cast<plist_t>(node));
}

bool isType(plist_t node, plist_type type) {
    return node && plist_get_node_type(node) == type;
}

plist_t item(plist_t dict, const char* key) {
    return isType(dict, PLIST_DICT) ? plist_dict_get_item(dict, key) : nullptr;
}

QString text(plist_t dict, const char* key) {
    return PlistUtils::getQStringValue(item(dict, key));
}

QString firstOf(std::initializer_list<QString> texts) {
    for (const QString& t : texts)
        if (!t.isEmpty()) return t;
    return QString();
}

QDateTime dateAt(plist_t dict, const char* key) {
    const plist_t node = item(dict, key);
    return isType(node, PLIST_DATE)
               ? backupindex::utcTime(PlistUtils::getDateValue(node), backupindex::kUnixSecondsAt2001)
               : QDateTime();
}

int hexDigit(char c) {
    return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// The bytes that a name of lower-case hex digits spells, two digits a byte; false for any other
// name (or one of another length).
template <size_t N> bool bytesOfName(const char* name, int length, std::array<uchar, N>* bytes) {
    if (length != int(2 * N)) return false;
    for (size_t i = 0; i < N; ++i) {
        const int high = hexDigit(name[2 * i]), low = hexDigit(name[2 * i + 1]);
        if (high < 0 || low < 0) return false;
        (*bytes)[i] = uchar(high << 4 | low);
    }
    return true;
}

bool hashOfFileId(const QString& name, std::array<uchar, 20>* hash) {
    if (name.size() != 40) return false;
    char latin[40];
    for (int i = 0; i < 40; ++i)
        latin[i] = name.at(i).unicode() < 128 ? char(name.at(i).unicode()) : '?';
    return bytesOfName(latin, 40, hash);
}

// The plain files and the folders (links and anything else left out) of a folder, by the names
// the file system gives, undecoded.
void listFolder(const QString& folder, const std::function<void(const char* name, bool isFolder)>& found) {
    DIR* dir = opendir(QFile::encodeName(folder).constData());
    if (!dir) return;
    while (const dirent* d = readdir(dir)) {
        if (std::strcmp(d->d_name, ".") == 0 || std::strcmp(d->d_name, "..") == 0) continue;
        unsigned char type = d->d_type;
        if (type == DT_UNKNOWN) {
            struct stat st;
            if (lstat((QFile::encodeName(folder) + '/' + d->d_name).constData(), &st) != 0) continue;
            type = S_ISREG(st.st_mode) ? DT_REG : S_ISDIR(st.st_mode) ? DT_DIR : DT_UNKNOWN;
        }
        if (type == DT_REG || type == DT_DIR) found(d->d_name, type == DT_DIR);
    }
    closedir(dir);
}

// Entries in index order: by domain, then by path.
bool entryBefore(const QString& domainA, const QString& pathA, const QString& domainB, const QString& pathB) {
    const int byDomain = QString::compare(domainA, domainB);
    return byDomain != 0 ? byDomain < 0 : QString::compare(pathA, pathB) < 0;
}

} // namespace

DeviceBackup::DeviceBackup() = default;

bool DeviceBackup::open(const QString& folder) {
    *this = DeviceBackup();
    m_folder = QDir::cleanPath(QFileInfo(folder).absoluteFilePath());
    if (!QFileInfo(m_folder).isDir()) {
        m_error = "not a folder";
        return false;
    }
    readPropertyLists();
    if (!readIndex()) {
        m_entries.clear();
        return false;
    }
    findStoredFiles();
    return true;
}

void DeviceBackup::readPropertyLists() {
    auto load = [this](const char* name) {
        Tree tree(nullptr, &freeTree);
        const QString path = m_folder + '/' + name;
        const QFileInfo info(path);
        if (!info.exists() && !info.isSymLink()) {
            m_notes << QString("%1: not in the backup").arg(name);
        } else if (!info.isFile() || info.isSymLink() || info.size() > kMaxListSize) {
            m_notes << QString("%1: not a plain file (a link is not followed) of at most %2 bytes; not read")
                           .arg(name)
                           .arg(kMaxListSize);
        } else {
            void* root = nullptr;
            if (PlistUtils::loadFromFile(path, root) && isType(static_cast<plist_t>(root), PLIST_DICT)) {
                tree.reset(root);
                m_info.propertyLists << name;
            } else {
                if (root) freeTree(root);
                m_notes << QString("%1: not a property list holding a dictionary").arg(name);
            }
        }
        return tree;
    };
    const Tree info = load("Info.plist"), manifest = load("Manifest.plist"), status = load("Status.plist");
    const plist_t i = info.get(), m = manifest.get(), lockdown = item(m, "Lockdown");
    Info& d = m_info;
    d.deviceName = firstOf({text(i, "Device Name"), text(i, "Display Name"), text(lockdown, "DeviceName")});
    d.productType = firstOf({text(i, "Product Type"), text(lockdown, "ProductType")});
    d.productVersion = firstOf({text(i, "Product Version"), text(lockdown, "ProductVersion")});
    d.buildVersion = firstOf({text(i, "Build Version"), text(lockdown, "BuildVersion")});
    d.serialNumber = firstOf({text(i, "Serial Number"), text(lockdown, "SerialNumber")});
    d.uniqueIdentifier = firstOf({text(i, "Unique Identifier"), text(lockdown, "UniqueDeviceID")});
    for (const QDateTime& date :
         {dateAt(i, "Last Backup Date"), dateAt(status.get(), "Date"), dateAt(m, "Date")})
        if (!d.date.isValid()) d.date = date;
    d.encrypted =
        isType(item(m, "IsEncrypted"), PLIST_BOOLEAN) && PlistUtils::getBoolValue(item(m, "IsEncrypted"));
    QSet<QString> apps;
    const plist_t applications = item(m, "Applications");
    if (isType(applications, PLIST_DICT))
        for (const auto& entry : plistcompat::dictItems(applications))
            apps.insert(QString::fromStdString(entry.first));
    const plist_t installed = item(i, "Installed Applications");
    if (isType(installed, PLIST_ARRAY))
        for (plist_t app : plistcompat::arrayItems(installed))
            if (!PlistUtils::getQStringValue(app).isEmpty()) apps.insert(PlistUtils::getQStringValue(app));
    d.applications = apps.values();
    d.applications.sort();
}

bool DeviceBackup::readIndex() {
    const QString db = m_folder + "/Manifest.db", mbdb = m_folder + "/Manifest.mbdb";
    QString error;
    for (const QString& index : {db, mbdb})
        if (QFileInfo(index).isSymLink())
            return m_error = QFileInfo(index).fileName() + ": is a link, which is not followed", false;
    if (QFileInfo(db).isFile()) {
        m_format = ManifestDb;
        bool cipherText = false;
        QStringList read;
        const bool ok = backupindex::readManifestDb(db, m_entries, &error, &cipherText, &read);
        for (const QString& note : read)
            m_notes << "Manifest.db: " + note;
        if (!ok) {
            if (cipherText && m_info.encrypted)
                m_error =
                    "the backup is encrypted, and so is its index Manifest.db; decryption is not supported";
            else if (cipherText)
                m_error = "Manifest.db: not an SQLite database (an encrypted or damaged index)";
            else
                m_error = "Manifest.db: " + error;
            return false;
        }
        if (QFileInfo::exists(db + "-wal"))
            m_notes
                << "Manifest.db-wal: a write-ahead log lies beside the index; the index is read without it";
    } else if (QFileInfo(mbdb).isFile()) {
        m_format = ManifestMbdb;
        QFile file(mbdb);
        if (file.size() > kMaxIndexSize) return m_error = "Manifest.mbdb: larger than 1 GiB; not read", false;
        if (!file.open(QIODevice::ReadOnly)) return m_error = "Manifest.mbdb: cannot open for reading", false;
        if (!backupindex::readMbdb(file.readAll(), m_entries, &error))
            return m_error = "Manifest.mbdb: " + error, false;
    } else {
        m_error = "no Manifest.db or Manifest.mbdb: not a device backup";
        return false;
    }

    // Sorted by domain rank first: far fewer text comparisons than comparing the domains.
    QMap<QString, int> domainRank;
    for (const Entry& e : qAsConst(m_entries))
        domainRank.insert(e.domain, 0);
    int rank = 0;
    for (int& r : domainRank)
        r = rank++;
    std::vector<std::pair<int, int>> order; // domain rank, entry
    order.reserve(size_t(m_entries.size()));
    for (int i = 0; i < m_entries.size(); ++i)
        order.emplace_back(domainRank.value(m_entries.at(i).domain), i);
    // An entry the index holds twice keeps the index's order: find() gives the first.
    std::sort(order.begin(), order.end(), [this](const std::pair<int, int>& a, const std::pair<int, int>& b) {
        if (a.first != b.first) return a.first < b.first;
        const int c = QString::compare(m_entries.at(a.second).path, m_entries.at(b.second).path);
        return c != 0 ? c < 0 : a.second < b.second;
    });
    QVector<Entry> sorted;
    sorted.reserve(m_entries.size());
    for (const auto& o : order)
        sorted.append(std::move(m_entries[o.second]));
    m_entries.swap(sorted);

    QSet<QString> links;
    int unreadable = 0;
    const Entry* firstUnreadable = nullptr;
    for (const Entry& e : qAsConst(m_entries)) {
        if (e.kind == Link) links.insert(e.domain + QChar(0) + e.path);
        if (!e.metadataError.isEmpty() && !unreadable++) firstUnreadable = &e;
    }
    for (Entry& e : m_entries) {
        e.problem = pathProblem(e.domain, e.path);
        for (int slash = e.path.indexOf('/'); e.problem.isEmpty() && !links.isEmpty() && slash > 0;
             slash = e.path.indexOf('/', slash + 1))
            if (links.contains(e.domain + QChar(0) + e.path.left(slash)))
                e.problem = QString("passes through the link %1/%2").arg(e.domain, e.path.left(slash));
    }
    if (unreadable)
        m_notes << QString("entries without readable metadata: %1 (the first, %2/%3: %4)")
                       .arg(unreadable)
                       .arg(firstUnreadable->domain, firstUnreadable->path, firstUnreadable->metadataError);
    return true;
}

void DeviceBackup::findStoredFiles() {
    // Stored files: NAME directly in the backup folder (older backups), or XX/NAME in the folder
    // named by the first two hex digits of NAME. Other plain files in those folders are stored
    // files too, just not under a name that an entry can have.
    struct Stored {
        std::array<uchar, 20> hash;
        Entry::Storage storage;
        bool named;
        bool operator<(const Stored& o) const { return hash != o.hash ? hash < o.hash : storage < o.storage; }
    };
    std::vector<Stored> stored;
    QStringList others;
    std::array<uchar, 20> hash;
    listFolder(m_folder, [&](const char* name, bool isFolder) {
        const int length = int(std::strlen(name));
        if (!isFolder && bytesOfName(name, length, &hash))
            stored.push_back({hash, Entry::InBackupFolder, false});
        std::array<uchar, 1> prefix;
        if (!isFolder || !bytesOfName(name, length, &prefix)) return;
        listFolder(m_folder + '/' + name, [&](const char* inside, bool insideIsFolder) {
            if (insideIsFolder) return;
            if (bytesOfName(inside, int(std::strlen(inside)), &hash) && hash[0] == prefix[0])
                stored.push_back({hash, Entry::InHashFolder, false});
            else
                others << QFile::decodeName(name) + '/' + QFile::decodeName(inside);
        });
    });
    std::sort(stored.begin(), stored.end());
    auto find = [&stored](const std::array<uchar, 20>& hash, Entry::Storage storage) {
        const Stored key{hash, storage, false};
        const auto it = std::lower_bound(stored.begin(), stored.end(), key);
        return it != stored.end() && it->hash == hash && it->storage == storage ? &*it : nullptr;
    };
    for (Entry& e : m_entries) {
        if (!hashOfFileId(e.fileId, &hash)) continue;
        for (const Entry::Storage storage : {Entry::InHashFolder, Entry::InBackupFolder}) {
            if (Stored* s = find(hash, storage)) {
                e.storage = storage;
                s->named = true;
                break;
            }
        }
    }
    for (const Stored& s : stored) {
        if (s.named) continue;
        const QString name =
            QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(s.hash.data()), 20).toHex());
        m_unindexed << (s.storage == Entry::InHashFolder ? name.left(2) + '/' + name : name);
    }
    m_unindexed << others;
    m_unindexed.sort();
}

const DeviceBackup::Entry* DeviceBackup::find(const QString& domain, const QString& path) const {
    const auto it = std::lower_bound(
        m_entries.begin(), m_entries.end(), domain,
        [&path](const Entry& e, const QString& d) { return entryBefore(e.domain, e.path, d, path); });
    return it != m_entries.end() && it->domain == domain && it->path == path ? &*it : nullptr;
}

QString DeviceBackup::storedFile(const Entry& entry) const {
    switch (entry.storage) {
    case Entry::InHashFolder:
        return m_folder + '/' + entry.fileId.left(2) + '/' + entry.fileId;
    case Entry::InBackupFolder:
        return m_folder + '/' + entry.fileId;
    default:
        return QString();
    }
}

QString DeviceBackup::pathProblem(const QString& domain, const QString& path) {
    auto badCharacter = [](const QString& s) {
        for (const QChar c : s) {
            if (c.unicode() >= 0x20 && c.unicode() < 0x7F) continue;
            if (c.unicode() == 0) return QStringLiteral("a NUL character");
            if (c.category() == QChar::Other_Control) return QStringLiteral("a control character");
        }
        return QString();
    };
    if (domain.isEmpty()) return "empty domain";
    QString bad = badCharacter(domain);
    if (!bad.isEmpty()) return "domain holds " + bad;
    if (domain.contains('/')) return "domain holds a '/'";
    if (domain == "." || domain == "..") return QString("domain is '%1'").arg(domain);
    bad = badCharacter(path);
    if (!bad.isEmpty()) return "path holds " + bad;
    if (path.isEmpty()) return QString();
    if (path.startsWith('/')) return "absolute path";
    for (int start = 0; start <= path.size();) {
        int end = path.indexOf('/', start);
        if (end < 0) end = path.size();
        const QStringRef part = path.midRef(start, end - start);
        if (part == QLatin1String("..")) return "path holds '..'";
        if (part.isEmpty() || part == QLatin1String(".")) return "path holds an empty or '.' part";
        start = end + 1;
    }
    return QString();
}

DeviceBackup::Kind DeviceBackup::kindOfMode(quint32 mode) {
    switch (mode & 0170000) {
    case 0100000:
        return File;
    case 0040000:
        return Folder;
    case 0120000:
        return Link;
    default:
        return Unknown;
    }
}

QString DeviceBackup::kindName(Kind kind) {
    switch (kind) {
    case File:
        return QStringLiteral("file");
    case Folder:
        return QStringLiteral("folder");
    case Link:
        return QStringLiteral("link");
    default:
        return QStringLiteral("unknown");
    }
}

bool DeviceBackup::readMetadata(const QByteArray& blob, Entry& entry) {
    if (blob.startsWith("bplist00")) return backupindex::readArchivedFile(blob, entry);
    // Archives in XML are rare: they are read in the binary form that libplist writes of them.
    void* root = nullptr;
    if (!PlistUtils::loadFromData(blob, root)) {
        entry.metadataError = "not a keyed archive (not a property list)";
        return false;
    }
    const QByteArray binary = PlistUtils::savaToBinFromByteArray(root);
    freeTree(root);
    return backupindex::readArchivedFile(binary, entry);
}
