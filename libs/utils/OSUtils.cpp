#include "OSUtils.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QSet>
#include <QTime>

#include <sys/statvfs.h>
#include <zlib.h>

#include <climits>
#include <cstdint>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
}

// The lists are defined in this order on purpose: g_otherSuffix is assembled from the document
// lists above it, so it has to be initialised after them.
QStringList g_photoSuffix = {".bmp",  ".jpg",   ".jpeg",       ".png", ".tif",      ".gif",   ".pcx",
                             ".tga",  ".exif",  ".fpx",        ".svg", ".cdr",      ".pcd",   ".dxf",
                             ".ufo",  ".eps",   ".raw",        ".wmf", ".webp",     ".avif",  ".apng",
                             ".heic", ".thumb", ".video_thum", ".pic", ".pic_thum", ".pic_hd"};
QStringList g_photoMagic = {"bmp",  "jpg",   "jpeg",       "png", "tif",      "gif",   "pcx",
                            "tga",  "exif",  "fpx",        "svg", "cdr",      "pcd",   "dxf",
                            "ufo",  "eps",   "raw",        "wmf", "webp",     "avif",  "apng",
                            "heic", "thumb", "video_thum", "pic", "pic_thum", "pic_hd"};
QStringList g_videoSuffix = {".mov", ".mp4", ".wmv", ".flv", ".rm", ".rmvb", ".mkv", ".avi", ".webm", ".3gp"};
QStringList g_videoMagic = {"mov", "mp4", "wmv", "flv", "rm", "rmvb", "mkv", "avi", "webm", "3gp"};
QStringList g_audioSuffix = {".m4a", ".mp3", ".opus", ".amr", ".aud", ".slk", ".flac",
                             ".wma", ".mid", ".wav",  ".cda", ".caf", ".aac"};
QStringList g_silkSuffix = {".amr", ".aud", ".slk"};
QStringList g_txtSuffix = {".txt", ".rtf", ".csv"};
QStringList g_zipSuffix = {".zip", ".7z", ".rar", ".tar", ".gz", ".xz", ".bz", ".bz2"};
QStringList g_wordSuffix = {".doc", ".docx", ".docm", ".dot", ".wps"};
QStringList g_pptSuffix = {".ppt", ".ppsx", ".pptm", ".pptx"};
QStringList g_xlsSuffix = {".xls", ".xlsx", ".xlsm", ".xlsb", ".xltx"};
QStringList g_pdfSuffix = {".pdf"};
QStringList g_programmingSuffix = {".h",    ".c",   ".cpp", ".java", ".php", ".htm",
                                   ".html", ".xml", ".py",  ".sh",   ".cs"};
QStringList g_docSuffix = {".md",   ".u3d", ".prc", ".vsd", ".url",   ".psd", ".ai",
                           ".proj", ".aep", ".au",  ".rp",  ".lrcat", ".dwg"};
QStringList g_otherSuffix = g_txtSuffix + g_zipSuffix + g_wordSuffix + g_pptSuffix + g_xlsSuffix +
                            g_pdfSuffix + g_programmingSuffix + g_docSuffix;

namespace {

// Reads up to maxBytes from the start of the file and looks for any of words in it as text.
// The bytes become a string only up to the first zero byte.
bool sniffHeader(const QString& path, qint64 maxBytes, const QStringList& words, bool logHeader) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) return false;
    const QByteArray bytes = file.read(maxBytes);
    file.close();
    const QString header = QString::fromLatin1(bytes);
    if (logHeader) qDebug() << header;
    for (const QString& word : words) {
        if (header.indexOf(word, 0, Qt::CaseInsensitive) != -1) return true;
    }
    return false;
}

QString canonical(const QString& path) {
    return QFileInfo(path).canonicalFilePath();
}

// The chain of canonical folder paths being walked guards against symbolic links that point
// back at one of their own ancestors; a tree without such a loop is walked completely.
qint64 dirSizeWalk(const QString& dir, QSet<QString>& chain) {
    const QString key = canonical(dir);
    if (!key.isEmpty()) {
        if (chain.contains(key)) return 0;
        chain.insert(key);
    }
    qint64 total = 0;
    QDir d(dir);
    const QStringList files = d.entryList(QDir::Files | QDir::Hidden | QDir::System, QDir::Unsorted);
    for (const QString& name : files)
        total += QFileInfo(d, name).size();
    const QStringList dirs =
        d.entryList(QDir::Dirs | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString& name : dirs)
        total += dirSizeWalk(dir + QDir::separator() + name, chain);
    if (!key.isEmpty()) chain.remove(key);
    return total;
}

