// manifest, mmkv, protobuf: manifest database blobs, MMKV key-value files and schema-less protobuf.
#include "Command.h"
#include "JsonText.h"

#include "DbUtils.h"
#include "MMKVParser.h"
#include "RawMessage.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSqlError>
#include <QSqlQuery>
#include <QTextCodec>
#include <QUrl>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/unknown_field_set.h>

#include <exception>
#include <limits>
#include <memory>
#include <vector>

using namespace inspect;

namespace {

// The library reports its failures on the debug stream; here they are collected and turned into
// one error line instead of being printed as they come.
QStringList g_debugLines;

void collectDebug(QtMsgType type, const QMessageLogContext&, const QString& message) {
    if (type == QtDebugMsg) {
        g_debugLines << message;
        return;
    }
    fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
}

// Classic hex dump: offset, sixteen bytes in hex, the printable ones as text.
void printHexDump(const QByteArray& data) {
    for (int offset = 0; offset < data.size(); offset += 16) {
        const QByteArray row = data.mid(offset, 16);
        QString hex;
        QString text;
        for (int i = 0; i < 16; ++i) {
            if (i < row.size()) {
                const uchar c = uchar(row.at(i));
                hex += QString("%1 ").arg(c, 2, 16, QLatin1Char('0'));
                text += (c >= 0x20 && c < 0x7f) ? QChar(c) : QChar('.');
            } else {
                hex += "   ";
            }
            if (i == 7) hex += ' ';
        }
        out(QString("%1  %2 |%3|").arg(offset, 8, 16, QLatin1Char('0')).arg(hex, text));
    }
}

int readManifest(const QString& dbPath, const QString& fileId, const Args& args) {
    const QString outPath = args.value("--out");
    if (args.has("--out")) {
        if (isStdio(outPath)) return fail("manifest: --out needs a file name", Usage);
        if (!checkOutputFile(dbPath, outPath, args.has("--force"))) return Failed;
    }

    QSqlDatabase db = DbUtils::dataBase(MANIFESTDB, dbPath);
    // The examined database is only read: open it read-only, keeping the regular options. Without
    // a write-ahead log beside it, open it immutable too: a read-only connection to a database in
    // WAL mode would otherwise create -wal and -shm files next to it and leave them there.
    if (!db.isOpen()) {
        QString options = "QSQLITE_ENABLE_REGEXP;QSQLITE_OPEN_READONLY";
        if (!QFileInfo::exists(dbPath + "-wal")) {
            options += ";QSQLITE_OPEN_URI";
            db.setDatabaseName(
                QUrl::fromLocalFile(QFileInfo(dbPath).absoluteFilePath()).toString(QUrl::FullyEncoded) +
                "?immutable=1");
        }
        db.setConnectOptions(options);
        if (!db.open())
            return fail(QString("manifest: %1: cannot open: %2").arg(dbPath, db.lastError().text()));
    }
    {
        QSqlQuery query(db);
        if (!query.exec("SELECT name FROM sqlite_master WHERE type = 'table' AND name = 'Files'"))
            return fail(
                QString("manifest: %1: not an SQLite database (%2)").arg(dbPath, query.lastError().text()));
        if (!query.next()) return fail(QString("manifest: %1: has no table Files").arg(dbPath));
        query.prepare("SELECT 1 FROM Files WHERE fileID = ?");
        query.addBindValue(fileId);
        if (query.exec() && !query.next())
            return fail(QString("manifest: no file with fileID %1 in %2").arg(fileId, dbPath));
    }

    g_debugLines.clear();
    const QByteArray blob = DbUtils::readManifestBlobData(db, fileId);
    if (blob.isEmpty() && !g_debugLines.isEmpty()) return fail("manifest: " + g_debugLines.first());

    if (args.has("--out")) {
        QFile file(outPath);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(blob) != blob.size())
            return fail(QString("manifest: %1: cannot write: %2").arg(outPath, file.errorString()));
        out(QString("wrote %1 bytes to %2").arg(blob.size()).arg(outPath));
    } else if (args.has("--json")) {
        printJson(QJsonObject{{"fileID", fileId}, {"size", blob.size()}, {"data", toJson(blob)}});
    } else if (blob.isEmpty()) {
        out("(empty blob)");
    } else {
        printHexDump(blob);
    }
    return Ok;
}

int runManifest(const Args& args) {
    QString dbPath = args.positional().at(0);
    if (!checkInputFile(dbPath)) return Failed;

    const QtMessageHandler previous = qInstallMessageHandler(collectDebug);
    const int code = readManifest(dbPath, args.positional().at(1), args);
    qInstallMessageHandler(previous);
    return code;
}

