// A tiny HTTP/1.1 server on 127.0.0.1 for the updater tests: canned answers
// per path, plus a mode that accepts the connection and never answers.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QUrl>

#include <utility>

class QTcpSocket;

namespace orvane::test {

class LocalHttpServer : public QObject {
    Q_OBJECT

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

    explicit LocalHttpServer(QObject* parent = nullptr);
    ~LocalHttpServer() override;

    /// Listens on 127.0.0.1 at a free port; false when that is impossible.
    bool start();
    QUrl url(const QString& path) const;

    void setResponse(const QString& path, const Response& response);
    /// Paths requested so far, in order.
    QList<QString> requests() const { return m_requests; }
    /// The header lines of the last request, names in lower case.
    QHash<QByteArray, QByteArray> lastRequestHeaders() const { return m_lastHeaders; }

private:
    void onNewConnection();
    void onReadyRead(QTcpSocket* socket);

    QTcpServer m_server;
    QHash<QString, Response> m_responses;
    QList<QString> m_requests;
    QHash<QByteArray, QByteArray> m_lastHeaders;
    QList<QPointer<QTcpSocket>> m_silent;
};

} // namespace orvane::test
