#ifndef DRIVERPLUGIN_H
#define DRIVERPLUGIN_H

#include <QPluginLoader>
#include <QString>

class DriverInterface;

// Loads the driver plug-in file through Qt's loader, as the panel run-time does, and checks that
// it carries the run-time's driver interface.
class DriverPlugin
{
public:
    // $HUSTCTL_PLUGIN, else the plug-in installed beside this program, else the one of the build
    // tree.
    static QString defaultPath();

    DriverPlugin() = default;
    // Deletes the driver and unloads the file.
    ~DriverPlugin();
    DriverPlugin(const DriverPlugin &) = delete;
    DriverPlugin &operator=(const DriverPlugin &) = delete;

    bool load(const QString &path);
    DriverInterface *driver() const { return m_driver; }
    QString errorString() const { return m_error; }

private:
    QPluginLoader m_loader;
    DriverInterface *m_driver = nullptr;
    QString m_error;
};

#endif // DRIVERPLUGIN_H