// made holds the canonical paths of the folders this copy has created or copies into, so that
// copying a folder into one of its own sub-folders does not walk into its own output.
void copyWalk(const QString& src, const QString& dst, QSet<QString>& chain, QSet<QString>& made) {
    QFileInfo info(src);
    if (!info.exists()) return;
    if (info.isFile()) {
        QFile::copy(src, dst);
        return;
    }
    const QString key = canonical(src);
    if (!key.isEmpty()) {
        if (chain.contains(key) || made.contains(key)) return;
        chain.insert(key);
    }
    QDir dir(src);
    const QString dstKey = canonical(dst);
    if (!dstKey.isEmpty()) made.insert(dstKey);
    const QStringList dirs = dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString& name : dirs) {
        const QString from = src + QDir::separator() + name;
        const QString to = dst + QDir::separator() + name;
        if (made.contains(canonical(from))) continue;
        dir.mkpath(to);
        const QString toKey = canonical(QDir(src).absoluteFilePath(to));
        if (!toKey.isEmpty()) made.insert(toKey);
        copyWalk(from, to, chain, made);
    }
    const QStringList files = dir.entryList(QDir::Files, QDir::Unsorted);
    for (const QString& name : files) {
        QFile::copy(src + QDir::separator() + name, dst + QDir::separator() + name);
    }
    if (!key.isEmpty()) chain.remove(key);
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Classification

bool OSUtils::matchExts(const QString& path, QStringList exts) {
    for (const QString& ext : exts) {
        if (path.endsWith(ext, Qt::CaseInsensitive)) return true;
    }
    return false;
}

bool OSUtils::isPicture(const QString& path) {
    return matchExts(path, g_photoSuffix);
}

bool OSUtils::isVideo(const QString& path) {
    return matchExts(path, g_videoSuffix);
}

bool OSUtils::isAudio(const QString& path) {
    return matchExts(path, g_audioSuffix);
}

bool OSUtils::isSilk(const QString& path) {
    return matchExts(path, g_silkSuffix);
}

bool OSUtils::isMediaFile(const QString& path) {
    return isPicture(path) || isVideo(path) || isAudio(path);
}

int OSUtils::getFileType(const QString& path) {
    if (isPicture(path)) return FilePicture;
    // Audio before video: a suffix in both lists counts as audio.
    if (isAudio(path)) return FileAudio;
    if (isVideo(path)) return FileVideo;
    return FileOther;
}

bool OSUtils::isPictureMagic(const QString& path) {
    return sniffHeader(path, 10, g_photoMagic, false);
}

bool OSUtils::isVideoMagic(const QString& path) {
    return sniffHeader(path, 32, g_videoMagic, true);
}

// ---------------------------------------------------------------------------------------------
// Paths and file system

QString OSUtils::pathJoin(const QString& a, const QString& b) {
    return QDir::cleanPath(a + QDir::separator() + b);
}

QString OSUtils::pathJoin(const QStringList& parts) {
    if (parts.isEmpty()) return QString();
    QString result = parts.first();
    for (int i = 1; i < parts.size(); ++i)
        result = QDir::cleanPath(result + QDir::separator() + parts.at(i));
    return result;
}

QString OSUtils::getBackupPath(const QString& base) {
    const QString stamp = QDateTime::currentDateTime().toString("yyyy_MM_dd_hh_mm_ss");
    return pathJoin(pathJoin(base, "Vornix_Full_Backup"), stamp);
}

QString OSUtils::getParentDir(const QString& path) {
    return QFileInfo(path).dir().path();
}

qint64 OSUtils::dirSize(const QString& dir) {
    QSet<QString> chain;
    return dirSizeWalk(dir, chain);
}

QString OSUtils::fileSize(const QString& path) {
    qint64 size = 0;
    QFile file(path);
    if (file.open(QIODevice::ReadOnly)) {
        size = file.size();
        file.close();
    }
    return formatSize(size);
}

void OSUtils::copyPathIgnoreError(const QString& src, const QString& dst) {
    QSet<QString> chain;
    QSet<QString> made;
    copyWalk(src, dst, chain, made);
}

