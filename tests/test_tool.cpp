// utils-inspect as a whole: the options of every command, and each reading command against the
// reference tool of its format on files made by an independent producer.
#include "TestSupport.h"
#include "ToolRun.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

namespace {

// The command names of utils-inspect --help.
QStringList commandNames() {
    QStringList names;
    static const QRegularExpression entry("^  ([a-z-]+)  ");
    for (const QByteArray& line : runTool({"--help"}).out.split('\n')) {
        const QRegularExpressionMatch m = entry.match(QString::fromUtf8(line));
        if (m.hasMatch()) names << m.captured(1);
    }
    return names;
}

} // namespace

// Each option a command's help lists is one its parser knows, and the other way round.
TEST(Tool, EveryOptionIsDocumentedAndAccepted) {
    SKIP_WITHOUT_TOOL();
    const QStringList names = commandNames();
    ASSERT_GE(names.size(), 20);
    static const QRegularExpression option("^  (--[a-z-]+)( [A-Z.|a-z0-9]+)?  ");
    for (const QString& name : names) {
        const ToolRun help = runTool({name, "--help"});
        ASSERT_EQ(help.code, 0) << name.toStdString();
        QStringList documented, given; // given: as a command line gives it, with a value if it takes one
        for (const QByteArray& line : help.out.split('\n')) {
            const QRegularExpressionMatch m = option.match(QString::fromUtf8(line));
            if (!m.hasMatch()) continue;
            documented << m.captured(1);
            given << m.captured(1) + (m.captured(2).isEmpty() ? "" : "=x");
        }
        // The synopsis names the same options in the same order.
        QStringList inSynopsis;
        QRegularExpressionMatchIterator it =
            QRegularExpression("\\[?(--[a-z-]+)")
                .globalMatch(QString::fromUtf8(help.out.split('\n').first()));
        while (it.hasNext())
            inSynopsis << it.next().captured(1);
        EXPECT_EQ(inSynopsis, documented) << name.toStdString();
        for (const QString& o : given) {
            const ToolRun r = runTool({name, o, "--help"});
            EXPECT_EQ(r.code, 0) << name.toStdString() << " " << o.toStdString() << ": "
                                 << r.err.toStdString();
        }
        const ToolRun bogus = runTool({name, "--bogus", "x"});
        EXPECT_EQ(bogus.code, 2) << name.toStdString();
        EXPECT_TRUE(bogus.err.contains("unknown option --bogus")) << bogus.err.toStdString();
    }
    for (const char* name : {"tables", "rows", "recover", "freelist"})
        EXPECT_TRUE(runTool({name, "--help"}).out.contains("\n  --no-wal ")) << name;
}

