// duration, gzip, gunzip, aes: media play lengths, gzip/zlib streams and AES-CBC.
#include "Command.h"
#include "JsonText.h"

#include "CrypteHelper.h"
#include "GZipCompressor.h"
#include "OSUtils.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QRegularExpression>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

using namespace inspect;

namespace {

// Debug lines the library writes while a call runs; they tell us why a duration came back zero.
QStringList g_libraryMessages;
void collectMessage(QtMsgType, const QMessageLogContext&, const QString& text) {
    g_libraryMessages << text;
}

// Reads a whole file, or stdin for "" and "-". On failure prints why and returns false.
bool readInput(QString path, QByteArray* data) {
    QFile file;
    if (isStdio(path)) {
        if (!file.open(stdin, QIODevice::ReadOnly)) return fail("cannot read standard input"), false;
    } else {
        if (!checkInputFile(path)) return false;
        file.setFileName(path);
        if (!file.open(QIODevice::ReadOnly)) return fail(path + ": cannot open for reading"), false;
    }
    *data = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return fail((isStdio(path) ? "standard input" : path) + ": read error"), false;
    return true;
}

bool writeOutput(const QString& path, const QByteArray& data) {
    if (isStdio(path)) {
        const size_t written = fwrite(data.constData(), 1, size_t(data.size()), stdout);
        if (fflush(stdout) != 0 || written != size_t(data.size()))
            return fail("cannot write to standard output"), false;
        return true;
    }
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return fail(path + ": cannot open for writing"), false;
    if (file.write(data) != data.size() || !file.flush()) return fail(path + ": write error"), false;
    return true;
}

bool binaryToTerminal(const QString& output) {
    return isStdio(output) && isatty(STDOUT_FILENO) == 1;
}

QString inputName(const QString& path) {
    return isStdio(path) ? QStringLiteral("standard input") : path;
}

// --- duration ---

// A SILK voice note's play length: 20 ms for each whole frame after the header (a frame is a
// 2-byte little-endian length, then that many bytes); -1 when the header is not there.
qint64 silkMilliseconds(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return -1;
    const QByteArray bytes = file.readAll();
    if (!bytes.startsWith("\x02#!SILK_V3") && bytes.mid(1, 8) != "!SILK_V3") return -1;
    qint64 frames = 0;
    for (int at = bytes.at(0) == '\x02' ? 10 : 9; at + 2 <= bytes.size(); ++frames) {
        at += 2 + (uchar(bytes.at(at)) | uchar(bytes.at(at + 1)) << 8);
        if (at > bytes.size()) break; // cut short: not a whole frame
    }
    return frames * 20;
}

// The container's duration as FFmpeg reads it, in microseconds; on failure prints why and
// returns -1.
qint64 ffmpegMicroseconds(const QString& path) {
    av_log_set_level(AV_LOG_QUIET); // its diagnostics would only repeat the line below
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, QFile::encodeName(path).constData(), nullptr, nullptr) != 0)
        return fail(path + ": FFmpeg cannot open it as media"), -1;
    qint64 duration = -1;
    if (avformat_find_stream_info(context, nullptr) < 0)
        fail(path + ": FFmpeg finds no stream information");
    else if (context->duration == AV_NOPTS_VALUE)
        fail(path + ": FFmpeg finds no duration in it");
    else
        duration = context->duration;
    avformat_close_input(&context);
    return duration;
}

// The library's reading: a time of day in the given pattern, whole seconds, the first two
// frames of a voice note not counted.
int runDocumentedDuration(const Args& args, const QString& path, const QString& name, bool silk) {
    const QString format = args.value("--format", "hh:mm:ss");
    if (format.isEmpty()) return fail("duration: --format needs a pattern such as mm:ss", Usage);
    // FFmpeg writes its own diagnostics to stderr; keep them out of the one-line error below.
    fflush(stderr);
    const int savedStderr = dup(STDERR_FILENO);
    const int devNull = open("/dev/null", O_WRONLY);
    if (savedStderr >= 0 && devNull >= 0) dup2(devNull, STDERR_FILENO);
    g_libraryMessages.clear();
    const QtMessageHandler previous = qInstallMessageHandler(collectMessage);
    const QString text = OSUtils::getMediaDuration(name, path, format);
    qInstallMessageHandler(previous);
    if (savedStderr >= 0 && devNull >= 0) dup2(savedStderr, STDERR_FILENO);
    if (devNull >= 0) close(devNull);
    if (savedStderr >= 0) close(savedStderr);
    for (const QString& message : g_libraryMessages) {
        if (message.startsWith("Open media file failed"))
            return fail(path + ": FFmpeg cannot open it as media");
        if (message.startsWith("find stream info failed"))
            return fail(path + ": FFmpeg finds no stream information");
    }
    if (args.has("--json")) {
        printJson(QJsonObject{{"file", path}, {"name", name}, {"silk", silk}, {"duration", text}});
    } else {
        out(text);
    }
    return Ok;
}