QString OSUtils::getNotRepeatedPath(const QString& path) {
    if (!QDir().exists(path)) return path;
    const int dot = path.lastIndexOf('.');
    for (qint64 n = 0;; ++n) {
        const QString counter = QString("_%1").arg(n);
        QString candidate = path;
        if (dot < 0)
            candidate.append(counter);
        else
            candidate.insert(dot, counter);
        if (!QDir().exists(candidate)) return candidate;
    }
}

QString OSUtils::encodePath(const QString& name) {
    QString result;
    result.reserve(name.size());
    for (const QChar c : name) {
        switch (c.unicode()) {
        case '"':
            result += QLatin1String("%22");
            break;
        case '*':
            result += QLatin1String("%2A");
            break;
        case '/':
            result += QLatin1String("%2F");
            break;
        case ':':
            result += QLatin1String("%3A");
            break;
        case '<':
            result += QLatin1String("%3C");
            break;
        case '>':
            result += QLatin1String("%3E");
            break;
        case '?':
            result += QLatin1String("%3F");
            break;
        case '\\':
            result += QLatin1String("%5C");
            break;
        case '|':
            result += QLatin1String("%7C");
            break;
        default:
            result += c;
            break;
        }
    }
    return result;
}

bool OSUtils::exists(const QString& path) {
    if (path.isEmpty()) return false;
    return QDir().exists(path);
}

bool OSUtils::makeDir(const QString& path) {
    if (path.isEmpty()) return false;
    return QDir().mkpath(path);
}

bool OSUtils::getFreeDiskSpace(const QString& path, unsigned long long* freeBytes) {
    const QByteArray native = QDir::toNativeSeparators(path).toLocal8Bit();
    struct statvfs info;
    if (statvfs(native.constData(), &info) != 0) return false;
    if (freeBytes) *freeBytes = static_cast<unsigned long long>(info.f_bavail) * info.f_bsize;
    return true;
}

bool OSUtils::moveFile(const QString& src, const QString& dst) {
    // The copy may fail (an existing destination, for one); only the removal decides the result.
    QFile::copy(src, dst);
    return QFile::remove(src);
}

bool OSUtils::removeFile(const QString& path) {
    if (path.isEmpty()) return false;
    return QFile::remove(path);
}

bool OSUtils::removeDir(const QString& path) {
    if (path.isEmpty()) return false;
    return QDir(path).removeRecursively();
}

QString OSUtils::selectFile() {
    QFileDialog dialog(nullptr, QString(), QString(), QString());
    dialog.setOption(QFileDialog::ShowDirsOnly, true);
    dialog.setDirectory(QDir::homePath());
    if (dialog.exec() != QDialog::Accepted) return QString();
    const QStringList chosen = dialog.selectedFiles();
    if (chosen.isEmpty()) return QString();
    return QDir::toNativeSeparators(chosen.first());
}

// ---------------------------------------------------------------------------------------------
// Formatting

QString OSUtils::formatSize(qint64 bytes) {
    static const char* const units[] = {"Bytes", "KB", "MB", "GB", "TB", "PB"};
    double value = static_cast<double>(bytes);
    int index = 0;
    if (bytes >= 1024) {
        do {
            value *= 0.0009765625;
            ++index;
        } while (index < 5 && value >= 1024.0);
    }
    return QString("%0 %1").arg(value, 0, 'f', 2).arg(QLatin1String(units[index]));
}

QString OSUtils::formatDuration(int seconds, SPLITTYPE type) {
    const QTime t = QTime(0, 0, 0, 0).addSecs(seconds);
    if (type == SPLIT_MARKS) {
        QString text = t.toString(QString::fromUtf8("m\u2019s\u2019\u2019"));
        if (text.startsWith(QString::fromUtf8("0\u2019"))) text.remove(0, 2);
        return text;
    }
    if (type == SPLIT_COLON) {
        QString text = t.toString("hh:mm:ss");
        if (text.startsWith("00:")) text.remove(0, 3);
        return text;
    }
    return QString();
}

// Compression helpers and media durations.

namespace {

// Scratch space of compressData: input whose compressed form is larger fails with Z_BUF_ERROR.
constexpr int kCompressScratch = 1024;

// Milliseconds of audio in one SILK frame.
constexpr qint64 kSilkFrameMs = 20;

// Reads a 2-byte little-endian frame length. Returns false when no byte at all could be read;
// a single byte left at the end of the file is taken as a length on its own.
bool readFrameLength(QFile& file, quint16* length) {
    unsigned char bytes[2] = {0, 0};
    const qint64 got = file.read(reinterpret_cast<char*>(bytes), 2);
    if (got <= 0) return false;
    *length = quint16(bytes[0] | (bytes[1] << 8));
    return true;
}

} // namespace