// What makes a file no MMKV store the reader can read: shorter than its header, a declared
// content length that runs past the end of the file, or no entry at all. Empty when it is readable.
QString mmkvFault(const QByteArray& data, const MMKVParser& store) {
    if (data.size() <= 4) return QString("%1 bytes is too short for an MMKV file").arg(data.size());
    const quint32 declared = quint32(uchar(data.at(0))) | quint32(uchar(data.at(1))) << 8 |
                             quint32(uchar(data.at(2))) << 16 | quint32(uchar(data.at(3))) << 24;
    if (quint64(declared) + 4 > quint64(data.size()))
        return QString("its declared content of %1 bytes runs past the end of the file (%2 bytes)")
            .arg(declared)
            .arg(data.size());
    if (store.m_entries.isEmpty()) return "no entry in it";
    return QString();
}

int runMmkv(const Args& args) {
    QString path = args.positional().at(0);
    if (!checkInputFile(path)) return Failed;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return fail(path + ": cannot open for reading");
    const QByteArray data = file.readAll();
    MMKVParser store{QString()}; // nothing to load from an empty path; the bytes come next
    store.loadFromData(data);
    const QString fault = mmkvFault(data, store);
    if (!fault.isEmpty() && !args.has("--documented"))
        return fail(QString("mmkv: %1: %2 (--documented shows what the library reads)").arg(path, fault));

    JsonText json;
    json.beginObject();
    for (auto it = store.m_entries.cbegin(); it != store.m_entries.cend(); ++it) {
        const QString hex = QString::fromLatin1(it.value().toHex());
        const int number = store.getInt(it.key());
        const QString text = store.getString(it.key());
        if (args.has("--json")) {
            json.key(it.key());
            json.beginObject();
            json.member("hex", hex);
            json.member("int", number);
            json.member("string", text);
            json.endObject();
        } else {
            out(QString("%1 hex=%2 int=%3 string=%4")
                    .arg(toText(it.key()), hex)
                    .arg(number)
                    .arg(toText(text)));
        }
    }
    json.endObject();
    if (args.has("--json"))
        printJsonText(json.text());
    else if (store.m_entries.isEmpty())
        out("no entries");
    return Ok;
}

// --- protobuf ---

using google::protobuf::UnknownField;
using google::protobuf::UnknownFieldSet;

// The nesting that protoc --decode_raw guesses, and its limit of ten levels.
constexpr int kGuessedLevels = 10;

// Whether length-delimited bytes read as a message, as protoc --decode_raw decides it (not when
// empty, nor past its budget of levels); *fields then holds them.
bool readsAsMessage(const std::string& bytes, int budget, UnknownFieldSet* fields) {
    if (bytes.empty() || budget <= 0) return false;
    google::protobuf::io::CodedInputStream input(reinterpret_cast<const uint8_t*>(bytes.data()),
                                                 int(bytes.size()));
    input.SetRecursionLimit(budget);
    return fields->ParseFromCodedStream(&input);
}

// Bytes as text when they are UTF-8, else as hex.
bool isUtf8(const std::string& bytes) {
    QTextCodec::ConverterState state;
    QTextCodec::codecForName("UTF-8")->toUnicode(bytes.data(), int(bytes.size()), &state);
    return state.invalidChars == 0 && state.remainingChars == 0;
}

// The fields as a JSON array, in order: {"field", then one of "varint", "fixed32", "fixed64",
// "message" (the fields inside), "group", "text" or "hex"}.
void fieldsJson(JsonText& json, const UnknownFieldSet& fields, int budget) {
    json.beginArray();
    for (int i = 0; i < fields.field_count(); ++i) {
        const UnknownField& f = fields.field(i);
        json.beginObject();
        json.member("field", f.number());
        UnknownFieldSet nested;
        switch (f.type()) {
        case UnknownField::TYPE_VARINT:
            json.member("varint", quint64(f.varint()));
            break;
        case UnknownField::TYPE_FIXED32:
            json.member("fixed32", quint64(f.fixed32()));
            break;
        case UnknownField::TYPE_FIXED64:
            json.member("fixed64", quint64(f.fixed64()));
            break;
        case UnknownField::TYPE_GROUP:
            json.key("group");
            fieldsJson(json, f.group(), budget - 1);
            break;
        case UnknownField::TYPE_LENGTH_DELIMITED:
            if (readsAsMessage(f.length_delimited(), budget, &nested)) {
                json.key("message");
                fieldsJson(json, nested, budget - 1);
            } else if (isUtf8(f.length_delimited())) {
                json.member("text", QString::fromStdString(f.length_delimited()));
            } else {
                json.member("hex",
                            QString::fromLatin1(QByteArray::fromStdString(f.length_delimited()).toHex()));
            }
            break;
        }
        json.endObject();
    }
    json.endArray();
}

