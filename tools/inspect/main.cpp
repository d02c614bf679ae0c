// utils-inspect: the command-line front end of the utils library.
#include "Command.h"

#include <QCoreApplication>
#include <QDir>
#include <QGuiApplication>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

using namespace inspect;

static void printUsage() {
    out("usage: utils-inspect COMMAND [ARGS...] [OPTIONS]");
    out("");
    out("Reads evidence files without writing to them. Commands:");
    QList<Command> list = commands();
    std::sort(list.begin(), list.end(), [](const Command& a, const Command& b) { return a.name < b.name; });
    int width = 0;
    for (const Command& c : list)
        width = std::max(width, int(c.name.size()));
    for (const Command& c : list)
        out(QString("  %1  %2").arg(c.name, -width).arg(c.arguments));
    out("");
    out("utils-inspect COMMAND --help describes one command.");
}

static int dispatch(QStringList args);

int main(int argc, char** argv) {
    QStringList args;
    for (int i = 1; i < argc; ++i)
        args << QString::fromLocal8Bit(argv[i]);
    const Command* command = args.isEmpty() ? nullptr : findCommand(args.first());
    if (command && command->needsGui) {
        // Drawing needs a GUI application; the offscreen platform needs no display.
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
        if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR")) {
            // Give Qt the private runtime folder it would fall back to, without its warning.
            const QByteArray dir =
                QDir::tempPath().toLocal8Bit() + "/runtime-" + QByteArray::number(getuid());
            if (::mkdir(dir.constData(), 0700) == 0 || errno == EEXIST) qputenv("XDG_RUNTIME_DIR", dir);
        }
        QGuiApplication app(argc, argv);
        return dispatch(args);
    }
    QCoreApplication app(argc, argv);
    return dispatch(args);
}

static int dispatch(QStringList args) {
    if (args.isEmpty() || args.first() == "--help" || args.first() == "-h" || args.first() == "help") {
        if (args.size() >= 2 && args.first() == "help") {
            args = QStringList{args.at(1), "--help"};
        } else {
            printUsage();
            return args.isEmpty() ? Usage : Ok;
        }
    }
    const QString name = args.takeFirst();
    if (const Command* command = findCommand(name)) return runCommand(*command, args);
    fail(QString("unknown command '%1' (see utils-inspect --help)").arg(name), Usage);
    return Usage;
}
