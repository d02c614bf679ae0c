// Media durations: SILK voice notes measured by their frames, other media by the container.
#include "OSUtils.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

namespace {

QStringList g_messages;
void collect(QtMsgType, const QMessageLogContext&, const QString& text) {
    g_messages << text;
}

// Captures the debug lines written while it is alive.
struct MessageCapture {
    QtMessageHandler previous;
    MessageCapture() : previous(qInstallMessageHandler(collect)) { g_messages.clear(); }
    ~MessageCapture() { qInstallMessageHandler(previous); }
};

QString writeFile(const QTemporaryDir& dir, const QString& name, const QByteArray& bytes) {
    const QString path = dir.filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size()) return QString();
    return path;
}

QByteArray silkFrame(int length, quint32 seed) {
    QRandomGenerator gen(seed);
    QByteArray frame;
    frame += char(length & 0xff);
    frame += char(length >> 8);
    for (int i = 0; i < length; ++i)
        frame += char(gen.bounded(256));
    return frame;
}

QByteArray silk(int frames, bool leadByte) {
    QByteArray bytes = leadByte ? QByteArray("\x02#!SILK_V3") : QByteArray("#!SILK_V3");
    for (int i = 0; i < frames; ++i)
        bytes += silkFrame(10 + i % 60, quint32(i));
    return bytes;
}

void put32(QByteArray& b, quint32 v) {
    for (int i = 0; i < 4; ++i)
        b += char((v >> (8 * i)) & 0xff);
}
void put16(QByteArray& b, quint16 v) {
    b += char(v & 0xff);
    b += char(v >> 8);
}

// An 8-bit mono PCM WAV file of the given number of samples: its duration is exact.
QByteArray wav(quint32 sampleRate, quint32 samples) {
    QByteArray b = "RIFF";
    put32(b, 36 + samples);
    b += "WAVEfmt ";
    put32(b, 16);
    put16(b, 1); // PCM
    put16(b, 1); // mono
    put32(b, sampleRate);
    put32(b, sampleRate); // byte rate
    put16(b, 1);          // block align
    put16(b, 8);          // bits per sample
    b += "data";
    put32(b, samples);
    b += QByteArray(int(samples), '\x80');
    return b;
}

} // namespace

TEST(ReadSilk, CountsFramesAfterTheFirstTwo) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "a.slk", silk(52, true))), 1);  // 50 x 20 ms
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "b.slk", silk(52, false))), 1); // plain header
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "c.slk", silk(51, false))), 0); // 980 ms
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "d.slk", silk(10, true))), 0);  // 160 ms
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "e.slk", silk(1502, true))), 30);
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "f.slk", silk(0, true))), 0);
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "g.slk", silk(1, false))), 0);

    // The first byte of the plain header is never looked at.
    QByteArray otherFirst = silk(152, false);
    otherFirst[0] = 'X';
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "h.slk", otherFirst)), 3);

    // Frames of length zero and a last frame cut short still count 20 ms each.
    QByteArray zeros = silk(2, true);
    for (int i = 0; i < 100; ++i)
        zeros += QByteArray(2, '\0');
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "i.slk", zeros)), 2);
    QByteArray cut = silk(52, true) + silkFrame(500, 1).left(40);
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "j.slk", cut)), 1);
    QByteArray huge = silk(51, true) + QByteArray("\xff\xff", 2); // length far beyond the end
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "k.slk", huge)), 1);
}

TEST(ReadSilk, RejectsOtherContent) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    EXPECT_EQ(OSUtils::readSilk(dir.filePath("missing.slk")), 0);
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "empty.slk", QByteArray())), 0);
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "amr.amr", "#!AMR\n" + silkFrame(3000, 5))), 0);
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "short.slk", "\x02#!SILK")), 0);
    // After a 0x02 byte the whole "#!SILK_V3" must follow.
    QByteArray wrongVariant = "\x02!SILK_V3" + silk(100, false).mid(9);
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "v.slk", wrongVariant)), 0);
    EXPECT_EQ(OSUtils::readSilk(writeFile(dir, "v2.slk", "#!SILK_V2" + silk(100, false).mid(9))), 0);
    EXPECT_EQ(OSUtils::readSilk(dir.path()), 0); // a folder
}

TEST(MediaDuration, SilkPathIsChosenByTheFileName) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    MessageCapture capture;
    // Stored under a name without a suffix, as backups do; the name given decides.
    const QString stored = writeFile(dir, "3f2a9c", silk(52 + 3000, true));
    EXPECT_EQ(OSUtils::getMediaDuration("voice.amr", stored, "mm:ss"), "01:01");
    EXPECT_EQ(OSUtils::getMediaDuration("VOICE.SLK", stored, "hh:mm:ss"), "00:01:01");
    EXPECT_EQ(OSUtils::getMediaDuration("x.aud", stored, "m:s"), "1:1");

    // An AMR file without a SILK header: zero, and FFmpeg is not tried (it would log on failure).
    const QString amr = writeFile(dir, "voice.amr", "#!AMR\n" + QByteArray(320, '\x3c'));
    EXPECT_EQ(OSUtils::getMediaDuration("voice.amr", amr, "mm:ss"), "00:00");
    EXPECT_TRUE(g_messages.isEmpty()) << g_messages.join('|').toStdString();
}

