#include "driverinterface.h"
#include "driverplugin.h"
#include "drv_dev_setting.h"

#include <QCoreApplication>
#include <QScopedPointer>
#include <QTextStream>

#include <cstdio>

namespace {

int usage(const QString &reason)
{
    QTextStream err(stderr);
    if (!reason.isEmpty())
        err << "hustctl: " << reason << '\n';
    err << "usage: hustctl [--plugin PATH] info|demo\n";
    return 2;
}

int printIdentity(DriverInterface *driver)
{
    QTextStream out(stdout);
    QScopedPointer<DeviceSetting> device(driver->getDefaultSerialDeviceSetting());
    QScopedPointer<DriverSetting> timing(driver->getDefaultDriverSetting());
    out << "driver:   " << driver->name() << " (" << driver->vender() << ") "
        << driver->getVersionNumber() << '\n'
        << "line:     " << driver->getStringBasedDefaultDriverSetting() << '\n'
        << "port:     " << device->string << ", " << device->baudrate << " baud, "
        << device->databits << " data bits, parity code " << device->parity << ", "
        << device->stopbits << " stop bits\n"
        << "timing:   timeout " << timing->timeout << " ms, retry " << timing->retry
        << ", station " << timing->stationid << ", delay " << timing->delay << " ms\n";
    return 0;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    QString pluginPath = DriverPlugin::defaultPath();
    QString command;
    for (int i = 0; i < args.size(); ++i) {
        if (args.at(i) == QLatin1String("--plugin")) {
            if (i + 1 >= args.size())
                return usage(QStringLiteral("--plugin needs a path"));
            pluginPath = args.at(++i);
        } else if (command.isEmpty()) {
            command = args.at(i);
        } else {
            return usage(QStringLiteral("unexpected argument \"%1\"").arg(args.at(i)));
        }
    }
    if (command != QLatin1String("info") && command != QLatin1String("demo"))
        return usage(command.isEmpty() ? QString() : QStringLiteral("unknown command \"%1\"").arg(command));

    DriverPlugin plugin;
    if (!plugin.load(pluginPath)) {
        QTextStream(stderr) << "hustctl: " << plugin.errorString() << '\n';
        return 1;
    }
    return printIdentity(plugin.driver());
}
