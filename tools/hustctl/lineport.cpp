#include "lineport.h"

LinePort::LinePort(AbstractDeviceInterface *port)
    : m_port(port)
{ }

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
    return m_port->readData(data, maxSize);
}

int LinePort::receiveData(char *data, int maxSize)
{
    return m_port->receiveData(data, maxSize);
}

int LinePort::writeData(const char *data, int size)
{
    return m_port->writeData(data, size);
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
