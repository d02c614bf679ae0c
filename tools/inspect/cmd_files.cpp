// Subcommands over the file, phone-number and time helpers: classify, phone, timestamp.
#include "Command.h"
#include "JsonText.h"

#include "DateUtils.h"
#include "OSUtils.h"
#include "PhoneNumberHelper.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>

#include <magic.h>

#include <cstdio>
#include <limits>

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

// libmagic's reading of a file's content: its MIME type and its description, as file(1) gives them.
class ContentSniffer {
public:
    ContentSniffer() : m_mime(magic_open(MAGIC_MIME_TYPE)), m_description(magic_open(MAGIC_NONE)) {
        m_ok = m_mime && m_description && magic_load(m_mime, nullptr) == 0 &&
               magic_load(m_description, nullptr) == 0;
    }
    ~ContentSniffer() {
        if (m_mime) magic_close(m_mime);
        if (m_description) magic_close(m_description);
    }
    bool ok() const { return m_ok; }
    QString error() const { return QString::fromLocal8Bit(magic_error(m_mime ? m_mime : m_description)); }
    QString mime(const QString& path) const { return result(m_mime, path); }
    QString description(const QString& path) const { return result(m_description, path); }

private:
    static QString result(magic_t cookie, const QString& path) {
        const char* text = magic_file(cookie, QFile::encodeName(path).constData());
        return text ? QString::fromLocal8Bit(text) : QString();
    }
    magic_t m_mime, m_description;
    bool m_ok = false;
};

int runClassify(const Args& args) {
    const ContentSniffer sniffer;
    if (!sniffer.ok()) return fail("classify: libmagic cannot load its database: " + sniffer.error());
    const QtMessageHandler previous = qInstallMessageHandler(dropDebug);
    JsonText json;
    json.beginArray();
    int code = Ok;
    for (const QString& path : args.positional()) {
        QString file = path; // a file in a backup: classified by its name there, read where it is stored
        if (!checkInputFile(file)) {
            code = Failed;
            continue;
        }
        const int type = OSUtils::getFileType(path);
        const bool silk = OSUtils::isSilk(path);
        const bool pictureHeader = OSUtils::isPictureMagic(file);
        const bool videoHeader = OSUtils::isVideoMagic(file);
        const QString mime = sniffer.mime(file), description = sniffer.description(file);
        if (args.has("--json")) {
            json.beginObject();
            json.member("path", path);
            json.member("type", categoryName(type));
            json.member("code", type);
            json.member("silkCandidate", silk);
            json.member("pictureHeader", pictureHeader);
            json.member("videoHeader", videoHeader);
            json.member("mime", mime);
            json.member("description", description);
            json.endObject();
        } else {
            out(QString("%1: %2 (type %3), SILK candidate: %4, picture header: %5, video header: %6; "
                        "content: %7, %8")
                    .arg(path, categoryName(type))
                    .arg(type)
                    .arg(yesNo(silk), yesNo(pictureHeader), yesNo(videoHeader), mime, description));
        }
    }
    json.endArray();
    qInstallMessageHandler(previous);
    if (args.has("--json")) printJsonText(json.text());
    return code;
}

