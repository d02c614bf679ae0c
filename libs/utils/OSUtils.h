// File classification by suffix and header, path building and file-system helpers, zlib helpers,
// media durations and the size and duration formatters. Every operation is static.
#pragma once

#include "utils_export.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

// Suffix vocabulary, filled once when the library is loaded and read-only afterwards.
// Suffix lists hold the leading dot; the two magic lists hold the same words without it.
extern UTILS_EXPORT QStringList g_photoSuffix;
extern UTILS_EXPORT QStringList g_photoMagic;
extern UTILS_EXPORT QStringList g_videoSuffix;
extern UTILS_EXPORT QStringList g_videoMagic;
extern UTILS_EXPORT QStringList g_audioSuffix;
extern UTILS_EXPORT QStringList g_silkSuffix;
extern UTILS_EXPORT QStringList g_txtSuffix;
extern UTILS_EXPORT QStringList g_zipSuffix;
extern UTILS_EXPORT QStringList g_wordSuffix;
extern UTILS_EXPORT QStringList g_pptSuffix;
extern UTILS_EXPORT QStringList g_xlsSuffix;
extern UTILS_EXPORT QStringList g_pdfSuffix;
extern UTILS_EXPORT QStringList g_programmingSuffix;
extern UTILS_EXPORT QStringList g_docSuffix;
// Text, archive, office, pdf, source and other document suffixes, in that order.
extern UTILS_EXPORT QStringList g_otherSuffix;

// Style of OSUtils::formatDuration.
enum SPLITTYPE {
    SPLIT_MARKS = 0, // 1’15’’
    SPLIT_COLON = 1, // 01:15
};

class UTILS_EXPORT OSUtils {
public:
    // Codes returned by getFileType.
    enum FileType { FilePicture = 0, FileAudio = 1, FileVideo = 2, FileOther = 3 };

    OSUtils() = default;

    // --- classification ---
    // True if path ends with any entry of exts (case-insensitive, on the whole string).
    static bool matchExts(const QString& path, QStringList exts);
    static bool isPicture(const QString& path);
    static bool isVideo(const QString& path);
    static bool isAudio(const QString& path);
    static bool isSilk(const QString& path);
    static bool isMediaFile(const QString& path);
    // 0 picture, 1 audio, 2 video, 3 anything else.
    static int getFileType(const QString& path);
    // Look for a type word of the magic lists as text in the first bytes of the file.
    static bool isPictureMagic(const QString& path);
    static bool isVideoMagic(const QString& path);

    // --- paths and file system ---
    static QString pathJoin(const QString& a, const QString& b);
    static QString pathJoin(const QStringList& parts);
    static QString getBackupPath(const QString& base);
    static QString getParentDir(const QString& path);
    static qint64 dirSize(const QString& dir);
    static QString fileSize(const QString& path);
    static void copyPathIgnoreError(const QString& src, const QString& dst);
    static QString getNotRepeatedPath(const QString& path);
    static QString encodePath(const QString& name);
    static bool exists(const QString& path);
    static bool makeDir(const QString& path);
    static bool getFreeDiskSpace(const QString& path, unsigned long long* freeBytes);
    static bool moveFile(const QString& src, const QString& dst);
    static bool removeFile(const QString& path);
    static bool removeDir(const QString& path);
    static QString selectFile();

    // --- zlib helpers ---
    static void compressData(QByteArray& output, const QByteArray& input);
    static bool unCompressData(const QByteArray& input, QByteArray* output);

    // --- media ---
    static QString getMediaDuration(const QString& fileName, const QString& filePath, const QString& format);
    static int readSilk(const QString& filePath);

    // --- formatting ---
    static QString formatSize(qint64 bytes);
    static QString formatDuration(int seconds, SPLITTYPE type);
};
