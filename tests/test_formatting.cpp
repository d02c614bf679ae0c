#include "DateUtils.h"
#include "JsonHelper.h"
#include "OSUtils.h"
#include "StringUtil.h"

#include <QDateTime>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <ctime>

namespace {

QStringList g_logged;
void capture(QtMsgType, const QMessageLogContext&, const QString& message) {
    g_logged << message;
}

// Runs the rest of a test in the given POSIX time zone.
class ZoneGuard {
public:
    explicit ZoneGuard(const char* zone) : m_old(qgetenv("TZ")), m_had(qEnvironmentVariableIsSet("TZ")) {
        qputenv("TZ", zone);
        tzset();
    }
    ~ZoneGuard() {
        if (m_had)
            qputenv("TZ", m_old);
        else
            qunsetenv("TZ");
        tzset();
    }

private:
    QByteArray m_old;
    bool m_had;
};

QString marks(const char* utf8) {
    return QString::fromUtf8(utf8);
}

} // namespace

TEST(Formatting, Size) {
    EXPECT_EQ(OSUtils::formatSize(0), "0.00 Bytes");
    EXPECT_EQ(OSUtils::formatSize(1023), "1023.00 Bytes");
    EXPECT_EQ(OSUtils::formatSize(1024), "1.00 KB");
    EXPECT_EQ(OSUtils::formatSize(1536), "1.50 KB");
    EXPECT_EQ(OSUtils::formatSize(1048575), "1024.00 KB");
    EXPECT_EQ(OSUtils::formatSize(1572864), "1.50 MB");
    EXPECT_EQ(OSUtils::formatSize(-5), "-5.00 Bytes");
    EXPECT_EQ(OSUtils::formatSize(qint64(1) << 50), "1.00 PB");
    EXPECT_EQ(OSUtils::formatSize(qint64(1) << 60), "1024.00 PB");
}

TEST(Formatting, Duration) {
    EXPECT_EQ(OSUtils::formatDuration(75, SPLIT_MARKS), marks("1\u2019"
                                                              "15\u2019\u2019"));
    EXPECT_EQ(OSUtils::formatDuration(15, SPLIT_MARKS), marks("15\u2019\u2019"));
    EXPECT_EQ(OSUtils::formatDuration(0, SPLIT_MARKS), marks("0\u2019\u2019"));
    EXPECT_EQ(OSUtils::formatDuration(59, SPLIT_MARKS), marks("59\u2019\u2019"));
    EXPECT_EQ(OSUtils::formatDuration(600, SPLIT_MARKS), marks("10\u2019"
                                                               "0\u2019\u2019"));
    EXPECT_EQ(OSUtils::formatDuration(3600, SPLIT_MARKS), marks("0\u2019\u2019"));
    EXPECT_EQ(OSUtils::formatDuration(3605, SPLIT_MARKS), marks("5\u2019\u2019"));

    EXPECT_EQ(OSUtils::formatDuration(75, SPLIT_COLON), "01:15");
    EXPECT_EQ(OSUtils::formatDuration(3605, SPLIT_COLON), "01:00:05");
    EXPECT_EQ(OSUtils::formatDuration(0, SPLIT_COLON), "00:00");
    EXPECT_EQ(OSUtils::formatDuration(86405, SPLIT_COLON), "00:05");
    EXPECT_EQ(OSUtils::formatDuration(-1, SPLIT_COLON), "23:59:59");
    EXPECT_EQ(OSUtils::formatDuration(75, static_cast<SPLITTYPE>(7)), "");
}

TEST(Formatting, TimestampConvert) {
    const QString f = "yyyy-MM-dd HH:mm:ss";
    {
        ZoneGuard utc("UTC0");
        EXPECT_EQ(DateUtils::timestampConvert(1600000000, f, false), "2020-09-13 12:26:40");
        EXPECT_EQ(DateUtils::timestampConvert(1600000000000LL, f, false), "2020-09-13 12:26:40");
        EXPECT_EQ(DateUtils::timestampConvert(1600000000000000LL, f, false), "2020-09-13 12:26:40");
        EXPECT_EQ(DateUtils::timestampConvert(1600000000000000000LL, f, false), "2020-09-13 12:26:40");
        EXPECT_EQ(DateUtils::timestampConvert(4102444799LL, f, false), "2099-12-31 23:59:59");
        EXPECT_EQ(DateUtils::timestampConvert(4102444800LL, f, false), "1970-02-17 11:34:04");
        EXPECT_EQ(DateUtils::timestampConvert(-1600000000000LL, f, false), "1919-04-20 11:33:20");
        // The Apple-epoch constant is midnight of 2001-01-01 in UTC+8.
        EXPECT_EQ(DateUtils::timestampConvert(0, f, true), "2000-12-31 16:00:00");
    }
    {
        ZoneGuard east8("CST-8");
        // The local offset is applied twice.
        EXPECT_EQ(DateUtils::timestampConvert(1600000000, f, false), "2020-09-14 04:26:40");
        EXPECT_EQ(DateUtils::timestampConvert(1600000000123LL, f, false), "2020-09-14 04:26:40");
        EXPECT_EQ(DateUtils::timestampConvert(0, f, true), "2001-01-01 08:00:00");
    }
}

