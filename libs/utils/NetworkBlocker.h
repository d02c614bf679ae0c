// Blocks the calling thread (running its events) until a reply that the caller already holds
// has finished; abort() cuts the wait short from a slot or timer that runs meanwhile.
#pragma once

#include "utils_export.h"

#include <QNetworkReply>
#include <QObject>
#include <QSharedPointer>

class UTILS_EXPORT NetworkBlocker : public QObject {
    Q_OBJECT
public:
    explicit NetworkBlocker(QObject* parent = nullptr);
    ~NetworkBlocker() override;

    // Returns when the reply has emitted finished. The reply must not have finished already.
    void wait(QSharedPointer<QNetworkReply> reply);
    // Aborts the reply being waited for; does nothing when no wait is under way.
    void abort();

private:
    QSharedPointer<QNetworkReply> m_reply;
};
