#include "commands.h"

#include "output.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QMap>

namespace {

struct SerialDevice
{
    QString driver;
    QStringList stableNames; // /dev/serial/by-id links to it
};

// Terminal devices the kernel has bound to a device driver: UARTs, USB adapters, modems; virtual
// terminals and pseudo-terminals have none.
QMap<QString, SerialDevice> serialDevices()
{
    QMap<QString, SerialDevice> devices;
    const QDir classDir(QStringLiteral("/sys/class/tty"));
    for (const QString &name : classDir.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QFileInfo driver(classDir.filePath(name + QStringLiteral("/device/driver")));
        if (driver.exists())
            devices[QStringLiteral("/dev/") + name].driver
                = driver.canonicalFilePath().section(QLatin1Char('/'), -1);
    }
    const QDir byId(QStringLiteral("/dev/serial/by-id"));
    for (const QFileInfo &link : byId.entryInfoList(QDir::System | QDir::Files)) {
        if (link.isSymLink())
            devices[link.canonicalFilePath()].stableNames << link.absoluteFilePath();
    }
    return devices;
}

} // namespace

int PortsCommand::run(CommandEnv &env)
{
    const QMap<QString, SerialDevice> devices = serialDevices();
    if (env.options.json) {
        QJsonArray ports;
        for (auto it = devices.begin(); it != devices.end(); ++it) {
            ports.append(QJsonObject {
                {QStringLiteral("device"), it.key()},
                {QStringLiteral("driver"), it->driver},
                {QStringLiteral("byId"), QJsonArray::fromStringList(it->stableNames)}});
        }
        env.out << jsonLine(QJsonObject {{QStringLiteral("ports"), ports}}) << '\n';
        return 0;
    }
    if (devices.isEmpty()) {
        env.out << "no serial devices found\n";
        return 0;
    }
    QList<QStringList> rows {
        {QStringLiteral("device"), QStringLiteral("driver"), QStringLiteral("stable name")}};
    for (auto it = devices.begin(); it != devices.end(); ++it) {
        rows << QStringList {it.key(), it->driver.isEmpty() ? QStringLiteral("-") : it->driver,
                             it->stableNames.join(QStringLiteral(" "))};
    }
    for (const QString &line : formatTable(rows))
        env.out << line << '\n';
    return 0;
}
