// manifest, mmkv, protobuf: manifest database blobs, MMKV key-value files and schema-less protobuf.
#include "Command.h"

#include "DbUtils.h"
#include "MMKVParser.h"
#include "RawMessage.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QSqlError>
#include <QSqlQuery>
#include <QUrl>

#include <exception>

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
        if (outPath.isEmpty()) return fail("manifest: --out needs a file name", Usage);
        const QFileInfo target(outPath);
        if (target.exists() && target.canonicalFilePath() == QFileInfo(dbPath).canonicalFilePath())
            return fail("manifest: refusing to write over the database itself", Usage);
        if (target.isDir()) return fail(QString("manifest: %1: is a folder").arg(outPath), Usage);
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
    }

    g_debugLines.clear();
    const QByteArray blob = DbUtils::readManifestBlobData(db, fileId);
    if (blob.isEmpty() && !g_debugLines.isEmpty()) {
        if (g_debugLines.first() == "don't fileID data")
            return fail(QString("manifest: no file with fileID %1 in %2").arg(fileId, dbPath));
        return fail("manifest: " + g_debugLines.first());
    }

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

int runManifest(const QStringList& argv) {
    Args args(argv, {"--json"}, {"--out"});
    int exit = Ok;
    if (!parseOrExit("manifest", args, 2, 2, &exit)) return exit;
    QString dbPath = args.positional().at(0);
    if (!checkInputFile(dbPath)) return Failed;

    const QtMessageHandler previous = qInstallMessageHandler(collectDebug);
    const int code = readManifest(dbPath, args.positional().at(1), args);
    qInstallMessageHandler(previous);
    return code;
}

int runMmkv(const QStringList& argv) {
    Args args(argv, {"--json"}, {});
    int exit = Ok;
    if (!parseOrExit("mmkv", args, 1, 1, &exit)) return exit;
    QString path = args.positional().at(0);
    if (!checkInputFile(path)) return Failed;

    MMKVParser store(path);
    QJsonObject json;
    for (auto it = store.m_entries.cbegin(); it != store.m_entries.cend(); ++it) {
        const QString hex = QString::fromLatin1(it.value().toHex());
        const int number = store.getInt(it.key());
        const QString text = store.getString(it.key());
        if (args.has("--json")) {
            json[it.key()] = QJsonObject{{"hex", hex}, {"int", number}, {"string", text}};
        } else {
            out(QString("%1 hex=%2 int=%3 string=%4")
                    .arg(toText(it.key()), hex)
                    .arg(number)
                    .arg(toText(text)));
        }
    }
    if (args.has("--json"))
        printJson(json);
    else if (store.m_entries.isEmpty())
        out("no entries");
    return Ok;
}

int runProtobuf(const QStringList& argv) {
    Args args(argv, {}, {"--as"});
    int exit = Ok;
    if (!parseOrExit("protobuf", args, 2, 2, &exit)) return exit;
    QString path = args.positional().at(0);
    const QString fieldPath = args.positional().at(1);
    const QString as = args.value("--as", "text");
    if (as != "text" && as != "int" && as != "int64")
        return fail(QString("protobuf: --as takes text, int or int64, not '%1'").arg(as), Usage);
    const QString badPath =
        QString("protobuf: bad path '%1': expected field numbers separated by dots, such as 2.1.3")
            .arg(fieldPath);
    // The reader answers an empty part with its default; here it is a usage error like any other.
    if (fieldPath.split('.').contains(QString())) return fail(badPath, Usage);
    if (!checkInputFile(path)) return Failed;

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
        return fail(badPath, Usage);
    }
    if (!found) {
        return fail(QString("protobuf: no field at path '%1' that reads as %2")
                        .arg(fieldPath, as == "text" ? "text" : "an " + as));
    }
    out(value);
    return Ok;
}

const Registration manifestCommand(
    {"manifest", "manifest DB FILEID [--out FILE] [--json]",
     "Reads the blob stored for FILEID in the table Files of a backup manifest database (opened\n"
     "read-only) and prints it as a hex dump.\n"
     "  --out FILE  write the raw blob to FILE instead\n"
     "  --json      print {fileID, size, data} with the data in base64",
     runManifest});
const Registration
    mmkvCommand({"mmkv", "mmkv FILE [--json]",
                 "Lists every key of a plain MMKV key-value file with its raw value in hex and\n"
                 "its readings as an integer (varint) and as a string (length-prefixed UTF-8).\n"
                 "  --json  one JSON object: key -> {hex, int, string}",
                 runMmkv});
const Registration protobufCommand(
    {"protobuf", "protobuf FILE PATH [--as text|int|int64]",
     "Parses FILE as a protocol-buffer message without a schema and prints the field at PATH, a\n"
     "dotted list of field numbers (2.1.3: field 3 inside field 1 inside field 2). Repeated fields\n"
     "give their first occurrence; bytes that are not a message keep the lookup at their own level.\n"
     "  --as text   decimal text of numbers, raw bytes of length-delimited fields (default)\n"
     "  --as int    a 32-bit integer\n"
     "  --as int64  a 64-bit integer (no ZigZag decoding)",
     runProtobuf});

} // namespace
