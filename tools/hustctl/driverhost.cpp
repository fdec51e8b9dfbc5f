#include "driverhost.h"

#include "driverinterface.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

DriverHost::DriverHost(DriverInterface *driver, AbstractDeviceInterface *port)
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
    result.data = m_driver->read(m_port, command);
    // Let errors that the worker raised through queued signals reach the driver first.
    QCoreApplication::processEvents();
    if (!result.data.isEmpty()) {
        result.outcome = ReadResult::Data;
    } else if (m_driver->hasError()) {
        result.outcome = ReadResult::Error;
        result.error = m_driver->getLastError();
    }
    return result;
}

DriverHost::ReadResult DriverHost::poll(const CommunicatorCommand &command, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        ReadResult result = readOnce(command);
        if (result.outcome != ReadResult::TimedOut)
            return result;
        const qint64 left = timeoutMs - clock.elapsed();
        if (left <= 0)
            return result;
        pause(int(qMin<qint64>(left, kPollIntervalMs)));
    }
}

bool DriverHost::write(const CommunicatorCommand &command, const QByteArray &data, QString *error)
{
    if (m_driver->write(m_port, command, data))
        return true;
    *error = m_driver->hasError() ? m_driver->getLastError() : QString();
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
