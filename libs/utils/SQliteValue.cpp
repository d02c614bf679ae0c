#include "SQliteValue.h"

QString SQliteValue::text() const {
    const char* p = reinterpret_cast<const char*>(data);
    const int n = int(size);
    if (type != Text || n <= 0) return QString(QLatin1String(""));
    if (encoding == 2 || encoding == 3) {
        QString s(n / 2, Qt::Uninitialized);
        QChar* out = s.data();
        for (int i = 0; i < n / 2; ++i) {
            const uchar a = data[2 * i], b = data[2 * i + 1];
            out[i] = QChar(encoding == 2 ? ushort(a | (b << 8)) : ushort((a << 8) | b));
        }
        return s;
    }
    // QString::fromUtf8 drops a leading byte-order mark; the engine keeps it as part of the text.
    if (n >= 3 && p[0] == '\xEF' && p[1] == '\xBB' && p[2] == '\xBF')
        return QChar(0xFEFF) + QString::fromUtf8(p + 3, n - 3);
    return QString::fromUtf8(p, n);
}

QByteArray SQliteValue::bytes() const {
    return QByteArray(reinterpret_cast<const char*>(data), int(size));
}

QVariant SQliteValue::toVariant() const {
    switch (type) {
    case Integer:
        return QVariant(qlonglong(integer));
    case Real:
        return QVariant(real);
    case Text:
        return QVariant(text());
    case Blob:
        return QVariant(bytes());
    default:
        return QVariant();
    }
}
