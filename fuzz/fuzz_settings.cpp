// The settings records read from any stream: the socket index stays inside the socket list (or at
// the constructor's 0 for an empty one), the list holds no more entries than the stream has room
// for, and what is read writes back to a stream that reads back to the same bytes.
#include "drv_dev_setting.h"

#include <QByteArray>
#include <QDataStream>

#include <cstdlib>

namespace {

QByteArray written(const DeviceSetting &s)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out.setVersion(QDataStream::Qt_4_8);
    out << s;
    return bytes;
}

QDataStream::Status readInto(const QByteArray &bytes, DeviceSetting &s)
{
    QDataStream in(bytes);
    in.setVersion(QDataStream::Qt_4_8);
    in >> s;
    return in.status();
}

void checkIndex(const DeviceSetting &s)
{
    const bool inside = s.currentIPIndex >= 0 && s.currentIPIndex < s.sockets.size();
    if (!inside && !(s.sockets.isEmpty() && s.currentIPIndex == 0))
        std::abort();
}

void checkDriverSetting(const QByteArray &bytes)
{
    DriverSetting r(1, 2, 3, 4);
    QDataStream in(bytes);
    in.setVersion(QDataStream::Qt_4_8);
    in >> r;
    if (in.status() != QDataStream::Ok)
        return;
    QByteArray back;
    QDataStream out(&back, QIODevice::WriteOnly);
    out.setVersion(QDataStream::Qt_4_8);
    out << r;
    if (back != bytes.left(16))
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size < 1 || size > 65536)
        return 0;
    // The first byte chooses the object the stream is read into: 0 to 3 socket entries and an
    // index among them.
    const int entries = input[0] & 3;
    const QByteArray bytes(reinterpret_cast<const char *>(input + 1), int(size - 1));

    DeviceSetting s(DEVICE_SERIAL, QStringLiteral("COM1"), 38400, 7, 2, 2);
    QList<QPair<QString, QString>> sockets;
    for (int i = 0; i < entries; ++i)
        sockets.append({QStringLiteral("10.0.0.%1").arg(i), QString::number(500 + i)});
    s.setSocketData(sockets);
    s.setCurrentIPIndex((input[0] >> 2) & 3);

    const QDataStream::Status status = readInto(bytes, s);
    checkIndex(s);
    // An entry takes at least a string length and a port: 6 bytes.
    if (s.sockets.size() > bytes.size() / 6)
        std::abort();
    s.socketIP(-1);
    s.port(-1);

    if (status == QDataStream::Ok) {
        // Written out and read into an object holding the same list, the record is unchanged.
        const QByteArray once = written(s);
        DeviceSetting again = s;
        if (readInto(once, again) != QDataStream::Ok || written(again) != once)
            std::abort();
    }

    checkDriverSetting(bytes);
    return 0;
}
