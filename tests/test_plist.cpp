// Property-list utilities, with the hostile lists kept among the fuzz inputs.
#include "PlistUtils.h"
#include "TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <functional>
#include <memory>

namespace {

using P = PlistUtils;

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Tree = std::unique_ptr<void, PlistDeleter>;

// A dictionary with one node of every type, and its JSON form (a UID converts to null).
Tree makeSample() {
    return Tree(
        plistDict({{"bool", plist_new_bool(1)},
                   {"int", plist_new_uint(uint64_t(-7))},
                   {"real", plist_new_real(2.25)},
                   {"text", plist_new_string("grüße")},
                   {"date", plist_new_date(60, 500000)},
                   {"data", plist_new_data("\x00\x01", 2)},
                   {"uid", plist_new_uid(5)},
                   {"array", plistArray({plist_new_uint(1), plist_new_string("two"), plist_new_dict()})}}));
}
const QJsonObject kSampleJson = QJsonDocument::fromJson(R"({"bool": true, "int": -7, "real": 2.25,)"
                                                        R"("text": "grüße", "date": 60.5, "data": "AAE=",)"
                                                        R"("uid": null, "array": [1, "two", {}]})")
                                    .object();

} // namespace

TEST(PlistUtils, RoundTripsEveryNodeTypeThroughBothFormats) {
    Tree sample = makeSample();
    QTemporaryDir dir;
    const QString xml = dir.filePath("s.xml"), bin = dir.filePath("s.plist");
    ASSERT_TRUE(P::saveToXml(xml, sample.get()) && P::saveToBin(bin, sample.get()));
    EXPECT_EQ(readFile(bin), P::savaToBinFromByteArray(sample.get()));
    EXPECT_EQ(readFile(xml), P::toXml(sample.get()).toUtf8());

    for (const QString& path : {xml, bin}) {
        void* root = nullptr;
        ASSERT_TRUE(P::loadFromFile(path, root));
        Tree loaded(root);
        // XML writes a UID as a dictionary {CF$UID: n}, read back as a UID; it keeps whole seconds.
        QJsonObject expected = kSampleJson;
        if (path == xml) expected["date"] = 60.0;
        EXPECT_EQ(P::toJson(root), QJsonValue(expected)) << path.toStdString();
        EXPECT_EQ(P::getUidValue(P::getNode(root, "uid")), 5u);
    }
}

TEST(PlistUtils, TypedAccessGivesNeutralValuesAndSettersNeverCreate) {
    Tree sample = makeSample();
    void* d = sample.get();
    EXPECT_TRUE(P::getBoolValue(d, "bool"));
    EXPECT_EQ(P::getUint64Value(d, "int"), uint64_t(-7));
    EXPECT_EQ(P::getQStringValue(d, "text"), QString("grüße"));
    EXPECT_EQ(P::getByteArrayValue(d, "data"), QByteArray("\x00\x01", 2));

    EXPECT_EQ(P::getNode(P::getNode(d, "array"), "x"), nullptr);
    EXPECT_TRUE(P::getQStringValue(d, "int").isEmpty());
    EXPECT_FALSE(P::getBoolValue(d, "missing"));
    EXPECT_EQ(P::getUint64Value(d, "real"), 0u);
    EXPECT_EQ(P::getRealValue(P::getNode(d, "int")), 0.0);
    EXPECT_TRUE(P::getKey(P::getNode(d, "text")).isNull());

    P::setQStringValue(d, "missing", "x");
    P::setBoolValue(d, "missing", true);
    P::setQStringValue(d, "int", "x");
    P::setBoolValue(d, "text", false);
    EXPECT_EQ(P::toJson(d), QJsonValue(kSampleJson));
    P::setQStringValue(d, "text", "neu ✓");
    P::setBoolValue(d, "bool", false);
    EXPECT_EQ(P::getQStringValue(d, "text"), QString("neu ✓"));
    EXPECT_FALSE(P::getBoolValue(d, "bool"));

    // setDateValue always writes, from the low 32 bits of Unix time, and logs them.
    LogCapture log;
    P::setDateValue(d, "text", 978307200L);
    P::setDateValue(d, "new", 0x100000000L + 978307260L);
    P::setDateValue(d, "epoch", 0L);
    EXPECT_EQ(log.messages(), QStringList({"now 978307200", "now 978307260", "now 0"}));
    EXPECT_EQ(plist_get_node_type(static_cast<plist_t>(P::getNode(d, "text"))), PLIST_DATE);
    EXPECT_EQ(P::toJson(d).toObject().value("text"), QJsonValue(0.0));
    EXPECT_EQ(P::getDateValue(P::getNode(d, "new")), 60.0);
    EXPECT_EQ(P::getDateValue(P::getNode(d, "epoch")), -978307200.0);
}

