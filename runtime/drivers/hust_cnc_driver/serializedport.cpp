#include "serializedport.h"

#include <QMutexLocker>

SerializedPort::SerializedPort(AbstractDeviceInterface *port)
    : m_port(port)
{ }

int SerializedPort::readData(char *data, int maxSize)
{
    QMutexLocker lock(&m_mutex);
    return m_port ? m_port->readData(data, maxSize) : 0;
}

int SerializedPort::receiveData(char *data, int maxSize)
{
    QMutexLocker lock(&m_mutex);
    return m_port ? m_port->receiveData(data, maxSize) : 0;
}

int SerializedPort::writeData(const char *data, int size)
{
    QMutexLocker lock(&m_mutex);
    return m_port ? m_port->writeData(data, size) : 0;
}

DeviceSetting *SerializedPort::getDeviceSetting()
{
    QMutexLocker lock(&m_mutex);
    return m_port ? m_port->getDeviceSetting() : nullptr;
}

void SerializedPort::getOption(int option, QVariant &value)
{
    QMutexLocker lock(&m_mutex);
    if (m_port)
        m_port->getOption(option, value);
}

void SerializedPort::setOption(int option, const QVariant &value)
{
    QMutexLocker lock(&m_mutex);
    if (m_port)
        m_port->setOption(option, value);
}

int SerializedPort::getRetry()
{
    QMutexLocker lock(&m_mutex);
    return m_port ? m_port->getRetry() : 0;
}

int SerializedPort::getDelay()
{
    QMutexLocker lock(&m_mutex);
    return m_port ? m_port->getDelay() : 0;
}
