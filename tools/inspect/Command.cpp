#include "Command.h"

#include "BackupInput.h"

#include <QByteArray>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <limits>
#include <unistd.h>
#include <utility>
#include <vector>

namespace inspect {

static QList<Command>& registry() {
    static QList<Command> list;
    return list;
}

Registration::Registration(Command command) {
    registry().append(std::move(command));
}

const QList<Command>& commands() {
    return registry();
}

const Command* findCommand(const QString& name) {
    for (const Command& c : registry())
        if (c.name == name) return &c;
    return nullptr;
}

namespace {

// The words of a command's positional arguments, each with whether it may be left out and
// whether it may be repeated.
struct ArgumentWord {
    bool optional;
    bool repeated;
};

QList<ArgumentWord> argumentWords(const QString& arguments) {
    QList<ArgumentWord> words;
    int depth = 0;
    bool inWord = false;
    for (int i = 0; i <= arguments.size(); ++i) {
        const QChar c = i < arguments.size() ? arguments.at(i) : QChar(' ');
        if (c == '[' || c == ']' || c.isSpace()) {
            if (inWord && arguments.midRef(0, i).endsWith("...")) words.last().repeated = true;
            inWord = false;
            depth += c == '[' ? 1 : c == ']' ? -1 : 0;
        } else if (!inWord) {
            inWord = true;
            words.append({depth > 0, false});
        }
    }
    return words;
}

QString optionText(const Option& o) {
    return o.value ? QString("%1 %2").arg(o.name, o.value) : QString(o.name);
}

} // namespace

int Command::minArguments() const {
    int n = 0;
    for (const ArgumentWord& w : argumentWords(arguments))
        n += w.optional ? 0 : 1;
    return n;
}

int Command::maxArguments() const {
    const QList<ArgumentWord> words = argumentWords(arguments);
    for (const ArgumentWord& w : words)
        if (w.repeated) return -1;
    return words.size();
}

QString Command::synopsis() const {
    QString text = arguments.isEmpty() ? name : name + " " + arguments;
    for (const Option& o : options)
        text += o.required ? " " + optionText(o) : " [" + optionText(o) + "]";
    return text;
}

QString Command::usage() const {
    QStringList lines{"usage: utils-inspect " + synopsis(), help};
    int width = 0;
    for (const Option& o : options)
        width = std::max(width, int(optionText(o).size()));
    if (!options.isEmpty()) lines << "options:";
    for (const Option& o : options) {
        const QStringList help = QString(o.help).split('\n');
        lines << QString("  %1  %2").arg(optionText(o), -width).arg(help.first());
        for (int i = 1; i < help.size(); ++i)
            lines << QString(width + 4, ' ') + help.at(i);
    }
    return lines.join('\n');
}

Args::Args(const QStringList& args, const Command& command) {
    auto find = [&command](const QString& name) -> const Option* {
        for (const Option& o : command.options)
            if (name == o.name) return &o;
        return nullptr;
    };
    bool onlyPositional = false;
    for (int i = 0; i < args.size(); ++i) {
        const QString& a = args.at(i);
        if (onlyPositional || !a.startsWith("--") || a == "-") {
            if (!onlyPositional && (a == "-h")) {
                m_help = true;
                continue;
            }
            m_positional << a;
            continue;
        }
        if (a == "--") {
            onlyPositional = true;
            continue;
        }
        if (a == "--help") {
            m_help = true;
            continue;
        }
        const int eq = a.indexOf('=');
        const QString name = eq > 0 ? a.left(eq) : a;
        const Option* option = find(name);
        if (!option) {
            m_error = QString("unknown option %1").arg(a);
            return;
        }
        if (!option->value) {
            if (eq > 0) {
                m_error = QString("option %1 takes no value").arg(name);
                return;
            }
            m_switches << name;
        } else if (eq > 0) {
            m_options[name] = a.mid(eq + 1);
        } else if (i + 1 < args.size()) {
            m_options[name] = args.at(++i);
        } else {
            m_error = QString("option %1 needs a value").arg(name);
            return;
        }
    }
    for (const Option& o : command.options) {
        if (o.required && !has(o.name)) {
            m_error = QString("%1 is required").arg(optionText(o));
            return;
        }
    }
    const int n = m_positional.size(), max = command.maxArguments();
    if (n < command.minArguments())
        m_error = "missing argument";
    else if (max >= 0 && n > max)
        m_error = QString("unexpected argument %1").arg(m_positional.at(max));
}

int runCommand(const Command& command, const QStringList& argv) {
    const Args args(argv, command);
    if (args.helpRequested()) {
        out(command.usage());
        return Ok;
    }
    if (!args.ok())
        return fail(
            QString("%1: %2 (usage: utils-inspect %3)").arg(command.name, args.error(), command.synopsis()),
            Usage);
    return command.run(args);
}

bool checkInputFile(QString& path) {
    if (!resolveBackupInput(path)) return false;
    const QFileInfo info(path);
    if (!info.exists()) return fail(path + ": no such file"), false;
    if (info.isDir()) return fail(path + ": is a folder, not a file"), false;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return fail(path + ": cannot open for reading"), false;
    return true;
}

bool isStdio(const QString& path) {
    return path.isEmpty() || path == "-";
}

bool checkOutputFile(const QString& input, const QString& output, bool force) {
    if (isStdio(output)) return true;
    const QFileInfo target(output);
    // An input inside a backup: the whole backup is evidence, not the input's stored file alone.
    const QString backup = backupFolder(input);
    if (!backup.isEmpty()) {
        const QString root = QFileInfo(backup).canonicalFilePath();
        const QString folder = QFileInfo(target.absolutePath()).canonicalFilePath();
        if (folder == root || folder.startsWith(root + '/'))
            return fail(output + ": is inside the backup that holds the input; it is never written"), false;
    }
    if (!isStdio(input) && target.exists() &&
        target.canonicalFilePath() == QFileInfo(input).canonicalFilePath())
        return fail(output + ": is the input file; it is never written"), false;
    if (target.isDir()) return fail(output + ": is a folder"), false;
    if (target.exists() && !force) return fail(output + ": exists (--force overwrites it)"), false;
    return true;
}

int fail(const QString& message, int code) {
    progress(QString());
    const QByteArray line = ("utils-inspect: " + message.simplified() + "\n").toUtf8();
    fwrite(line.constData(), 1, size_t(line.size()), stderr);
    fflush(stderr);
    return code;
}

void note(const QString& message) {
    fail(message, Ok);
}

void out(const QString& line) {
    const QByteArray bytes = (line + "\n").toUtf8();
    fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
}

bool stderrIsTerminal() {
    static const bool tty = isatty(STDERR_FILENO) == 1;
    return tty;
}

void progress(const QString& text) {
    if (!stderrIsTerminal()) return;
    static bool shown = false;
    if (text.isEmpty() && !shown) return;
    const QByteArray bytes = ("\r\033[K" + text).toUtf8();
    fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
    fflush(stderr);
    shown = !text.isEmpty();
}

QString printable(const QString& text) {
    QString s;
    s.reserve(text.size());
    for (const QChar c : text) {
        const ushort u = c.unicode();
        if (u == '\\')
            s += "\\\\";
        else if (u == '\n')
            s += "\\n";
        else if (u == '\t')
            s += "\\t";
        else if (u == '\r')
            s += "\\r";
        else if (c.category() == QChar::Other_Control)
            s += QString("\\x%1").arg(u, 2, 16, QChar('0'));
        else
            s += c;
    }
    return s;
}

QString isoDateTime(qint64 unixSeconds, int nanos, Qt::TimeSpec spec) {
    const QDateTime at = QDateTime::fromSecsSinceEpoch(unixSeconds, spec);
    QString text = at.toString("yyyy-MM-ddTHH:mm:ss");
    if (nanos) {
        QString fraction = QString::number(nanos).rightJustified(9, '0');
        while (fraction.endsWith('0'))
            fraction.chop(1);
        text += '.' + fraction;
    }
    if (spec == Qt::UTC) return text + 'Z';
    const int offset = at.offsetFromUtc();
    return text + QString("%1%2:%3")
                      .arg(offset < 0 ? '-' : '+')
                      .arg(qAbs(offset) / 3600, 2, 10, QChar('0'))
                      .arg(qAbs(offset) % 3600 / 60, 2, 10, QChar('0'));
}

QJsonValue toJson(const QVariant& value) {
    switch (int(value.type())) {
    case QMetaType::UnknownType:
        return QJsonValue(QJsonValue::Null);
    case QMetaType::QByteArray:
        return QString::fromLatin1(value.toByteArray().toBase64());
    case QMetaType::QString:
        return value.toString();
    case QMetaType::Bool:
        return value.toBool();
    case QMetaType::Double:
    case QMetaType::Float:
        return value.toDouble();
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::UInt:
    case QMetaType::Int:
        return QJsonValue(value.toLongLong());
    default:
        return QJsonValue::fromVariant(value);
    }
}

QString toText(const QVariant& value) {
    switch (int(value.type())) {
    case QMetaType::UnknownType:
        return "?";
    case QMetaType::QByteArray: {
        const QByteArray bytes = value.toByteArray();
        QString text = "x'" + QString::fromLatin1(bytes.left(64).toHex()) + "'";
        if (bytes.size() > 64) text += QString("...(%1 bytes)").arg(bytes.size());
        return text;
    }
    case QMetaType::QString: {
        QString text = value.toString();
        text.replace('\n', "\\n").replace('\r', "\\r").replace('\t', "\\t");
        return "\"" + text + "\"";
    }
    case QMetaType::Double:
        return QString::number(value.toDouble(), 'g', 17);
    default:
        return value.toString();
    }
}

JsonShape jsonShape(const QJsonValue& value, qint64 limit) {
    JsonShape shape;
    std::vector<std::pair<QJsonValue, int>> todo{{value, 0}};
    while (!todo.empty() && shape.values <= limit) {
        const auto [v, depth] = todo.back();
        todo.pop_back();
        ++shape.values;
        if (!v.isArray() && !v.isObject()) continue;
        shape.depth = std::max(shape.depth, depth + 1);
        if (v.isArray()) {
            for (const QJsonValue& item : v.toArray())
                todo.emplace_back(item, depth + 1);
        } else {
            const QJsonObject object = v.toObject();
            for (auto it = object.begin(); it != object.end(); ++it)
                todo.emplace_back(it.value(), depth + 1);
        }
    }
    return shape;
}

namespace {

QByteArray compactScalar(const QJsonValue& value) {
    const QByteArray text = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return text.mid(1, text.size() - 2);
}

// Compact JSON, as QJsonDocument writes it, but with a stack of its own: Qt's writer recurses
// once per level and a decoded archive can nest far deeper than a thread's stack allows.
QByteArray compactJson(const QJsonValue& root) {
    struct Frame {
        QJsonArray array;
        QJsonObject object;
        QStringList keys;
        bool isArray;
        int next;
    };
    QByteArray text;
    std::vector<Frame> stack;
    auto open = [&](const QJsonValue& v) {
        if (v.isArray()) {
            text += '[';
            stack.push_back({v.toArray(), {}, {}, true, 0});
        } else if (v.isObject()) {
            text += '{';
            const QJsonObject object = v.toObject();
            stack.push_back({{}, object, object.keys(), false, 0});
        } else {
            text += compactScalar(v);
        }
    };
    open(root);
    while (!stack.empty()) {
        Frame& f = stack.back();
        if (f.next >= (f.isArray ? f.array.size() : f.keys.size())) {
            text += f.isArray ? ']' : '}';
            stack.pop_back();
            continue;
        }
        if (f.next > 0) text += ',';
        const int i = f.next++;
        if (f.isArray) {
            open(f.array.at(i));
        } else {
            text += compactScalar(f.keys.at(i)) + ':';
            open(f.object.value(f.keys.at(i)));
        }
    }
    return text + '\n';
}

} // namespace

void printJson(const QJsonValue& value) {
    const int depth = jsonShape(value, std::numeric_limits<qint64>::max()).depth;
    QByteArray bytes;
    if (depth > 256) {
        bytes = compactJson(value);
    } else if (!value.isArray() && !value.isObject()) {
        bytes = compactScalar(value) + '\n';
    } else {
        // Indentation grows with the depth, so deeply nested values are printed compact.
        const auto format = depth > 32 ? QJsonDocument::Compact : QJsonDocument::Indented;
        bytes = value.isArray() ? QJsonDocument(value.toArray()).toJson(format)
                                : QJsonDocument(value.toObject()).toJson(format);
        if (format == QJsonDocument::Compact) bytes += '\n';
    }
    fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
}

static std::atomic<bool> g_interrupted{false};
static std::function<void()> g_onInterrupt;

static void onSigint(int) {
    // Only async-signal-safe work here: the callback stores one flag (stopSearch).
    if (g_interrupted.exchange(true)) _exit(130);
    if (g_onInterrupt) g_onInterrupt();
}

void installInterruptHandler(std::function<void()> onInterrupt) {
    g_onInterrupt = std::move(onInterrupt);
    std::signal(SIGINT, onSigint);
}

bool interrupted() {
    return g_interrupted.load();
}

} // namespace inspect
