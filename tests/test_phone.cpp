#include "PhoneNumberHelper.h"

#include <QRegularExpression>
#include <QSet>

#include <gtest/gtest.h>

namespace {
void expectParse(const QString& number, const QString& code, const QString& country,
                 const QString& national) {
    const PhoneNumberInfo info = PhoneNumberHelper::parse(number);
    EXPECT_EQ(info.countryCode, code) << qPrintable(number);
    EXPECT_EQ(info.country, country) << qPrintable(number);
    EXPECT_EQ(info.nationalNumber, national) << qPrintable(number);
    EXPECT_EQ(info.rawNumber, number);
}
} // namespace

TEST(Phone, PrefixTable) {
    ASSERT_EQ(sizeof(countryCodesData) / sizeof(countryCodesData[0]), 1222u);
    QSet<QString> prefixes;
    QMap<QString, int> perCountry;
    const QRegularExpression pairForm("^\\d{1,7} [A-Z]{2}$");
    for (int i = 0; i < 1222; i += 2) {
        EXPECT_TRUE(pairForm.match(countryCodesData[i] + " " + countryCodesData[i + 1]).hasMatch()) << i;
        prefixes.insert(countryCodesData[i]);
        ++perCountry[countryCodesData[i + 1]];
    }
    EXPECT_EQ(prefixes.size(), 611);
    EXPECT_EQ(countryCodesData[0] + countryCodesData[1], "1201US");
    EXPECT_EQ(countryCodesData[1220] + countryCodesData[1221], "998UZ");
    EXPECT_EQ(perCountry.value("US"), 318);
    EXPECT_EQ(perCountry.value("CA"), 40);
    EXPECT_EQ(perCountry.value("BQ"), 3);

    PhoneNumberHelper* helper = PhoneNumberHelper::instance();
    EXPECT_EQ(helper, PhoneNumberHelper::instance());
    EXPECT_EQ(helper->findCountryByPrefix("6189164"), "CX");
    EXPECT_EQ(helper->findCountryByPrefix("1"), "");
    EXPECT_EQ(helper->findCountryByPrefix(" 86"), "");
}

TEST(Phone, Parse) {
    expectParse("+12015550123", "1201", "US", "5550123");
    expectParse("001876555", "1876", "JM", "555");
    expectParse("+11115550123", "", "", "+11115550123");
    expectParse("+1 201 555", "", "", "+1 201 555"); // only "1 20" is tried
    expectParse("0044 20 7946 0018", "44", "GB", " 20 7946 0018");
    expectParse("+59991234567", "5999", "CW", "1234567");
    expectParse("+7", "7", "RU", "");
    // The shortest prefix in the table wins over longer ones.
    expectParse("+441481123456", "44", "GB", "1481123456");
    expectParse("+77011234567", "7", "RU", "7011234567");
    expectParse("+262269123", "262", "RE", "269123");
    expectParse("+6189164000", "61", "AU", "89164000");
    // No marker, or nothing after it.
    expectParse("12015550123", "", "", "12015550123");
    expectParse("", "", "", "");
    expectParse("+", "", "", "+");
    expectParse("00", "", "", "00");
    expectParse("+(44)", "", "", "+(44)");
}
