#include "scriptedport.h"

#include <QMutexLocker>

#include <cstring>

ScriptedPort::ScriptedPort()
    : m_setting(DEVICE_SERIAL, QStringLiteral("scripted"), 38400, 7, 2, 2)
{ }

void ScriptedPort::queueRead(const QByteArray &chunk)
{
    QMutexLocker lock(&m_mutex);
    m_reads.append(chunk);
}

void ScriptedPort::queueEmptyReads(int count)
{
    QMutexLocker lock(&m_mutex);
    for (int i = 0; i < count; ++i)
        m_reads.append(QByteArray());
}

void ScriptedPort::setResponder(std::function<void(ScriptedPort &, const QByteArray &)> responder)
{
    QMutexLocker lock(&m_mutex);
    m_responder = std::move(responder);
}

void ScriptedPort::setWriteResult(int result)
{
    QMutexLocker lock(&m_mutex);
    m_writeResult = result;
}

void ScriptedPort::setAvailable(int bytes)
{
    QMutexLocker lock(&m_mutex);
    m_available = bytes;
}

void ScriptedPort::setIdleRead(const QByteArray &bytes)
{
    QMutexLocker lock(&m_mutex);
    m_idleRead = bytes;
}

QList<QByteArray> ScriptedPort::writes() const
{
    QMutexLocker lock(&m_mutex);
    return m_writes;
}

QByteArray ScriptedPort::written() const
{
    QMutexLocker lock(&m_mutex);
    QByteArray all;
    for (const QByteArray &w : m_writes)
        all += w;
    return all;
}

int ScriptedPort::readCalls() const
{
    QMutexLocker lock(&m_mutex);
    return m_readCalls;
}

int ScriptedPort::discardCalls() const
{
    QMutexLocker lock(&m_mutex);
    return m_discardCalls;
}

int ScriptedPort::availableQueries() const
{
    QMutexLocker lock(&m_mutex);
    return m_availableQueries;
}

int ScriptedPort::pendingReads() const
{
    QMutexLocker lock(&m_mutex);
    return m_reads.size();
}

void ScriptedPort::clearRecord()
{
    QMutexLocker lock(&m_mutex);
    m_writes.clear();
    m_readCalls = 0;
    m_discardCalls = 0;
    m_availableQueries = 0;
}

int ScriptedPort::takeChunk(char *data, int maxSize)
{
    QMutexLocker lock(&m_mutex);
    ++m_readCalls;
    if (maxSize <= 0)
        return 0;
    if (m_reads.isEmpty()) {
        const int n = qMin(maxSize, m_idleRead.size());
        std::memcpy(data, m_idleRead.constData(), size_t(n));
        return n;
    }
    QByteArray &head = m_reads.first();
    const int n = qMin(maxSize, head.size());
    std::memcpy(data, head.constData(), size_t(n));
    if (n == head.size())
        m_reads.removeFirst();
    else
        head.remove(0, n);
    return n;
}

int ScriptedPort::readData(char *data, int maxSize)
{
    return takeChunk(data, maxSize);
}

int ScriptedPort::receiveData(char *data, int maxSize)
{
    return takeChunk(data, maxSize);
}

int ScriptedPort::writeData(const char *data, int size)
{
    const QByteArray bytes(data, qMax(size, 0));
    std::function<void(ScriptedPort &, const QByteArray &)> responder;
    int result;
    {
        QMutexLocker lock(&m_mutex);
        m_writes.append(bytes);
        responder = m_responder;
        result = m_writeResult < 0 ? size : m_writeResult;
    }
    if (responder)
        responder(*this, bytes);
    return result;
}

void ScriptedPort::getOption(int option, QVariant &value)
{
    QMutexLocker lock(&m_mutex);
    if (option == BytesAvailableOption) {
        ++m_availableQueries;
        value = m_available;
    }
}

void ScriptedPort::setOption(int option, const QVariant &value)
{
    QMutexLocker lock(&m_mutex);
    if (option == DiscardReceivedOption && value.toInt() == 0) {
        ++m_discardCalls;
        m_reads.clear();
    }
}
