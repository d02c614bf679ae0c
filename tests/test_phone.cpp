#include "PhoneNumberHelper.h"

#include <QProcess>
#include <QRegularExpression>
#include <QSet>

#include <gtest/gtest.h>

namespace {
void expectParse(const QString& number, const QString& code, const QString& country,
                 const QString& national) {
    const PhoneNumberInfo info = PhoneNumberHelper::parse(number);
    EXPECT_EQ(info.countryCode, code) << number.toStdString();
    EXPECT_EQ(info.country, country) << number.toStdString();
    EXPECT_EQ(info.nationalNumber, national) << number.toStdString();
    EXPECT_EQ(info.rawNumber, number);
}
} // namespace

TEST(Phone, PrefixTable) {
    constexpr int values = int(sizeof(countryCodesData) / sizeof(countryCodesData[0]));
    ASSERT_EQ(values, 1222);
    QSet<QString> prefixes;
    QMap<QString, int> perCountry;
    const QRegularExpression prefixForm("^\\d{1,7}$");
    const QRegularExpression countryForm("^[A-Z]{2}$");
    for (int i = 0; i < values; i += 2) {
        EXPECT_TRUE(prefixForm.match(countryCodesData[i]).hasMatch()) << i;
        EXPECT_TRUE(countryForm.match(countryCodesData[i + 1]).hasMatch()) << i;
        prefixes.insert(countryCodesData[i]);
        ++perCountry[countryCodesData[i + 1]];
    }
    EXPECT_EQ(prefixes.size(), 611);
    EXPECT_EQ(countryCodesData[0], "1201");
    EXPECT_EQ(countryCodesData[1], "US");
    EXPECT_EQ(countryCodesData[1220], "998");
    EXPECT_EQ(countryCodesData[1221], "UZ");
    EXPECT_EQ(perCountry.value("US"), 318);
    EXPECT_EQ(perCountry.value("CA"), 40);
    EXPECT_EQ(perCountry.value("DO"), 3);
    EXPECT_EQ(perCountry.value("BQ"), 3);
    EXPECT_EQ(perCountry.value("KZ"), 2);

    PhoneNumberHelper* helper = PhoneNumberHelper::instance();
    EXPECT_EQ(helper, PhoneNumberHelper::instance());
    EXPECT_EQ(helper, PhoneNumberHelper::m_instance);
    EXPECT_EQ(helper->findCountryByPrefix("86"), "CN");
    EXPECT_EQ(helper->findCountryByPrefix("6189164"), "CX");
    EXPECT_EQ(helper->findCountryByPrefix("1"), "");
    EXPECT_EQ(helper->findCountryByPrefix(" 86"), "");
}

TEST(Phone, Parse) {
    expectParse("+12015550123", "1201", "US", "5550123");
    expectParse("+12045550123", "1204", "CA", "5550123");
    expectParse("001876555", "1876", "JM", "555");
    expectParse("+11115550123", "", "", "+11115550123");
    // Only four characters are tried for the North American plan.
    expectParse("+1 201 555", "", "", "+1 201 555");
    expectParse("+8613800138000", "86", "CN", "13800138000");
    expectParse("0044 20 7946 0018", "44", "GB", " 20 7946 0018");
    expectParse("+59991234567", "5999", "CW", "1234567");
    expectParse("+67231234", "6723", "NF", "1234");
    expectParse("+7", "7", "RU", "");
}

TEST(Phone, ShortestPrefixWins) {
    expectParse("+441481123456", "44", "GB", "1481123456");
    expectParse("+77011234567", "7", "RU", "7011234567");
    expectParse("+76123", "7", "RU", "6123");
    expectParse("+262269123", "262", "RE", "269123");
    expectParse("+35818123", "358", "FI", "18123");
    expectParse("+4779123", "47", "NO", "79123");
    expectParse("+6189164000", "61", "AU", "89164000");
}

TEST(Phone, NoMarkerOrNoDigits) {
    expectParse("12015550123", "", "", "12015550123");
    expectParse("", "", "", "");
    expectParse("+", "", "", "+");
    expectParse("00", "", "", "00");
    expectParse("0", "", "", "0");
    expectParse("+999999", "", "", "+999999");
    expectParse("+(44)", "", "", "+(44)");
}

TEST(Phone, InspectTool) {
    const QString tool = UTILS_TOOL_PATH;
    if (tool.isEmpty()) GTEST_SKIP() << "utils-inspect is not built";
    QProcess p;
    p.start(tool, {"phone", "+8613800138000", "12015550123", "--json"});
    ASSERT_TRUE(p.waitForFinished(30000));
    EXPECT_EQ(p.exitCode(), 0);
    const QString text = QString::fromUtf8(p.readAllStandardOutput());
    EXPECT_TRUE(text.contains("\"countryCode\": \"86\"")) << text.toStdString();
    EXPECT_TRUE(text.contains("\"nationalNumber\": \"12015550123\"")) << text.toStdString();

    p.start(tool, {"phone"});
    ASSERT_TRUE(p.waitForFinished(30000));
    EXPECT_EQ(p.exitCode(), 2);
    EXPECT_EQ(QString::fromUtf8(p.readAllStandardError()).count('\n'), 1);
}
