#include "DateUtils.h"

#include <QDateTime>
#include <QDebug>

namespace {
// 1900-01-01 00:00:01 and 2099-12-31 23:59:59 UTC in seconds since 1970.
constexpr qint64 kMinSeconds = -2208988799LL;
constexpr qint64 kMaxSeconds = 4102444799LL;
// Offset added for Apple-epoch values. It is midnight 2001-01-01 in UTC+8 and goes together
// with the second application of the local offset in timestampConvert.
constexpr qint64 kAppleEpochOffset = 978278400LL;
} // namespace

DateUtils::DateUtils(QObject* parent) : QObject(parent) {}

DateUtils::~DateUtils() = default;

QString DateUtils::timestampConvert(qint64 timestamp, const QString& format, bool appleEpoch) {
    qint64 seconds = timestamp;
    while (seconds < kMinSeconds || seconds > kMaxSeconds)
        seconds /= 1000;
    if (appleEpoch) seconds += kAppleEpochOffset;

    QDateTime dateTime = QDateTime::fromSecsSinceEpoch(seconds, Qt::LocalTime);
    // Re-read the local wall clock as UTC and convert that to local time again: the local
    // offset ends up applied twice, which the Apple-epoch constant above accounts for.
    dateTime.setTimeSpec(Qt::UTC);
    dateTime = dateTime.toTimeSpec(Qt::LocalTime);
    return dateTime.toString(format);
}

QString DateUtils::currentDateTime() {
    return currentDateTime("MM/dd/yyyy HH:mm:ss");
}

QString DateUtils::currentDateTime(const QString& format) {
    return QDateTime::currentDateTime().toString(format);
}

qint32 DateUtils::currentDateTimeUnix_32() {
    const qint64 ms = QDateTime::currentMSecsSinceEpoch();
    qDebug() << "Current Unix Timestamp (ms):" << ms;
    return static_cast<qint32>(static_cast<quint32>(static_cast<quint64>(ms) & 0xffffffffULL));
}
