#include "link.h"

#include "builtinsimulator.h"
#include "driverinterface.h"
#include "drv_dev_setting.h"
#include "lineport.h"
#include "serialport.h"

#include <QScopedPointer>

namespace {

// Parity codes of the serial port's device setting.
int parityCode(const QString &parity)
{
    if (parity == QLatin1String("odd"))
        return 1;
    if (parity == QLatin1String("even"))
        return 2;
    return 0;
}

} // namespace

Link::Link() = default;
Link::~Link() = default;

bool Link::open(const LinkOptions &options, DriverInterface *driver, QString *error)
{
    QScopedPointer<DriverSetting> timing(driver->getDefaultDriverSetting());
    if (!timing) {
        *error = QStringLiteral("the driver gives no default driver setting");
        return false;
    }
    if (options.retry >= 0)
        timing->retry = options.retry;
    if (options.delayMs >= 0)
        timing->delay = options.delayMs;

    QString path = options.device;
    if (path.isEmpty()) {
        m_simulator = BuiltInSimulator::start(options, error);
        if (!m_simulator)
            return false;
        path = m_simulator->devicePath();
    }
    const DeviceSetting device(DEVICE_SERIAL, path, options.baud, options.dataBits,
                               options.stopBits, parityCode(options.parity));
    m_serial = std::make_unique<SerialPort>(device, *timing);
    if (!m_serial->open()) {
        *error = m_serial->errorString();
        m_serial.reset();
        return false;
    }
    m_port = std::make_unique<LinePort>(m_serial.get());
    m_port->setTrace(options.trace);
    return true;
}

LinePort *Link::port() const
{
    return m_port.get();
}
