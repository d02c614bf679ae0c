// A minimal HTTP/1.1 server on 127.0.0.1 for the network tests. It lives in the thread that creates
// it (run that thread's events while a client waits), answers from a table of canned responses
// (404 otherwise), closes every connection after answering and records what it received.
#pragma once

#include <QHash>
#include <QMap>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

struct CannedResponse {
    int status = 200;
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    int delayMs = 0; // the answer leaves this long after the request arrived
};

struct ReceivedRequest {
    QByteArray method, target, body;
    QMap<QByteArray, QByteArray> headers; // names in lower case
};

class LocalHttpServer : public QObject {
public:
    LocalHttpServer() { connect(&m_server, &QTcpServer::newConnection, this, &LocalHttpServer::accept); }
    bool start() { return m_server.listen(QHostAddress::LocalHost, 0); }
    QString url(const QString& target) const {
        return QString("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(target);
    }
    // Answers target (path and query), or failing that its path alone.
    void route(const QByteArray& target, const CannedResponse& response) { m_routes[target] = response; }

    QList<ReceivedRequest> requests;
    QList<QByteArray> targets; // of the requests, in order

private:
    void accept() {
        while (QTcpSocket* socket = m_server.nextPendingConnection()) {
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    }

    void read(QTcpSocket* socket) {
        QByteArray& buffer = m_buffers[socket];
        buffer += socket->readAll();
        const int end = buffer.indexOf("\r\n\r\n");
        if (end < 0) return;
        ReceivedRequest r;
        const QList<QByteArray> lines = buffer.left(end).split('\n');
        r.method = lines.value(0).split(' ').value(0);
        r.target = lines.value(0).split(' ').value(1);
        for (const QByteArray& line : lines.mid(1))
            if (line.indexOf(':') > 0)
                r.headers[line.left(line.indexOf(':')).toLower()] = line.mid(line.indexOf(':') + 1).trimmed();
        const int length = r.headers.value("content-length", "0").toInt();
        if (buffer.size() - end - 4 < length) return; // the body is still coming
        r.body = buffer.mid(end + 4, length);
        m_buffers.remove(socket);
        requests.append(r);
        targets.append(r.target);

        const CannedResponse answer = m_routes.value(
            r.target, m_routes.value(r.target.split('?').first(), {404, {}, "no such page", 0}));
        QByteArray bytes =
            "HTTP/1.1 " + QByteArray::number(answer.status) +
            " X\r\nConnection: close\r\nContent-Length: " + QByteArray::number(answer.body.size());
        for (const auto& h : answer.headers)
            bytes += "\r\n" + h.first + ": " + h.second;
        bytes += "\r\n\r\n" + answer.body;
        // Bound to the socket: a socket already gone takes the pending answer with it.
        QTimer::singleShot(answer.delayMs, socket, [socket, bytes] {
            if (socket->state() != QAbstractSocket::ConnectedState) return;
            socket->write(bytes);
            socket->disconnectFromHost();
        });
    }

    QTcpServer m_server;
    QHash<QByteArray, CannedResponse> m_routes;
    QHash<QTcpSocket*, QByteArray> m_buffers;
};
