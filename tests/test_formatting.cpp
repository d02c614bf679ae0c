#include "DateUtils.h"
#include "JsonHelper.h"
#include "OSUtils.h"
#include "StringUtil.h"
#include "TestSupport.h"

#include <QDateTime>
#include <QRegularExpression>

#include <ctime>

namespace {

void setZone(const char* zone) {
    qputenv("TZ", zone);
    tzset();
}
} // namespace

TEST(Formatting, SizeAndDuration) {
    QStringList sizes, marks, clock;
    for (qint64 bytes : {0LL, 1023LL, 1024LL, 1536LL, 1048575LL, -5LL, 1LL << 60})
        sizes << OSUtils::formatSize(bytes);
    EXPECT_EQ(sizes.join(", ").toStdString(),
              "0.00 Bytes, 1023.00 Bytes, 1.00 KB, 1.50 KB, 1024.00 KB, -5.00 Bytes, 1024.00 PB");

    for (int seconds : {75, 0, 600, 3600, 3605})
        marks << OSUtils::formatDuration(seconds, SPLIT_MARKS);
    EXPECT_EQ(marks.join(' '), QString("1'15'' 0'' 10'0'' 0'' 5''").replace('\'', QChar(0x2019)));
    for (int seconds : {75, 3605, 86405, -1})
        clock << OSUtils::formatDuration(seconds, SPLIT_COLON);
    EXPECT_EQ(clock.join(' ').toStdString(), "01:15 01:00:05 00:05 23:59:59");
    EXPECT_EQ(OSUtils::formatDuration(75, static_cast<SPLITTYPE>(7)), "");
}

TEST(Formatting, TimestampConvert) {
    const QString f = "yyyy-MM-dd HH:mm:ss";
    setZone("UTC0");
    for (qint64 t : {1600000000LL, 1600000000000LL, 1600000000000000LL, 1600000000000000000LL})
        EXPECT_EQ(DateUtils::timestampConvert(t, f, false), "2020-09-13 12:26:40") << t;
    EXPECT_EQ(DateUtils::timestampConvert(4102444799LL, f, false), "2099-12-31 23:59:59");
    EXPECT_EQ(DateUtils::timestampConvert(4102444800LL, f, false), "1970-02-17 11:34:04");
    EXPECT_EQ(DateUtils::timestampConvert(-1600000000000LL, f, false), "1919-04-20 11:33:20");
    EXPECT_EQ(DateUtils::timestampConvert(0, f, true), "2000-12-31 16:00:00");
    // UTC+8: the local offset is applied twice, and the Apple epoch lands on 08:00.
    setZone("CST-8");
    EXPECT_EQ(DateUtils::timestampConvert(1600000000123LL, f, false), "2020-09-14 04:26:40");
    EXPECT_EQ(DateUtils::timestampConvert(0, f, true), "2001-01-01 08:00:00");
    qunsetenv("TZ");
    tzset();
}

TEST(Formatting, CurrentTime) {
    const QRegularExpression defaultForm("^\\d\\d/\\d\\d/\\d{4} \\d\\d:\\d\\d:\\d\\d$");
    EXPECT_TRUE(defaultForm.match(DateUtils::currentDateTime()).hasMatch());
    EXPECT_EQ(DateUtils::currentDateTime("yyyy").toInt(), QDate::currentDate().year());

    LogCapture log;
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    const qint32 low = DateUtils::currentDateTimeUnix_32();
    const qint64 after = QDateTime::currentMSecsSinceEpoch();
    ASSERT_EQ(log.messages().size(), 1);
    ASSERT_TRUE(log.messages().first().startsWith("Current Unix Timestamp (ms): "));
    const qint64 logged = log.messages().first().section(' ', 4).toLongLong();
    EXPECT_TRUE(logged >= before && logged <= after);
    EXPECT_EQ(quint32(low), quint32(quint64(logged) & 0xffffffffu));
}

TEST(Formatting, StringsAndJson) {
    EXPECT_EQ(StringUtil::hideTextTail("abcdefghijkl", 4), "abcd********");
    EXPECT_EQ(StringUtil::hideTextTail("abc", 4), "abc");
    EXPECT_EQ(StringUtil::hideTextTail(QString(40, 'x'), 5), QString(5, 'x') + QString(25, '*'));
    EXPECT_EQ(StringUtil::hideTextTail(QString(40, 'x'), 35), QString(30, 'x'));
    EXPECT_EQ(StringUtil::fromCString(std::string("ab\0cd", 5)), "ab");
    EXPECT_EQ(StringUtil::toCString(QString::fromLatin1("ab\0cd", 5)), std::string("ab\0cd", 5));

    LogCapture log;
    EXPECT_EQ(JsonHelper::getJsonObjectFromQString("{\"a\": 1}").value("a").toInt(), 1);
    EXPECT_EQ(JsonHelper::getJsonArrayFromQString("[1, \"two\"]").at(1).toString(), "two");
    EXPECT_TRUE(JsonHelper::getJsonObjectFromQString("[1,2]").isEmpty());
    EXPECT_TRUE(JsonHelper::getJsonArrayFromQString("{}").isEmpty());
    EXPECT_TRUE(log.messages().isEmpty());
    EXPECT_TRUE(JsonHelper::getJsonObjectFromQString("{\"a\": }").isEmpty());
    EXPECT_TRUE(JsonHelper::getJsonArrayFromQString("").isEmpty());
    ASSERT_EQ(log.messages().size(), 2);
    EXPECT_TRUE(log.messages().at(0).startsWith("Parse error at  7 :")) << qPrintable(log.messages().at(0));
}
