// Property-list utilities: loading and saving both formats, typed access, JSON conversion,
// iteration, and the parser guards against hostile binary lists.
#include "PlistUtils.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtEndian>

#include <functional>
#include <memory>

void PrintTo(const QJsonValue& value, std::ostream* os) {
    *os << QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact).toStdString();
}

namespace {

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Tree = std::unique_ptr<void, PlistDeleter>;

// A dictionary with one node of every type.
Tree makeSample() {
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "bool", plist_new_bool(1));
    plist_dict_set_item(dict, "int", plist_new_uint(uint64_t(-7)));
    plist_dict_set_item(dict, "real", plist_new_real(2.25));
    plist_dict_set_item(dict, "text", plist_new_string("grüße"));
    plist_dict_set_item(dict, "date", plist_new_date(60, 500000));
    plist_dict_set_item(dict, "data", plist_new_data("\x00\x01", 2));
    plist_dict_set_item(dict, "uid", plist_new_uid(5));
    plist_t array = plist_new_array();
    plist_array_append_item(array, plist_new_uint(1));
    plist_array_append_item(array, plist_new_string("two"));
    plist_array_append_item(array, plist_new_dict());
    plist_dict_set_item(dict, "array", array);
    return Tree(dict);
}

QByteArray readFile(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

QByteArray toBin(void* node) {
    char* out = nullptr;
    uint32_t length = 0;
    plist_to_bin(static_cast<plist_t>(node), &out, &length);
    QByteArray bytes(out, int(length));
    free(out);
    return bytes;
}

QByteArray toXmlBytes(void* node) {
    char* out = nullptr;
    uint32_t length = 0;
    plist_to_xml(static_cast<plist_t>(node), &out, &length);
    QByteArray bytes(out, int(length));
    free(out);
    return bytes;
}

// A binary list built by hand: objects in order, one-byte offsets are not enough for big
// lists, so offsets and references are four bytes wide.
QByteArray binaryList(const QList<QByteArray>& objects, quint64 top = 0) {
    QByteArray out("bplist00");
    QList<quint32> offsets;
    for (const QByteArray& o : objects) {
        offsets << quint32(out.size());
        out += o;
    }
    const quint64 table = quint64(out.size());
    for (quint32 off : offsets) {
        uchar be[4];
        qToBigEndian(off, be);
        out.append(reinterpret_cast<const char*>(be), 4);
    }
    out += QByteArray(6, '\0');
    out += char(4);
    out += char(4);
    uchar be[8];
    for (quint64 v : {quint64(objects.size()), top, table}) {
        qToBigEndian(v, be);
        out.append(reinterpret_cast<const char*>(be), 8);
    }
    return out;
}

QByteArray arrayOf(const QList<quint32>& refs) {
    QByteArray o(1, char(0xA0 | refs.size()));
    for (quint32 r : refs) {
        uchar be[4];
        qToBigEndian(r, be);
        o.append(reinterpret_cast<const char*>(be), 4);
    }
    return o;
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

QStringList g_debug;
void collect(QtMsgType, const QMessageLogContext&, const QString& message) {
    g_debug << message;
}

} // namespace

TEST(PlistUtils, RoundTripsEveryNodeTypeThroughBothFormats) {
    Tree sample = makeSample();
    QTemporaryDir dir;
    const QString xmlPath = dir.filePath("s.xml");
    const QString binPath = dir.filePath("s.plist");
    ASSERT_TRUE(PlistUtils::saveToXml(xmlPath, sample.get()));
    ASSERT_TRUE(PlistUtils::saveToBin(binPath, sample.get()));
    EXPECT_TRUE(readFile(xmlPath).startsWith("<?xml"));
    EXPECT_TRUE(readFile(binPath).startsWith("bplist00"));
    EXPECT_EQ(PlistUtils::savaToBinFromByteArray(sample.get()).left(8), QByteArray("bplist00"));
    EXPECT_EQ(PlistUtils::savaToBinFromByteArray(nullptr), QByteArray());

    for (const QString& path : {xmlPath, binPath}) {
        SCOPED_TRACE(path.toStdString());
        void* root = nullptr;
        ASSERT_TRUE(PlistUtils::loadFromFile(path, root));
        Tree loaded(root);
        EXPECT_TRUE(PlistUtils::getBoolValue(root, "bool"));
        EXPECT_EQ(PlistUtils::getUint64Value(root, "int"), uint64_t(-7));
        EXPECT_DOUBLE_EQ(PlistUtils::getRealValue(PlistUtils::getNode(root, "real")), 2.25);
        EXPECT_EQ(PlistUtils::getQStringValue(root, "text"), QString("grüße"));
        EXPECT_EQ(PlistUtils::getByteArrayValue(root, "data"), QByteArray("\x00\x01", 2));
        // XML writes a UID as a dictionary {CF$UID: n}; it is read back as a UID.
        EXPECT_EQ(PlistUtils::getUidValue(PlistUtils::getNode(root, "uid")), 5u);
        // XML keeps whole seconds only.
        const double seconds = path == binPath ? 60.5 : 60.0;
        EXPECT_DOUBLE_EQ(PlistUtils::getDateValue(PlistUtils::getNode(root, "date")), seconds);
        if (path == binPath) {
            EXPECT_EQ(PlistUtils::toJson(root), PlistUtils::toJson(sample.get()));
        }
    }
    EXPECT_TRUE(PlistUtils::toXml(sample.get()).contains("<key>text</key>"));
    EXPECT_EQ(PlistUtils::toXml(nullptr), QString());
}

TEST(PlistUtils, BinaryWriterEncodingsAndSpeed) {
    // Lengths past the 4-bit count, non-ASCII text, wide integers and UIDs, shared leaves.
    plist_t root = plist_new_array();
    for (int i = 0; i < 20; ++i)
        plist_array_append_item(root, plist_new_string("same"));
    for (uint64_t v : {uint64_t(255), uint64_t(256), uint64_t(70000), uint64_t(1) << 40, uint64_t(-1)})
        plist_array_append_item(root, plist_new_uint(v));
    for (uint64_t v : {uint64_t(0), uint64_t(300), uint64_t(70000), (uint64_t(1) << 32) + 5})
        plist_array_append_item(root, plist_new_uid(v));
    plist_array_append_item(root, plist_new_string("Zürich, 東京 and 😀 in one string"));
    plist_array_append_item(root, plist_new_data(QByteArray(300, 'd').constData(), 300));
    plist_array_append_item(root, plist_new_date(-5, 250000));
    plist_array_append_item(root, plist_new_real(-0.1));
    Tree tree(root);
    const QByteArray bytes = PlistUtils::savaToBinFromByteArray(root);
    plist_t parsed = nullptr;
    plist_from_bin(bytes.constData(), uint32_t(bytes.size()), &parsed); // the library's own reader
    ASSERT_NE(parsed, nullptr);
    Tree reread(parsed);
    EXPECT_EQ(PlistUtils::toJson(parsed), PlistUtils::toJson(root));
    for (uint32_t i = 25; i < 29; ++i) // UIDs keep 32 bits
        EXPECT_EQ(PlistUtils::getUidValue(plist_array_get_item(parsed, i)),
                  PlistUtils::getUidValue(plist_array_get_item(root, i)) & 0xFFFFFFFFu);
    EXPECT_EQ(PlistUtils::getDateValue(plist_array_get_item(parsed, 31)),
              PlistUtils::getDateValue(plist_array_get_item(root, 31)));
    EXPECT_LT(bytes.size(), 800); // "same" is stored once

    // Many containers: the writer stays linear.
    Tree many(plist_new_array());
    for (int i = 0; i < 200000; ++i) {
        plist_t d = plist_new_dict();
        plist_dict_set_item(d, "n", plist_new_uint(uint64_t(i)));
        plist_array_append_item(static_cast<plist_t>(many.get()), d);
    }
    QElapsedTimer timer;
    timer.start();
    const QByteArray big = PlistUtils::savaToBinFromByteArray(many.get());
    EXPECT_LT(timer.elapsed(), 5000);
    void* loaded = nullptr;
    ASSERT_TRUE(PlistUtils::loadFromData(big, loaded));
    Tree bigTree(loaded);
    EXPECT_EQ(plist_array_get_size(static_cast<plist_t>(loaded)), 200000u);
    EXPECT_EQ(PlistUtils::getUint64Value(plist_array_get_item(static_cast<plist_t>(loaded), 199999), "n"),
              199999u);
}

TEST(PlistUtils, GettersReturnNeutralValuesForAbsentOrMistypedNodes) {
    Tree sample = makeSample();
    void* d = sample.get();
    EXPECT_EQ(PlistUtils::getNode(d, "missing"), nullptr);
    EXPECT_EQ(PlistUtils::getNode(PlistUtils::getNode(d, "array"), "x"), nullptr);
    EXPECT_EQ(PlistUtils::getNode(nullptr, "x"), nullptr);
    EXPECT_TRUE(PlistUtils::getQStringValue(d, "missing").isEmpty());
    EXPECT_TRUE(PlistUtils::getQStringValue(d, "int").isEmpty());
    EXPECT_FALSE(PlistUtils::getBoolValue(d, "text"));
    EXPECT_FALSE(PlistUtils::getBoolValue(nullptr));
    EXPECT_EQ(PlistUtils::getUint64Value(d, "real"), 0u);
    EXPECT_EQ(PlistUtils::getRealValue(PlistUtils::getNode(d, "int")), 0.0);
    EXPECT_TRUE(PlistUtils::getByteArrayValue(d, "text").isEmpty());
    EXPECT_EQ(PlistUtils::getDateValue(PlistUtils::getNode(d, "real")), 0.0);
    EXPECT_EQ(PlistUtils::getUidValue(PlistUtils::getNode(d, "int")), 0u);
    EXPECT_TRUE(PlistUtils::getKey(PlistUtils::getNode(d, "text")).isNull());

    plist_t key = plist_new_string("name");
    plist_set_key_val(key, "name");
    EXPECT_EQ(PlistUtils::getKey(key), QString("name"));
    EXPECT_EQ(PlistUtils::toJson(key), QJsonValue("name"));
    plist_free(key);
}

TEST(PlistUtils, SettersChangeOnlyExistingNodesOfTheirType) {
    Tree sample = makeSample();
    void* d = sample.get();
    const QJsonValue before = PlistUtils::toJson(d);
    PlistUtils::setQStringValue(d, "missing", "x");
    PlistUtils::setBoolValue(d, "missing", true);
    PlistUtils::setQStringValue(d, "int", "x");
    PlistUtils::setBoolValue(d, "text", false);
    EXPECT_EQ(PlistUtils::toJson(d), before);

    PlistUtils::setQStringValue(d, "text", "neu ✓");
    PlistUtils::setBoolValue(d, "bool", false);
    EXPECT_EQ(PlistUtils::getQStringValue(d, "text"), QString("neu ✓"));
    EXPECT_FALSE(PlistUtils::getBoolValue(d, "bool"));
    EXPECT_EQ(plist_dict_get_size(static_cast<plist_t>(d)), 8u);
}

TEST(PlistUtils, SetDateValueConvertsFromUnixTimeAndAlwaysWrites) {
    Tree sample = makeSample();
    void* d = sample.get();
    g_debug.clear();
    const QtMessageHandler previous = qInstallMessageHandler(collect);
    PlistUtils::setDateValue(d, "text", 978307200L); // replaces the string
    PlistUtils::setDateValue(d, "new", 978307260L);
    PlistUtils::setDateValue(d, "wrapped", 0x100000000L + 978307200L); // low 32 bits only
    PlistUtils::setDateValue(d, "epoch", 0L);
    qInstallMessageHandler(previous);

    EXPECT_EQ(g_debug, QStringList({"now 978307200", "now 978307260", "now 978307200", "now 0"}));
    void* text = PlistUtils::getNode(d, "text");
    EXPECT_EQ(plist_get_node_type(static_cast<plist_t>(text)), PLIST_DATE);
    EXPECT_EQ(PlistUtils::getDateValue(text), 0.0);
    EXPECT_EQ(PlistUtils::toJson(d).toObject().value("text"), QJsonValue(0.0));
    EXPECT_EQ(PlistUtils::getDateValue(PlistUtils::getNode(d, "new")), 60.0);
    EXPECT_EQ(PlistUtils::getDateValue(PlistUtils::getNode(d, "wrapped")), 0.0);

    // Before 2001 the count is negative.
    EXPECT_EQ(PlistUtils::getDateValue(PlistUtils::getNode(d, "epoch")), -978307200.0);
}

TEST(PlistUtils, ToJsonMapsEveryNodeType) {
    Tree sample = makeSample();
    const QJsonObject o = PlistUtils::toJson(sample.get()).toObject();
    EXPECT_EQ(o.value("bool"), QJsonValue(true));
    EXPECT_EQ(o.value("int"), QJsonValue(qint64(-7))); // unsigned read as signed
    EXPECT_EQ(o.value("real"), QJsonValue(2.25));
    EXPECT_EQ(o.value("text"), QJsonValue("grüße"));
    EXPECT_EQ(o.value("date"), QJsonValue(60.5)); // 2001-based, not Unix time
    EXPECT_EQ(o.value("data"), QJsonValue("AAE="));
    EXPECT_TRUE(o.contains("uid"));
    EXPECT_TRUE(o.value("uid").isNull());
    EXPECT_EQ(o.value("array"), QJsonValue(QJsonArray({1, "two", QJsonObject()})));
    EXPECT_EQ(o.size(), 8);

    EXPECT_TRUE(PlistUtils::toJson(nullptr).isUndefined());
    Tree empty(plist_new_array());
    EXPECT_EQ(PlistUtils::toJson(empty.get()), QJsonValue(QJsonArray()));
    Tree bytes(plist_new_data("", 0));
    EXPECT_EQ(PlistUtils::toJson(bytes.get()), QJsonValue(""));
}

TEST(PlistUtils, IterationVisitsInOrderAndThrowsOnEmptyCallback) {
    Tree sample = makeSample();
    void* d = sample.get();
    QStringList keys;
    PlistUtils::foreachDict(d, [&](const char* key, void* value) {
        keys << QString::fromUtf8(key);
        EXPECT_NE(value, nullptr);
    });
    EXPECT_EQ(keys.size(), 8);
    EXPECT_TRUE(keys.contains("array") && keys.contains("uid"));

    QJsonArray items;
    PlistUtils::foreachArray(PlistUtils::getNode(d, "array"),
                             [&](void* item) { items.append(PlistUtils::toJson(item)); });
    EXPECT_EQ(items, QJsonArray({1, "two", QJsonObject()}));

    int calls = 0;
    PlistUtils::foreachDict(PlistUtils::getNode(d, "array"), [&](const char*, void*) { ++calls; });
    PlistUtils::foreachArray(d, [&](void*) { ++calls; });
    PlistUtils::foreachArray(nullptr, [&](void*) { ++calls; });
    EXPECT_EQ(calls, 0);

    EXPECT_THROW(PlistUtils::foreachDict(d, nullptr), std::bad_function_call);
    EXPECT_THROW(PlistUtils::foreachArray(PlistUtils::getNode(d, "array"), nullptr), std::bad_function_call);
    Tree empty(plist_new_array());
    EXPECT_NO_THROW(PlistUtils::foreachArray(empty.get(), nullptr)); // nothing to deliver
}

TEST(PlistUtils, FailedLoadsAndSavesLeaveEverythingUntouched) {
    QTemporaryDir dir;
    void* root = reinterpret_cast<void*>(0x1);
    EXPECT_FALSE(PlistUtils::loadFromFile(dir.filePath("missing.plist"), root));
    EXPECT_EQ(root, reinterpret_cast<void*>(0x1));
    EXPECT_FALSE(PlistUtils::loadFromData(QByteArray("not a property list"), root));
    EXPECT_FALSE(PlistUtils::loadFromData(QByteArray(), root));
    EXPECT_FALSE(
        PlistUtils::loadFromData(QByteArray("bplist00garbage-garbage-garbage-garbage-garbage"), root));
    EXPECT_EQ(root, reinterpret_cast<void*>(0x1));

    QFile garbage(dir.filePath("garbage.plist"));
    ASSERT_TRUE(garbage.open(QIODevice::WriteOnly));
    garbage.write("\x01\x02\x03 nothing here");
    garbage.close();
    EXPECT_FALSE(PlistUtils::loadFromFile(garbage.fileName(), root));
    EXPECT_EQ(root, reinterpret_cast<void*>(0x1));

    // A root that already holds a tree is replaced, not extended; the old tree stays valid.
    Tree sample = makeSample();
    void* reused = sample.get();
    ASSERT_TRUE(PlistUtils::loadFromData(toBin(sample.get()), reused));
    Tree reloaded(reused);
    EXPECT_NE(reused, sample.get());
    EXPECT_EQ(PlistUtils::toJson(reused), PlistUtils::toJson(sample.get()));

    const QJsonValue before = PlistUtils::toJson(sample.get());
    EXPECT_FALSE(PlistUtils::saveToXml(dir.filePath("no/such/folder/x.plist"), sample.get()));
    EXPECT_FALSE(PlistUtils::saveToBin(dir.path(), sample.get()));
    EXPECT_FALSE(PlistUtils::saveToXml(dir.filePath("null.plist"), nullptr));
    EXPECT_FALSE(QFile::exists(dir.filePath("null.plist")));
    EXPECT_EQ(PlistUtils::toJson(sample.get()), before);

    // Saving over a longer file truncates it.
    const QString path = dir.filePath("over.plist");
    QFile big(path);
    ASSERT_TRUE(big.open(QIODevice::WriteOnly));
    big.write(QByteArray(100000, 'x'));
    big.close();
    ASSERT_TRUE(PlistUtils::saveToBin(path, sample.get()));
    EXPECT_EQ(readFile(path), PlistUtils::savaToBinFromByteArray(sample.get()));
}

TEST(PlistUtils, ParserGuardsRefuseHostileListsButKeepSharedLeaves) {
    // Thirty arrays, each referring twice to the next: 2^30 nodes once expanded.
    QList<QByteArray> objects;
    for (quint32 i = 0; i < 30; ++i)
        objects << arrayOf({i + 1, i + 1});
    objects << QByteArray("\x10\x05", 2);
    QElapsedTimer timer;
    timer.start();
    void* root = nullptr;
    EXPECT_FALSE(PlistUtils::loadFromData(binaryList(objects), root));
    EXPECT_LT(timer.elapsed(), 2000);

    // A modest amount of sharing is accepted and expanded as the parser always did.
    objects = {};
    for (quint32 i = 0; i < 4; ++i)
        objects << arrayOf({i + 1, i + 1});
    objects << QByteArray("\x10\x05", 2);
    ASSERT_TRUE(PlistUtils::loadFromData(binaryList(objects), root));
    Tree shared(root);
    const QJsonArray leaf({5, 5});
    const QJsonArray l3({leaf, leaf}), l2({l3, l3}), l1({l2, l2});
    EXPECT_EQ(PlistUtils::toJson(root), QJsonValue(l1));

    // A reference cycle, and nesting beyond any real list, in both formats.
    EXPECT_FALSE(PlistUtils::loadFromData(binaryList({arrayOf({0})}), root));
    objects = {};
    for (quint32 i = 0; i < 5000; ++i)
        objects << arrayOf({i + 1});
    objects << QByteArray("\x10\x05", 2);
    EXPECT_FALSE(PlistUtils::loadFromData(binaryList(objects), root));
    const QByteArray deepXml = "<?xml version=\"1.0\"?><plist version=\"1.0\">" +
                               QByteArray("<array>").repeated(5000) + QByteArray("</array>").repeated(5000) +
                               "</plist>";
    EXPECT_FALSE(PlistUtils::loadFromData(deepXml, root));

    // Many references to one leaf, and moderate nesting, load normally.
    Tree wide(plist_new_array());
    for (int i = 0; i < 20000; ++i)
        plist_array_append_item(static_cast<plist_t>(wide.get()), plist_new_bool(1));
    ASSERT_TRUE(PlistUtils::loadFromData(toBin(wide.get()), root));
    EXPECT_EQ(plist_array_get_size(static_cast<plist_t>(root)), 20000u);
    plist_free(static_cast<plist_t>(root));

    plist_t nested = plist_new_string("bottom");
    for (int i = 0; i < 200; ++i) {
        plist_t a = plist_new_array();
        plist_array_append_item(a, nested);
        nested = a;
    }
    Tree deep(nested);
    for (const QByteArray& bytes : {toBin(deep.get()), toXmlBytes(deep.get())}) {
        ASSERT_TRUE(PlistUtils::loadFromData(bytes, root));
        EXPECT_EQ(PlistUtils::toJson(root), PlistUtils::toJson(deep.get()));
        plist_free(static_cast<plist_t>(root));
    }
}

TEST(PlistUtils, InspectToolPrintsListsAsJson) {
    if (QString(UTILS_TOOL_PATH).isEmpty()) GTEST_SKIP() << "utils-inspect not built";
    QTemporaryDir dir;
    Tree sample = makeSample();
    const QString bin = dir.filePath("s.plist");
    const QString xml = dir.filePath("s.xml");
    ASSERT_TRUE(PlistUtils::saveToBin(bin, sample.get()));
    ASSERT_TRUE(PlistUtils::saveToXml(xml, sample.get()));
    const QByteArray original = readFile(bin);

    ToolRun run = runTool({"plist", bin});
    ASSERT_EQ(run.code, 0) << run.err.toStdString();
    EXPECT_EQ(QJsonValue(QJsonDocument::fromJson(run.out).object()), PlistUtils::toJson(sample.get()));
    EXPECT_EQ(readFile(bin), original); // the examined file is only read
    run = runTool({"plist", xml});
    ASSERT_EQ(run.code, 0);
    EXPECT_EQ(QJsonDocument::fromJson(run.out).object().value("text"), QJsonValue("grüße"));

    QFile garbage(dir.filePath("garbage"));
    ASSERT_TRUE(garbage.open(QIODevice::WriteOnly));
    garbage.write("<plist><dict><key>a</key>");
    garbage.close();
    for (const QString& path : {garbage.fileName(), dir.filePath("missing"), dir.path()}) {
        run = runTool({"plist", path});
        EXPECT_EQ(run.code, 1);
        EXPECT_TRUE(run.out.isEmpty());
        EXPECT_EQ(run.err.count('\n'), 1) << run.err.toStdString();
    }
    EXPECT_EQ(runTool({"plist"}).code, 2);
    EXPECT_EQ(runTool({"plist", "--help"}).code, 0);
}
