// Splits international phone numbers into dialling prefix, country and national number using
// the built-in prefix table.
#pragma once

#include "utils_export.h"

#include <QMap>
#include <QString>

// The dialling-prefix table: 611 consecutive (prefix, two-letter country) pairs. Prefixes are
// digits without a plus sign and are unique.
extern UTILS_EXPORT QString countryCodesData[1222];

// Result of PhoneNumberHelper::parse.
struct UTILS_EXPORT PhoneNumberInfo {
    QString countryCode;    // the prefix that matched, empty when none did
    QString country;        // the country of that prefix, empty when none matched
    QString nationalNumber; // what follows the prefix; the whole input when none matched
    QString rawNumber;      // the input as passed
};

class UTILS_EXPORT PhoneNumberHelper {
public:
    // Builds the prefix map from countryCodesData. Callers normally go through instance().
    PhoneNumberHelper();

    // The process-wide helper, created on first use and never destroyed. The first call is not
    // synchronised: make it on one thread before others use the helper.
    static PhoneNumberHelper* instance();

    // Numbers must start with "+" or "00"; anything else comes back unsplit. Numbers of the
    // North American plan ("1...") are looked up by their first four digits only; all others
    // by prefixes of seven down to one digits, where the shortest prefix found wins.
    static PhoneNumberInfo parse(const QString& number);

    // Exact look-up of a prefix; the empty string when it is not in the table.
    QString findCountryByPrefix(const QString& prefix);

    static PhoneNumberHelper* m_instance;

private:
    QMap<QString, QString> m_countries;
};