// Instants against GNU date, in a zone with daylight saving time.
TEST(Tool, TimestampAgainstDate) {
    SKIP_WITHOUT("date");
    qputenv("TZ", "America/New_York"); // inherited by both
    const struct {
        QStringList args;
        const char* unixSeconds; // the same instant, for date
        const char* unit;
    } cases[] = {
        {{"1600000000"}, "1600000000", "s"},
        {{"1600000000123"}, "1600000000.123", "ms"},
        {{"1600000000123456"}, "1600000000.123456", "us"},
        {{"1600000000123456789"}, "1600000000.123456789", "ns"},
        {{"--", "-1.5"}, "-1.5", "s"},
        {{"1700000000000.25"}, "1700000000.00025", "ms"},
        {{"700000000.5", "--apple"}, "1678307200.5", "s"}, // Core Data
        {{"0", "--apple"}, "978307200", "s"},
    };
    for (const auto& c : cases) {
        const QString what = c.args.join(' ');
        const QList<QByteArray> lines = toolOut(QStringList{"timestamp"} + c.args, 0).split('\n');
        // date's nine digits of fraction, without the zeros at their end (and the point before none)
        const auto trimmed = [](const QByteArray& text) {
            return QString::fromUtf8(text.trimmed())
                .replace(QRegularExpression("(\\.\\d*?)0*( |$)"), "\\1\\2")
                .replace(QRegularExpression("\\.( |$)"), "\\1")
                .toUtf8();
        };
        const QByteArray utc =
            trimmed(programOut("date", {"-u", "-d", QString("@") + c.unixSeconds, "+%FT%T.%N"}));
        QByteArray local = trimmed(programOut("date", {"-d", QString("@") + c.unixSeconds, "+%FT%T.%N %:z"}));
        EXPECT_EQ(lines.value(0), "UTC:   " + utc + "Z") << what.toStdString();
        EXPECT_EQ(lines.value(1), "local: " + local.replace(" ", "")) << what.toStdString();
        const QByteArray json = toolOut(QStringList{"timestamp", "--json"} + c.args, 0);
        EXPECT_TRUE(json.contains("\"unit\": \"" + QByteArray(c.unit) + "\"")) << json.toStdString();
    }
    // The library's reading stays behind --documented; it takes whole numbers only.
    qputenv("TZ", "CST-8");
    EXPECT_EQ(toolOut({"timestamp", "0", "--apple", "--documented"}, 0), "2001-01-01 08:00:00\n");
    toolOut({"timestamp", "1.5", "--documented"}, 1);
    toolOut({"timestamp", "1", "--format", "yyyy"}, 2); // a pattern of the library's reading
    for (const char* bad : {"12abc", "1e5", "99999999999999999999", "1.0000000001"})
        toolOut({"timestamp", bad}, 1);
}

namespace {

// Makes property lists with Python's plistlib (python3 PLISTS make DIR), then checks the tool's
// JSON of each (DIR/NAME.json) against what plistlib wrote and against plistutil's reading of the
// same file (DIR/NAME.ref.xml), which shows dates in whole seconds (python3 PLISTS check DIR).
const char* const kPlists = R"PY(
import base64, datetime, json, plistlib, re, sys
D = datetime.datetime
values = {"zebra": 1, "apple": [True, False, "", "grüße 😀"], "int": [-2**63, 2**63 - 1, 2**53 + 1, -1, 0],
          "uint": [2**63, 2**64 - 1], "real": [0.1, 2.0, -1e300], "dates": [D(1900, 1, 1), D(2200, 6, 1, 12, 30, 15),
          D(1969, 7, 20, 20, 17, 40), D(2001, 1, 1), D(2023, 3, 8, 20, 26, 40, 250000)],
          "data": [b"", b"\x00\x01\xff"], "nested": {"z": {}, "a": [[], {"k": "v"}]}}
binary = dict(values, uid=plistlib.UID(7), big=plistlib.UID(2**32 - 1))
files = {"values.xml": (values, plistlib.FMT_XML), "values.bplist": (binary, plistlib.FMT_BINARY)}
def as_json(v):
    if isinstance(v, dict):
        return {"UID": v["CF$UID"]} if list(v) == ["CF$UID"] else {k: as_json(x) for k, x in v.items()}
    if isinstance(v, plistlib.UID): return {"UID": v.data}
    if isinstance(v, list): return [as_json(x) for x in v]
    if isinstance(v, bytes): return base64.b64encode(v).decode()
    if isinstance(v, D): return v.isoformat(timespec="microseconds").rstrip("0").rstrip(".") + "Z"
    return v
def whole_seconds(v):
    if isinstance(v, dict): return {k: whole_seconds(x) for k, x in v.items()}
    if isinstance(v, list): return [whole_seconds(x) for x in v]
    return re.sub(r"^([0-9-]+T[0-9:]+)[.][0-9]+Z$", r"\1Z", v) if isinstance(v, str) else v
for name, (value, fmt) in files.items():
    path = sys.argv[2] + "/" + name
    if sys.argv[1] == "make":
        open(path, "wb").write(plistlib.dumps(value, fmt=fmt, sort_keys=False))
        continue
    ours = json.load(open(path + ".json"))
    reference = as_json(plistlib.load(open(path + ".ref.xml", "rb")))
    written = as_json(value) if fmt == plistlib.FMT_BINARY else whole_seconds(as_json(value)) # XML: whole seconds
    for what, expected, got in [("plistlib", written, ours), ("plistutil", reference, whole_seconds(ours))]:
        if json.dumps(expected) != json.dumps(got):
            print(name, "differs from", what, json.dumps(expected), json.dumps(got))
)PY";

} // namespace