int runPhone(const Args& args) {
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

// A timestamp as given: how far from its epoch, to the nanosecond, and in which unit it was written.
struct Instant {
    qint64 seconds = 0; // since the Unix epoch
    int nanos = 0;      // 0 to 999999999, after seconds
    int unit = 0;       // 0 seconds, 1 milliseconds, 2 microseconds, 3 nanoseconds
};

constexpr qint64 kAppleEpoch = 978307200; // 2001-01-01 00:00:00 UTC
// The unit is the first one in which the whole part lies between 1900 and 2099, as in the library.
constexpr quint64 kLatest = 4102444799, kEarliest = 2208988799;

// Reads decimal text ("1600000000", "-12.5", "621234567.123456"); false with *error set when it is
// no number, finer than a nanosecond, or in no unit between 1900 and 2099.
bool readInstant(const QString& text, bool apple, Instant* instant, QString* error) {
    static const QRegularExpression number("^([+-]?)([0-9]*)(?:\\.([0-9]*))?$");
    const QRegularExpressionMatch m = number.match(text);
    const QString whole = m.captured(2), fraction = m.captured(3);
    if (!m.hasMatch() || (whole.isEmpty() && fraction.isEmpty()))
        return *error = QString("'%1' is not a number").arg(text), false;
    bool ok = whole.isEmpty();
    const quint64 magnitude = ok ? 0 : whole.toULongLong(&ok);
    if (!ok || magnitude > quint64(std::numeric_limits<qint64>::max()))
        return *error = QString("'%1' is out of range").arg(text), false;
    const bool negative = m.captured(1) == "-";
    quint64 scale = 1;
    int unit = 0;
    while (unit < 4 && magnitude / scale > (negative ? kEarliest : kLatest)) {
        ++unit;
        scale *= 1000;
    }
    if (unit == 4)
        return *error = QString("'%1' is no time between 1900 and 2099 in seconds, milliseconds, "
                                "microseconds or nanoseconds")
                            .arg(text),
               false;
    const int digits = 9 - 3 * unit; // of a fraction of the unit, down to the nanosecond
    if (fraction.mid(digits).contains(QRegularExpression("[1-9]")))
        return *error = QString("'%1' has digits finer than a nanosecond").arg(text), false;
    // The fraction's digits, padded to the nanosecond, count nanoseconds.
    qint64 nanos = qint64(magnitude / scale) * 1000000000 +
                   qint64(magnitude % scale) * qint64(1000000000 / scale) +
                   fraction.left(digits).leftJustified(digits, '0').toLongLong();
    if (negative) nanos = -nanos;
    instant->seconds = nanos / 1000000000 + (apple ? kAppleEpoch : 0);
    instant->nanos = int(nanos % 1000000000);
    if (instant->nanos < 0) {
        instant->nanos += 1000000000;
        --instant->seconds;
    }
    instant->unit = unit;
    return true;
}

int runDocumentedTimestamp(const Args& args, const QString& text) {
    bool ok = false;
    const qint64 value = text.toLongLong(&ok);
    if (!ok) return fail(QString("timestamp: '%1' is not a whole number, as the library takes").arg(text));
    const QString format = args.value("--format", "yyyy-MM-dd HH:mm:ss");
    if (format.isEmpty()) return fail("timestamp: the format is empty", Usage);
    const QString result = DateUtils::timestampConvert(value, format, args.has("--apple"));
    if (!args.has("--json")) return out(result), Ok;
    printJsonObject({{"value", QString::number(value)},
                     {"appleEpoch", args.has("--apple")},
                     {"format", format},
                     {"text", result}});
    return Ok;
}

int runTimestamp(const Args& args) {
    const QString text = args.positional().first().trimmed();
    if (args.has("--documented")) return runDocumentedTimestamp(args, text);
    if (args.has("--format")) return fail("timestamp: --format goes with --documented", Usage);
    Instant t;
    QString error;
    if (!readInstant(text, args.has("--apple"), &t, &error)) return fail("timestamp: " + error);
    static const char* const units[] = {"s", "ms", "us", "ns"};
    static const char* const unitNames[] = {"seconds", "milliseconds", "microseconds", "nanoseconds"};
    const QString epoch = args.has("--apple") ? "the Apple epoch (2001-01-01 00:00:00 UTC)"
                                              : "the Unix epoch (1970-01-01 00:00:00 UTC)";
    if (!args.has("--json")) {
        out("UTC:   " + isoDateTime(t.seconds, t.nanos, Qt::UTC));
        out("local: " + isoDateTime(t.seconds, t.nanos, Qt::LocalTime));
        out(QString("unit:  %1 since %2").arg(unitNames[t.unit], epoch));
        return Ok;
    }
    printJsonObject({{"value", text},
                     {"unit", units[t.unit]},
                     {"epoch", args.has("--apple") ? "apple" : "unix"},
                     {"utc", isoDateTime(t.seconds, t.nanos, Qt::UTC)},
                     {"local", isoDateTime(t.seconds, t.nanos, Qt::LocalTime)}});
    return Ok;
}

Registration
    classifyReg({"classify",
                 "FILE...",
                 "Sorts files into picture, audio, video or other by their suffix, tells whether\n"
                 "the suffix makes a SILK voice-note candidate, and looks for a picture or video\n"
                 "type word in the first bytes of each file (10 and 32 bytes), as the library does.\n"
                 "Then reads the content with libmagic, as file(1) does: its MIME type and its\n"
                 "description. A file that cannot be read is an error; the others are still listed.",
                 {{"--json", nullptr,
                   "one array of {path, type, code, silkCandidate, pictureHeader, videoHeader,\n"
                   "mime, description}"}},
                 &runClassify});

Registration phoneReg({"phone",
                       "NUMBER...",
                       "Splits international numbers (starting with + or 00) into dialling prefix,\n"
                       "country and national number. Quote numbers that contain spaces.",
                       {{"--json", nullptr, "one JSON object per number"}},
                       &runPhone});

Registration timestampReg(
    {"timestamp",
     "VALUE",
     "Reads a timestamp counted from the Unix epoch, or with --apple from 2001-01-01 00:00:00 UTC, in\n"
     "seconds, milliseconds, microseconds or nanoseconds: the unit is the first in which the value falls\n"
     "between 1900 and 2099. Fractions are allowed (as Core Data stores times). Prints the instant in UTC\n"
     "(ISO-8601, with Z), in local time with its offset from UTC, and the unit it was read in.",
     {{"--apple", nullptr, "the value counts from the Apple epoch, 2001-01-01 00:00:00 UTC"},
      {"--documented", nullptr,
       "the library's reading instead: whole numbers only, formatted in local time after\n"
       "adding the local offset a second time (and, with --apple, from the Apple epoch in UTC+8)"},
      {"--format", "F", "with --documented: a date-time pattern (default yyyy-MM-dd HH:mm:ss)"},
      {"--json", nullptr,
       "{value, unit (s, ms, us or ns), epoch, utc, local}; with --documented\n"
       "{value, appleEpoch, format, text}"}},
     &runTimestamp});

} // namespace