void OSUtils::compressData(QByteArray& output, const QByteArray& input) {
    output.clear();
    Bytef scratch[kCompressScratch];
    uLongf length = sizeof(scratch);
    const int err =
        compress(scratch, &length, reinterpret_cast<const Bytef*>(input.constData()), uLong(input.size()));
    if (err != Z_OK) {
        qDebug() << "conmpress faild, err code:" << err;
        return;
    }
    // A deep copy: the scratch buffer is gone when we return.
    output = QByteArray(reinterpret_cast<const char*>(scratch), int(length));
}

bool OSUtils::unCompressData(const QByteArray& input, QByteArray* output) {
    const uLong inputSize = uLong(input.size());
    output->resize(input.size());

    z_stream stream{};
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.constData()));
    stream.avail_in = uInt(input.size());
    // 15 window bits plus 32: take a zlib or a gzip header, whichever is there.
    inflateInit2(&stream, 15 + 32);

    int err = Z_OK;
    do {
        if (stream.total_out >= inputSize) {
            // QByteArray cannot grow past INT_MAX bytes; an output that large cannot be returned.
            if (output->size() > int(INT_MAX / 1.5) - 64) {
                inflateEnd(&stream);
                return false;
            }
            output->resize(int(output->size() * 1.5));
        }
        stream.next_out = reinterpret_cast<Bytef*>(output->data()) + stream.total_out;
        stream.avail_out = uInt(uLong(output->size()) - stream.total_out);
        err = inflate(&stream, Z_SYNC_FLUSH);
    } while (err == Z_OK);

    if (err != Z_STREAM_END) {
        inflateEnd(&stream);
        return false;
    }
    output->resize(int(stream.total_out));
    inflateEnd(&stream);
    return true;
}

int OSUtils::readSilk(const QString& filePath) {
    QFile file(filePath);
    if (!file.open(QIODevice::ReadOnly)) return 0;

    // Either a 0x02 type byte followed by "#!SILK_V3", or "#!SILK_V3" itself, whose first
    // character is not looked at.
    char lead = 0;
    if (file.read(&lead, 1) != 1) return 0;
    const QByteArray expected = lead == 2 ? QByteArrayLiteral("#!SILK_V3") : QByteArrayLiteral("!SILK_V3");
    if (file.read(expected.size()) != expected) return 0;

    // The first two frames are not counted.
    quint16 length = 0;
    for (int i = 0; i < 2; ++i) {
        if (!readFrameLength(file, &length)) break;
        file.skip(length);
    }

    // Every further frame is 20 ms; a frame cut short by the end of the file still counts.
    qint64 totalMs = 0;
    while (readFrameLength(file, &length)) {
        file.skip(length);
        totalMs += kSilkFrameMs;
    }
    return int(totalMs / 1000);
}

QString OSUtils::getMediaDuration(const QString& fileName, const QString& filePath, const QString& format) {
    QTime t(0, 0, 0, 0);
    if (isSilk(fileName)) return t.addSecs(readSilk(filePath)).toString(format);

    const QByteArray path = filePath.toLocal8Bit();
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, path.constData(), nullptr, nullptr) != 0) {
        qDebug() << "Open media file failed, filePath: " << filePath;
        return t.toString(format);
    }
    if (avformat_find_stream_info(context, nullptr) < 0) {
        qDebug() << "find stream info failed";
        avformat_close_input(&context);
        avformat_free_context(context);
        return t.toString(format);
    }

    const int64_t duration = context->duration;
    if (duration != AV_NOPTS_VALUE) {
        // Add 5 ms, then truncate to whole seconds: 59.995 s gives 60, 59.994 s gives 59.
        const int64_t rounded = duration <= INT64_MAX - 5000 ? duration + 5000 : duration;
        const int64_t seconds = rounded / AV_TIME_BASE;
        // A time of day wraps at 24 hours; reduce first so that the count fits an int.
        t = t.addSecs(int(seconds % 86400));
    }

    avformat_close_input(&context);
    avformat_free_context(context);
    return t.toString(format);
}
