#include "localhttpserver.h"

#include <QHostAddress>
#include <QTcpSocket>

namespace orvane::test {

LocalHttpServer::LocalHttpServer(QObject* parent) : QObject(parent)
{
    connect(&m_server, &QTcpServer::newConnection, this, &LocalHttpServer::onNewConnection);
}

LocalHttpServer::~LocalHttpServer()
{
    for (const QPointer<QTcpSocket>& socket : std::as_const(m_silent)) {
        if (socket)
            socket->abort();
    }
}

bool LocalHttpServer::start()
{
    return m_server.listen(QHostAddress::LocalHost, 0);
}

QUrl LocalHttpServer::url(const QString& path) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path));
}

void LocalHttpServer::setResponse(const QString& path, const Response& response)
{
    m_responses.insert(path, response);
}

void LocalHttpServer::onNewConnection()
{
    while (QTcpSocket* socket = m_server.nextPendingConnection()) {
        socket->setParent(this);
        socket->setProperty("request", QByteArray());
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    }
}

void LocalHttpServer::onReadyRead(QTcpSocket* socket)
{
    QByteArray request = socket->property("request").toByteArray() + socket->readAll();
    socket->setProperty("request", request);
    if (!request.contains("\r\n\r\n"))
        return;
    socket->disconnect(this);

    const QList<QByteArray> requestLine = request.left(request.indexOf("\r\n")).split(' ');
    const QString path = requestLine.size() >= 2 ? QString::fromLatin1(requestLine[1]) : QString();
    m_requests.append(path);
    m_lastHeaders.clear();
    const QList<QByteArray> lines = request.left(request.indexOf("\r\n\r\n")).split('\n');
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0)
            m_lastHeaders.insert(lines[i].left(colon).trimmed().toLower(), lines[i].mid(colon + 1).trimmed());
    }

    Response response;
    if (const auto it = m_responses.constFind(path); it != m_responses.constEnd())
        response = *it;
    else
        response = {404, "Not Found", "no such file", "text/plain"};

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
    head += "Connection: close\r\n\r\n";
    socket->write(head);
    socket->write(response.body);
    socket->disconnectFromHost();
}

} // namespace orvane::test
