#ifndef DRV_DEV_SETTING_H
#define DRV_DEV_SETTING_H

#include <QDataStream>
#include <QList>
#include <QPair>
#include <QString>

// The run-time's kinds of port, as a set of flags held in a 32-bit integer.
enum device_type : qint32 { DEVICE_NONE = 0, DEVICE_SERIAL = 16 };

// The port a driver talks through: kind, name, serial line parameters, project link and, for
// network ports, the socket endpoints. Streamed in a persisted layout (see the stream operators).
class DeviceSetting
{
public:
    DeviceSetting(device_type type, QString string, int baudrate, int databits, int stopbits,
                  int parity);
    DeviceSetting(device_type type, QString string, int baudrate, int databits, int stopbits,
                  int parity, int extraValue, QString extraText);

    // Index -1 stands for currentIPIndex; an index outside the list gives "" and 0.
    QString socketIP(int index = -1) const;
    quint16 port(int index = -1) const;
    void setSocketIP(const QString &ip, int index = -1);
    void setPort(unsigned short port, int index = -1);
    void setCurrentIPIndex(int index);
    // One entry per pair: (address, port as decimal text; 0 when it is not a 16-bit number).
    void setSocketData(const QList<QPair<QString, QString>> &data);
    void dump() const;

    device_type type;
    QString string;
    int baudrate;
    int databits;
    int stopbits;
    int parity;
    int extraValue;
    QString extraText;
    int linkID;
    int currentIPIndex;
    QList<QPair<QString, quint16>> sockets;

private:
    int resolveIndex(int index) const;
};

// A driver's timing and addressing parameters.
class DriverSetting
{
public:
    DriverSetting(int timeout, int retry, int stationid, int delay);
    // The address and port arguments are accepted for compatibility and not stored.
    DriverSetting(int timeout, int retry, int stationid, int delay, const QString &address,
                  unsigned short port);
    DriverSetting(int timeout, int retry, int stationid, int delay, const QString &address,
                  unsigned short port, const QString &extraText, bool extraFlag);

    // Takes timeout, retry, stationid, delay and extraText; extraFlag stays as it is.
    void copy(const DriverSetting &other);
    void dump() const;

    int timeout;
    int retry;
    int stationid;
    int delay;
    QString extraText;
    bool extraFlag;
};

QDataStream &operator<<(QDataStream &out, const DeviceSetting &setting);
QDataStream &operator>>(QDataStream &in, DeviceSetting &setting);
QDataStream &operator<<(QDataStream &out, const DriverSetting &setting);
QDataStream &operator>>(QDataStream &in, DriverSetting &setting);

#endif // DRV_DEV_SETTING_H
