#include "lineport.h"

#include <cstdio>

namespace {

// The names of the bytes that frame the controller's protocol; other control bytes show in hex.
QByteArray printable(const char *data, int size)
{
    QByteArray text;
    for (int i = 0; i < size; ++i) {
        const auto byte = uchar(data[i]);
        switch (byte) {
        case 0x00:
            text += "<NUL>";
            break;
        case 0x0A:
            text += "<LF>";
            break;
        case 0x0D:
            text += "<CR>";
            break;
        case 0x12:
            text += "<DC2>";
            break;
        case 0x14:
            text += "<DC4>";
            break;
        default:
            if (byte < 0x20 || byte >= 0x7F)
                text += '<' + QByteArray::number(byte, 16).rightJustified(2, '0') + '>';
            else
                text += char(byte);
        }
    }
    return text;
}

} // namespace

LinePort::LinePort(AbstractDeviceInterface *port)
    : m_port(port)
{
    m_clock.start();
}

void LinePort::setTrace(bool on)
{
    m_trace = on;
}

void LinePort::trace(char direction, const char *data, int size)
{
    if (!m_trace || size <= 0)
        return;
    const QByteArray line = QByteArray::number(m_clock.elapsed() / 1000.0, 'f', 3) + ' ' + direction
        + ' ' + printable(data, size) + '\n';
    QMutexLocker lock(&m_traceMutex);
    std::fwrite(line.constData(), 1, size_t(line.size()), stderr);
}

void LinePort::beginWait(int ms)
{
    QMutexLocker lock(&m_mutex);
    m_deadline.setRemainingTime(ms);
    m_failedAttempts = 0;
    m_retriesCut = false;
}

bool LinePort::endWait()
{
    QMutexLocker lock(&m_mutex);
    m_deadline = QDeadlineTimer(QDeadlineTimer::Forever);
    return m_retriesCut;
}

void LinePort::startCall()
{
    QMutexLocker lock(&m_mutex);
    m_failedAttempts = 0;
}

int LinePort::readData(char *data, int maxSize)
{
    const int got = m_port->readData(data, maxSize);
    m_bytesReceived += quint64(qMax(got, 0));
    trace('<', data, got);
    return got;
}

int LinePort::receiveData(char *data, int maxSize)
{
    const int got = m_port->receiveData(data, maxSize);
    m_bytesReceived += quint64(qMax(got, 0));
    trace('<', data, got);
    return got;
}

int LinePort::writeData(const char *data, int size)
{
    const int sent = m_port->writeData(data, size);
    m_bytesSent += quint64(qMax(sent, 0));
    trace('>', data, sent);
    return sent;
}

DeviceSetting *LinePort::getDeviceSetting()
{
    return m_port->getDeviceSetting();
}

void LinePort::getOption(int option, QVariant &value)
{
    m_port->getOption(option, value);
}

void LinePort::setOption(int option, const QVariant &value)
{
    m_port->setOption(option, value);
}

// The driver asks after each failed attempt and stops when the attempts so far (counting from 0)
// reach the answer.
int LinePort::getRetry()
{
    const int retry = m_port->getRetry();
    QMutexLocker lock(&m_mutex);
    ++m_failedAttempts;
    if (!m_deadline.hasExpired())
        return retry;
    if (m_failedAttempts <= retry)
        m_retriesCut = true;
    return 0;
}

int LinePort::getDelay()
{
    const int delay = m_port->getDelay();
    QMutexLocker lock(&m_mutex);
    const qint64 left = m_deadline.remainingTime(); // -1: no wait under way
    return left < 0 ? delay : int(qMin<qint64>(delay, left));
}
