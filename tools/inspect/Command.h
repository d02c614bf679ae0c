// The subcommand registry and the small helpers that every subcommand of utils-inspect shares.
#pragma once

#include <QJsonValue>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <functional>

namespace inspect {

// Exit codes, by the kind of failure: 1 the input could not be read or decoded, 2 wrong usage,
// 130 stopped by Ctrl-C.
enum ExitCode { Ok = 0, Failed = 1, Usage = 2, Interrupted = 130 };

// One option of a command, declared once: the parser and the command's --help come from it.
struct Option {
    const char* name;  // "--format"
    const char* value; // what the value is called in the help ("F"); null for a switch
    const char* help;  // what it does; a "\n" starts a further line of help
    bool required = false;
};

class Args;

struct Command {
    QString name;
    // The positional arguments as the help shows them, which also sets how many are accepted:
    // words in [brackets] may be left out, a word ending in "..." may be repeated.
    // "DB TABLE [PATTERN]", "FILE...", "[IN [OUT]]".
    QString arguments;
    QString help; // several lines: what the command does
    QList<Option> options;
    std::function<int(const Args& args)> run;
    bool needsGui = false; // draws pictures or text: runs under a QGuiApplication

    // "recover DB TABLE [PATTERN] [--all] [--json] ..."
    QString synopsis() const;
    // The usage line, the help and the options with their help, aligned.
    QString usage() const;
    int minArguments() const;
    int maxArguments() const; // -1: no limit
};

// Subcommand files register themselves with a static object:
//   static inspect::Registration reg({"tables", "DB", "...", {{"--json", nullptr, "..."}}, &runTables});
struct Registration {
    explicit Registration(Command command);
};
const QList<Command>& commands();
const Command* findCommand(const QString& name);

// Parses a command line and runs the command: its --help, a usage error (exit 2) or run().
int runCommand(const Command& command, const QStringList& argv);

// Parsed command line of one subcommand: positional arguments, switches and valued options, as
// the command's table of options declares them.
class Args {
public:
    // Fails on an unknown option, a value given to a switch, a missing value, a required option
    // left out or a wrong count of positional arguments.
    Args(const QStringList& args, const Command& command);

    bool ok() const { return m_error.isEmpty(); }
    const QString& error() const { return m_error; }
    bool helpRequested() const { return m_help; }
    bool has(const QString& name) const { return m_switches.contains(name) || m_options.contains(name); }
    QString value(const QString& name, const QString& fallback = QString()) const {
        return m_options.value(name, fallback);
    }
    const QStringList& positional() const { return m_positional; }

private:
    QStringList m_positional;
    QStringList m_switches;
    QMap<QString, QString> m_options;
    QString m_error;
    bool m_help = false;
};

// Checks that path names a file that can be read; otherwise prints why ("<path>: no such file",
// "is a folder", "cannot open for reading") and returns false. A file inside a device backup,
// DIR::DOMAIN/PATH, is replaced by the file that stores it (see BackupInput.h).
bool checkInputFile(QString& path);

// Whether path stands for standard input or output: empty or "-".
bool isStdio(const QString& path);
// Refuses (printing why) to write output over the input, into the backup folder of an input
// DIR::DOMAIN/PATH or, without force, over any existing file; standard output is always fine.
bool checkOutputFile(const QString& input, const QString& output, bool force);

// One line "utils-inspect: <message>" on stderr; returns code.
int fail(const QString& message, int code = Failed);
// The same line for something the user should know that is no failure.
void note(const QString& message);
// Writes text to stdout as UTF-8 (a newline is added).
void out(const QString& line);
// Progress on stderr, only when stderr is a terminal. An empty text clears the line.
void progress(const QString& text);
bool stderrIsTerminal();

// Text from a file as it may be shown on one line of a terminal: a backslash doubled, newline,
// tab and carriage return as \n, \t and \r, other control characters as \xNN.
QString printable(const QString& text);

// ISO-8601 text of an instant, with the fraction of a second when there is one, without the
// zeros at its end: "2020-09-13T12:26:40.5Z" in UTC, "2020-09-13T08:26:40.5-04:00" in local time.
QString isoDateTime(qint64 unixSeconds, int nanos, Qt::TimeSpec spec = Qt::UTC);

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
