// A minimal HTTP/1.1 server on 127.0.0.1 for the network tests. It lives in the thread that
// creates it (run that thread's events while a client waits), answers each request from a table
// of canned responses, closes the connection after every answer and records what it received.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUrl>

struct CannedResponse {
    int status = 200;
    QByteArray reason = "OK";
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    int delayMs = 0; // the answer is sent this long after the request arrived

    CannedResponse& header(const QByteArray& name, const QByteArray& value) {
        headers.append({name, value});
        return *this;
    }
};

struct ReceivedRequest {
    QByteArray method;
    QByteArray target;                    // path and query as sent
    QMap<QByteArray, QByteArray> headers; // names in lower case
    QByteArray body;
};

class LocalHttpServer : public QObject {
    Q_OBJECT
public:
    // The listening socket is a child, so that moveToThread takes it along; call start() from
    // the server's thread.
    explicit LocalHttpServer(QObject* parent = nullptr) : QObject(parent), m_server(this) {
        connect(&m_server, &QTcpServer::newConnection, this, &LocalHttpServer::onNewConnection);
    }

    bool start() { return m_server.listen(QHostAddress::LocalHost, 0); }
    quint16 port() const { return m_server.serverPort(); }
    QString url(const QString& target) const {
        return QString("http://127.0.0.1:%1%2").arg(port()).arg(target);
    }

    // Answers requests for target (path with query, or the path alone) with response.
    void route(const QByteArray& target, const CannedResponse& response) { m_routes[target] = response; }

    const QList<ReceivedRequest>& requests() const { return m_requests; }
    int hits(const QByteArray& target) const {
        int n = 0;
        for (const ReceivedRequest& r : m_requests)
            n += (r.target == target);
        return n;
    }
    QList<QByteArray> targets() const {
        QList<QByteArray> list;
        for (const ReceivedRequest& r : m_requests)
            list << r.target;
        return list;
    }

signals:
    void requestReceived(const QByteArray& target);

private:
    void onNewConnection() {
        while (QTcpSocket* socket = m_server.nextPendingConnection()) {
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    }

    void onReadyRead(QTcpSocket* socket) {
        QByteArray& buffer = m_buffers[socket];
        buffer += socket->readAll();
        const int headerEnd = buffer.indexOf("\r\n\r\n");
        if (headerEnd < 0) return;
        ReceivedRequest request;
        const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
        const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
        request.method = first.value(0);
        request.target = first.value(1);
        for (int i = 1; i < lines.size(); ++i) {
            const int colon = lines.at(i).indexOf(':');
            if (colon > 0)
                request.headers[lines.at(i).left(colon).trimmed().toLower()] =
                    lines.at(i).mid(colon + 1).trimmed();
        }
        const int length = request.headers.value("content-length", "0").toInt();
        if (buffer.size() - (headerEnd + 4) < length) return; // body not complete yet
        request.body = buffer.mid(headerEnd + 4, length);
        m_buffers.remove(socket);
        m_requests.append(request);
        emit requestReceived(request.target);

        CannedResponse response;
        if (m_routes.contains(request.target)) {
            response = m_routes.value(request.target);
        } else if (m_routes.contains(request.target.split('?').first())) {
            response = m_routes.value(request.target.split('?').first());
        } else {
            response.status = 404;
            response.reason = "Not Found";
            response.body = "no such page";
        }
        QByteArray reply = "HTTP/1.1 " + QByteArray::number(response.status) + " " + response.reason + "\r\n";
        reply += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\nConnection: close\r\n";
        for (const auto& h : response.headers)
            reply += h.first + ": " + h.second + "\r\n";
        reply += "\r\n" + response.body;
        QPointer<QTcpSocket> guarded(socket);
        auto send = [guarded, reply] {
            if (!guarded || guarded->state() != QAbstractSocket::ConnectedState) return;
            guarded->write(reply);
            guarded->disconnectFromHost();
        };
        if (response.delayMs > 0)
            QTimer::singleShot(response.delayMs, socket, send);
        else
            send();
    }

    QTcpServer m_server;
    QHash<QByteArray, CannedResponse> m_routes;
    QHash<QTcpSocket*, QByteArray> m_buffers;
    QList<ReceivedRequest> m_requests;
};