int runDuration(const Args& args) {
    QString path = args.positional().at(0);
    if (!checkInputFile(path)) return Failed;
    const QString name = args.value("--name", QFileInfo(args.positional().at(0)).fileName());
    const bool silk = OSUtils::isSilk(name);
    const qint64 silkMs = silk ? silkMilliseconds(path) : -1;
    if (silk && silkMs < 0)
        return fail(QString("%1: not a SILK voice note, though the name %2 says so; give --name with another "
                            "suffix (e.g. --name voice.3gp) to measure it through FFmpeg")
                        .arg(path, name));
    if (args.has("--documented")) return runDocumentedDuration(args, path, name, silk);
    if (args.has("--format")) return fail("duration: --format goes with --documented", Usage);

    qint64 ms = silkMs;
    if (!silk) {
        const qint64 us = ffmpegMicroseconds(path);
        if (us < 0) return Failed;
        ms = (us + 500) / 1000;
    }
    const QString text = QString("%1:%2:%3.%4")
                             .arg(ms / 3600000, 2, 10, QChar('0'))
                             .arg(ms / 60000 % 60, 2, 10, QChar('0'))
                             .arg(ms / 1000 % 60, 2, 10, QChar('0'))
                             .arg(ms % 1000, 3, 10, QChar('0'));
    if (!args.has("--json")) return out(QString("%1 (%2 ms)").arg(text).arg(ms)), Ok;
    printJsonObject(
        {{"file", path}, {"name", name}, {"silk", silk}, {"milliseconds", ms}, {"duration", text}});
    return Ok;
}

// --- gzip / gunzip ---

int runGzip(const Args& args) {
    const QString input = args.positional().value(0);
    const QString output = args.positional().value(1);
    bool ok = true;
    const int level = args.value("--level", "-1").toInt(&ok);
    if (!ok) return fail("gzip: --level takes a number from 0 to 9 (-1: zlib's default)", Usage);
    if (binaryToTerminal(output)) return fail("gzip: will not write compressed data to a terminal", Usage);
    if (!checkOutputFile(input, output, args.has("--force"))) return Failed;
    QByteArray data;
    if (!readInput(input, &data)) return Failed;
    QByteArray packed;
    if (!GZipCompressor::gzipCompress(data, packed, level))
        return fail(inputName(input) + ": compression failed");
    return writeOutput(output, packed) ? Ok : Failed;
}

int runGunzip(const Args& args) {
    const bool zlib = args.has("--zlib"), autodetect = args.has("--auto"), partial = args.has("--partial");
    if (zlib && autodetect) return fail("gunzip: --zlib and --auto exclude each other", Usage);
    if (autodetect && partial) return fail("gunzip: --partial does not go with --auto", Usage);
    const QString input = args.positional().value(0);
    const QString output = args.positional().value(1);
    if (!checkOutputFile(input, output, args.has("--force"))) return Failed;
    QByteArray data;
    if (!readInput(input, &data)) return Failed;
    // The library takes an empty input for an empty stream; it holds no stream at all.
    if (data.isEmpty()) return fail(inputName(input) + ": empty, no compressed stream in it");

    QByteArray plain;
    bool complete = false;
    if (autodetect) {
        complete = OSUtils::unCompressData(data, &plain);
    } else if (zlib) {
        complete = GZipCompressor::deflateDecompress(data, plain);
    } else {
        complete = GZipCompressor::gzipDecompress(data, plain);
    }
    if (complete) return writeOutput(output, plain) ? Ok : Failed;

    const QString kind = autodetect ? "zlib or gzip" : zlib ? "zlib" : "gzip";
    if (autodetect) return fail(QString("%1: not a complete %2 stream").arg(inputName(input), kind));
    if (partial && !writeOutput(output, plain)) return Failed;
    return fail(QString("%1: not a complete %2 stream (%3 bytes inflated before the error%4)")
                    .arg(inputName(input), kind)
                    .arg(plain.size())
                    .arg(partial ? ", written" : "; --partial writes them"));
}

// --- aes ---

// Hex text of exactly the given byte counts; anything else is a usage error.
bool parseHex(const QString& option, const QString& text, std::initializer_list<int> sizes,
              QByteArray* bytes) {
    static const QRegularExpression hex("^([0-9a-fA-F]{2})*$");
    const QByteArray value = QByteArray::fromHex(text.toLatin1());
    if (!text.isEmpty() && hex.match(text).hasMatch()) {
        for (int size : sizes) {
            if (value.size() == size) {
                *bytes = value;
                return true;
            }
        }
    }
    QStringList lengths;
    for (int size : sizes)
        lengths << QString::number(size * 2);
    const QString last = lengths.takeLast();
    const QString allowed = lengths.isEmpty() ? last : lengths.join(", ") + " or " + last;
    fail(QString("aes: %1 takes %2 hex digits").arg(option, allowed), Usage);
    return false;
}