TEST(Tool, PlistAgainstPlistutil) {
    SKIP_WITHOUT("python3", "plistutil");
    QTemporaryDir dir;
    programOut("python3", {"-c", kPlists, "make", dir.path()});
    for (const char* name : {"values.xml", "values.bplist"}) {
        const QString path = dir.filePath(name);
        writeFile(path + ".json", toolOut({"plist", path}, 0));
        writeFile(path + ".ref.xml", programOut("plistutil", {"-i", path, "-f", "xml"}));
    }
    EXPECT_EQ(programOut("python3", {"-c", kPlists, "check", dir.path()}).toStdString(), "");
    // The library's reading: keys sorted, UIDs null, dates as 2001-based seconds.
    EXPECT_TRUE(
        toolOut({"plist", dir.filePath("values.bplist"), "--documented"}, 0).contains("\"uid\": null"));
}

namespace {

// A keyed archive written with plistlib (python3 ARCHIVE make DIR), and the check of the tool's
// reading of it (python3 ARCHIVE check DIR, against DIR/archive.bplist.json).
const char* const kArchive = R"PY(
import json, plistlib, sys
from plistlib import UID
def cls(name): return {"$classname": name, "$classes": [name, "NSObject"]}
objects = ["$null",
    {"$class": UID(2), "name": UID(3), "when": UID(4), "tags": UID(6), "attrs": UID(8), "blob": UID(10),
     "me": UID(1), "gone": UID(99), "nothing": UID(0), "count": 2**64 - 1},
    cls("Message"), "Anna", {"$class": UID(5), "NS.time": 700000000.5}, cls("NSDate"),
    {"$class": UID(7), "NS.objects": [UID(3), UID(12)]}, cls("NSMutableArray"),
    {"$class": UID(9), "NS.keys": [UID(3), UID(12)], "NS.objects": [UID(11), UID(1)]}, cls("NSMutableDictionary"),
    {"$class": UID(13), "NS.data": b"\x00\x01"}, {"$class": UID(13), "NS.data": b"\xff"},
    {"$class": UID(14), "NS.string": "grüße"}, cls("NSData"), cls("NSMutableString")]
archive = {"$version": 100000, "$archiver": "NSKeyedArchiver", "$top": {"root": UID(1)}, "$objects": objects}
expected = {"root": {"$class": "Message", "name": "Anna", "when": "2023-03-08T20:26:40.5Z", "tags": ["Anna", "grüße"],
    "attrs": {"$class": "NSMutableDictionary", "Anna": "/w==", "grüße": {"$cycle": {"UID": 1}}}, "blob": "AAE=",
    "me": {"$cycle": {"UID": 1}}, "gone": {"UID": 99}, "nothing": None, "count": 2**64 - 1}}
path = sys.argv[2] + "/archive.bplist"
if sys.argv[1] == "make":
    open(path, "wb").write(plistlib.dumps(archive, fmt=plistlib.FMT_BINARY, sort_keys=False))
elif json.dumps(json.load(open(path + ".json"))) != json.dumps(expected):
    print(open(path + ".json").read())
)PY";

} // namespace

