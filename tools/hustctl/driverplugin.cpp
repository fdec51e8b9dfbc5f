#include "driverplugin.h"

#include "driverinterface.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>

QString DriverPlugin::defaultPath()
{
    return QDir(QCoreApplication::applicationDirPath())
        .absoluteFilePath(QStringLiteral("../plugins/libhust_cnc_driver.so"));
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