// The library's lookup, as the command gave it before it showed the file's own values.
int runDocumentedProtobuf(const QString& path, const QString& fieldPath, const QString& as) {
    RawMessage message;
    if (!message.mergeFile(QFile::encodeName(path).toStdString()))
        return fail(QString("protobuf: %1: not a protobuf message").arg(path));
    // The readers answer with the caller's default when nothing is found, so two different
    // defaults tell a missing field from a value that equals one of them.
    QString value;
    bool found = false;
    try {
        if (as == "text") {
            value = message.parseStr(fieldPath, "a");
            found = value == message.parseStr(fieldPath, "b");
        } else if (as == "int") {
            const int v = message.parseInt(fieldPath, 0);
            found = v == message.parseInt(fieldPath, 1);
            value = QString::number(v);
        } else {
            const qint64 v = message.parseInt64(fieldPath, 0);
            found = v == message.parseInt64(fieldPath, 1);
            value = QString::number(v);
        }
    } catch (const std::exception&) {
        return fail(QString("protobuf: bad path '%1'").arg(fieldPath), Usage);
    }
    if (!found)
        return fail(QString("protobuf: no field at path '%1' that reads as %2")
                        .arg(fieldPath, as == "text" ? "text" : "an " + as));
    out(value);
    return Ok;
}

const char* wireName(const UnknownField& f) {
    switch (f.type()) {
    case UnknownField::TYPE_VARINT:
        return "varint";
    case UnknownField::TYPE_FIXED32:
        return "fixed32";
    case UnknownField::TYPE_FIXED64:
        return "fixed64";
    case UnknownField::TYPE_GROUP:
        return "group";
    default:
        return "length-delimited";
    }
}

// The field at the dotted path: through messages (length-delimited fields that read as one)
// and groups only; the first field of each number.
int printField(const UnknownFieldSet& top, const QString& fieldPath, const QString& as, bool json) {
    const QStringList parts = fieldPath.split('.');
    std::vector<std::unique_ptr<UnknownFieldSet>> kept; // the messages descended into
    const UnknownFieldSet* fields = &top;
    for (int p = 0; p < parts.size(); ++p) {
        const QString at = QStringList(parts.mid(0, p + 1)).join('.');
        const UnknownField* found = nullptr;
        for (int i = 0; i < fields->field_count() && !found; ++i)
            if (QString::number(fields->field(i).number()) == parts.at(p)) found = &fields->field(i);
        if (!found) return fail(QString("protobuf: no field %1 at %2").arg(parts.at(p), at));
        const UnknownField& f = *found;
        if (p + 1 < parts.size()) {
            if (f.type() == UnknownField::TYPE_GROUP) {
                fields = &f.group();
                continue;
            }
            kept.push_back(std::make_unique<UnknownFieldSet>());
            if (f.type() != UnknownField::TYPE_LENGTH_DELIMITED ||
                !readsAsMessage(f.length_delimited(), std::numeric_limits<int>::max(), kept.back().get()))
                return fail(QString("protobuf: field %1 %2: there is no %3 inside it")
                                .arg(at, f.type() == UnknownField::TYPE_LENGTH_DELIMITED
                                             ? QString("holds bytes that are no message")
                                             : QString("is a %1, not a message").arg(wireName(f)))
                                .arg(fieldPath));
            fields = kept.back().get();
            continue;
        }
        // The value, exact: numbers as stored (or read as the integer --as asks for), bytes as
        // UTF-8 text or hex.
        if (f.type() == UnknownField::TYPE_GROUP)
            return fail(QString("protobuf: field %1 is a group; give a field inside it").arg(fieldPath));
        QList<QPair<QString, QVariant>> members{{"path", fieldPath}, {"wire", wireName(f)}};
        if (f.type() == UnknownField::TYPE_LENGTH_DELIMITED) {
            if (as != "text")
                return fail(QString("protobuf: field %1 is length-delimited, not an %2").arg(fieldPath, as));
            const std::string& bytes = f.length_delimited();
            members.append({isUtf8(bytes) ? "text" : "hex",
                            isUtf8(bytes) ? QString::fromStdString(bytes)
                                          : QString::fromLatin1(QByteArray::fromStdString(bytes).toHex())});
        } else {
            const quint64 raw = f.type() == UnknownField::TYPE_VARINT    ? f.varint()
                                : f.type() == UnknownField::TYPE_FIXED32 ? f.fixed32()
                                                                         : f.fixed64();
            const qint64 signed64 =
                f.type() == UnknownField::TYPE_FIXED32 ? qint64(qint32(quint32(raw))) : qint64(raw);
            if (as == "int" && (signed64 < std::numeric_limits<qint32>::min() ||
                                signed64 > std::numeric_limits<qint32>::max()))
                return fail(
                    QString("protobuf: field %1 holds %2, which does not fit in 32 bits (--as int64 reads "
                            "64 bits)")
                        .arg(fieldPath)
                        .arg(raw));
            members.append({"value", as == "text" ? QVariant(raw) : QVariant(signed64)});
        }
        if (json) return printJsonObject(members), Ok;
        return out(members.last().second.toString()), Ok;
    }
    return Ok;
}

