#include "StringUtil.h"

#include <QByteArray>
#include <QTextCodec>

std::string StringUtil::toCString(const QString& text) {
    const QByteArray bytes = QTextCodec::codecForLocale()->fromUnicode(text);
    return std::string(bytes.constData(), static_cast<size_t>(bytes.size()));
}

QString StringUtil::fromCString(const std::string& text) {
    return QTextCodec::codecForLocale()->toUnicode(text.c_str());
}

QString StringUtil::hideTextTail(const QString& text, int visible) {
    if (visible == 10 && text.size() <= 10) return text;
    const QString head = text.left(30);
    QString result = head.left(visible);
    const int masked = head.size() - visible;
    if (masked > 0) result += QString(masked, QLatin1Char('*'));
    return result;
}
