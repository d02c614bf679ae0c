// duration, gzip, gunzip, aes: media play lengths, gzip/zlib streams and AES-CBC.
#include "Command.h"

#include "CrypteHelper.h"
#include "GZipCompressor.h"
#include "OSUtils.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QRegularExpression>

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

bool isStdio(const QString& path) {
    return path.isEmpty() || path == "-";
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

// Refuses to write over the input or, without --force, over any existing file.
bool checkOutput(const QString& input, const QString& output, bool force) {
    if (isStdio(output)) return true;
    const QFileInfo target(output);
    if (!isStdio(input) && target.exists() &&
        target.canonicalFilePath() == QFileInfo(input).canonicalFilePath())
        return fail(output + ": is the input file; it is never written"), false;
    if (target.isDir()) return fail(output + ": is a folder"), false;
    if (target.exists() && !force) return fail(output + ": exists (--force overwrites it)"), false;
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

bool hasSilkHeader(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return false;
    const QByteArray head = file.read(10);
    return head.startsWith("\x02#!SILK_V3") || (head.size() >= 9 && head.mid(1, 8) == "!SILK_V3");
}

int runDuration(const QStringList& argv) {
    Args args(argv, {"--json"}, {"--format", "--name"});
    int code = Ok;
    if (!parseOrExit("duration", args, 1, 1, &code)) return code;
    QString path = args.positional().at(0);
    const QString format = args.value("--format", "hh:mm:ss");
    if (format.isEmpty()) return fail("duration: --format needs a pattern such as mm:ss", Usage);
    if (!checkInputFile(path)) return Failed;
    const QString name = args.value("--name", QFileInfo(args.positional().at(0)).fileName());

    const bool silk = OSUtils::isSilk(name);
    if (silk && !hasSilkHeader(path))
        return fail(QString("%1: not a SILK voice note, though the name %2 says so; give --name with another "
                            "suffix (e.g. --name voice.3gp) to measure it through FFmpeg")
                        .arg(path, name));

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

// --- gzip / gunzip ---

int runGzip(const QStringList& argv) {
    Args args(argv, {"--force"}, {"--level"});
    int code = Ok;
    if (!parseOrExit("gzip", args, 0, 2, &code)) return code;
    const QString input = args.positional().value(0);
    const QString output = args.positional().value(1);
    bool ok = true;
    const int level = args.value("--level", "-1").toInt(&ok);
    if (!ok) return fail("gzip: --level takes a number from 0 to 9 (-1: zlib's default)", Usage);
    if (binaryToTerminal(output)) return fail("gzip: will not write compressed data to a terminal", Usage);
    if (!checkOutput(input, output, args.has("--force"))) return Failed;
    QByteArray data;
    if (!readInput(input, &data)) return Failed;
    QByteArray packed;
    if (!GZipCompressor::gzipCompress(data, packed, level))
        return fail(inputName(input) + ": compression failed");
    return writeOutput(output, packed) ? Ok : Failed;
}

int runGunzip(const QStringList& argv) {
    Args args(argv, {"--zlib", "--auto", "--partial", "--force"}, {});
    int code = Ok;
    if (!parseOrExit("gunzip", args, 0, 2, &code)) return code;
    const bool zlib = args.has("--zlib"), autodetect = args.has("--auto"), partial = args.has("--partial");
    if (zlib && autodetect) return fail("gunzip: --zlib and --auto exclude each other", Usage);
    if (autodetect && partial) return fail("gunzip: --partial does not go with --auto", Usage);
    const QString input = args.positional().value(0);
    const QString output = args.positional().value(1);
    if (!checkOutput(input, output, args.has("--force"))) return Failed;
    QByteArray data;
    if (!readInput(input, &data)) return Failed;

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

int runAes(const QStringList& argv) {
    Args args(argv, {"--hex", "--force"}, {"--key", "--iv"});
    int code = Ok;
    if (!parseOrExit("aes", args, 1, 3, &code)) return code;
    const QString mode = args.positional().at(0);
    if (mode != "encrypt" && mode != "decrypt")
        return fail(QString("aes: unknown mode '%1' (encrypt or decrypt)").arg(mode), Usage);
    if (!args.has("--key") || !args.has("--iv"))
        return fail("aes: --key HEX and --iv HEX are required", Usage);
    QByteArray key, iv;
    if (!parseHex("--key", args.value("--key"), {16, 24, 32}, &key)) return Usage;
    if (!parseHex("--iv", args.value("--iv"), {16}, &iv)) return Usage;
    const QString input = args.positional().value(1);
    const QString output = args.positional().value(2);
    const bool hex = args.has("--hex");
    if (mode == "encrypt" && !hex && binaryToTerminal(output))
        return fail("aes: will not write cipher text to a terminal (--hex prints it as hex)", Usage);
    if (!checkOutput(input, output, args.has("--force"))) return Failed;
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

const Registration durationCommand(
    {"duration", "duration FILE [--name NAME] [--format FMT] [--json]",
     "Prints the play length of a voice note, audio or video file as a time of day (it wraps at 24 h).\n"
     "Names ending in .amr, .aud or .slk are measured as SILK voice notes (20 ms a frame, the first two\n"
     "frames not counted); everything else by the container duration that FFmpeg reads.\n"
     "  --name NAME   decide the kind by NAME instead of FILE (for files stored under a hash)\n"
     "  --format FMT  time pattern, default hh:mm:ss (mm:ss, h:mm:ss.zzz, ...)\n"
     "  --json        {file, name, silk, duration}",
     runDuration});
const Registration gzipCommand({"gzip", "gzip [IN [OUT]] [--level N] [--force]",
                                "Compresses IN (default: standard input) into a gzip stream written to OUT\n"
                                "(default: standard output). \"-\" stands for standard input or output.\n"
                                "  --level N  0 to 9; above 9 counts as 9, negative as zlib's default (6)\n"
                                "  --force    overwrite OUT if it exists (the input is never overwritten)",
                                runGzip});
const Registration gunzipCommand(
    {"gunzip", "gunzip [IN [OUT]] [--zlib | --auto] [--partial] [--force]",
     "Inflates the gzip stream in IN (default: standard input) to OUT (default: standard output).\n"
     "Bytes after the end of the stream are ignored; a cut or damaged stream is an error.\n"
     "  --zlib     the input is a zlib-wrapped stream (HTTP \"deflate\") instead of gzip\n"
     "  --auto     accept either wrapper\n"
     "  --partial  on a cut or damaged stream, still write what was inflated before the error\n"
     "  --force    overwrite OUT if it exists (the input is never overwritten)",
     runGunzip});
const Registration aesCommand(
    {"aes", "aes encrypt|decrypt --key HEX --iv HEX [IN [OUT]] [--hex] [--force]",
     "AES-CBC with PKCS#7 padding; the key size picks AES-128, AES-192 or AES-256 (32, 48 or 64 hex\n"
     "digits); the iv is 32 hex digits. No iv or MAC is stored with the cipher text. Reads IN (default:\n"
     "standard input) and writes OUT (default: standard output).\n"
     "  --hex    write the result as hex text\n"
     "  --force  overwrite OUT if it exists (the input is never overwritten)",
     runAes});

} // namespace
