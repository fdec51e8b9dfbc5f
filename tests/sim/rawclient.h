#ifndef RAWCLIENT_H
#define RAWCLIENT_H

#include <QByteArray>
#include <QList>
#include <QString>

#include <functional>

// The panel's side of a pseudo-terminal, opened in raw mode and driven byte by byte.
class RawClient
{
public:
    RawClient() = default;
    ~RawClient();
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    bool open(const QString &path);
    void close();

    // Writes all of `bytes`; false when the line refuses them (errno tells why).
    bool send(const QByteArray &bytes);
    // Reads whatever arrives within `ms` milliseconds.
    QByteArray readFor(int ms);
    // Reads until no byte has arrived for `quietMs` (at most `timeoutMs` in all); true when quiet.
    bool drainUntilQuiet(int quietMs, int timeoutMs);
    // Reads until `count` complete frames (DC2 ... "%" DC4) have arrived after the bytes already
    // taken, skipping anything before a frame's DC2. Fewer on time-out.
    QList<QByteArray> readFrames(int count, int timeoutMs);
    // Reads frames until `accept` returns true for one (returned) or the time runs out (empty).
    QByteArray readFrameUntil(const std::function<bool(const QByteArray &)> &accept, int timeoutMs);

private:
    // One read(2) waiting up to `ms`; returns its result and leaves errno set.
    int readOnce(int ms);
    bool takeFrame(QByteArray *frame);

    int m_fd = -1;
    QByteArray m_buffer;
};

// Built from literal pieces so that tests do not depend on the simulator's own codec.
QByteArray expectedResponse(const QByteArray &hCode, const QList<quint32> &values);
QByteArray readRequest(const QList<int> &indices);
// The eight value characters of `value` ("0".."9", ":".."?").
QByteArray valueText(quint32 value);
QByteArray hCodeOf(const QByteArray &frame);
QList<QByteArray> valueTextsOf(const QByteArray &frame);

#endif // RAWCLIENT_H