int runAes(const Args& args) {
    const QString mode = args.positional().at(0);
    if (mode != "encrypt" && mode != "decrypt")
        return fail(QString("aes: unknown mode '%1' (encrypt or decrypt)").arg(mode), Usage);
    QByteArray key, iv;
    if (!parseHex("--key", args.value("--key"), {16, 24, 32}, &key)) return Usage;
    if (!parseHex("--iv", args.value("--iv"), {16}, &iv)) return Usage;
    const QString input = args.positional().value(1);
    const QString output = args.positional().value(2);
    const bool hex = args.has("--hex");
    if (mode == "encrypt" && !hex && binaryToTerminal(output))
        return fail("aes: will not write cipher text to a terminal (--hex prints it as hex)", Usage);
    if (!checkOutputFile(input, output, args.has("--force"))) return Failed;
    QByteArray data;
    if (!readInput(input, &data)) return Failed;

    QByteArray result;
    if (mode == "encrypt") {
        result = CrypteHelper::AESEncrypt(data, key, iv);
    } else {
        if (data.isEmpty() || data.size() % 16 != 0)
            return fail(QString("%1: %2 bytes is not a whole number of 16-byte blocks")
                            .arg(inputName(input))
                            .arg(data.size()));
        result = CrypteHelper::AESDecrypt(data, key, iv);
        // CBC is deterministic: only correctly padded plain text encrypts back to the same bytes.
        if (CrypteHelper::AESEncrypt(result, key, iv) != data)
            return fail(inputName(input) + ": no valid padding after decryption (wrong key or iv?)");
    }
    if (hex) result = result.toHex() + "\n";
    return writeOutput(output, result) ? Ok : Failed;
}

const Option kForce = {"--force", nullptr, "overwrite OUT if it exists (the input is never overwritten)"};

const Registration durationCommand(
    {"duration",
     "FILE",
     "Prints the play length of a voice note, audio or video file to the millisecond, as HH:MM:SS.mmm and\n"
     "in milliseconds. Names ending in .amr, .aud or .slk are measured as SILK voice notes (20 ms for\n"
     "each whole frame); everything else by the container duration that FFmpeg reads, in microseconds,\n"
     "rounded to the millisecond.",
     {{"--name", "NAME", "decide the kind by NAME instead of FILE (for files stored under a hash)"},
      {"--documented", nullptr,
       "the library's reading instead: a time of day (it wraps at 24 h) in whole seconds,\n"
       "the first two frames of a voice note not counted"},
      {"--format", "FMT", "with --documented: time pattern, default hh:mm:ss (mm:ss, h:mm:ss.zzz, ...)"},
      {"--json", nullptr,
       "{file, name, silk, milliseconds, duration}; with --documented {file, name, silk,\n"
       "duration}"}},
     runDuration});
const Registration
    gzipCommand({"gzip",
                 "[IN [OUT]]",
                 "Compresses IN (default: standard input) into a gzip stream written to OUT\n"
                 "(default: standard output). \"-\" stands for standard input or output.",
                 {{"--level", "N", "0 to 9; above 9 counts as 9, negative as zlib's default (6)"}, kForce},
                 runGzip});
const Registration gunzipCommand(
    {"gunzip",
     "[IN [OUT]]",
     "Inflates the gzip stream in IN (default: standard input) to OUT (default: standard output).\n"
     "Bytes after the end of the stream are ignored; an empty input, or a cut or damaged stream, is an "
     "error.",
     {{"--zlib", nullptr, "the input is a zlib-wrapped stream (HTTP \"deflate\") instead of gzip"},
      {"--auto", nullptr, "accept either wrapper"},
      {"--partial", nullptr, "on a cut or damaged stream, still write what was inflated before the error"},
      kForce},
     runGunzip});
const Registration aesCommand(
    {"aes",
     "encrypt|decrypt [IN [OUT]]",
     "AES-CBC with PKCS#7 padding; the key size picks AES-128, AES-192 or AES-256 (32, 48 or 64 hex\n"
     "digits); the iv is 32 hex digits. No iv or MAC is stored with the cipher text. Reads IN (default:\n"
     "standard input) and writes OUT (default: standard output).",
     {{"--key", "HEX", "the key", true},
      {"--iv", "HEX", "the initialisation vector", true},
      {"--hex", nullptr, "write the result as hex text"},
      kForce},
     runAes});

} // namespace