TEST(MediaDuration, ContainerDurationRounding) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    MessageCapture capture;
    // At 1000 samples a second each sample is one millisecond.
    EXPECT_EQ(OSUtils::getMediaDuration("a.wav", writeFile(dir, "a.wav", wav(1000, 59996)), "mm:ss"),
              "01:00");
    EXPECT_EQ(OSUtils::getMediaDuration("b.wav", writeFile(dir, "b.wav", wav(1000, 59994)), "mm:ss"),
              "00:59");
    EXPECT_EQ(OSUtils::getMediaDuration("c.wav", writeFile(dir, "c.wav", wav(1000, 59995)), "mm:ss"),
              "01:00");
    EXPECT_EQ(
        OSUtils::getMediaDuration("d.wav", writeFile(dir, "d.wav", wav(8000, 8000 * 3 + 3999)), "hh:mm:ss"),
        "00:00:03");
    // 25 h 1 min 1 s at one sample a second: a time of day wraps past 24 hours.
    const QString longFile = writeFile(dir, "e.wav", wav(1, 90061));
    EXPECT_EQ(OSUtils::getMediaDuration("e.wav", longFile, "hh:mm:ss"), "01:01:01");
    EXPECT_EQ(OSUtils::getMediaDuration("e.wav", longFile, "mm:ss"), "01:01");
    EXPECT_TRUE(g_messages.isEmpty()) << g_messages.join('|').toStdString();
}

TEST(MediaDuration, FailuresGiveTheZeroTime) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    MessageCapture capture;
    const QString missing = dir.filePath("missing.mp4");
    EXPECT_EQ(OSUtils::getMediaDuration("missing.mp4", missing, "mm:ss"), "00:00");
    ASSERT_EQ(g_messages.size(), 1);
    EXPECT_EQ(g_messages.first(), "Open media file failed, filePath:  \"" + missing + "\"");

    // Garbage and cut containers: whatever FFmpeg makes of them, no crash and a valid time.
    QRandomGenerator gen(11);
    QByteArray noise(4096, Qt::Uninitialized);
    for (char& c : noise)
        c = char(gen.bounded(256));
    const QByteArray cutWav = wav(1000, 5000).left(30);
    for (const QByteArray& bytes : {noise, cutWav, QByteArray()}) {
        g_messages.clear();
        const QString path = writeFile(dir, "x.mp4", bytes);
        const QString text = OSUtils::getMediaDuration("x.mp4", path, "hh:mm:ss");
        EXPECT_EQ(text, "00:00:00");
    }
}

#ifndef UTILS_TOOL_PATH
#define UTILS_TOOL_PATH ""
#endif

namespace {
struct ToolRun {
    int exitCode = -1;
    QByteArray out, err;
};
ToolRun runTool(const QStringList& args, const QByteArray& input = QByteArray()) {
    QProcess process;
    process.start(UTILS_TOOL_PATH, args);
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(30000);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            process.readAllStandardOutput(), process.readAllStandardError()};
}
} // namespace

TEST(InspectTool, MediaSubcommands) {
    if (QString(UTILS_TOOL_PATH).isEmpty()) GTEST_SKIP() << "utils-inspect is not built";
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());

    const QString wavPath = writeFile(dir, "a.wav", wav(1000, 61500));
    ToolRun r = runTool({"duration", wavPath, "--format", "mm:ss"});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, "01:01\n"); // 61.5 s: only 5 ms are added before truncating
    const QString stored = writeFile(dir, "blob", silk(152, true));
    r = runTool({"duration", stored, "--name", "voice.slk"});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, "00:00:03\n");
    EXPECT_NE(runTool({"duration", dir.filePath("none.wav")}).exitCode, 0);
    EXPECT_NE(runTool({"duration", writeFile(dir, "bad.slk", "not silk")}).exitCode, 0);

    // gzip and gunzip through pipes and files.
    const QByteArray text = QByteArray("forensic ").repeated(5000);
    r = runTool({"gzip"}, text);
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.startsWith("\x1f\x8b"));
    const QString gzPath = writeFile(dir, "t.gz", r.out);
    const QString outPath = dir.filePath("t.txt");
    r = runTool({"gunzip", gzPath, outPath});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    QFile result(outPath);
    ASSERT_TRUE(result.open(QIODevice::ReadOnly));
    EXPECT_EQ(result.readAll(), text);
    r = runTool({"gunzip"}, QByteArray("not gzip at all"));
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.out.isEmpty());
    EXPECT_NE(runTool({"gunzip", gzPath, gzPath}).exitCode, 0); // never overwrites its input

    // aes: a round trip, and the usage errors.
    const QStringList keys = {"--key", "000102030405060708090a0b0c0d0e0f", "--iv",
                              "0f0e0d0c0b0a09080706050403020100"};
    r = runTool(QStringList{"aes", "encrypt"} + keys, "secret message");
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_EQ(r.out.size(), 16);
    r = runTool(QStringList{"aes", "decrypt"} + keys, r.out);
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, "secret message");
    EXPECT_EQ(runTool({"aes", "encrypt", "--key", "abcd", "--iv", keys[3]}, "x").exitCode, 2);
    EXPECT_EQ(runTool({"aes", "rot13", "--key", keys[1], "--iv", keys[3]}, "x").exitCode, 2);
    EXPECT_NE(runTool(QStringList{"aes", "decrypt"} + keys, "12345").exitCode, 0);
    EXPECT_EQ(runTool({"gzip", "--help"}).exitCode, 0);
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
