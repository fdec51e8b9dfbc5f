#include "drv_dev_setting.h"

#include "supportlog.h"

DeviceSetting::DeviceSetting(device_type type, QString string, int baudrate, int databits,
                             int stopbits, int parity)
    : DeviceSetting(type, std::move(string), baudrate, databits, stopbits, parity, 0, QString())
{ }

DeviceSetting::DeviceSetting(device_type type, QString string, int baudrate, int databits,
                             int stopbits, int parity, int extraValue, QString extraText)
    : type(type)
    , string(std::move(string))
    , baudrate(baudrate)
    , databits(databits)
    , stopbits(stopbits)
    , parity(parity)
    , extraValue(extraValue)
    , extraText(std::move(extraText))
    , linkID(-1)
    , currentIPIndex(0)
{ }

int DeviceSetting::resolveIndex(int index) const
{
    const int i = index == -1 ? currentIPIndex : index;
    return (i >= 0 && i < sockets.size()) ? i : -1;
}

QString DeviceSetting::socketIP(int index) const
{
    const int i = resolveIndex(index);
    return i < 0 ? QString() : sockets.at(i).first;
}

quint16 DeviceSetting::port(int index) const
{
    const int i = resolveIndex(index);
    return i < 0 ? 0 : sockets.at(i).second;
}

void DeviceSetting::setSocketIP(const QString &ip, int index)
{
    const int i = resolveIndex(index);
    if (i >= 0)
        sockets[i].first = ip;
}

void DeviceSetting::setPort(unsigned short port, int index)
{
    const int i = resolveIndex(index);
    if (i >= 0)
        sockets[i].second = port;
}

void DeviceSetting::setCurrentIPIndex(int index)
{
    if (index >= 0 && index < sockets.size())
        currentIPIndex = index;
}

void DeviceSetting::setSocketData(const QList<QPair<QString, QString>> &data)
{
    QList<QPair<QString, quint16>> entries;
    entries.reserve(data.size());
    for (const auto &pair : data) {
        bool ok = false;
        const ushort number = pair.second.toUShort(&ok, 10);
        entries.append(qMakePair(pair.first, ok ? quint16(number) : quint16(0)));
    }
    sockets = entries;
}

void DeviceSetting::dump() const
{
    // One multi-argument arg(), so that a "%n" inside the port name or the address is shown as
    // it is instead of being filled in by the fields after it.
    qCDebug(lcDriverSupport).noquote()
        << QStringLiteral("type: %1 string: \"%2\" baudrate: %3 databits: %4 stopbits: %5 "
                          "parity: %6 linkID: %7 current ip: \"%8\" current port: %9")
               .arg(QString::number(quint32(type)), string, QString::number(baudrate),
                    QString::number(databits), QString::number(stopbits), QString::number(parity),
                    QString::number(linkID), socketIP(-1), QString::number(port(-1)));
}

DriverSetting::DriverSetting(int timeout, int retry, int stationid, int delay)
    : timeout(timeout)
    , retry(retry)
    , stationid(stationid)
    , delay(delay)
    , extraFlag(false)
{ }

DriverSetting::DriverSetting(int timeout, int retry, int stationid, int delay, const QString &,
                             unsigned short)
    : DriverSetting(timeout, retry, stationid, delay)
{ }

DriverSetting::DriverSetting(int timeout, int retry, int stationid, int delay, const QString &,
                             unsigned short, const QString &extraText, bool extraFlag)
    : timeout(timeout)
    , retry(retry)
    , stationid(stationid)
    , delay(delay)
    , extraText(extraText)
    , extraFlag(extraFlag)
{ }

void DriverSetting::copy(const DriverSetting &other)
{
    timeout = other.timeout;
    retry = other.retry;
    stationid = other.stationid;
    delay = other.delay;
    extraText = other.extraText;
}

void DriverSetting::dump() const
{
    qCDebug(lcDriverSupport).noquote()
        << QStringLiteral("timeout: %1 retry: %2 stationid: %3 delay: %4")
               .arg(timeout)
               .arg(retry)
               .arg(stationid)
               .arg(delay);
}

QDataStream &operator<<(QDataStream &out, const DeviceSetting &setting)
{
    out << qint32(setting.type) << setting.string << qint32(setting.baudrate)
        << qint32(setting.databits) << qint32(setting.stopbits) << qint32(setting.parity)
        << qint32(setting.extraValue) << qint32(setting.linkID) << qint32(setting.currentIPIndex);
    out << quint32(setting.sockets.size());
    for (const auto &entry : setting.sockets)
        out << entry.first << quint16(entry.second);
    return out;
}

QDataStream &operator>>(QDataStream &in, DeviceSetting &setting)
{
    qint32 type = 0, baudrate = 0, databits = 0, stopbits = 0, parity = 0, extraValue = 0;
    qint32 linkID = 0, currentIPIndex = 0;
    QString string;
    in >> type >> string >> baudrate >> databits >> stopbits >> parity >> extraValue >> linkID
        >> currentIPIndex;
    setting.type = device_type(type);
    setting.string = string;
    setting.baudrate = baudrate;
    setting.databits = databits;
    setting.stopbits = stopbits;
    setting.parity = parity;
    setting.extraValue = extraValue;
    setting.linkID = linkID;
    // The index is checked against the list the object holds before the new one is read.
    setting.setCurrentIPIndex(currentIPIndex);

    // The count comes from the stream and is not trusted: entries are read one by one while the
    // stream still has data, so a damaged count cannot cause a large allocation.
    quint32 count = 0;
    in >> count;
    QList<QPair<QString, quint16>> sockets;
    for (quint32 i = 0; i < count && in.status() == QDataStream::Ok && !in.atEnd(); ++i) {
        QString ip;
        quint16 port = 0;
        in >> ip >> port;
        if (in.status() != QDataStream::Ok)
            break;
        sockets.append(qMakePair(ip, port));
    }
    setting.sockets = sockets;
    // The index was checked against the old list; one that does not point into the new list
    // (a shorter or damaged stream) goes back to the first entry.
    if (setting.currentIPIndex >= sockets.size())
        setting.currentIPIndex = 0;
    return in;
}

QDataStream &operator<<(QDataStream &out, const DriverSetting &setting)
{
    return out << qint32(setting.timeout) << qint32(setting.retry) << qint32(setting.stationid)
               << qint32(setting.delay);
}

QDataStream &operator>>(QDataStream &in, DriverSetting &setting)
{
    qint32 timeout = 0, retry = 0, stationid = 0, delay = 0;
    in >> timeout >> retry >> stationid >> delay;
    setting.timeout = timeout;
    setting.retry = retry;
    setting.stationid = stationid;
    setting.delay = delay;
    return in;
}