TEST(Tool, ArchiveResolvesToPlainValues) {
    SKIP_WITHOUT("python3");
    QTemporaryDir dir;
    programOut("python3", {"-c", kArchive, "make", dir.path()});
    const QString path = dir.filePath("archive.bplist");
    writeFile(path + ".json", toolOut({"archive", path}, 0));
    EXPECT_EQ(programOut("python3", {"-c", kArchive, "check", dir.path()}).toStdString(), "");
    // --root leaves the references as they are; the library's reading resolves them into copies.
    EXPECT_TRUE(toolOut({"archive", path, "--root"}, 0)
                    .contains("\"$top\": {\n        \"root\": {\n            \"UID\": 1\n"));
    EXPECT_TRUE(toolOut({"archive", path, "--documented"}, 0).contains("\"nothing\": \"$null\""));
    // Any other property list is no archive.
    const ToolRun plain = runTool({"archive", writeFile(dir, "plain.xml", "<plist><dict/></plist>")});
    EXPECT_EQ(plain.code, 1);
    EXPECT_TRUE(plain.err.contains("not a keyed archive")) << plain.err.toStdString();
}

// A message encoded by protoc from a schema and a text message, read without the schema.
TEST(Tool, ProtobufAgainstProtocDecodeRaw) {
    SKIP_WITHOUT("protoc");
    QTemporaryDir dir;
    writeFile(dir, "m.proto",
              "syntax = 'proto2'; message Inner { optional int32 id = 1; optional string name = 2; }\n"
              "message M { optional uint64 big = 1; optional int32 negative = 2; optional sint64 zz = 3;\n"
              "  optional fixed32 f32 = 4; optional sfixed64 f64 = 5; optional string text = 6;\n"
              "  optional bytes raw = 7; repeated Inner inner = 8; optional double real = 9;\n"
              "  optional group G = 10 { optional int32 x = 11; } optional int64 large = 12; }\n");
    const QString path = writeFile(
        dir, "m.pb",
        programOut("protoc", {"--encode=M", "-I", dir.path(), dir.filePath("m.proto")},
                   "big: 18446744073709551615 negative: -5 zz: -3 f32: 4294967295 f64: -2 text: 'grüße' "
                   "raw: '\\377\\000\\001' inner { id: 1 name: 'a' } inner { id: 2 } real: 2.5 G { x: 7 } "
                   "large: 1099511627776"));
    EXPECT_EQ(toolOut({"protobuf", path}, 0), programOut("protoc", {"--decode_raw"}, readFile(path)));
    const QByteArray json = toolOut({"protobuf", path, "--json"}, 0);
    for (const char* part : {"\"varint\": 18446744073709551615", "\"hex\": \"ff0001\"", "\"text\": \"grüße\"",
                             "\"group\": [\n            {\n                \"field\": 11,\n"})
        EXPECT_TRUE(json.contains(part)) << part << "\n" << json.toStdString();
    const std::pair<QStringList, QByteArray> lookups[] = {
        {{"1"}, "18446744073709551615"},
        {{"1", "--as", "int"}, "-1"}, // an int32 of -1 is sign-extended to 64 bits
        {{"2"}, "18446744073709551611"},
        {{"2", "--as", "int"}, "-5"},
        {{"3"}, "5"},
        {{"4", "--as", "int"}, "-1"},
        {{"5", "--as", "int64"}, "-2"},
        {{"6"}, "grüße"},
        {{"7"}, "ff0001"},
        {{"8.2"}, "a"},
        {{"8.1"}, "1"},
        {{"10.11"}, "7"},
    };
    for (const auto& [args, value] : lookups)
        EXPECT_EQ(toolOut(QStringList{"protobuf", path} + args, 0), value + "\n")
            << args.join(' ').toStdString();
    for (const char* wrong : {"6.1", "1.1", "99", "8.3"})
        toolOut({"protobuf", path, wrong}, 1);
    toolOut({"protobuf", path, "12", "--as", "int"}, 1); // 2^40 does not fit
    toolOut({"protobuf", path, "1.x"}, 2);
    // The library's lookup: the low 32 bits, and a path through a number stays at its level.
    EXPECT_EQ(toolOut({"protobuf", path, "12", "--as", "int", "--documented"}, 0), "0\n");
    EXPECT_EQ(toolOut({"protobuf", path, "1.2", "--documented"}, 0), "18446744073709551611\n");
}

