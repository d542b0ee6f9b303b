// A tiny HTTP/1.1 server on 127.0.0.1 for the updater tests: canned answers
// per path, plus a mode that accepts the connection and never answers.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

#include <utility>

namespace orvane::test {

class LocalHttpServer : public QObject {
public:
    struct Response {
        int status = 200;
        QByteArray reason = "OK";
        QByteArray body;
        QByteArray contentType = "application/octet-stream";
        bool sendLength = true;   ///< false: no Content-Length, the body ends with the connection
        bool neverAnswer = false; ///< read the request and then stay silent
        QList<std::pair<QByteArray, QByteArray>> headers = {}; ///< more header lines (Location, Content-Encoding)
    };

    LocalHttpServer()
    {
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* socket = m_server.nextPendingConnection()) {
                socket->setParent(this);
                connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
    }

    ~LocalHttpServer() override
    {
        for (const QPointer<QTcpSocket>& socket : std::as_const(m_silent)) {
            if (socket)
                socket->abort();
        }
    }

    /// Listens on 127.0.0.1 at a free port; false when that is impossible.
    bool start() { return m_server.listen(QHostAddress::LocalHost, 0); }
    QUrl url(const QString& path) const
    {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path));
    }
    void setResponse(const QString& path, const Response& response) { m_responses.insert(path, response); }
    /// Paths requested so far, in order.
    QList<QString> requests() const { return m_requests; }
    /// The header lines of the last request, names in lower case.
    QHash<QByteArray, QByteArray> lastRequestHeaders() const { return m_lastHeaders; }

private:
    void onReadyRead(QTcpSocket* socket)
    {
        const QByteArray request = socket->property("request").toByteArray() + socket->readAll();
        socket->setProperty("request", request);
        if (!request.contains("\r\n\r\n"))
            return;
        socket->disconnect(this);

        const QList<QByteArray> lines = request.left(request.indexOf("\r\n\r\n")).split('\n');
        const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
        const QString path = requestLine.size() >= 2 ? QString::fromLatin1(requestLine[1]) : QString();
        m_requests.append(path);
        m_lastHeaders.clear();
        for (const QByteArray& line : lines.mid(1)) {
            if (const qsizetype colon = line.indexOf(':'); colon > 0)
                m_lastHeaders.insert(line.left(colon).trimmed().toLower(), line.mid(colon + 1).trimmed());
        }
        const Response response = m_responses.value(path, {404, "Not Found", "no such file", "text/plain"});
        if (response.neverAnswer) {
            m_silent.append(socket);
            return;
        }
        QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' + response.reason + "\r\n";
        head += "Content-Type: " + response.contentType + "\r\n";
        if (response.sendLength)
            head += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
        for (const auto& [name, value] : std::as_const(response.headers))
            head += name + ": " + value + "\r\n";
        socket->write(head + "Connection: close\r\n\r\n" + response.body);
        socket->disconnectFromHost();
    }

    QTcpServer m_server;
    QHash<QString, Response> m_responses;
    QList<QString> m_requests;
    QHash<QByteArray, QByteArray> m_lastHeaders;
    QList<QPointer<QTcpSocket>> m_silent;
};

} // namespace orvane::test
