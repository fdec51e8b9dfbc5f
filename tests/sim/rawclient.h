#ifndef RAWCLIENT_H
#define RAWCLIENT_H

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QList>
#include <QRegularExpression>
#include <QString>

#include <cerrno>
#include <functional>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

// The panel's side of a pseudo-terminal, opened in raw mode and driven byte by byte.
class RawClient
{
public:
    RawClient() = default;
    ~RawClient() { close(); }
    Q_DISABLE_COPY(RawClient)

    bool open(const QString &path)
    {
        close();
        m_fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        termios tio {};
        if (m_fd >= 0 && tcgetattr(m_fd, &tio) == 0) {
            cfmakeraw(&tio);
            tcsetattr(m_fd, TCSANOW, &tio);
        }
        return m_fd >= 0;
    }
    void close()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
        m_buffer.clear();
    }
    // Writes all of `bytes`; false when the line refuses them (errno tells why).
    bool send(const QByteArray &bytes)
    {
        int done = 0;
        QElapsedTimer timer;
        timer.start();
        while (done < bytes.size() && timer.elapsed() < 5000) {
            const ssize_t n = ::write(m_fd, bytes.constData() + done, size_t(bytes.size() - done));
            if (n > 0) {
                done += int(n);
            } else if (n < 0 && errno == EAGAIN) {
                pollfd p {m_fd, POLLOUT, 0};
                ::poll(&p, 1, 20);
            } else {
                return false;
            }
        }
        return done == bytes.size();
    }
    // Reads whatever arrives within `ms` milliseconds.
    QByteArray readFor(int ms)
    {
        QElapsedTimer timer;
        timer.start();
        const int before = m_buffer.size();
        while (timer.elapsed() < ms)
            readOnce(int(std::max<qint64>(1, ms - timer.elapsed())));
        return m_buffer.mid(before);
    }
    // Reads until nothing has arrived for 100 ms (at most 5 s in all); true when quiet.
    bool drainUntilQuiet()
    {
        for (int i = 0; i < 50; ++i, m_buffer.clear()) {
            if (readFor(100).isEmpty())
                return true;
        }
        return false;
    }
    // The next complete frame (DC2 ... "%" DC4) that `accept` (when given) takes, skipping
    // everything else; empty when none comes within 5 s.
    QByteArray readFrame(const std::function<bool(const QByteArray &)> &accept = {})
    {
        QElapsedTimer timer;
        timer.start();
        for (;;) {
            const int start = m_buffer.indexOf('\x12');
            const int end = m_buffer.indexOf(QByteArray("%\x14", 2), qMax(start, 0));
            if (start >= 0 && end >= 0) {
                const QByteArray frame = m_buffer.mid(start, end + 2 - start);
                m_buffer.remove(0, end + 2);
                if (!accept || accept(frame))
                    return frame;
            } else if (timer.elapsed() >= 5000) {
                return QByteArray();
            } else {
                m_buffer.remove(0, start < 0 ? m_buffer.size() : start);
                readOnce(20);
            }
        }
    }
    // The next `count` frames; fewer on time-out.
    QList<QByteArray> readFrames(int count)
    {
        QList<QByteArray> frames;
        for (QByteArray frame; frames.size() < count && !(frame = readFrame()).isEmpty();)
            frames.append(frame);
        return frames;
    }

private:
    // One read(2) waiting up to `ms`; returns its result and leaves errno set.
    int readOnce(int ms)
    {
        pollfd p {m_fd, POLLIN, 0};
        ::poll(&p, 1, ms);
        char chunk[4096];
        const ssize_t n = ::read(m_fd, chunk, sizeof chunk);
        if (n > 0)
            m_buffer.append(chunk, int(n));
        return int(n);
    }

    int m_fd = -1;
    QByteArray m_buffer;
};

// Frames built from literal pieces so that tests do not depend on the simulator's own codec.

// The eight value characters of `value` ("0".."9", ":".."?").
inline QByteArray valueText(quint32 value)
{
    static const char digits[] = "0123456789:;<=>?";
    QByteArray text(8, '0');
    for (int i = 7; i >= 0; --i, value >>= 4)
        text[i] = digits[value & 0xF];
    return text;
}

// The response carrying `values`, with the H code written as eight zeros.
inline QByteArray expectedResponse(const QList<quint32> &values)
{
    QByteArray frame("\x12%\rO9000\rH00000000\rv");
    frame += QByteArray::number(values.size()).rightJustified(2, '0') + "\r";
    for (quint32 v : values)
        frame += "d" + valueText(v) + "\r";
    return frame + "%\x14";
}

inline QByteArray hCodeOf(const QByteArray &frame)
{
    return frame.mid(10, 8);
}

// True when `frame` is the response carrying `values` under any well-formed H code.
inline bool isResponse(const QByteArray &frame, const QList<quint32> &values)
{
    const QByteArray expected = expectedResponse(values);
    return frame.size() == expected.size() && frame.left(10) == expected.left(10)
        && frame.mid(18) == expected.mid(18)
        && QRegularExpression("^[0-9:-?]{8}$")
               .match(QString::fromLatin1(hCodeOf(frame)))
               .hasMatch();
}

inline QByteArray readRequest(const QList<int> &indices)
{
    QByteArray frame("\x12%\rO9000\rN0\rv");
    frame += QByteArray::number(indices.size()).rightJustified(2, '0') + "\r";
    for (int index : indices)
        frame += "d" + QByteArray::number(index).rightJustified(5, '0') + "\r";
    return frame + "%\x14";
}

inline QList<QByteArray> valueTextsOf(const QByteArray &frame)
{
    QList<QByteArray> texts;
    for (const QByteArray &line : frame.split('\r')) {
        if (line.startsWith('d'))
            texts.append(line.mid(1));
    }
    return texts;
}

#endif // RAWCLIENT_H
