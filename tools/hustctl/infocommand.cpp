#include "command.h"
#include "commands.h"

#include "driverinterface.h"
#include "drv_dev_setting.h"

#include <QScopedPointer>

bool InfoCommand::prepare(CtlOptions &, QString *)
{
    return true;
}

int InfoCommand::run(CommandEnv &env)
{
    DriverInterface *driver = env.driver;
    QScopedPointer<DeviceSetting> device(driver->getDefaultSerialDeviceSetting());
    QScopedPointer<DriverSetting> timing(driver->getDefaultDriverSetting());
    if (!device || !timing)
        return fail(env.err, QStringLiteral("the driver gives no default settings"));
    env.out << "driver:   " << driver->name() << " (" << driver->vender() << ") "
            << driver->getVersionNumber() << '\n'
            << "line:     " << driver->getStringBasedDefaultDriverSetting() << '\n'
            << "port:     " << device->string << ", " << device->baudrate << " baud, "
            << device->databits << " data bits, parity code " << device->parity << ", "
            << device->stopbits << " stop bits\n"
            << "timing:   timeout " << timing->timeout << " ms, retry " << timing->retry
            << ", station " << timing->stationid << ", delay " << timing->delay << " ms\n"
            << "sessions: " << (driver->isSupportSessionCommand() ? "yes" : "no") << '\n';
    return 0;
}
