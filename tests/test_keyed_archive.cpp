// Keyed-archive decoding: UID resolution through "$objects", the object form of "$top",
// whole-list conversion, undefined values, failures, and hostile reference graphs.
#include "NSKeyedArchiver.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>

#include <initializer_list>
#include <utility>

void PrintTo(const QJsonValue& value, std::ostream* os) {
    *os << QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact).toStdString();
}

namespace {

plist_t dict(std::initializer_list<std::pair<const char*, plist_t>> items) {
    plist_t d = plist_new_dict();
    for (const auto& item : items)
        plist_dict_set_item(d, item.first, item.second);
    return d;
}

plist_t array(std::initializer_list<plist_t> items) {
    plist_t a = plist_new_array();
    for (plist_t item : items)
        plist_array_append_item(a, item);
    return a;
}

plist_t str(const char* s) {
    return plist_new_string(s);
}
plist_t uid(uint64_t v) {
    return plist_new_uid(v);
}

// An archive as the system's archiver writes it: "$null" at index 0, then the objects.
plist_t archive(plist_t top, std::initializer_list<plist_t> objects) {
    plist_t all = plist_new_array();
    plist_array_append_item(all, str("$null"));
    for (plist_t o : objects)
        plist_array_append_item(all, o);
    return dict({{"$archiver", str("NSKeyedArchiver")},
                 {"$version", plist_new_uint(100000)},
                 {"$top", top},
                 {"$objects", all}});
}

QByteArray serialise(plist_t root, bool xml = false) {
    char* out = nullptr;
    uint32_t length = 0;
    if (xml)
        plist_to_xml(root, &out, &length);
    else
        plist_to_bin(root, &out, &length);
    QByteArray bytes(out, int(length));
    free(out);
    plist_free(root);
    return bytes;
}

plist_t classObject(const char* name, const char* super) {
    return dict({{"$classname", str(name)}, {"$classes", array({str(name), str(super)})}});
}

QJsonObject classJson(const char* name, const char* super) {
    return QJsonObject{{"$classname", name}, {"$classes", QJsonArray{name, super}}};
}

QJsonObject decode(const QByteArray& bytes) {
    NSKeyedArchiver a;
    EXPECT_TRUE(a.loadFromData(bytes));
    return a.json().toObject();
}

struct ToolRun {
    int code = -1;
    QByteArray out;
    QByteArray err;
};

// Runs utils-inspect with args; code -1 when it could not be run or did not finish.
ToolRun runTool(const QStringList& args) {
    ToolRun run;
    QProcess process;
    process.start(QString(UTILS_TOOL_PATH), args);
    if (!process.waitForFinished(60000)) return run;
    run.code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

} // namespace

TEST(NSKeyedArchiver, ResolvesReferencesThroughObjects) {
    // root -> 1 {NS.string, $class -> 2}; 2 is the class description.
    const QByteArray bytes =
        serialise(archive(dict({{"root", uid(1)}}), {dict({{"NS.string", str("hi")}, {"$class", uid(2)}}),
                                                     classObject("NSString", "NSObject")}));
    NSKeyedArchiver a;
    EXPECT_TRUE(a.json().isNull());
    ASSERT_TRUE(a.loadFromData(bytes));
    const QJsonObject expected{
        {"root", QJsonObject{{"NS.string", "hi"}, {"$class", classJson("NSString", "NSObject")}}}};
    EXPECT_EQ(a.json(), QJsonValue(expected));
    EXPECT_TRUE(a.isEmpty()); // the inherited object stays empty

    // The same archive written as XML (UIDs as CF$UID dictionaries) decodes the same.
    const QByteArray xml =
        serialise(archive(dict({{"root", uid(1)}}), {dict({{"NS.string", str("hi")}, {"$class", uid(2)}}),
                                                     classObject("NSString", "NSObject")}),
                  true);
    EXPECT_EQ(decode(xml), expected);

    QTemporaryDir dir;
    QFile file(dir.filePath("a.archive"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
    file.close();
    NSKeyedArchiver fromFile;
    ASSERT_TRUE(fromFile.loadFromFile(file.fileName()));
    EXPECT_EQ(fromFile.json(), QJsonValue(expected));
}

TEST(NSKeyedArchiver, CollectionsDatesAndSpecialReferences) {
    // 1 dictionary with NS.keys / NS.objects, 2 its class, 3 and 4 keys, 5 a date as a real,
    // 6 a chain 6 -> 7 -> 8, 8 a string.
    const QByteArray bytes =
        serialise(archive(dict({{"root", uid(1)},
                                {"nothing", uid(0)},
                                {"dangling", uid(99)},
                                {"chain", uid(6)},
                                {"list", array({uid(3), uid(99), uid(0)})}}),
                          {dict({{"NS.keys", array({uid(3), uid(4)})},
                                 {"NS.objects", array({uid(5), plist_new_bool(0)})},
                                 {"$class", uid(2)}}),
                           classObject("NSDictionary", "NSObject"), str("sent"), str("flag"),
                           dict({{"NS.time", plist_new_real(600.25)}}), uid(7), uid(8), str("end")}));
    const QJsonObject o = decode(bytes);
    const QJsonObject root = o.value("root").toObject();
    EXPECT_EQ(root.value("NS.keys"), QJsonValue(QJsonArray{"sent", "flag"}));
    EXPECT_EQ(root.value("NS.objects"), QJsonValue(QJsonArray{QJsonObject{{"NS.time", 600.25}}, false}));
    EXPECT_EQ(root.value("$class"), QJsonValue(classJson("NSDictionary", "NSObject")));
    EXPECT_EQ(o.value("nothing"), QJsonValue("$null")); // index 0 is not JSON null
    EXPECT_FALSE(o.contains("dangling"));               // undefined drops the key...
    EXPECT_EQ(o.value("list"), QJsonValue(QJsonArray{"sent", QJsonValue(), "$null"})); // ...null in arrays
    EXPECT_EQ(o.value("chain"), QJsonValue("end"));
    EXPECT_EQ(o.size(), 4);

    // Other node types inside objects: integers read as signed, dates unconverted, data as Base64.
    const QByteArray scalars = serialise(archive(dict({{"n", plist_new_uint(uint64_t(-1))},
                                                       {"d", plist_new_date(1, 0)},
                                                       {"b", plist_new_data("\xff", 1)},
                                                       {"o", uid(1)}}),
                                                 {array({plist_new_real(0.5), uid(1000)})}));
    EXPECT_EQ(
        decode(scalars),
        (QJsonObject{{"n", qint64(-1)}, {"d", 1.0}, {"b", "/w=="}, {"o", QJsonArray{0.5, QJsonValue()}}}));
}

TEST(NSKeyedArchiver, StructuralFaultsStillLoad) {
    // No "$top", a "$top" that is not a dictionary, a root that is not a dictionary, no
    // "$objects": all load, with an empty object or unresolved references.
    EXPECT_EQ(decode(serialise(dict({{"$objects", array({str("$null")})}}))), QJsonObject());
    EXPECT_EQ(decode(serialise(dict({{"$top", array({str("x")})}}))), QJsonObject());
    EXPECT_EQ(decode(serialise(array({str("x")}))), QJsonObject());
    EXPECT_EQ(decode(serialise(dict(
                  {{"$top", dict({{"a", uid(1)}, {"b", str("kept")}})}, {"$objects", str("not an array")}}))),
              (QJsonObject{{"b", "kept"}}));

    // The whole-list form: no objects table, so every UID is undefined.
    NSKeyedArchiver a;
    ASSERT_TRUE(a.loadRootFromData(
        serialise(dict({{"name", str("x")}, {"ref", uid(1)}, {"refs", array({uid(1)})}}))));
    EXPECT_EQ(a.json(), QJsonValue(QJsonObject{{"name", "x"}, {"refs", QJsonArray{QJsonValue()}}}));
    ASSERT_TRUE(a.loadRootFromData(serialise(archive(dict({{"root", uid(1)}}), {str("x")}))));
    EXPECT_EQ(a.json().toObject().value("$top"), QJsonValue(QJsonObject()));
    EXPECT_EQ(a.json().toObject().value("$objects"), QJsonValue(QJsonArray{"$null", "x"}));
}

TEST(NSKeyedArchiver, FailedLoadsKeepThePreviousResult) {
    QTemporaryDir dir;
    NSKeyedArchiver a;
    EXPECT_FALSE(a.loadFromFile(dir.filePath("missing")));
    EXPECT_FALSE(a.loadRootFromFile(dir.filePath("missing")));
    EXPECT_TRUE(a.json().isNull());

    ASSERT_TRUE(a.loadFromData(serialise(archive(dict({{"root", uid(1)}}), {str("x")}))));
    const QJsonValue good = a.json();
    EXPECT_FALSE(a.loadFromData("garbage"));
    EXPECT_FALSE(a.loadRootFromData(QByteArray()));
    EXPECT_FALSE(a.loadFromFile(dir.path()));
    EXPECT_EQ(a.json(), good);
    EXPECT_EQ(good, QJsonValue(QJsonObject{{"root", "x"}}));
}

TEST(NSKeyedArchiver, HostileReferenceGraphsEnd) {
    // An object referring to itself, and a UID chain that loops.
    const QJsonObject cyclic =
        decode(serialise(archive(dict({{"self", uid(1)}, {"loop", uid(2)}}),
                                 {dict({{"me", uid(1)}, {"v", str("x")}}), uid(3), uid(2)})));
    EXPECT_EQ(cyclic.value("self"), QJsonValue(QJsonObject{{"me", QJsonValue()}, {"v", "x"}}));
    EXPECT_TRUE(cyclic.value("loop").isNull());

    // Forty objects each referring twice to the next: 2^40 values if copied naively.
    plist_t objects = plist_new_array();
    plist_array_append_item(objects, str("$null"));
    for (uint64_t i = 1; i <= 40; ++i)
        plist_array_append_item(objects, array({uid(i + 1), uid(i + 1)}));
    plist_array_append_item(objects, str("leaf"));
    QElapsedTimer timer;
    timer.start();
    const QJsonObject shared =
        decode(serialise(dict({{"$top", dict({{"root", uid(1)}})}, {"$objects", objects}})));
    EXPECT_LT(timer.elapsed(), 5000);
    QJsonValue v = shared.value("root");
    for (int i = 0; i < 40 && v.isArray(); ++i)
        v = v.toArray().at(1);
    EXPECT_EQ(v, QJsonValue("leaf"));

    // A long acyclic chain is resolved to its end.
    objects = plist_new_array();
    plist_array_append_item(objects, str("$null"));
    for (uint64_t i = 1; i <= 1500; ++i)
        plist_array_append_item(objects, dict({{"next", uid(i + 1)}}));
    plist_array_append_item(objects, str("bottom"));
    const QJsonObject chain =
        decode(serialise(dict({{"$top", dict({{"root", uid(1)}})}, {"$objects", objects}})));
    v = chain.value("root");
    int depth = 0;
    while (v.isObject()) {
        v = v.toObject().value("next");
        ++depth;
    }
    EXPECT_EQ(depth, 1500);
    EXPECT_EQ(v, QJsonValue("bottom"));
}

TEST(NSKeyedArchiver, InspectToolPrintsResolvedArchives) {
    if (QString(UTILS_TOOL_PATH).isEmpty()) GTEST_SKIP() << "utils-inspect not built";
    QTemporaryDir dir;
    QFile file(dir.filePath("a.archive"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(
        serialise(archive(dict({{"root", uid(1)}}), {dict({{"NS.string", str("hi")}, {"$class", uid(2)}}),
                                                     classObject("NSString", "NSObject")})));
    file.close();

    ToolRun run = runTool({"archive", file.fileName()});
    ASSERT_EQ(run.code, 0) << run.err.toStdString();
    EXPECT_EQ(QJsonDocument::fromJson(run.out).object(),
              (QJsonObject{{"root", QJsonObject{{"NS.string", "hi"},
                                                {"$class", classJson("NSString", "NSObject")}}}}));
    run = runTool({"archive", "--root", file.fileName()});
    ASSERT_EQ(run.code, 0);
    const QJsonObject whole = QJsonDocument::fromJson(run.out).object();
    EXPECT_EQ(whole.value("$archiver"), QJsonValue("NSKeyedArchiver"));
    EXPECT_EQ(whole.value("$top"), QJsonValue(QJsonObject()));

    run = runTool({"archive", dir.filePath("missing")});
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.err.count('\n'), 1);
    EXPECT_EQ(runTool({"archive", "--bogus", file.fileName()}).code, 2);
}
