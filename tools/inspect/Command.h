// The subcommand registry and the small helpers that every subcommand of utils-inspect shares.
#pragma once

#include <QJsonValue>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <functional>

namespace inspect {

// Exit codes: 0 success, 1 the input could not be read or decoded, 2 wrong usage.
enum ExitCode { Ok = 0, Failed = 1, Usage = 2 };

struct Command {
    QString name;
    QString synopsis; // "tables DB"
    QString help;     // several lines: what it does and its options
    std::function<int(const QStringList& args)> run;
    bool needsGui = false; // draws pictures or text: runs under a QGuiApplication
};

// Subcommand files register themselves with a static object:
//   static inspect::Registration reg({"tables", "tables DB", "...", &runTables});
struct Registration {
    explicit Registration(Command command);
};
const QList<Command>& commands();

// Parsed command line of one subcommand: positional arguments, switches and valued options.
class Args {
public:
    // switches: options without a value ("--json"); options: options that take a value ("--format").
    // Fails on an unknown option, a missing value or a wrong count of positional arguments.
    Args(const QStringList& args, const QStringList& switches, const QStringList& options);

    bool ok() const { return m_error.isEmpty(); }
    const QString& error() const { return m_error; }
    bool helpRequested() const { return m_help; }
    bool has(const QString& name) const { return m_switches.contains(name) || m_options.contains(name); }
    QString value(const QString& name, const QString& fallback = QString()) const {
        return m_options.value(name, fallback);
    }
    const QStringList& positional() const { return m_positional; }
    // Checks the count of positional arguments; a false result has set error().
    bool expect(int min, int max = -1);

private:
    QStringList m_positional;
    QStringList m_switches;
    QMap<QString, QString> m_options;
    QString m_error;
    bool m_help = false;
};

// Parses args for the command named name; prints its help (and returns Ok through *exit) or
// a usage error (Usage). Returns true when the command should go on.
bool parseOrExit(const QString& name, Args& args, int minPositional, int maxPositional, int* exit);

// Checks that path names a file that can be read; otherwise prints why ("<path>: no such file",
// "is a folder", "cannot open for reading") and returns false. A file inside a device backup,
// DIR::DOMAIN/PATH, is replaced by the file that stores it (see BackupInput.h).
bool checkInputFile(QString& path);

// One line "utils-inspect: <message>" on stderr; returns code.
int fail(const QString& message, int code = Failed);
// The same line for something the user should know that is no failure.
void note(const QString& message);
// Writes text to stdout as UTF-8 (a newline is added).
void out(const QString& line);
// Progress on stderr, only when stderr is a terminal. An empty text clears the line.
void progress(const QString& text);
bool stderrIsTerminal();

// JSON rendering used by --json: text as strings, numbers as numbers, blobs as base64,
// invalid values as null.
QJsonValue toJson(const QVariant& value);
// Readable text rendering: blobs as x'hex' (cut after 64 bytes), text quoted.
QString toText(const QVariant& value);
// Deeply nested values are printed compact, by a writer that does not recurse.
void printJson(const QJsonValue& value);

// The count of values in a JSON value and its nesting depth, measured without recursion; the
// walk stops once more than limit values were seen (values is then limit + 1).
struct JsonShape {
    qint64 values = 0;
    int depth = 0;
};
JsonShape jsonShape(const QJsonValue& value, qint64 limit);

// Set when the user pressed Ctrl-C; long scans check it (see installInterruptHandler).
void installInterruptHandler(std::function<void()> onInterrupt);
bool interrupted();

} // namespace inspect
