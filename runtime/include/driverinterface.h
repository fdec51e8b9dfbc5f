#ifndef DRIVERINTERFACE_H
#define DRIVERINTERFACE_H

#include "communicatorcommand.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>

class AbstractDeviceInterface;
class DeviceSetting;
class DriverSetting;

// The run-time's driver interface. The run-time calls a driver only through this table, so the
// order of the virtual operations is part of its binary contract.
class DriverInterface
{
public:
    virtual ~DriverInterface() = default;

    virtual int totalSize() = 0;
    virtual bool write(AbstractDeviceInterface *interface, CommunicatorCommand const &cmd,
                       QByteArray const &data)
        = 0;
    virtual QByteArray read(AbstractDeviceInterface *interface, CommunicatorCommand const &cmd) = 0;
    virtual bool initialize(AbstractDeviceInterface *interface) = 0;
    virtual bool validation(QString const &address) = 0;
    virtual QString name() { return QStringLiteral("Not Assigned"); }
    virtual QString vender() { return QStringLiteral("Not Assigned"); }
    virtual QString getVersionNumber() { return QStringLiteral("Not Assigned"); }
    virtual DeviceSetting *getDefaultSerialDeviceSetting() = 0;
    virtual DriverSetting *getDefaultDriverSetting() = 0;
    virtual QString getStringBasedDefaultDriverSetting()
    {
        return QStringLiteral("RS232,9600,EVEN,7,1");
    }
    virtual int supportedCommunicationFlags() = 0;
    virtual void setDebugMode(bool on) = 0;
    virtual int getBlockAccessSize() = 0;
    virtual int getBitBlockAccessSize() = 0;
    virtual bool hasError() = 0;
    virtual QString getLastError() = 0;
    virtual QObject *getThisObject() = 0;
    virtual bool isSupportSessionCommand() { return false; }
    virtual void setSessionCommand(QList<CommunicatorCommand> commands) { Q_UNUSED(commands) }
    virtual void clearSessionCommand() { }
    virtual bool deviceSettingChanged(DeviceSetting const *setting)
    {
        Q_UNUSED(setting)
        return true;
    }
    virtual bool isConnected(AbstractDeviceInterface *interface)
    {
        Q_UNUSED(interface)
        return true;
    }
};

#define DriverInterface_iid "com.tarnwick.drivers.DriverInterface/1.1"
Q_DECLARE_INTERFACE(DriverInterface, DriverInterface_iid)

#endif // DRIVERINTERFACE_H
