#include "driverplugin.h"

#include "driverinterface.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>

QString DriverPlugin::defaultPath()
{
    const QString chosen = qEnvironmentVariable("HUSTCTL_PLUGIN");
    if (!chosen.isEmpty())
        return chosen;
    // Installed, the plug-in directory lies at a fixed place relative to the program's, so a
    // moved prefix or an unpacked package still finds it; in the build tree it is ../plugins.
    const QDir bin(QCoreApplication::applicationDirPath());
    const QString installed = QDir::cleanPath(
        bin.absoluteFilePath(QStringLiteral(HUSTCTL_PLUGIN_DIR "/" HUSTCTL_PLUGIN_FILE)));
    const QString built
        = QDir::cleanPath(bin.absoluteFilePath(QStringLiteral("../plugins/" HUSTCTL_PLUGIN_FILE)));
    return QFileInfo::exists(installed) || !QFileInfo::exists(built) ? installed : built;
}

DriverPlugin::~DriverPlugin()
{
    if (m_loader.isLoaded())
        m_loader.unload();
}

bool DriverPlugin::load(const QString &path)
{
    if (!QFileInfo::exists(path)) {
        m_error = QStringLiteral("plug-in %1: no such file").arg(path);
        return false;
    }
    m_loader.setFileName(path);
    if (!m_loader.load()) {
        m_error = QStringLiteral("plug-in %1: %2").arg(path, m_loader.errorString());
        return false;
    }
    const QString iid = m_loader.metaData().value(QStringLiteral("IID")).toString();
    if (iid != QLatin1String(DriverInterface_iid)) {
        m_error = QStringLiteral("plug-in %1: interface \"%2\", expected \"%3\"")
                      .arg(path, iid, QLatin1String(DriverInterface_iid));
        return false;
    }
    m_driver = qobject_cast<DriverInterface *>(m_loader.instance());
    if (!m_driver) {
        m_error = QStringLiteral("plug-in %1: the instance is not a driver").arg(path);
        return false;
    }
    return true;
}
