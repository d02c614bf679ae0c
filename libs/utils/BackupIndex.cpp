#include "BackupIndex.h"

#include "ByteCursor.h"
#include "PlistCompat.h"
#include "SQliteDbUtil.h"
#include "SQliteLoader.h"
#include "SQliteTableReader.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QHash>

#include <cmath>
#include <cstring>
#include <memory>

namespace backupindex {

namespace {

constexpr uint64_t kNone = ~uint64_t(0);

// The objects of a binary property list that a keyed archive of a file needs, found by following
// references from the top object; every position is checked against the list's bounds.
class ListReader {
public:
    explicit ListReader(const plistcompat::BinaryList& list) : m(list) {}

    // Calls fn(key, value) for each entry of dictionary object dict whose key is ASCII text.
    template <typename Fn> void forEach(uint64_t dict, Fn fn) const {
        unsigned type = 0;
        uint64_t count = 0, at = 0;
        if (!m.object(dict, &type, &count, &at) || type != 0xD || count > (m.dataEnd - at) / m.refSize / 2)
            return;
        for (uint64_t k = 0; k < count; ++k) {
            unsigned keyType = 0;
            uint64_t keyLength = 0, keyAt = 0;
            if (m.object(m.reference(at, k), &keyType, &keyLength, &keyAt) && keyType == 0x5 &&
                keyLength <= m.dataEnd - keyAt)
                fn(QLatin1String(reinterpret_cast<const char*>(m.data + keyAt), int(keyLength)),
                   m.reference(at, count + k));
        }
    }

    // The value that dictionary object dict holds under an ASCII key; kNone when none.
    uint64_t value(uint64_t dict, const char* key) const {
        uint64_t found = kNone;
        forEach(dict, [&](QLatin1String k, uint64_t v) {
            if (found == kNone && k == QLatin1String(key)) found = v;
        });
        return found;
    }

    uint64_t item(uint64_t array, uint64_t index) const {
        unsigned type = 0;
        uint64_t count = 0, at = 0;
        if (!m.object(array, &type, &count, &at) || type != 0xA || count > (m.dataEnd - at) / m.refSize ||
            index >= count)
            return kNone;
        return m.reference(at, index);
    }

    // Numbers, dates and references hold their width, not a count, in the marker's low half.
    bool scalar(uint64_t object, unsigned type, uint64_t* width, const uchar** bytes) const {
        uint64_t offset = 0;
        if (object >= m.objectCount || !m.objectOffset(object, &offset) || m.data[offset] >> 4 != type)
            return false;
        const unsigned info = m.data[offset] & 0x0F;
        *width = type == 0x8 ? info + 1 : info <= 4 ? uint64_t(1) << info : 0;
        *bytes = m.data + offset + 1;
        return *width && *width <= m.dataEnd - offset - 1;
    }

    bool integer(uint64_t object, quint64* v) const {
        uint64_t width = 0;
        const uchar* p = nullptr;
        if (!scalar(object, 0x1, &width, &p)) return false;
        // A 16-byte integer holds a value beyond the signed 64-bit range in its low half.
        *v = width == 16 ? plistcompat::readBigEndian(p + 8, 8)
                         : plistcompat::readBigEndian(p, unsigned(width));
        return true;
    }

    // A real, or a date (seconds since 2001, *date set).
    bool real(uint64_t object, double* v, bool* date) const {
        uint64_t width = 0;
        const uchar* p = nullptr;
        *date = scalar(object, 0x3, &width, &p);
        if (!*date && !scalar(object, 0x2, &width, &p)) return false;
        const quint64 bits = plistcompat::readBigEndian(p, unsigned(std::min<uint64_t>(width, 8)));
        if (width == 4) {
            float f;
            const quint32 b = quint32(bits);
            std::memcpy(&f, &b, 4);
            *v = f;
        } else if (width == 8) {
            std::memcpy(v, &bits, 8);
        } else {
            return false;
        }
        return true;
    }

    uint64_t uid(uint64_t object) const {
        uint64_t width = 0;
        const uchar* p = nullptr;
        return scalar(object, 0x8, &width, &p) && width <= 8 ? plistcompat::readBigEndian(p, unsigned(width))
                                                             : kNone;
    }