int runProtobuf(const Args& args) {
    QString path = args.positional().at(0);
    const QString fieldPath = args.positional().value(1);
    const QString as = args.value("--as", "text");
    const bool hasPath = args.positional().size() > 1;
    if (as != "text" && as != "int" && as != "int64")
        return fail(QString("protobuf: --as takes text, int or int64, not '%1'").arg(as), Usage);
    static const QRegularExpression numbers("^[0-9]+(\\.[0-9]+)*$");
    if (hasPath && !numbers.match(fieldPath).hasMatch())
        return fail(
            QString("protobuf: bad path '%1': expected field numbers separated by dots, such as 2.1.3")
                .arg(fieldPath),
            Usage);
    if (!hasPath && (args.has("--as") || args.has("--documented")))
        return fail("protobuf: --as and --documented go with a PATH", Usage);
    if (!checkInputFile(path)) return Failed;
    if (args.has("--documented")) return runDocumentedProtobuf(path, fieldPath, as);

    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return fail(path + ": cannot open for reading");
    const QByteArray data = file.readAll();
    UnknownFieldSet fields;
    if (!fields.ParseFromArray(data.constData(), data.size()))
        return fail(QString("protobuf: %1: not a protobuf message").arg(path));
    if (hasPath) return printField(fields, fieldPath, as, args.has("--json"));
    if (args.has("--json")) {
        JsonText json;
        fieldsJson(json, fields, kGuessedLevels);
        printJsonText(json.text());
        return Ok;
    }
    std::string text;
    google::protobuf::TextFormat::PrintUnknownFieldsToString(fields, &text);
    fwrite(text.data(), 1, text.size(), stdout);
    return Ok;
}

const Registration
    manifestCommand({"manifest",
                     "DB FILEID",
                     "Reads the blob stored for FILEID in the table Files of a backup manifest database\n"
                     "(opened read-only) and prints it as a hex dump.",
                     {{"--out", "FILE", "write the raw blob to FILE instead"},
                      {"--force", nullptr, "with --out: overwrite FILE if it exists (never the database)"},
                      {"--json", nullptr, "print {fileID, size, data} with the data in base64"}},
                     runManifest});
const Registration
    mmkvCommand({"mmkv",
                 "FILE",
                 "Lists every key of a plain MMKV key-value file with its raw value in hex and\n"
                 "its readings as an integer (varint) and as a string (length-prefixed UTF-8).\n"
                 "A file shorter than its header, whose declared content length runs past its end, or that\n"
                 "yields no entry is an error.",
                 {{"--documented", nullptr, "list what the library reads even from such a file"},
                  {"--json", nullptr, "one JSON object: key -> {hex, int, string}"}},
                 runMmkv});
const Registration protobufCommand(
    {"protobuf",
     "FILE [PATH]",
     "Parses FILE as a protocol-buffer message without a schema. Without PATH, prints every field as\n"
     "protoc --decode_raw does, with the same guess of which bytes hold a nested message. With PATH, a\n"
     "dotted list of field numbers (2.1.3: field 3 inside field 1 inside field 2), prints that field:\n"
     "numbers exact (unsigned 64-bit as stored), bytes as UTF-8 text or else hex. Repeated fields give\n"
     "their first occurrence; a path that runs through a number or through bytes that are no message,\n"
     "or names a field that is not there, is an error.",
     {{"--as", "KIND",
       "with PATH: text (numbers as stored, unsigned; bytes as above; the default), int\n"
       "(a signed 32-bit integer) or int64 (a signed 64-bit integer); no ZigZag decoding"},
      {"--json", nullptr,
       "the fields as a JSON array, in order: {field, then varint, fixed32, fixed64, message\n"
       "or group (the fields inside), text or hex}; with PATH {path, wire, value, text or hex}"},
      {"--documented", nullptr,
       "with PATH: the library's lookup instead (text cut at the first zero byte and\n"
       "decoded with replacement characters, the low 32 bits for int, a path through a\n"
       "number or through bytes that are no message looked up at the same level)"}},
     runProtobuf});

} // namespace
