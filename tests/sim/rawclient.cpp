#include "rawclient.h"

#include <QElapsedTimer>
#include <QFile>

#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

RawClient::~RawClient()
{
    close();
}

bool RawClient::open(const QString &path)
{
    close();
    m_fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (m_fd < 0)
        return false;
    termios tio {};
    if (tcgetattr(m_fd, &tio) == 0) {
        cfmakeraw(&tio);
        tcsetattr(m_fd, TCSANOW, &tio);
    }
    return true;
}

void RawClient::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
    m_buffer.clear();
}

bool RawClient::send(const QByteArray &bytes)
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

int RawClient::readOnce(int ms)
{
    pollfd p {m_fd, POLLIN, 0};
    ::poll(&p, 1, ms);
    char chunk[4096];
    const ssize_t n = ::read(m_fd, chunk, sizeof chunk);
    if (n > 0)
        m_buffer.append(chunk, int(n));
    return int(n);
}

QByteArray RawClient::readFor(int ms)
{
    QElapsedTimer timer;
    timer.start();
    const int before = m_buffer.size();
    while (timer.elapsed() < ms)
        readOnce(int(std::max<qint64>(1, ms - timer.elapsed())));
    return m_buffer.mid(before);
}

bool RawClient::drainUntilQuiet(int quietMs, int timeoutMs)
{
    QElapsedTimer total;
    total.start();
    while (total.elapsed() < timeoutMs) {
        m_buffer.clear();
        if (readOnce(quietMs) <= 0 && errno == EAGAIN)
            return true;
    }
    return false;
}

bool RawClient::takeFrame(QByteArray *frame)
{
    const int start = m_buffer.indexOf('\x12');
    if (start < 0) {
        m_buffer.clear();
        return false;
    }
    const int end = m_buffer.indexOf(QByteArray("%\x14", 2), start);
    if (end < 0) {
        m_buffer.remove(0, start);
        return false;
    }
    *frame = m_buffer.mid(start, end + 2 - start);
    m_buffer.remove(0, end + 2);
    return true;
}

QByteArray RawClient::readFrameUntil(const std::function<bool(const QByteArray &)> &accept,
                                     int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    QByteArray frame;
    for (;;) {
        if (takeFrame(&frame)) {
            if (accept(frame))
                return frame;
        } else if (timer.elapsed() >= timeoutMs) {
            return QByteArray();
        } else {
            readOnce(20);
        }
    }
}

QList<QByteArray> RawClient::readFrames(int count, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    QList<QByteArray> frames;
    while (frames.size() < count) {
        const QByteArray frame = readFrameUntil([](const QByteArray &) { return true; },
                                                int(qMax<qint64>(0, timeoutMs - timer.elapsed())));
        if (frame.isEmpty())
            break;
        frames.append(frame);
    }
    return frames;
}

QByteArray valueText(quint32 value)
{
    static const char digits[] = "0123456789:;<=>?";
    QByteArray text(8, '0');
    for (int i = 7; i >= 0; --i, value >>= 4)
        text[i] = digits[value & 0xF];
    return text;
}

QByteArray expectedResponse(const QByteArray &hCode, const QList<quint32> &values)
{
    QByteArray frame("\x12%\rO9000\rH");
    frame += hCode + "\rv" + QByteArray::number(values.size()).rightJustified(2, '0') + "\r";
    for (quint32 v : values)
        frame += "d" + valueText(v) + "\r";
    return frame + "%\x14";
}

QByteArray readRequest(const QList<int> &indices)
{
    QByteArray frame("\x12%\rO9000\rN0\rv");
    frame += QByteArray::number(indices.size()).rightJustified(2, '0') + "\r";
    for (int index : indices)
        frame += "d" + QByteArray::number(index).rightJustified(5, '0') + "\r";
    return frame + "%\x14";
}

QByteArray hCodeOf(const QByteArray &frame)
{
    return frame.mid(10, 8);
}

QList<QByteArray> valueTextsOf(const QByteArray &frame)
{
    QList<QByteArray> texts;
    for (const QByteArray &line : frame.split('\r')) {
        if (line.startsWith('d'))
            texts.append(line.mid(1));
    }
    return texts;
}
