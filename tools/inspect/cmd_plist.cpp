// plist, archive, mbdb: property lists, keyed archives and the legacy backup index.
#include "Command.h"
#include "JsonText.h"
#include "PlistJson.h"

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

// A loaded tree, released when it goes (loaded trees belong to the caller).
struct Tree {
    void* root = nullptr;
    ~Tree() { plist_free(static_cast<plist_t>(root)); }
};

bool load(const QString& command, QString& path, Tree* tree) {
    if (!checkInputFile(path)) return false;
    if (PlistUtils::loadFromFile(path, tree->root)) return true;
    fail(QString("%1: %2: not a readable property list (binary or XML)").arg(command, path));
    return false;
}

int printPlist(const QString& command, const QString& path, void* node, void* objects) {
    JsonText json;
    if (!PlistJson(objects).write(json, node, kMaxPrintedValues))
        return fail(QString("%1: %2: resolves to more than %3 values; refusing to print it")
                        .arg(command, path)
                        .arg(kMaxPrintedValues));
    printJsonText(json.text());
    return Ok;
}

int runPlist(const Args& args) {
    QString path = args.positional().at(0);
    Tree tree;
    if (!load("plist", path, &tree)) return Failed;
    if (args.has("--documented")) return printJson(PlistUtils::toJson(tree.root)), Ok;
    return printPlist("plist", path, tree.root, nullptr);
}

int runArchive(const Args& args) {
    QString path = args.positional().at(0);
    Tree tree;
    if (!load("archive", path, &tree)) return Failed;
    void* const objects = PlistUtils::getNode(tree.root, "$objects");
    void* const top = PlistUtils::getNode(tree.root, "$top");
    const bool root = args.has("--root");
    if (!root && (plist_get_node_type(static_cast<plist_t>(objects)) != PLIST_ARRAY ||
                  plist_get_node_type(static_cast<plist_t>(top)) != PLIST_DICT))
        return fail(
            QString("archive: %1: not a keyed archive (no \"$objects\" array and \"$top\" dictionary); "
                    "plist shows any property list")
                .arg(path));
    if (!args.has("--documented"))
        return printPlist("archive", path, root ? tree.root : top, root ? nullptr : objects);

    NSKeyedArchiver archive;
    const bool loaded = root ? archive.loadRootFromFile(path) : archive.loadFromFile(path);
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

// Where a backup index is cut short: the offset of the first record, or of the header, that
// runs past the end of the file (then *records counts the whole records before it); -1 when
// every record is whole. Only the lengths are read: strings and data are a 16-bit length
// (0xFFFF for none) and their bytes, then 40 bytes of fixed fields and the properties.
qint64 mbdbCut(const QByteArray& data, int* records) {
    *records = 0;
    if (data.size() < 6) return 0;
    const auto u16 = [&data](qint64 at) {
        return quint16(uchar(data.at(int(at))) << 8 | uchar(data.at(int(at) + 1)));
    };
    for (qint64 at = 6; at < data.size(); ++*records) {
        const qint64 start = at;
        // Skips one length-prefixed field; false when it runs past the end.
        const auto field = [&] {
            if (at + 2 > data.size()) return false;
            const quint16 n = u16(at);
            at += 2 + (n == 0xFFFF ? 0 : n);
            return at <= data.size();
        };
        bool whole = field() && field() && field() && field() && field() && (at += 40) <= data.size();
        for (int p = whole ? uchar(data.at(int(at) - 1)) : 0; whole && p > 0; --p)
            whole = field() && field();
        if (!whole) return start;
    }
    return -1;
}

int runMbdb(const Args& args) {
    QString path = args.positional().at(0);
    if (!checkInputFile(path)) return Failed;
    MbdbUtil index;
    if (!index.loadDb(path))
        return fail(QString("mbdb: %1: not a backup index (no \"mbdb\" signature)").arg(path));
    QFile file(path);
    int whole = 0;
    const qint64 cut = file.open(QIODevice::ReadOnly) ? mbdbCut(file.readAll(), &whole) : 0;
    if (cut >= 0 && !args.has("--documented"))
        return fail(
            QString("mbdb: %1: cut short in %2 at offset %3, after %4 whole records (--documented shows "
                    "what the library reads)")
                .arg(path, cut < 6 ? "the header" : "a record")
                .arg(cut)
                .arg(whole));
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

Registration
    regPlist({"plist",
              "FILE",
              "Prints a property list (binary or XML) as JSON: dictionaries with their keys in file\n"
              "order, integers exact (signed, or unsigned above 2^63 - 1, as stored), dates as\n"
              "ISO-8601 UTC, data as base64, UIDs as {\"UID\": n}.",
              {{"--documented", nullptr,
                "the library's reading instead: keys sorted, integers as doubles, dates as\n"
                "seconds since 2001-01-01 UTC (clamped to 32 bits), UIDs as null"}},
              &runPlist});

Registration regArchive(
    {"archive",
     "FILE",
     "Prints a keyed archive as JSON: the entries of \"$top\" with every reference resolved. Each\n"
     "archived object keeps its class name under \"$class\" (first), then its members; NSString,\n"
     "NSData, NSDate, NSArray, NSSet and NSNull objects become plain strings, base64 data, ISO-8601\n"
     "UTC dates, arrays and null, and an NSDictionary lists its entries after \"$class\". A reference\n"
     "back to an object being written further up is {\"$cycle\": {\"UID\": n}}; one to no object\n"
     "stays {\"UID\": n}. A file that is not a keyed archive is an error.",
     {{"--root", nullptr,
       "convert the whole property list instead, without resolving references\n"
       "(UIDs as {\"UID\": n}); any property list is accepted"},
      {"--documented", nullptr,
       "the library's reading instead: references resolved into copies, nothing\n"
       "interpreted, keys sorted, dates as seconds since 2001, \"$null\" as text; with\n"
       "--root, UIDs dropped"}},
     &runArchive});

Registration regMbdb({"mbdb",
                      "FILE",
                      "Lists the records of a legacy backup index (\"mbdb\"), one per line:\n"
                      "fileId, mode (octal), size, last-modified time (UTC), domain, path [-> link].\n"
                      "An index cut short, in its header or in a record, is an error.",
                      {{"--documented", nullptr,
                        "list what the library reads even from a cut index (the cut record\n"
                        "completed with zeros and empty fields)"},
                       {"--json", nullptr,
                        "print all records as a JSON array (fileId, domain, path, linkTarget,\n"
                        "size, mode, times, properties and the other fields)"}},
                      &runMbdb});

} // namespace
