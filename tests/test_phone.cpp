#include "PhoneNumberHelper.h"

#include <gtest/gtest.h>

TEST(Phone, PrefixLookup) {
    PhoneNumberHelper* helper = PhoneNumberHelper::instance();
    EXPECT_EQ(helper->findCountryByPrefix("6189164"), "CX");
    EXPECT_EQ(helper->findCountryByPrefix("1"), "");
    EXPECT_EQ(helper->findCountryByPrefix(" 86"), "");
}

TEST(Phone, Parse) {
    // number, country code, country, national number
    const char* const cases[][4] = {
        {"+12015550123", "1201", "US", "5550123"},
        {"001876555", "1876", "JM", "555"},
        {"+11115550123", "", "", "+11115550123"},
        {"+1 201 555", "", "", "+1 201 555"}, // only "1 20" is tried
        {"0044 20 7946 0018", "44", "GB", " 20 7946 0018"},
        {"+59991234567", "5999", "CW", "1234567"},
        {"+7", "7", "RU", ""},
        // The shortest prefix in the table wins over longer ones.
        {"+441481123456", "44", "GB", "1481123456"},
        {"+77011234567", "7", "RU", "7011234567"},
        // No marker, or nothing after it.
        {"12015550123", "", "", "12015550123"},
        {"", "", "", ""},
        {"+", "", "", "+"},
        {"00", "", "", "00"},
        {"+(44)", "", "", "+(44)"},
    };
    for (const auto& c : cases) {
        const PhoneNumberInfo info = PhoneNumberHelper::parse(c[0]);
        const QStringList got{info.rawNumber, info.countryCode, info.country, info.nationalNumber};
        EXPECT_EQ(got.join('|').toStdString(), QStringList({c[0], c[1], c[2], c[3]}).join('|').toStdString());
    }
}
