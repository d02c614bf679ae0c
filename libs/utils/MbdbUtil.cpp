#include "MbdbUtil.h"

#include <QCryptographicHash>

#include <algorithm>
#include <limits>

namespace {

constexpr quint16 kEmptyField = 0xFFFF;

// Reads are made in slices so that a length taken from the file never sizes an allocation
// beyond what the file can deliver.
constexpr unsigned long kReadSlice = 64 * 1024;

QString textUpToZero(const QByteArray& bytes) {
    const int zero = bytes.indexOf('\0');
    return QString::fromUtf8(zero < 0 ? bytes : bytes.left(zero));
}

} // namespace

MbdbUtil::MbdbUtil() = default;

bool MbdbUtil::loadDb(const QString& path) {
    auto file = QSharedPointer<QFile>::create(path);
    // On failure the previous stream stays usable, so its file stays too.
    if (!file->open(QIODevice::ReadOnly)) return false;
    m_stream = QSharedPointer<QDataStream>::create(file.data());
    m_file = file;
    m_stream->setByteOrder(QDataStream::BigEndian);
    if (!parseHeader()) return false;
    // The version bytes are skipped whatever they hold; a device that cannot seek (a pipe)
    // simply goes on reading from where it stands.
    seek(int(m_stream->device()->pos() + 2));
    return true;
}

bool MbdbUtil::parseHeader() {
    seek(0); // as above: the signature is read from wherever the device stands
    return readString(4) == QLatin1String("mbdb");
}

bool MbdbUtil::seek(int pos) {
    if (!m_stream || !m_stream->device()) return false;
    return m_stream->device()->seek(pos);
}

QList<QSharedPointer<MbdbRecord>> MbdbUtil::fetchRecords() {
    QList<QSharedPointer<MbdbRecord>> records;
    if (!m_stream || !m_stream->device()) return records;
    QDataStream& in = *m_stream;
    while (!in.atEnd()) {
        auto record = QSharedPointer<MbdbRecord>::create();
        record->domain = readString();
        record->path = readString();
        record->linkTarget = readString();
        record->dataHash = readData();
        const QByteArray key = readData();
        if (!key.isEmpty()) record->encryptionKey = key.mid(4);

        record->fileId = QString("");
        if (!record->path.isEmpty()) {
            const QByteArray name = record->domain.toUtf8() + '-' + record->path.toUtf8();
            record->fileId =
                QString::fromLatin1(QCryptographicHash::hash(name, QCryptographicHash::Sha1).toHex());
        }

        in >> record->mode >> record->inode >> record->userId >> record->groupId >> record->lastModified >>
            record->lastAccessed >> record->created >> record->size;
        record->type = record->size != 0 ? 1 : 2;
        in >> record->protectionClass >> record->propertyCount;
        for (int i = 0; i < record->propertyCount; ++i) {
            const QString name = readString();
            const QString value = readString();
            record->properties.insert(name, value);
        }
        records.append(record);
    }
    return records;
}

QString MbdbUtil::readString() {
    if (!m_stream) return QString("");
    quint16 length = 0;
    *m_stream >> length;
    if (length == kEmptyField) return QString("");
    return readString(length);
}

QString MbdbUtil::readString(unsigned long n) {
    const QByteArray bytes = readBytes(n);
    if (bytes.size() < 0 || static_cast<unsigned long>(bytes.size()) < n) return QString("");
    return textUpToZero(bytes);
}

QByteArray MbdbUtil::readData() {
    if (!m_stream) return QByteArray();
    quint16 length = 0;
    *m_stream >> length;
    if (length == kEmptyField) return QByteArray();
    return readBytes(length);
}

QByteArray MbdbUtil::readBytes(unsigned long n) {
    return readBytes(m_stream.data(), n);
}

QByteArray MbdbUtil::readBytes(QDataStream* stream, unsigned long n) {
    QByteArray bytes;
    if (!stream || n == 0) return bytes;
    unsigned long total = 0;
    while (total < n) {
        const unsigned long want = std::min(kReadSlice, n - total);
        const int offset = bytes.size();
        bytes.resize(offset + int(want));
        const int got = stream->readRawData(bytes.data() + offset, int(want));
        if (got <= 0) {
            bytes.resize(offset);
            break;
        }
        total += static_cast<unsigned long>(got);
        bytes.resize(offset + got);
        if (static_cast<unsigned long>(got) < want) break;
        if (bytes.size() > std::numeric_limits<int>::max() - int(kReadSlice)) break;
    }
    return bytes;
}
