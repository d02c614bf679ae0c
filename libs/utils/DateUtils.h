// Timestamp and current-time formatting.
#pragma once

#include "utils_export.h"

#include <QObject>
#include <QString>

class UTILS_EXPORT DateUtils : public QObject {
public:
    explicit DateUtils(QObject* parent = nullptr);
    ~DateUtils() override;

    // Seconds, milliseconds, microseconds or nanoseconds since 1970 (or since the Apple epoch
    // when appleEpoch is set), formatted with a QDateTime pattern. The value is divided by 1000
    // until it lies between 1900 and 2099 counted in seconds.
    static QString timestampConvert(qint64 timestamp, const QString& format, bool appleEpoch);
    // Local time now as "MM/dd/yyyy HH:mm:ss".
    static QString currentDateTime();
    static QString currentDateTime(const QString& format);
    // The low 32 bits of the current time in milliseconds; not a usable timestamp on its own.
    static qint32 currentDateTimeUnix_32();
};
