// utils-inspect as a whole: the options of every command, and each reading command against the
// reference tool of its format on files made by an independent producer.
#include "TestSupport.h"
#include "ToolRun.h"

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
