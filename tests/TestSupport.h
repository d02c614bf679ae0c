// Small helpers shared by the test suites: files in temporary folders and the library's log.
#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>
#include <QVector>
#include <QtGlobal>

#include <gtest/gtest.h>
#include <plist/plist.h>
#include <zlib.h>

#include <atomic>
#include <functional>
#include <initializer_list>
#include <thread>
#include <vector>

inline QByteArray readFile(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// A file kept with the fuzz targets, such as "crashes/plist/reference-cycle.bplist".
inline QByteArray fuzzInput(const QString& name) {
    return readFile(QString(UTILS_SOURCE_DIR) + "/fuzz/" + name);
}

// Writes bytes to path (replacing it, making its folders) and returns path.
inline QString writeFile(const QString& path, const QByteArray& bytes) {
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    EXPECT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size())
        << qPrintable(path);
    return path;
}

inline QString writeFile(const QTemporaryDir& dir, const QString& name, const QByteArray& bytes) {
    return writeFile(dir.filePath(name), bytes);
}

// size bytes from a generator seeded with seed: the same for the same seed, and incompressible.
inline QByteArray randomBytes(int size, quint32 seed) {
    QVector<quint32> words((size + 3) / 4);
    QRandomGenerator(seed).fillRange(words.data(), words.size());
    return QByteArray(reinterpret_cast<const char*>(words.constData()), size);
}

// data deflated by zlib itself at its default level, independently of the code under test; window
// bits 15 give a zlib stream (as compress() makes), 31 a gzip member, -15 raw deflate.
inline QByteArray deflated(QByteArray data, int windowBits = 15) {
    z_stream s{};
    deflateInit2(&s, Z_DEFAULT_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
    QByteArray out(int(deflateBound(&s, uLong(data.size()))) + 32, '\0');
    s.next_in = reinterpret_cast<Bytef*>(data.data());
    s.avail_in = uInt(data.size());
    s.next_out = reinterpret_cast<Bytef*>(out.data());
    s.avail_out = uInt(out.size());
    deflate(&s, Z_FINISH);
    deflateEnd(&s);
    return out.left(int(s.total_out));
}

// Property-list trees built with libplist itself; the containers take ownership of the items.
inline plist_t plistDict(std::initializer_list<std::pair<const char*, plist_t>> items) {
    plist_t d = plist_new_dict();
    for (const auto& item : items)
        plist_dict_set_item(d, item.first, item.second);
    return d;
}

inline plist_t plistArray(std::initializer_list<plist_t> items) {
    plist_t a = plist_new_array();
    for (plist_t item : items)
        plist_array_append_item(a, item);
    return a;
}

// A SILK voice note of the given number of frames, with or without the leading 0x02.
inline QByteArray silkNote(int frames, bool leadByte) {
    QByteArray bytes = leadByte ? QByteArray("\x02#!SILK_V3") : QByteArray("#!SILK_V3");
    for (int i = 0; i < frames; ++i)
        bytes += char(10 + i % 60) + QByteArray(1, '\0') + QByteArray(10 + i % 60, 'f');
    return bytes;
}

// An 8-bit mono PCM WAV file: its duration is exactly samples / rate.
inline QByteArray wavFile(quint32 rate, quint32 samples) {
    const auto le32 = [](quint32 v) { return QByteArray(reinterpret_cast<const char*>(&v), 4); }; // x86
    return "RIFF" + le32(36 + samples) + "WAVEfmt " + le32(16) + QByteArray("\x01\x00\x01\x00", 4) +
           le32(rate) + le32(rate) + QByteArray("\x01\x00\x08\x00", 4) + "data" + le32(samples) +
           QByteArray(int(samples), '\x80');
}

// The device backups made by scripts/corpus/make_backup.py in folder: db/ (Manifest.db), mbdb/
// (Manifest.mbdb), encrypted/. False, with a failure recorded, when the generator fails.
inline bool makeBackups(const QString& folder) {
    QProcess p;
    p.start("python3", {QString(UTILS_SOURCE_DIR) + "/scripts/corpus/make_backup.py", "cases", folder});
    const bool ok = p.waitForFinished(120000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
    EXPECT_TRUE(ok) << "make_backup.py: " << p.readAllStandardError().toStdString();
    return ok;
}

// Runs body(0) .. body(n - 1) on n threads of their own while this thread serves its events (a
// local server living here goes on answering), and returns once all have ended.
inline void onThreads(int n, const std::function<void(int)>& body) {
    std::atomic<int> running{n};
    std::vector<std::thread> threads;
    for (int t = 0; t < n; ++t)
        threads.emplace_back([&, t] {
            body(t);
            --running;
        });
    EXPECT_TRUE(QTest::qWaitFor([&] { return running == 0; }, 120000)) << "threads still running";
    for (std::thread& th : threads)
        th.join();
}

// Collects the messages logged while it lives; the previous handler is restored afterwards.
class LogCapture {
public:
    LogCapture() : m_previous(qInstallMessageHandler(&collect)) { lines().clear(); }
    ~LogCapture() { qInstallMessageHandler(m_previous); }
    const QStringList& messages() const { return lines(); }
    void clear() { lines().clear(); }

private:
    static QStringList& lines() {
        static QStringList collected;
        return collected;
    }
    static void collect(QtMsgType, const QMessageLogContext&, const QString& message) { lines() << message; }
    QtMessageHandler m_previous;
};