TEST(PlistUtils, KeysAndIteration) {
    Tree sample = makeSample();
    void* d = sample.get();
    EXPECT_TRUE(P::toJson(nullptr).isUndefined());
    plist_t key = plist_new_string("name");
    plist_set_key_val(key, "name");
    EXPECT_EQ(P::toJson(key), QJsonValue("name"));
    plist_free(key);

    QStringList keys;
    P::foreachDict(d, [&](const char* k, void* value) { keys << (value ? QString::fromUtf8(k) : "?"); });
    keys.sort();
    EXPECT_EQ(keys, kSampleJson.keys());
    QJsonArray items;
    P::foreachArray(P::getNode(d, "array"), [&](void* i) { items << P::toJson(i); });
    EXPECT_EQ(items, kSampleJson.value("array").toArray());
    int calls = 0;
    P::foreachDict(P::getNode(d, "array"), [&](const char*, void*) { ++calls; });
    P::foreachArray(d, [&](void*) { ++calls; });
    EXPECT_EQ(calls, 0);
    EXPECT_THROW(P::foreachDict(d, nullptr), std::bad_function_call);
    EXPECT_THROW(P::foreachArray(P::getNode(d, "array"), nullptr), std::bad_function_call);
}

TEST(PlistUtils, FailedLoadsAndSavesLeaveEverythingUntouched) {
    QTemporaryDir dir;
    void* const marker = reinterpret_cast<void*>(0x1);
    void* root = marker;
    EXPECT_FALSE(P::loadFromFile(dir.filePath("missing.plist"), root));
    EXPECT_FALSE(P::loadFromFile(writeFile(dir.filePath("garbage"), "\x01\x02\x03 nothing here"), root));
    EXPECT_FALSE(P::loadFromData(QByteArray(), root));
    EXPECT_FALSE(P::loadFromData(QByteArray("bplist00").append(40, 'x'), root));
    EXPECT_EQ(root, marker);

    // A root that already holds a tree is replaced by a fresh one, not extended.
    Tree sample = makeSample();
    void* reused = sample.get();
    ASSERT_TRUE(P::loadFromData(P::savaToBinFromByteArray(sample.get()), reused));
    Tree reloaded(reused);
    EXPECT_NE(reused, sample.get());
    EXPECT_EQ(P::toJson(reused), QJsonValue(kSampleJson));

    EXPECT_FALSE(P::saveToXml(dir.filePath("no/such/folder/x.plist"), sample.get()));
    EXPECT_FALSE(P::saveToBin(dir.path(), sample.get()));
    EXPECT_FALSE(P::saveToXml(dir.filePath("null.plist"), nullptr));
    EXPECT_FALSE(QFile::exists(dir.filePath("null.plist")));
}

