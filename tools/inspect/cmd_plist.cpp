// plist, archive, mbdb: property lists, keyed archives and the legacy backup index.
#include "Command.h"

#include "MbdbUtil.h"
#include "NSKeyedArchiver.h"
#include "PlistUtils.h"

#include <plist/plist.h>

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

using namespace inspect;

namespace {

// An archive whose objects are shared many times over resolves into a tree far larger than
// the file; printing it would not end in reasonable time, so it is refused past this count.
constexpr qint64 kMaxPrintedValues = 20 * 1000 * 1000;

int runPlist(const QStringList& argv) {
    Args args(argv, {}, {});
    int exit = Ok;
    if (!parseOrExit("plist", args, 1, 1, &exit)) return exit;
    QString path = args.positional().at(0);
    if (!checkInputFile(path)) return Failed;
    void* root = nullptr;
    if (!PlistUtils::loadFromFile(path, root))
        return fail(QString("plist: %1: not a readable property list (binary or XML)").arg(path));
    printJson(PlistUtils::toJson(root));
    plist_free(static_cast<plist_t>(root)); // loaded trees belong to the caller
    return Ok;
}

int runArchive(const QStringList& argv) {
    Args args(argv, {"--root"}, {});
    int exit = Ok;
    if (!parseOrExit("archive", args, 1, 1, &exit)) return exit;
    QString path = args.positional().at(0);
    if (!checkInputFile(path)) return Failed;
    NSKeyedArchiver archive;
    const bool loaded = args.has("--root") ? archive.loadRootFromFile(path) : archive.loadFromFile(path);
    if (!loaded) return fail(QString("archive: %1: not a readable property list (binary or XML)").arg(path));
    if (jsonShape(archive.json(), kMaxPrintedValues).values > kMaxPrintedValues)
        return fail(QString("archive: %1: resolves to more than %2 values; refusing to print it")
                        .arg(path)
                        .arg(kMaxPrintedValues));
    printJson(archive.json());
    return Ok;
}

QString timeText(qint32 unixSeconds) {
    return QDateTime::fromSecsSinceEpoch(unixSeconds, Qt::UTC).toString(Qt::ISODate);
}

QJsonObject recordJson(const MbdbRecord& r) {
    QJsonObject properties;
    for (auto it = r.properties.begin(); it != r.properties.end(); ++it)
        properties.insert(it.key(), it.value());
    QJsonObject o;
    o.insert("fileId", r.fileId);
    o.insert("domain", r.domain);
    o.insert("path", r.path);
    o.insert("linkTarget", r.linkTarget);
    o.insert("size", QJsonValue(qint64(r.size)));
    o.insert("mode", int(r.mode));
    o.insert("type", r.type);
    o.insert("inode", QJsonValue(qint64(r.inode)));
    o.insert("userId", r.userId);
    o.insert("groupId", r.groupId);
    o.insert("lastModified", r.lastModified);
    o.insert("lastAccessed", r.lastAccessed);
    o.insert("created", r.created);
    o.insert("protectionClass", int(r.protectionClass));
    o.insert("dataHash", QString::fromLatin1(r.dataHash.toHex()));
    o.insert("encryptionKey", QString::fromLatin1(r.encryptionKey.toBase64()));
    o.insert("properties", properties);
    return o;
}

int runMbdb(const QStringList& argv) {
    Args args(argv, {"--json"}, {});
    int exit = Ok;
    if (!parseOrExit("mbdb", args, 1, 1, &exit)) return exit;
    QString path = args.positional().at(0);
    if (!checkInputFile(path)) return Failed;
    MbdbUtil index;
    if (!index.loadDb(path))
        return fail(QString("mbdb: %1: not a backup index (no \"mbdb\" signature)").arg(path));
    const QList<QSharedPointer<MbdbRecord>> records = index.fetchRecords();
    if (args.has("--json")) {
        QJsonArray array;
        for (const auto& record : records)
            array.append(recordJson(*record));
        printJson(array);
        return Ok;
    }
    for (const auto& record : records) {
        const MbdbRecord& r = *record;
        QString line = QString("%1\t%2\t%3\t%4\t%5\t%6")
                           .arg(r.fileId.isEmpty() ? QString(40, '-') : r.fileId)
                           .arg(r.mode, 6, 8, QLatin1Char('0'))
                           .arg(r.size)
                           .arg(timeText(r.lastModified), r.domain, r.path);
        if (!r.linkTarget.isEmpty()) line += " -> " + r.linkTarget;
        out(line);
    }
    return Ok;
}

Registration regPlist({"plist", "plist FILE",
                       "Prints a property list (binary or XML) as JSON. Dates are seconds since\n"
                       "2001-01-01 UTC, data is Base64 text, UIDs are null.",
                       &runPlist});

Registration regArchive({"archive", "archive FILE [--root]",
                         "Prints a keyed archive as JSON with every object reference resolved: the\n"
                         "entries of \"$top\", each holding the object graph beneath it.\n"
                         "  --root  convert the whole property list instead, without resolving references",
                         &runArchive});

Registration regMbdb({"mbdb", "mbdb FILE [--json]",
                      "Lists the records of a legacy backup index (\"mbdb\"), one per line:\n"
                      "fileId, mode (octal), size, last-modified time (UTC), domain, path [-> link].\n"
                      "  --json  print all records as a JSON array (fileId, domain, path, linkTarget,\n"
                      "          size, mode, times, properties and the other fields)",
                      &runMbdb});

} // namespace