    QString text(uint64_t object) const {
        unsigned type = 0;
        uint64_t count = 0, at = 0;
        if (!m.object(object, &type, &count, &at)) return QString();
        if (type == 0x5 && count <= m.dataEnd - at)
            return QString::fromLatin1(reinterpret_cast<const char*>(m.data + at), int(count));
        if (type != 0x6 || count > (m.dataEnd - at) / 2) return QString();
        QString s(int(count), Qt::Uninitialized);
        for (uint64_t i = 0; i < count; ++i)
            s[int(i)] = QChar(ushort(plistcompat::readBigEndian(m.data + at + 2 * i, 2)));
        return s;
    }

private:
    const plistcompat::BinaryList& m;
};

} // namespace

QDateTime utcTime(qint64 unixSeconds) {
    constexpr qint64 kYear1 = -62135596800, kYear9999 = 253402300799;
    if (unixSeconds < kYear1 || unixSeconds > kYear9999) return QDateTime();
    return QDateTime::fromSecsSinceEpoch(unixSeconds, Qt::UTC);
}

QDateTime utcTime(double seconds, qint64 epoch) {
    if (!std::isfinite(seconds) || std::fabs(seconds) > 1e12) return QDateTime();
    return utcTime(qint64(std::floor(seconds)) + epoch);
}

bool readArchivedFile(const QByteArray& binaryList, DeviceBackup::Entry& entry) {
    plistcompat::BinaryList list;
    if (!plistcompat::parseTrailer(binaryList.constData(), uint64_t(binaryList.size()), &list)) {
        entry.metadataError = "not a keyed archive (not a property list)";
        return false;
    }
    const ListReader r(list);
    const uint64_t objects = r.value(list.topObject, "$objects"), top = r.value(list.topObject, "$top");
    if (objects == kNone || top == kNone) {
        entry.metadataError = "not a keyed archive (no $objects and $top)";
        return false;
    }
    // One step from a reference to the object it names; any other object is itself.
    auto resolve = [&](uint64_t object) {
        const uint64_t index = r.uid(object);
        return index == kNone ? object : r.item(objects, index);
    };
    const uint64_t file = resolve(r.value(top, "root"));
    unsigned type = 0;
    uint64_t count = 0, at = 0;
    if (!list.object(file, &type, &count, &at) || type != 0xD) {
        entry.metadataError = "keyed archive without a root object";
        return false;
    }
    auto number = [&](uint64_t object) -> quint64 {
        quint64 v = 0;
        double d = 0;
        bool date = false;
        if (r.integer(object, &v)) return v;
        return r.real(object, &d, &date) && std::fabs(d) < 9e18 ? quint64(qint64(d)) : 0;
    };
    auto when = [&](uint64_t object) {
        quint64 v = 0;
        double d = 0;
        bool date = false;
        if (r.integer(object, &v)) return utcTime(qint64(v));
        return r.real(object, &d, &date) ? utcTime(d, date ? kUnixSecondsAt2001 : 0) : QDateTime();
    };
    // One pass over the file object's keys: a listing reads this for every entry.
    uint64_t target = kNone;
    r.forEach(file, [&](QLatin1String key, uint64_t value) {
        value = resolve(value);
        if (key == QLatin1String("Size"))
            entry.size = number(value);
        else if (key == QLatin1String("Mode"))
            entry.mode = quint32(number(value));
        else if (key == QLatin1String("UserID"))
            entry.userId = qint64(number(value));
        else if (key == QLatin1String("GroupID"))
            entry.groupId = qint64(number(value));
        else if (key == QLatin1String("InodeNumber"))
            entry.inode = number(value);
        else if (key == QLatin1String("ProtectionClass"))
            entry.protectionClass = qint64(number(value));
        else if (key == QLatin1String("LastModified"))
            entry.modified = when(value);
        else if (key == QLatin1String("LastStatusChange"))
            entry.changed = when(value);
        else if (key == QLatin1String("Birth"))
            entry.born = when(value);
        else if (key == QLatin1String("Target"))
            target = value;
    });
    const QString plain = r.text(target);
    entry.linkTarget = plain.isEmpty() ? r.text(resolve(r.value(target, "NS.string"))) : plain;
    entry.hasMetadata = true;
    entry.metadataError.clear();
    return true;
}

bool readManifestDb(const QString& path, QVector<DeviceBackup::Entry>& entries, QString* error,
                    bool* cipherText, QStringList* notes) {
    // The project's own reader: nothing is locked or created beside the file, a damaged page
    // costs its rows only, and bytes after the last page are read past as the engine does.
    SQliteDbUtil db;
    const SQliteLoader::Report loaded = SQliteLoader::load(db, path, SQliteLoader::LikeTheEngine);
    *cipherText = loaded.failure == SQliteLoader::NotADatabase;
    if (!loaded.ok()) return *error = loaded.reason, false;
    for (const QString& t : loaded.tolerated)
        *notes << t;
    SQliteTableReader files(db);
    if (!files.setTable("Files")) return *error = files.error(), false;
    int column[5];
    const char* const names[5] = {"fileID", "domain", "relativePath", "flags", "file"};
    for (int i = 0; i < 5; ++i)
        if ((column[i] = files.table().columnIndex(names[i])) < 0)
            return *error = QString("the table Files has no column %1").arg(names[i]), false;
    // A backup has a few hundred domains at most: each is decoded once and its text shared.
    QHash<QByteArray, QString> domains;
    files.forEachRow([&](const SQliteTableReader::Row& row) {
        DeviceBackup::Entry e;
        e.fileId = row.value(column[0]).text();
        const SQliteValue domain = row.value(column[1]);
        const QByteArray domainBytes =
            QByteArray::fromRawData(reinterpret_cast<const char*>(domain.data), int(domain.size));
        auto known = domains.constFind(domainBytes);
        if (known == domains.constEnd())
            known = domains.insert(QByteArray(domainBytes.constData(), domainBytes.size()), domain.text());
        e.domain = *known;
        e.path = row.value(column[2]).text();
        e.flags = row.value(column[3]).integer;
        const SQliteValue blob = row.value(column[4]);
        if (blob.type == SQliteValue::Blob && blob.size > 0)
            DeviceBackup::readMetadata(
                QByteArray::fromRawData(reinterpret_cast<const char*>(blob.data), int(blob.size)), e);
        else
            e.metadataError = "no metadata";
        // The kind the metadata's mode says, else the index's flags.
        e.kind = DeviceBackup::kindOfMode(e.mode);
        if (e.kind == DeviceBackup::Unknown)
            e.kind = e.flags == 1   ? DeviceBackup::File
                     : e.flags == 2 ? DeviceBackup::Folder
                     : e.flags == 4 ? DeviceBackup::Link
                                    : DeviceBackup::Unknown;
        entries.append(std::move(e));
        return true;
    });
    const SQliteTableReader::Problems problems = files.problems();
    if (problems.any())
        *notes << QString(
                      "the table Files could not be read whole (%1 pages, %2 cells, %3 records skipped, %4 "
                      "overflow chains cut): %5")
                      .arg(problems.pages)
                      .arg(problems.cells)
                      .arg(problems.records)
                      .arg(problems.overflows)
                      .arg(problems.first);
    return true;
}

bool readMbdb(const QByteArray& data, QVector<DeviceBackup::Entry>& entries, QString* error) {
    if (!data.startsWith("mbdb") || data.size() < 6) return *error = "no \"mbdb\" signature", false;
    ByteCursor c(reinterpret_cast<const uchar*>(data.constData()), data.size(), 6);
    while (!c.atEnd()) {
        bool whole = true;
        // A 16-bit length and that many bytes; the length 0xFFFF marks an empty field.
        auto field = [&c, &whole]() {
            if (!c.has(2)) {
                whole = false;
                c.seek(c.size());
                return QByteArray();
            }
            const quint16 n = c.u16();
            if (n == 0xFFFF) return QByteArray();
            qint64 got = 0;
            const uchar* bytes = c.take(n, &got);
            whole = whole && got == n;
            return QByteArray(reinterpret_cast<const char*>(bytes), int(got));
        };
        const QByteArray domain = field(), path = field(), target = field();
        field(); // the data hash
        field(); // the encryption key
        DeviceBackup::Entry e;
        e.domain = QString::fromUtf8(domain.constData(), domain.size()); // NULs kept, to be seen
        e.path = QString::fromUtf8(path.constData(), path.size());
        e.linkTarget = QString::fromUtf8(target.constData(), target.size());
        e.fileId = QString::fromLatin1(
            QCryptographicHash::hash(domain + '-' + path, QCryptographicHash::Sha1).toHex());
        whole = whole && c.has(2 + 8 + 4 * 5 + 8 + 2);
        e.mode = c.u16();
        e.inode = c.u64();
        e.userId = c.u32();
        e.groupId = c.u32();
        e.modified = utcTime(c.u32());
        c.u32(); // last accessed
        e.born = utcTime(c.u32());
        e.size = c.u64();
        e.protectionClass = c.u8();
        const int properties = c.u8();
        for (int i = 0; i < properties * 2; ++i)
            field();
        e.kind = DeviceBackup::kindOfMode(e.mode);
        e.hasMetadata = whole;
        if (!whole) e.metadataError = "record cut short by the end of the index";
        entries.append(std::move(e));
    }
    return true;
}

} // namespace backupindex
