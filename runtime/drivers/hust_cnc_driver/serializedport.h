#ifndef SERIALIZEDPORT_H
#define SERIALIZEDPORT_H

#include "abstractdeviceinterface.h"

#include <QMutex>

// Wraps a port so that its operations never run at the same time: the driver's thread sends
// stop frames and drains while the worker's thread reads. Every call is forwarded to the wrapped
// port under one mutex, held only for that call. The wrapped port is not owned.
class SerializedPort : public AbstractDeviceInterface
{
public:
    explicit SerializedPort(AbstractDeviceInterface *port);

    AbstractDeviceInterface *wrappedPort() const { return m_port; }

    int readData(char *data, int maxSize) override;
    int receiveData(char *data, int maxSize) override;
    int writeData(const char *data, int size) override;
    DeviceSetting *getDeviceSetting() override;
    void getOption(int option, QVariant &value) override;
    void setOption(int option, const QVariant &value) override;
    int getRetry() override;
    int getDelay() override;

private:
    AbstractDeviceInterface *const m_port;
    QMutex m_mutex;
};

#endif // SERIALIZEDPORT_H
