// Keyed-archive decoding, and the archive subcommand on a hostile archive.
#include "NSKeyedArchiver.h"
#include "TestSupport.h"
#include "ToolRun.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QThread>

namespace {

const auto str = &plist_new_string;
const auto uid = &plist_new_uid;

// An archive as the system's archiver writes it: "$null" at index 0, then the objects.
plist_t archive(plist_t top, plist_t objects) {
    plist_array_insert_item(objects, str("$null"), 0);
    return plistDict({{"$archiver", str("NSKeyedArchiver")},
                      {"$version", plist_new_uint(100000)},
                      {"$top", top},
                      {"$objects", objects}});
}

QByteArray serialise(plist_t root, bool xml = false) {
    char* out = nullptr;
    uint32_t length = 0;
    xml ? plist_to_xml(root, &out, &length) : plist_to_bin(root, &out, &length);
    QByteArray bytes(out, int(length));
    free(out);
    plist_free(root);
    return bytes;
}

// root -> 1 {NS.string, $class -> 2}; 2 is the class description.
plist_t stringArchive() {
    return archive(plistDict({{"root", uid(1)}}),
                   plistArray({plistDict({{"NS.string", str("hi")}, {"$class", uid(2)}}),
                               plistDict({{"$classname", str("NSString")},
                                          {"$classes", plistArray({str("NSString")})}})}));
}
QJsonObject js(const char* text) {
    return QJsonDocument::fromJson(text).object();
}
const QJsonObject kStringJson =
    js(R"({"root": {"NS.string": "hi", "$class": {"$classname": "NSString", "$classes": ["NSString"]}}})");

QJsonObject decode(const QByteArray& bytes) {
    NSKeyedArchiver a;
    EXPECT_TRUE(a.loadFromData(bytes));
    return a.json().toObject();
}

} // namespace

TEST(NSKeyedArchiver, ResolvesReferencesInBinaryAndXmlArchives) {
    NSKeyedArchiver a;
    EXPECT_TRUE(a.json().isNull());
    ASSERT_TRUE(a.loadFromData(serialise(stringArchive())));
    EXPECT_EQ(a.json(), QJsonValue(kStringJson));
    EXPECT_TRUE(a.isEmpty());                                         // the inherited object stays empty
    EXPECT_EQ(decode(serialise(stringArchive(), true)), kStringJson); // UIDs as CF$UID dictionaries

    // Collections, a date stored as a real, index 0, a dangling UID, a chain 6 -> 7 -> 8; integers
    // read as signed, dates unconverted, data as Base64.
    const QJsonObject o = decode(serialise(
        archive(plistDict({{"root", uid(1)},
                           {"nothing", uid(0)},
                           {"dangling", uid(99)},
                           {"chain", uid(6)},
                           {"list", plistArray({uid(3), uid(99), uid(0)})},
                           {"n", plist_new_uint(uint64_t(-1))},
                           {"d", plist_new_date(1, 0)},
                           {"b", plist_new_data("\xff", 1)}}),
                plistArray({plistDict({{"NS.keys", plistArray({uid(3), uid(4)})},
                                       {"NS.objects", plistArray({uid(5), plist_new_bool(0)})}}),
                            str("unused"), str("sent"), str("flag"),
                            plistDict({{"NS.time", plist_new_real(600.25)}}), uid(7), uid(8), str("end")}))));
    // Index 0 is the placeholder text, not null; a dangling UID drops its key, and is null in arrays.
    EXPECT_EQ(o, js(R"({"root": {"NS.keys": ["sent", "flag"], "NS.objects": [{"NS.time": 600.25}, false]},)"
                    R"("nothing": "$null", "chain": "end", "list": ["sent", null, "$null"],)"
                    R"("n": -1, "d": 1.0, "b": "/w=="})"));
}

TEST(NSKeyedArchiver, StructuralFaultsLoadAndFailuresKeepTheResult) {
    for (plist_t faulty : {plistDict({{"$objects", plistArray({str("$null")})}}),
                           plistDict({{"$top", plistArray({str("x")})}}), plistArray({str("x")})})
        EXPECT_EQ(decode(serialise(faulty)), QJsonObject());
    EXPECT_EQ(decode(serialise(plistDict(
                  {{"$top", plistDict({{"a", uid(1)}, {"b", str("kept")}})}, {"$objects", str("no")}}))),
              js(R"({"b": "kept"})"));

    // The whole-list form has no objects table: every UID is undefined.
    NSKeyedArchiver a;
    ASSERT_TRUE(a.loadRootFromData(
        serialise(plistDict({{"name", str("x")}, {"ref", uid(1)}, {"refs", plistArray({uid(1)})}}))));
    EXPECT_EQ(a.json(), QJsonValue(js(R"({"name": "x", "refs": [null]})")));

    QTemporaryDir dir;
    ASSERT_TRUE(a.loadFromFile(writeFile(dir, "a.archive", serialise(stringArchive()))));
    EXPECT_FALSE(a.loadFromFile(dir.filePath("missing")));
    EXPECT_FALSE(a.loadRootFromFile(dir.path()));
    EXPECT_FALSE(a.loadFromData("garbage"));
    EXPECT_FALSE(a.loadRootFromData(QByteArray()));
    EXPECT_EQ(a.json(), QJsonValue(kStringJson));
}

// The hostile archives kept with the fuzz inputs (fuzz/crashes/plist/) resolve completely.
TEST(NSKeyedArchiver, HostileReferenceGraphsEnd) {
    // An object referring to itself, and a UID chain that loops.
    EXPECT_EQ(decode(fuzzInput("crashes/plist/archive-cycles.bplist")),
              js(R"({"self": {"me": null, "v": "x"}, "loop": null})"));
    // Forty objects each referring twice to the next: 2^40 values if copied one by one.
    QJsonValue v = decode(fuzzInput("crashes/plist/archive-shared-2-to-the-40.bplist")).value("root");
    for (int i = 0; i < 40; ++i)
        v = v.toArray().at(1);
    EXPECT_EQ(v, QJsonValue("leaf"));
    // A chain of 5000 objects, resolved on a thread with a 512 KiB stack.
    const QByteArray chain = fuzzInput("crashes/plist/archive-chain-5000-deep.bplist");
    QScopedPointer<QThread> worker(QThread::create([&] { v = decode(chain).value("root"); }));
    worker->setStackSize(512 * 1024);
    worker->start();
    ASSERT_TRUE(worker->wait(120000));
    for (int i = 0; i < 5000; ++i)
        v = v.toObject().value("next");
    EXPECT_EQ(v, QJsonValue("bottom"));

    // The tool prints such a result compact, without recursing once per level.
    if (!toolBuilt()) return;
    EXPECT_EQ(
        toolOut({"archive", QString(UTILS_SOURCE_DIR) + "/fuzz/crashes/plist/archive-chain-5000-deep.bplist"},
                0),
        "{\"root\":" + QByteArray("{\"next\":").repeated(5000) + "\"bottom\"" + QByteArray(5001, '}') + "\n");
}
