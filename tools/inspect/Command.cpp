#include "Command.h"

#include <QByteArray>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <unistd.h>

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

Args::Args(const QStringList& args, const QStringList& switches, const QStringList& options) {
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
        QString name = a;
        QString inlineValue;
        bool hasInline = false;
        const int eq = a.indexOf('=');
        if (eq > 0) {
            name = a.left(eq);
            inlineValue = a.mid(eq + 1);
            hasInline = true;
        }
        if (switches.contains(name) && !hasInline) {
            m_switches << name;
        } else if (options.contains(name)) {
            if (hasInline) {
                m_options[name] = inlineValue;
            } else if (i + 1 < args.size()) {
                m_options[name] = args.at(++i);
            } else {
                m_error = QString("option %1 needs a value").arg(name);
                return;
            }
        } else {
            m_error = QString("unknown option %1").arg(a);
            return;
        }
    }
}

bool Args::expect(int min, int max) {
    if (!ok()) return false;
    const int n = m_positional.size();
    if (n < min) {
        m_error = "missing argument";
        return false;
    }
    if (max >= 0 && n > max) {
        m_error = QString("unexpected argument %1").arg(m_positional.at(max));
        return false;
    }
    return true;
}

bool parseOrExit(const QString& name, Args& args, int minPositional, int maxPositional, int* exit) {
    const Command* command = nullptr;
    for (const Command& c : commands())
        if (c.name == name) command = &c;
    if (args.helpRequested()) {
        if (command) {
            out("usage: utils-inspect " + command->synopsis);
            out(command->help);
        }
        *exit = Ok;
        return false;
    }
    if (!args.expect(minPositional, maxPositional)) {
        fail(QString("%1: %2 (usage: utils-inspect %3)")
                 .arg(name, args.error(), command ? command->synopsis : name),
             Usage);
        *exit = Usage;
        return false;
    }
    return true;
}

bool checkInputFile(const QString& path) {
    const QFileInfo info(path);
    if (!info.exists()) return fail(path + ": no such file"), false;
    if (info.isDir()) return fail(path + ": is a folder, not a file"), false;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return fail(path + ": cannot open for reading"), false;
    return true;
}

int fail(const QString& message, int code) {
    progress(QString());
    const QByteArray line = ("utils-inspect: " + message.simplified() + "\n").toUtf8();
    fwrite(line.constData(), 1, size_t(line.size()), stderr);
    fflush(stderr);
    return code;
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

void printJson(const QJsonValue& value) {
    QJsonDocument doc = value.isArray() ? QJsonDocument(value.toArray()) : QJsonDocument(value.toObject());
    if (!value.isArray() && !value.isObject()) {
        // A bare scalar: wrap it so that QJsonDocument can print it, then unwrap.
        QByteArray text = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
        out(QString::fromUtf8(text.mid(1, text.size() - 2)));
        return;
    }
    const QByteArray bytes = doc.toJson(QJsonDocument::Indented);
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