namespace {

// Media made by ffmpeg once for the suite, read by the tool and by the reference tools.
class MediaFromFfmpeg : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!toolBuilt() || !havePrograms({"ffmpeg", "ffprobe", "file"})) return;
        dir = new QTemporaryDir;
        const QStringList video = {"-f",   "lavfi", "-i", "testsrc=duration=2.345:size=32x32:rate=25",
                                   "-c:v", "mpeg4"};
        const std::pair<const char*, QStringList> made[] = {
            {"photo.jpg", {"-f", "lavfi", "-i", "color=c=red:s=16x16", "-frames:v", "1"}},
            {"clip.mp4",
             video + QStringList{"-f", "lavfi", "-i", "sine=duration=1.5", "-c:a", "aac", "-shortest"}},
            {"clip.mov", video},
            {"tone.m4a", {"-f", "lavfi", "-i", "sine=duration=3.21"}},
        };
        for (const auto& [name, args] : made)
            programOut("ffmpeg", QStringList{"-v", "error", "-y"} + args + QStringList{dir->filePath(name)});
    }
    static void TearDownTestSuite() { delete dir; }
    void SetUp() override {
        if (!dir) GTEST_SKIP() << "needs utils-inspect, ffmpeg, ffprobe and file";
    }
    static QString path(const char* name) { return dir->filePath(name); }
    static QTemporaryDir* dir;
};
QTemporaryDir* MediaFromFfmpeg::dir = nullptr;

} // namespace

TEST_F(MediaFromFfmpeg, ClassifyReadsTheContentAsFileDoes) {
    const QStringList names = {"photo.jpg", "clip.mp4", "clip.mov", "tone.m4a"};
    QStringList paths;
    for (const QString& name : names)
        paths << dir->filePath(name);
    const QJsonArray results =
        QJsonDocument::fromJson(toolOut(QStringList{"classify", "--json"} + paths, 0)).array();
    ASSERT_EQ(results.size(), paths.size());
    for (int i = 0; i < paths.size(); ++i) {
        const QJsonObject o = results.at(i).toObject();
        EXPECT_EQ(o.value("mime").toString().toUtf8(),
                  programOut("file", {"-b", "--mime-type", paths[i]}).trimmed());
        EXPECT_EQ(o.value("description").toString().toUtf8(), programOut("file", {"-b", paths[i]}).trimmed());
        EXPECT_FALSE(o.value("pictureHeader").toBool() ||
                     o.value("videoHeader").toBool()); // the library's sniff
    }
    // A file that cannot be read is an error; the others are still listed.
    const ToolRun r = runTool({"classify", dir->filePath("missing.jpg"), paths[0]});
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(r.out.contains("content: image/jpeg, JPEG image data")) << r.out.toStdString();
}

TEST_F(MediaFromFfmpeg, DurationToTheMillisecondAsFfprobeReadsIt) {
    for (const char* name : {"clip.mp4", "clip.mov", "tone.m4a"}) {
        // ffprobe gives seconds with six decimals: the microseconds FFmpeg holds.
        const QByteArray seconds = programOut(
            "ffprobe", {"-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", path(name)});
        const qint64 us = QByteArray(seconds.trimmed()).replace(".", "").toLongLong();
        ASSERT_GT(us, 1000000) << name;
        const qint64 ms = (us + 500) / 1000;
        EXPECT_EQ(toolOut({"duration", path(name)}, 0), QString("00:00:%1.%2 (%3 ms)\n")
                                                            .arg(ms / 1000, 2, 10, QChar('0'))
                                                            .arg(ms % 1000, 3, 10, QChar('0'))
                                                            .arg(ms)
                                                            .toUtf8())
            << name;
        EXPECT_TRUE(toolOut({"duration", path(name), "--json"}, 0)
                        .contains("\"milliseconds\": " + QByteArray::number(ms)));
        EXPECT_EQ(toolOut({"duration", path(name), "--documented"}, 0),
                  QString("00:00:%1\n").arg((us + 5000) / 1000000, 2, 10, QChar('0')).toUtf8());
    }
    // A voice note: every frame counts 20 ms; the library leaves the first two out, in whole seconds.
    const QString voice = writeFile(*dir, "voice.slk", silkNote(64, true));
    EXPECT_EQ(toolOut({"duration", voice}, 0), "00:00:01.280 (1280 ms)\n");
    EXPECT_EQ(toolOut({"duration", voice, "--documented", "--format", "mm:ss"}, 0), "00:01\n");
    toolOut({"duration", writeFile(*dir, "notes.txt", "no media")}, 1);
}