TEST(Formatting, CurrentTime) {
    EXPECT_TRUE(QRegularExpression("^\\d\\d/\\d\\d/\\d{4} \\d\\d:\\d\\d:\\d\\d$")
                    .match(DateUtils::currentDateTime())
                    .hasMatch());
    EXPECT_EQ(DateUtils::currentDateTime("yyyy").toInt(), QDate::currentDate().year());

    g_logged.clear();
    const QtMessageHandler previous = qInstallMessageHandler(capture);
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    const qint32 low = DateUtils::currentDateTimeUnix_32();
    const qint64 after = QDateTime::currentMSecsSinceEpoch();
    qInstallMessageHandler(previous);

    ASSERT_EQ(g_logged.size(), 1);
    const QStringList parts = g_logged.first().split(' ');
    ASSERT_EQ(parts.size(), 5);
    EXPECT_EQ(parts.mid(0, 4).join(' '), "Current Unix Timestamp (ms):");
    const qint64 logged = parts.at(4).toLongLong();
    EXPECT_GE(logged, before);
    EXPECT_LE(logged, after);
    EXPECT_EQ(quint32(low), quint32(quint64(logged) & 0xffffffffu));
}

TEST(Formatting, Strings) {
    EXPECT_EQ(StringUtil::hideTextTail("abcdefghijkl", 4), "abcd********");
    EXPECT_EQ(StringUtil::hideTextTail("abc", 4), "abc");
    EXPECT_EQ(StringUtil::hideTextTail("0123456789", 10), "0123456789");
    const QString forty = QString(40, 'x');
    EXPECT_EQ(StringUtil::hideTextTail(forty, 5), QString(5, 'x') + QString(25, '*'));
    EXPECT_EQ(StringUtil::hideTextTail(forty, 35), QString(30, 'x'));
    EXPECT_EQ(StringUtil::hideTextTail("", 3), "");

    const std::string withZero("ab\0cd", 5);
    EXPECT_EQ(StringUtil::fromCString(withZero), "ab");
    EXPECT_EQ(StringUtil::toCString(QString::fromLatin1("ab\0cd", 5)), withZero);
    EXPECT_EQ(StringUtil::fromCString(StringUtil::toCString("plain text")), "plain text");
}

TEST(Formatting, Json) {
    g_logged.clear();
    const QtMessageHandler previous = qInstallMessageHandler(capture);
    const QJsonObject object = JsonHelper::getJsonObjectFromQString("{\"a\": 1, \"b\": [true]}");
    const QJsonArray array = JsonHelper::getJsonArrayFromQString("[1, \"two\"]");
    const QJsonObject wrongKind = JsonHelper::getJsonObjectFromQString("[1,2]");
    const QJsonArray wrongKind2 = JsonHelper::getJsonArrayFromQString("{}");
    const QStringList quiet = g_logged;
    const QJsonObject broken = JsonHelper::getJsonObjectFromQString("{\"a\": }");
    const QJsonArray broken2 = JsonHelper::getJsonArrayFromQString("");
    qInstallMessageHandler(previous);

    EXPECT_EQ(object.value("a").toInt(), 1);
    EXPECT_TRUE(object.value("b").toArray().at(0).toBool());
    EXPECT_EQ(array.size(), 2);
    EXPECT_EQ(array.at(1).toString(), "two");
    EXPECT_TRUE(wrongKind.isEmpty());
    EXPECT_TRUE(wrongKind2.isEmpty());
    EXPECT_TRUE(quiet.isEmpty());
    EXPECT_TRUE(broken.isEmpty());
    EXPECT_TRUE(broken2.isEmpty());
    ASSERT_EQ(g_logged.size(), 2);
    EXPECT_TRUE(g_logged.at(0).startsWith("Parse error at  7 :")) << g_logged.at(0).toStdString();
}

TEST(Formatting, InspectTimestamp) {
    const QString tool = UTILS_TOOL_PATH;
    if (tool.isEmpty()) GTEST_SKIP() << "utils-inspect is not built";
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("TZ", "CST-8");
    p.setProcessEnvironment(env);
    p.start(tool, {"timestamp", "1600000000000", "--format", "yyyy-MM-dd HH:mm"});
    ASSERT_TRUE(p.waitForFinished(30000));
    EXPECT_EQ(p.exitCode(), 0);
    EXPECT_EQ(QString::fromUtf8(p.readAllStandardOutput()), "2020-09-14 04:26\n");
    p.start(tool, {"timestamp", "0", "--apple"});
    ASSERT_TRUE(p.waitForFinished(30000));
    EXPECT_EQ(QString::fromUtf8(p.readAllStandardOutput()), "2001-01-01 08:00:00\n");

    p.start(tool, {"timestamp", "12abc"});
    ASSERT_TRUE(p.waitForFinished(30000));
    EXPECT_EQ(p.exitCode(), 1);
    EXPECT_TRUE(p.readAllStandardOutput().isEmpty());
    EXPECT_EQ(QString::fromUtf8(p.readAllStandardError()).count('\n'), 1);
}
