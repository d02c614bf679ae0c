// Runs the built utils-inspect for the tests that check the command-line front end.
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStandardPaths>
#include <QStringList>

#include <gtest/gtest.h>

struct ToolRun {
    int code = -1; // -1 when the tool crashed or did not finish
    QByteArray out, err;
};

inline bool toolBuilt() {
    return !QString(UTILS_TOOL_PATH).isEmpty();
}
#define SKIP_WITHOUT_TOOL()                                                                                  \
    if (!toolBuilt()) GTEST_SKIP() << "utils-inspect is not built"

inline ToolRun runTool(const QStringList& args, const QByteArray& input = QByteArray()) {
    QProcess p;
    p.start(QString(UTILS_TOOL_PATH), args);
    p.write(input);
    p.closeWriteChannel();
    const bool finished = p.waitForFinished(60000);
    return {finished && p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1, p.readAllStandardOutput(),
            p.readAllStandardError()};
}

// The tool's standard output, once its exit code has been checked.
inline QByteArray toolOut(const QStringList& args, int code, const QByteArray& input = QByteArray()) {
    const ToolRun r = runTool(args, input);
    EXPECT_EQ(r.code, code) << args.join(' ').toStdString() << ": " << r.err.toStdString();
    return r.out;
}

// Another program on PATH (a reference tool or an independent producer of test files).
inline bool havePrograms(const QStringList& names) {
    for (const QString& name : names)
        if (QStandardPaths::findExecutable(name).isEmpty()) return false;
    return true;
}
#define SKIP_WITHOUT(...)                                                                                    \
    if (!toolBuilt() || !havePrograms({__VA_ARGS__}))                                                        \
    GTEST_SKIP() << "needs utils-inspect and " << QStringList({__VA_ARGS__}).join(", ").toStdString()

// Its standard output; a failure to run or a non-zero exit fails the test.
inline QByteArray programOut(const QString& program, const QStringList& args, const QByteArray& input = {}) {
    QProcess p;
    p.start(program, args);
    p.write(input);
    p.closeWriteChannel();
    const bool finished = p.waitForFinished(60000);
    EXPECT_TRUE(finished && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0)
        << program.toStdString() << " " << args.join(' ').toStdString() << ": "
        << p.readAllStandardError().toStdString();
    return p.readAllStandardOutput();
}