TEST(PlistUtils, ParserGuardsRefuseHostileListsOnly) {
    // 2^30 nodes when expanded, a reference cycle, 5000 levels of either kind, and a dictionary key
    // with a zero character, on which libplist 2.2 aborts; "." in its place is harmless.
    void* root = nullptr;
    for (const char* name : {"shared-2-to-the-30.bplist", "reference-cycle.bplist", "chain-5000-deep.bplist",
                             "nested-5000-deep.xml", "zero-in-dictionary-key.bplist"})
        EXPECT_FALSE(P::loadFromData(fuzzInput(QString("crashes/plist/") + name), root)) << name;
    ASSERT_TRUE(P::loadFromData(fuzzInput("seeds/plist/dot-in-dictionary-key.bplist"), root));
    plist_free(static_cast<plist_t>(root));

    // Modest sharing and nesting load as they always did.
    ASSERT_TRUE(P::loadFromData(fuzzInput("seeds/plist/shared-2-to-the-3.bplist"), root));
    Tree shared(root);
    const QJsonArray l2({QJsonArray{5, 5}, QJsonArray{5, 5}});
    EXPECT_EQ(P::toJson(root), QJsonValue(QJsonArray{l2, l2}));
    plist_t nested = plist_new_string("bottom");
    for (int i = 0; i < 1200; ++i) {
        plist_t a = plist_new_array();
        plist_array_append_item(a, nested);
        nested = a;
    }
    Tree deep(nested);
    QJsonValue bottom = P::toJson(nested); // a tree built in memory converts to any depth
    for (int i = 0; i < 1200; ++i)
        bottom = bottom.toArray().at(0);
    EXPECT_EQ(bottom, QJsonValue("bottom"));
    void* inner = nested; // 200 deep
    for (int i = 0; i < 1000; ++i)
        inner = plist_array_get_item(static_cast<plist_t>(inner), 0);
    for (const QByteArray& bytes : {P::savaToBinFromByteArray(inner), P::toXml(inner).toUtf8()}) {
        ASSERT_TRUE(P::loadFromData(bytes, root));
        EXPECT_EQ(P::toJson(root), P::toJson(inner));
        plist_free(static_cast<plist_t>(root));
    }
}

TEST(PlistUtils, BinaryWriterEncodingsAndSpeed) {
    // Counts past four bits, wide integers and UIDs, non-ASCII text, shared leaves, dates before 2001.
    plist_t root = plist_new_array();
    for (int i = 0; i < 20; ++i)
        plist_array_append_item(root, plist_new_string("same"));
    for (uint64_t v : {uint64_t(256), uint64_t(70000), uint64_t(1) << 40, uint64_t(-1)})
        plist_array_append_item(root, plist_new_uint(v));
    for (uint64_t v : {uint64_t(300), (uint64_t(1) << 32) + 5})
        plist_array_append_item(root, plist_new_uid(v));
    plist_array_append_item(root, plist_new_string("Zürich, 東京 and 😀"));
    plist_array_append_item(root, plist_new_data(QByteArray(300, 'd').constData(), 300));
    plist_array_append_item(root, plist_new_date(-5, 250000));
    Tree tree(root);
    const QByteArray bytes = P::savaToBinFromByteArray(root);
    EXPECT_LT(bytes.size(), 600); // "same" is stored once
    plist_t parsed = nullptr;
    plist_from_bin(bytes.constData(), uint32_t(bytes.size()), &parsed); // libplist's own reader
    ASSERT_NE(parsed, nullptr);
    Tree reread(parsed);
    EXPECT_EQ(P::toJson(parsed), P::toJson(root));
    EXPECT_EQ(P::getUidValue(plist_array_get_item(parsed, 24)), 300u);
    EXPECT_EQ(P::getUidValue(plist_array_get_item(parsed, 25)), 5u); // UIDs keep 32 bits

    // Past 65536 objects, references take three bytes (bench_plist measures the speed).
    Tree many(plist_new_array());
    for (int i = 0; i < 200000; ++i)
        plist_array_append_item(static_cast<plist_t>(many.get()), plist_new_uint(uint64_t(i) << 20));
    void* loaded = nullptr;
    ASSERT_TRUE(P::loadFromData(P::savaToBinFromByteArray(many.get()), loaded));
    Tree bigTree(loaded);
    EXPECT_EQ(P::getUint64Value(plist_array_get_item(static_cast<plist_t>(loaded), 199999)), 199999ull << 20);
}
