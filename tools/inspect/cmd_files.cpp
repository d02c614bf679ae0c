// Subcommands over the file, phone-number and time helpers: classify, phone, timestamp.
#include "Command.h"

#include "BackupInput.h"
#include "DateUtils.h"
#include "OSUtils.h"
#include "PhoneNumberHelper.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

#include <cstdio>

using namespace inspect;

namespace {

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

QString categoryName(int type) {
    switch (type) {
    case OSUtils::FilePicture:
        return "picture";
    case OSUtils::FileAudio:
        return "audio";
    case OSUtils::FileVideo:
        return "video";
    default:
        return "other";
    }
}

// The video sniff logs the header it read; that line is of no use on the command line.
void dropDebug(QtMsgType type, const QMessageLogContext&, const QString& message) {
    if (type == QtDebugMsg) return;
    fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
}

int runClassify(const QStringList& argv) {
    Args args(argv, {"--json"}, {});
    int exit = Ok;
    if (!parseOrExit("classify", args, 1, -1, &exit)) return exit;

    const QtMessageHandler previous = qInstallMessageHandler(dropDebug);
    QJsonArray results;
    int code = Ok;
    for (const QString& path : args.positional()) {
        QString file = path; // a file in a backup: classified by its name there, read where it is stored
        if (!resolveBackupInput(file)) {
            code = Failed;
            continue;
        }
        const QFileInfo info(file);
        if (!info.exists()) {
            code = fail(QString("classify: %1: no such file").arg(path));
            continue;
        }
        if (info.isDir()) {
            code = fail(QString("classify: %1: is a folder").arg(path));
            continue;
        }
        const int type = OSUtils::getFileType(path);
        const bool silk = OSUtils::isSilk(path);
        const bool pictureHeader = OSUtils::isPictureMagic(file);
        const bool videoHeader = OSUtils::isVideoMagic(file);
        if (args.has("--json")) {
            QJsonObject o;
            o["path"] = path;
            o["type"] = categoryName(type);
            o["code"] = type;
            o["silkCandidate"] = silk;
            o["pictureHeader"] = pictureHeader;
            o["videoHeader"] = videoHeader;
            results.append(o);
        } else {
            out(QString("%1: %2 (type %3), SILK candidate: %4, picture header: %5, video header: %6")
                    .arg(path, categoryName(type))
                    .arg(type)
                    .arg(yesNo(silk), yesNo(pictureHeader), yesNo(videoHeader)));
        }
    }
    qInstallMessageHandler(previous);
    if (args.has("--json")) printJson(results);
    return code;
}

int runPhone(const QStringList& argv) {
    Args args(argv, {"--json"}, {});
    int exit = Ok;
    if (!parseOrExit("phone", args, 1, -1, &exit)) return exit;

    QJsonArray results;
    for (const QString& number : args.positional()) {
        const PhoneNumberInfo info = PhoneNumberHelper::parse(number);
        if (args.has("--json")) {
            QJsonObject o;
            o["rawNumber"] = info.rawNumber;
            o["countryCode"] = info.countryCode;
            o["country"] = info.country;
            o["nationalNumber"] = info.nationalNumber;
            results.append(o);
        } else if (info.countryCode.isEmpty()) {
            out(QString("%1: no country found, national number %2").arg(number, info.nationalNumber));
        } else {
            out(QString("%1: country code %2, country %3, national number %4")
                    .arg(number, info.countryCode, info.country, info.nationalNumber));
        }
    }
    if (args.has("--json")) printJson(results);
    return Ok;
}

int runTimestamp(const QStringList& argv) {
    Args args(argv, {"--apple", "--json"}, {"--format"});
    int exit = Ok;
    if (!parseOrExit("timestamp", args, 1, 1, &exit)) return exit;

    const QString text = args.positional().first().trimmed();
    bool ok = false;
    const qint64 value = text.toLongLong(&ok);
    if (!ok) return fail(QString("timestamp: '%1' is not a whole number").arg(text));
    const QString format = args.value("--format", "yyyy-MM-dd HH:mm:ss");
    if (format.isEmpty()) return fail("timestamp: the format is empty", Usage);

    const QString result = DateUtils::timestampConvert(value, format, args.has("--apple"));
    if (args.has("--json")) {
        QJsonObject o;
        o["value"] = QString::number(value);
        o["appleEpoch"] = args.has("--apple");
        o["format"] = format;
        o["text"] = result;
        printJson(o);
    } else {
        out(result);
    }
    return Ok;
}

Registration classifyReg({"classify", "classify FILE... [--json]",
                          "Sorts files into picture, audio, video or other by their suffix, tells whether\n"
                          "the suffix makes a SILK voice-note candidate, and looks for a picture or video\n"
                          "type word in the first bytes of each file (10 and 32 bytes).\n"
                          "  --json  one JSON object per file",
                          &runClassify});

Registration phoneReg({"phone", "phone NUMBER... [--json]",
                       "Splits international numbers (starting with + or 00) into dialling prefix,\n"
                       "country and national number. Quote numbers that contain spaces.\n"
                       "  --json  one JSON object per number",
                       &runPhone});

Registration timestampReg({"timestamp", "timestamp VALUE [--apple] [--format F] [--json]",
                           "Formats a timestamp in seconds, milliseconds, microseconds or nanoseconds\n"
                           "since 1970 as the library shows it in local time.\n"
                           "  --apple     the value counts from the Apple epoch (2001)\n"
                           "  --format F  a date-time pattern (default yyyy-MM-dd HH:mm:ss)\n"
                           "  --json      print value, options and text as JSON",
                           &runTimestamp});

} // namespace