// What a command cannot read is refused with one line and exit 1, and no output is written over.
TEST(Tool, BadInputIsRefused) {
    SKIP_WITHOUT("python3");
    QTemporaryDir dir;
    const QByteArray entry = QByteArray::fromHex("01046e616d650504416e6e61"); // name = "Anna"
    const QByteArray header("mbdb\5\0", 6);
    const QByteArray record = QByteArray::fromHex("000a486f6d65446f6d61696e0005612e747874ffffffffffff81a4") +
                              QByteArray(37, '\1') +
                              QByteArray(1, '\0'); // 65 bytes, no properties // no properties
    const QString gz = writeFile(dir, "t.gz", deflated("evidence", 31));
    const QString db = dir.filePath("Manifest.db");
    programOut("python3",
               {"-c",
                "import sqlite3, sys; c = sqlite3.connect(sys.argv[1]); c.execute('CREATE TABLE Files "
                "(fileID TEXT, file BLOB)'); c.execute(\"INSERT INTO Files VALUES ('abc', x'0102')\"); "
                "c.commit()",
                db});
    const QString existing = writeFile(dir, "existing", "keep");
    const struct {
        QStringList args;
        const char* message;
    } refused[] = {
        {{"mmkv", writeFile(dir, "random", randomBytes(300, 7))}, "runs past the end of the file"},
        {{"mmkv", writeFile(dir, "past", QByteArray::fromHex("0d000000") + entry)}, "runs past the end"},
        {{"mmkv", writeFile(dir, "empty.mmkv", QByteArray::fromHex("0400000000000000"))}, "no entry"},
        {{"gunzip", writeFile(dir, "empty.gz", "")}, "empty"},
        {{"gunzip", writeFile(dir, "cut.gz", readFile(gz).left(12))}, "not a complete gzip stream"},
        {{"mbdb", writeFile(dir, "cut.mbdb", header + record + record.left(30))},
         "cut short in a record at offset 71, after 1 whole records"},
        {{"mbdb", writeFile(dir, "header.mbdb", "mbdb")}, "cut short in the header"},
        {{"manifest", db, "abc", "--out", existing}, "exists (--force overwrites it)"},
        {{"gunzip", gz, existing}, "exists"},
    };
    for (const auto& r : refused) {
        const ToolRun run = runTool(r.args);
        EXPECT_EQ(run.code, 1) << r.args.join(' ').toStdString();
        EXPECT_TRUE(run.err.contains(r.message) && run.err.count('\n') == 1) << run.err.toStdString();
        EXPECT_TRUE(run.out.isEmpty()) << run.out.toStdString();
    }
    EXPECT_EQ(readFile(existing), "keep");
    // Whole input is read, and --force writes over an output; --documented shows the library's reading.
    EXPECT_TRUE(toolOut({"mmkv", writeFile(dir, "ok.mmkv", QByteArray::fromHex("0c000000") + entry)}, 0)
                    .contains("Anna"));
    EXPECT_EQ(toolOut({"mbdb", writeFile(dir, "ok.mbdb", header + record)}, 0).count('\n'), 1);
    EXPECT_TRUE(
        toolOut({"mbdb", dir.filePath("cut.mbdb"), "--documented"}, 0).contains("1970-01-01T00:00:00Z"));
    EXPECT_TRUE(toolOut({"mmkv", dir.filePath("past"), "--documented"}, 0).contains("Anna"));
    toolOut({"manifest", db, "abc", "--out", existing, "--force"}, 0);
    EXPECT_EQ(readFile(existing), "\1\2");
}
