#include "command.h"
#include "commands.h"
#include "output.h"

#include "driverinterface.h"
#include "drv_dev_setting.h"

#include <QJsonObject>
#include <QScopedPointer>

// The driver's identity and the line this command line would open: the options given, the
// driver's defaults for the rest.
int InfoCommand::run(CommandEnv &env)
{
    DriverInterface *driver = env.driver;
    QScopedPointer<DriverSetting> timing(driver->getDefaultDriverSetting());
    if (!timing)
        return fail(env.err, QStringLiteral("the driver gives no default settings"));
    const LinkOptions &link = env.options.link;
    const int retry = link.retry >= 0 ? link.retry : timing->retry;
    const int delay = link.delayMs >= 0 ? link.delayMs : timing->delay;
    const QString port = link.device.isEmpty() ? QStringLiteral("built-in simulator") : link.device;
    const QJsonObject info {
        {QStringLiteral("driver"), driver->name()},
        {QStringLiteral("vendor"), driver->vender()},
        {QStringLiteral("version"), driver->getVersionNumber()},
        {QStringLiteral("plugin"), env.pluginFile},
        {QStringLiteral("driverDefaultLine"), driver->getStringBasedDefaultDriverSetting()},
        {QStringLiteral("port"), port},
        {QStringLiteral("baud"), link.baud},
        {QStringLiteral("dataBits"), link.dataBits},
        {QStringLiteral("parity"), link.parity},
        {QStringLiteral("stopBits"), link.stopBits},
        {QStringLiteral("retry"), retry},
        {QStringLiteral("delayMs"), delay},
        {QStringLiteral("timeoutMs"), env.options.timeoutMs},
        {QStringLiteral("sessions"), driver->isSupportSessionCommand()},
    };
    if (env.options.json) {
        env.out << jsonLine(info) << '\n';
        return 0;
    }
    env.out << "driver:   " << driver->name() << " (" << driver->vender() << ") "
            << driver->getVersionNumber() << ", default line "
            << driver->getStringBasedDefaultDriverSetting() << '\n'
            << "plug-in:  " << env.pluginFile << '\n'
            << "port:     " << port << ", " << link.baud << " baud, " << link.dataBits
            << " data bits, " << link.parity << " parity, " << link.stopBits << " stop bits\n"
            << "timing:   retry " << retry << ", delay " << delay << " ms, timeout "
            << env.options.timeoutMs << " ms\n";
    return 0;
}
