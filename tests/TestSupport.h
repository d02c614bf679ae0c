// Small helpers shared by the test suites: files in temporary folders and the library's log.
#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>
#include <QTemporaryDir>
#include <QtGlobal>

#include <gtest/gtest.h>

inline QByteArray readFile(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
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
