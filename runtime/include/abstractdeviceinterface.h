#ifndef ABSTRACTDEVICEINTERFACE_H
#define ABSTRACTDEVICEINTERFACE_H

#include <QVariant>

class DeviceSetting;

// The run-time's port object. Every serial byte of a driver passes through it; the driver keeps
// the pointer the run-time hands in and never creates or deletes one. The virtual operations
// stand in this order in the run-time's binary layout.
class AbstractDeviceInterface
{
public:
    // Option numbers understood by getOption and setOption.
    enum Option {
        DiscardReceivedOption = 12, // setOption(12, 0) discards received bytes not yet read
        BytesAvailableOption = 13 // getOption(13, v) yields the number of unread bytes
    };

    virtual ~AbstractDeviceInterface() = default;

    // Places at most maxSize received bytes in data; returns how many.
    virtual int readData(char *data, int maxSize) = 0;
    // A second receive operation of the same form.
    virtual int receiveData(char *data, int maxSize) = 0;
    // Writes size bytes; returns how many were written (anything else than size is a failure).
    virtual int writeData(const char *data, int size) = 0;
    // The port's settings, owned by the port object.
    virtual DeviceSetting *getDeviceSetting() = 0;
    virtual void getOption(int option, QVariant &value) = 0;
    virtual void setOption(int option, const QVariant &value) = 0;
    // Further read attempts after a failed one.
    virtual int getRetry() = 0;
    // Pause in milliseconds before every request.
    virtual int getDelay() = 0;
};

#endif // ABSTRACTDEVICEINTERFACE_H
