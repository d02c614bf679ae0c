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
