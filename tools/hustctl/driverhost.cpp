#include "driverhost.h"

#include "driverinterface.h"
#include "lineport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>
#include <QVariant>

DriverHost::DriverHost(DriverInterface *driver, LinePort *port)
    : m_driver(driver)
    , m_port(port)
{ }

void DriverHost::pause(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

DriverHost::ReadResult DriverHost::readOnce(const CommunicatorCommand &command)
{
    ReadResult result;
    m_port->startCall();
    result.data = m_driver->read(m_port, command);
    // Let errors that the worker raised through queued signals reach the driver first.
    QCoreApplication::processEvents();
    result.error = pendingError();
    if (!result.data.isEmpty())
        result.outcome = ReadResult::Data;
    else if (!result.error.isEmpty())
        result.outcome = ReadResult::Error;
    return result;
}

quint64 DriverHost::deliveredBlocks() const
{
    return m_driver->getThisObject()->property("deliveredBlocks").toULongLong();
}

QString DriverHost::pendingError() const
{
    if (!m_driver->hasError())
        return QString();
    const QString message = m_driver->getLastError().trimmed();
    return message.isEmpty() ? QStringLiteral("the driver reports an error") : message;
}

DriverHost::ReadResult DriverHost::poll(const CommunicatorCommand &command, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    beginWait(timeoutMs);
    for (;;) {
        ReadResult result = readOnce(command);
        const qint64 left = timeoutMs - clock.elapsed();
        if (result.outcome != ReadResult::TimedOut || left <= 0) {
            result.retriesCut = endWait();
            return result;
        }
        pause(int(qMin<qint64>(left, kPollIntervalMs)));
    }
}

void DriverHost::beginWait(int timeoutMs)
{
    m_port->beginWait(timeoutMs);
}

bool DriverHost::endWait()
{
    return m_port->endWait();
}

int DriverHost::retry() const
{
    return m_port->retry();
}

bool DriverHost::write(const CommunicatorCommand &command, const QByteArray &data, QString *error)
{
    const bool accepted = m_driver->write(m_port, command, data);
    *error = pendingError();
    if (accepted)
        return true;
    if (error->isEmpty())
        *error = QStringLiteral("the driver refused the write");
    return false;
}

void DriverHost::setSession(const QList<CommunicatorCommand> &commands)
{
    m_driver->setSessionCommand(commands);
}

void DriverHost::closeSession()
{
    m_driver->clearSessionCommand();
}
