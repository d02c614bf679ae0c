#include "NetworkBlocker.h"

#include <QEventLoop>

NetworkBlocker::NetworkBlocker(QObject* parent) : QObject(parent) {}

NetworkBlocker::~NetworkBlocker() {
    m_reply.reset();
}

void NetworkBlocker::wait(QSharedPointer<QNetworkReply> reply) {
    m_reply = reply;
    // A reply that has finished already would never signal again.
    if (reply && !reply->isFinished()) {
        QEventLoop loop;
        QObject::connect(reply.data(), &QNetworkReply::finished, &loop, &QEventLoop::quit,
                         Qt::DirectConnection);
        loop.exec();
    }
    m_reply.reset();
}

void NetworkBlocker::abort() {
    if (m_reply) m_reply->abort();
}
