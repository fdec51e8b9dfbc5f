#include "serialport.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

Q_DECLARE_METATYPE(SerialPort::Error)

namespace {

// The controller's end of a pseudo-terminal pair; the port under test opens the slave path.
class PtyMaster
{
public:
    PtyMaster()
    {
        m_fd = ::posix_openpt(O_RDWR | O_NOCTTY);
        if (m_fd >= 0 && ::grantpt(m_fd) == 0 && ::unlockpt(m_fd) == 0)
            m_slavePath = QString::fromLocal8Bit(::ptsname(m_fd));
    }
    ~PtyMaster() { close(); }

    bool isValid() const { return m_fd >= 0 && !m_slavePath.isEmpty(); }
    QString slavePath() const { return m_slavePath; }

    void close()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

    bool write(const QByteArray &bytes)
    {
        qsizetype done = 0;
        while (done < bytes.size()) {
            const ssize_t count = ::write(m_fd, bytes.constData() + done, bytes.size() - done);
            if (count <= 0)
                return false;
            done += count;
        }
        return true;
    }

    // Collects bytes until `size` have come or the line stays quiet for quietMs.
    QByteArray read(int size, int quietMs = 2000)
    {
        QByteArray bytes;
        char chunk[4096];
        while (bytes.size() < size) {
            pollfd entry {m_fd, POLLIN, 0};
            if (::poll(&entry, 1, quietMs) <= 0)
                break;
            const ssize_t count = ::read(m_fd, chunk, sizeof chunk);
            if (count <= 0)
                break;
            bytes.append(chunk, int(count));
        }
        return bytes;
    }

private:
    int m_fd = -1;
    QString m_slavePath;
};

DeviceSetting lineSetting(const QString &path, int baud = 38400, int dataBits = 7, int stopBits = 2,
                          int parity = 2)
{
    return DeviceSetting(DEVICE_SERIAL, path, baud, dataBits, stopBits, parity);
}

const DriverSetting driverSetting(1000, 3, 1, 20);

QByteArray pattern(int size, int seed = 0)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 7 + seed) % 251 + 1);
    return bytes;
}

int bytesAvailable(SerialPort &port)
{
    QVariant value;
    port.getOption(AbstractDeviceInterface::BytesAvailableOption, value);
    return value.toInt();
}

} // namespace

class TestSerialPort : public QObject
{
    Q_OBJECT

private slots:
    void appliesLineSettings_data();
    void appliesLineSettings();
    void refusesUnsupportedSettings_data();
    void refusesUnsupportedSettings();
    void refusesUnusableDevices_data();
    void refusesUnusableDevices();
    void refusesSecondClaim();
    void mapsPortNames_data();
    void mapsPortNames();
    void readsWhatArrived_data();
    void readsWhatArrived();
    void readOnSilentLineReturnsZero();
    void readWaitsForFirstByte();
    void writesArriveWhole_data();
    void writesArriveWhole();
    void stalledWriteReportsCount();
    void countsAndDiscardsInput();
    void concurrentReadAndWrite();
    void concurrentWritesStayWhole();
    void reportsLostLink_data();
    void reportsLostLink();
    void reopensAfterClose();
    void refusesUseWhenClosed();
};

void TestSerialPort::appliesLineSettings_data()
{
    QTest::addColumn<int>("baud");
    QTest::addColumn<int>("dataBits");
    QTest::addColumn<int>("stopBits");
    QTest::addColumn<int>("parity");
    QTest::addColumn<uint>("size");
    QTest::addColumn<speed_t>("speed");

    QTest::newRow("38400 7E2") << 38400 << 7 << 2 << 2 << uint(CS7) << speed_t(B38400);
    QTest::newRow("9600 8N1") << 9600 << 8 << 1 << 0 << uint(CS8) << speed_t(B9600);
    QTest::newRow("115200 8O1") << 115200 << 8 << 1 << 1 << uint(CS8) << speed_t(B115200);
    QTest::newRow("1200 6E2") << 1200 << 6 << 2 << 2 << uint(CS6) << speed_t(B1200);
    QTest::newRow("300 5O1") << 300 << 5 << 1 << 1 << uint(CS5) << speed_t(B300);
}

void TestSerialPort::appliesLineSettings()
{
    QFETCH(int, baud);
    QFETCH(int, dataBits);
    QFETCH(int, stopBits);
    QFETCH(int, parity);
    QFETCH(uint, size);
    QFETCH(speed_t, speed);

    PtyMaster master;
    QVERIFY(master.isValid());
    const DeviceSetting setting = lineSetting(master.slavePath(), baud, dataBits, stopBits, parity);

    // What the port asks of the terminal, starting from cooked settings.
    termios asked {};
    asked.c_cflag = CS8 | PARENB;
    asked.c_iflag = ICRNL | IXON | ISTRIP;
    asked.c_lflag = ICANON | ECHO | ISIG;
    asked.c_oflag = OPOST;
    QString refusal;
    QVERIFY(SerialPort::makeLineSettings(setting, &asked, &refusal));
    QVERIFY(refusal.isEmpty());
    QCOMPARE(uint(asked.c_cflag & CSIZE), size);
    QCOMPARE(bool(asked.c_cflag & PARENB), parity != 0);
    QCOMPARE(bool(asked.c_cflag & PARODD), parity == 1);
    QCOMPARE(bool(asked.c_iflag & INPCK), parity != 0);
    QCOMPARE(bool(asked.c_cflag & CSTOPB), stopBits == 2);
    QCOMPARE(::cfgetispeed(&asked), speed);
    QCOMPARE(::cfgetospeed(&asked), speed);

    // What the terminal took. A pseudo-terminal always keeps 8 bits without parity, so only the
    // speed, the stop bits and raw mode can be seen on it.
    SerialPort port(setting, driverSetting);
    QVERIFY2(port.open(), qPrintable(port.errorString()));
    QCOMPARE(port.state(), SerialPort::State::Open);
    QCOMPARE(port.error(), SerialPort::Error::NoError);
    termios taken;
    QCOMPARE(::tcgetattr(port.handle(), &taken), 0);
    QCOMPARE(bool(taken.c_cflag & CSTOPB), stopBits == 2);
    QCOMPARE(::cfgetospeed(&taken), speed);
    QCOMPARE(taken.c_lflag & (ICANON | ECHO | ISIG), tcflag_t(0));
    QCOMPARE(taken.c_oflag & OPOST, tcflag_t(0));
    QCOMPARE(taken.c_iflag & (IXON | IXOFF | ICRNL | ISTRIP), tcflag_t(0));

    // New line parameters on an open port apply at once; refused ones leave the old ones.
    QVERIFY(port.setDeviceSetting(lineSetting(master.slavePath(), 19200, 8, 1, 0)));
    QCOMPARE(::tcgetattr(port.handle(), &taken), 0);
    QCOMPARE(::cfgetospeed(&taken), speed_t(B19200));
    QVERIFY(!(taken.c_cflag & CSTOPB));
    QVERIFY(!port.setDeviceSetting(lineSetting(master.slavePath(), 19200, 9, 2, 0)));
    QCOMPARE(port.error(), SerialPort::Error::UnsupportedSetting);
    QCOMPARE(::tcgetattr(port.handle(), &taken), 0);
    QVERIFY(!(taken.c_cflag & CSTOPB));
    QCOMPARE(port.getDeviceSetting()->databits, 8);
    QCOMPARE(port.getRetry(), 3);
    QCOMPARE(port.getDelay(), 20);
}

void TestSerialPort::refusesUnsupportedSettings_data()
{
    QTest::addColumn<int>("baud");
    QTest::addColumn<int>("dataBits");
    QTest::addColumn<int>("stopBits");
    QTest::addColumn<int>("parity");
    QTest::addColumn<QString>("named");

    QTest::newRow("odd baud") << 12345 << 8 << 1 << 0 << "baud rate 12345";
    QTest::newRow("zero baud") << 0 << 8 << 1 << 0 << "baud rate 0";
    QTest::newRow("4 data bits") << 9600 << 4 << 1 << 0 << "data bits 4";
    QTest::newRow("9 data bits") << 9600 << 9 << 1 << 0 << "data bits 9";
    QTest::newRow("parity 3") << 9600 << 8 << 1 << 3 << "parity code 3";
    QTest::newRow("parity -1") << 9600 << 8 << 1 << -1 << "parity code -1";
    QTest::newRow("0 stop bits") << 9600 << 8 << 0 << 0 << "stop bits 0";
    QTest::newRow("3 stop bits") << 9600 << 8 << 3 << 0 << "stop bits 3";
}

void TestSerialPort::refusesUnsupportedSettings()
{
    QFETCH(int, baud);
    QFETCH(int, dataBits);
    QFETCH(int, stopBits);
    QFETCH(int, parity);
    QFETCH(QString, named);

    PtyMaster master;
    QVERIFY(master.isValid());
    SerialPort port(lineSetting(master.slavePath(), baud, dataBits, stopBits, parity),
                    driverSetting);
    QVERIFY(!port.open());
    QCOMPARE(port.state(), SerialPort::State::Closed);
    QCOMPARE(port.error(), SerialPort::Error::UnsupportedSetting);
    QVERIFY2(port.errorString().contains(master.slavePath()), qPrintable(port.errorString()));
    QVERIFY2(port.errorString().contains(named), qPrintable(port.errorString()));

    // The refused attempt left the device free for a port with sound settings.
    SerialPort good(lineSetting(master.slavePath()), driverSetting);
    QVERIFY2(good.open(), qPrintable(good.errorString()));
}

void TestSerialPort::refusesUnusableDevices_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<SerialPort::Error>("error");
    QTest::addColumn<QString>("reason");

    QTest::newRow("missing") << "missing" << SerialPort::Error::DeviceNotFound
                             << "No such file or directory";
    QTest::newRow("regular file") << "file" << SerialPort::Error::NotATerminal << "not a terminal";
    QTest::newRow("directory") << "directory" << SerialPort::Error::OpenFailed << "directory";
}

void TestSerialPort::refusesUnusableDevices()
{
    QFETCH(QString, kind);
    QFETCH(SerialPort::Error, error);
    QFETCH(QString, reason);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QString path = dir.filePath(QStringLiteral("does-not-exist"));
    if (kind == QLatin1String("file")) {
        path = dir.filePath(QStringLiteral("plain"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("not a line");
    } else if (kind == QLatin1String("directory")) {
        path = dir.path();
    }

    SerialPort port(lineSetting(path), driverSetting);
    QVERIFY(!port.open());
    QCOMPARE(port.state(), SerialPort::State::Closed);
    QCOMPARE(port.handle(), -1);
    QCOMPARE(port.error(), error);
    QVERIFY2(port.errorString().startsWith(QStringLiteral("Cannot open ") + path),
             qPrintable(port.errorString()));
    QVERIFY2(port.errorString().contains(reason), qPrintable(port.errorString()));
}

void TestSerialPort::refusesSecondClaim()
{
    PtyMaster master;
    QVERIFY(master.isValid());
    SerialPort first(lineSetting(master.slavePath()), driverSetting);
    SerialPort second(lineSetting(master.slavePath()), driverSetting);
    QVERIFY(first.open());

    QVERIFY(!second.open());
    QCOMPARE(second.error(), SerialPort::Error::Busy);
    QVERIFY2(second.errorString().contains(master.slavePath()), qPrintable(second.errorString()));
    QVERIFY2(second.errorString().contains(QStringLiteral("in use")),
             qPrintable(second.errorString()));
    QVERIFY(!first.open()); // already open
    QVERIFY(first.isOpen());

    first.close();
    QVERIFY2(second.open(), qPrintable(second.errorString()));
    QCOMPARE(second.error(), SerialPort::Error::NoError);
}

void TestSerialPort::mapsPortNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("path");

    QTest::newRow("path") << "/dev/pts/3"
                          << "/dev/pts/3";
    QTest::newRow("COM1") << "COM1"
                          << "/dev/ttyS0";
    QTest::newRow("com12") << "com12"
                           << "/dev/ttyS11";
    QTest::newRow("COM0 is no run-time port") << "COM0"
                                              << "/dev/COM0";
    QTest::newRow("bare name") << "ttyUSB0"
                               << "/dev/ttyUSB0";
}

void TestSerialPort::mapsPortNames()
{
    QFETCH(QString, name);
    QFETCH(QString, path);
    QCOMPARE(SerialPort::devicePath(name), path);
}

void TestSerialPort::readsWhatArrived_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("capacity");

    QTest::newRow("one byte") << 1 << 200;
    QTest::newRow("frame") << 120 << 200;
    QTest::newRow("exactly full") << 200 << 200;
    QTest::newRow("more than capacity") << 500 << 200;
    QTest::newRow("small buffer") << 64 << 30;
}

void TestSerialPort::readsWhatArrived()
{
    QFETCH(int, size);
    QFETCH(int, capacity);

    PtyMaster master;
    QVERIFY(master.isValid());
    SerialPort port(lineSetting(master.slavePath()), driverSetting);
    port.setReadTimeout(2000);
    QVERIFY(port.open());

    const QByteArray sent = pattern(size);
    QVERIFY(master.write(sent));
    QByteArray received;
    QByteArray buffer(capacity, '\0');
    for (int calls = 0; received.size() < size && calls < size + 10; ++calls) {
        const int count = port.readData(buffer.data(), capacity);
        QVERIFY(count >= 0 && count <= capacity);
        received.append(buffer.constData(), count);
    }
    QCOMPARE(received, sent);
    QCOMPARE(port.error(), SerialPort::Error::NoError);
}

void TestSerialPort::readOnSilentLineReturnsZero()
{
    PtyMaster master;
    QVERIFY(master.isValid());
    SerialPort port(lineSetting(master.slavePath()), driverSetting);
    port.setReadTimeout(20);
    QVERIFY(port.open());

    char buffer[200];
    QCOMPARE(port.readData(buffer, sizeof buffer), 0);
    QCOMPARE(port.receiveData(buffer, sizeof buffer), 0);
    QCOMPARE(port.readData(buffer, 0), 0);
    QCOMPARE(port.readData(nullptr, 200), 0);
    // A quiet line is no failure.
    QCOMPARE(port.error(), SerialPort::Error::NoError);
    QVERIFY(port.isOpen());
}

void TestSerialPort::readWaitsForFirstByte()
{
    PtyMaster master;
    QVERIFY(master.isValid());
    SerialPort port(lineSetting(master.slavePath()), driverSetting);
    port.setReadTimeout(10000);
    QVERIFY(port.open());

    std::atomic<bool> reading {false};
    std::thread controller([&] {
        while (!reading)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        master.write("late");
    });
    char buffer[200];
    reading = true;
    const int count = port.receiveData(buffer, sizeof buffer);
    controller.join();
    QVERIFY(count > 0);
    QCOMPARE(QByteArray(buffer, count), QByteArray("late").left(count));
}

void TestSerialPort::writesArriveWhole_data()
{
    QTest::addColumn<int>("size");

    QTest::newRow("one byte") << 1;
    QTest::newRow("longest frame") << 230;
    QTest::newRow("4 KiB") << 4096;
    QTest::newRow("64 KiB") << 65536;
}

void TestSerialPort::writesArriveWhole()
{
    QFETCH(int, size);

    PtyMaster master;
    QVERIFY(master.isValid());
    SerialPort port(lineSetting(master.slavePath()), driverSetting);
    QVERIFY(port.open());

    const QByteArray sent = pattern(size, 3);
    QByteArray received;
    std::thread drain([&] { received = master.read(size); });
    const int written = port.writeData(sent.constData(), size);
    drain.join();
    QCOMPARE(written, size);
    QCOMPARE(received.size(), size);
    QVERIFY(received == sent);
    QCOMPARE(port.error(), SerialPort::Error::NoError);
}

void TestSerialPort::stalledWriteReportsCount()
{
    PtyMaster master;
    QVERIFY(master.isValid());
    SerialPort port(lineSetting(master.slavePath()), driverSetting);
    port.setWriteTimeout(30);
    QVERIFY(port.open());

    // Nobody reads the master: the line fills up and the write gives up with what went out.
    const QByteArray sent = pattern(1024 * 1024);
    const int written = port.writeData(sent.constData(), sent.size());
    QVERIFY(written >= 0);
    QVERIFY(written < sent.size());
    QCOMPARE(port.error(), SerialPort::Error::WriteStalled);
    QVERIFY2(port.errorString().contains(QString::number(written)), qPrintable(port.errorString()));
    QVERIFY(port.isOpen());

    // Once drained the line takes writes again, and the bytes came in order.
    QCOMPARE(master.read(written), sent.left(written));
    QCOMPARE(port.writeData("ok", 2), 2);
    QCOMPARE(master.read(2), QByteArray("ok"));
}

void TestSerialPort::countsAndDiscardsInput()
{
    PtyMaster master;
    QVERIFY(master.isValid());
    SerialPort port(lineSetting(master.slavePath()), driverSetting);
    port.setReadTimeout(10);
    QVERIFY(port.open());

    QCOMPARE(bytesAvailable(port), 0);
    QVERIFY(master.write("0123456789"));
    QTRY_COMPARE(bytesAvailable(port), 10);

    // Only option 12 with the value 0 discards.
    port.setOption(AbstractDeviceInterface::DiscardReceivedOption, 1);
    port.setOption(AbstractDeviceInterface::DiscardReceivedOption, QStringLiteral("x"));
    port.setOption(AbstractDeviceInterface::BytesAvailableOption, 0);
    QCOMPARE(bytesAvailable(port), 10);
    port.setOption(AbstractDeviceInterface::DiscardReceivedOption, 0);
    QCOMPARE(bytesAvailable(port), 0);
    char buffer[200];
    QCOMPARE(port.readData(buffer, sizeof buffer), 0);

    // What arrives after the discard is read normally.
    QVERIFY(master.write("AB"));
    QTRY_COMPARE(bytesAvailable(port), 2);
    QCOMPARE(port.readData(buffer, sizeof buffer), 2);

    QVariant other(42);
    port.getOption(7, other);
    QVERIFY(!other.isValid());
    QCOMPARE(port.error(), SerialPort::Error::NoError);
}

void TestSerialPort::concurrentReadAndWrite()
{
    PtyMaster master;
    QVERIFY(master.isValid());
    SerialPort port(lineSetting(master.slavePath()), driverSetting);
    port.setReadTimeout(5);
    QVERIFY(port.open());

    const int frames = 200;
    const int frameSize = 230;
    const QByteArray outbound = pattern(frames * frameSize, 1);
    const QByteArray inbound = pattern(frames * 100, 2);

    QByteArray atMaster;
    std::thread controller([&] {
        // Feed the port in pieces while taking in what it sends.
        int fed = 0;
        char chunk[4096];
        while (atMaster.size() < outbound.size() || fed < inbound.size()) {
            if (fed < inbound.size()) {
                const int piece = std::min(100, int(inbound.size()) - fed);
                if (!master.write(inbound.mid(fed, piece)))
                    return;
                fed += piece;
            }
            const QByteArray got = master.read(int(sizeof chunk), fed < inbound.size() ? 0 : 2000);
            if (got.isEmpty() && fed >= inbound.size())
                return;
            atMaster.append(got);
        }
    });

    QByteArray atPort;
    std::thread reader([&] {
        char buffer[200];
        int idle = 0;
        while (atPort.size() < inbound.size() && idle < 400) {
            const int count = port.readData(buffer, sizeof buffer);
            idle = count > 0 ? 0 : idle + 1;
            atPort.append(buffer, count);
            QVariant waiting;
            port.getOption(AbstractDeviceInterface::BytesAvailableOption, waiting);
        }
    });

    int written = 0;
    for (int i = 0; i < frames; ++i)
        written += port.writeData(outbound.constData() + i * frameSize, frameSize);

    reader.join();
    controller.join();
    QCOMPARE(written, outbound.size());
    QVERIFY(atMaster == outbound);
    QVERIFY(atPort == inbound);
    QCOMPARE(port.error(), SerialPort::Error::NoError);
}

void TestSerialPort::concurrentWritesStayWhole()
{
    PtyMaster master;
    QVERIFY(master.isValid());
    SerialPort port(lineSetting(master.slavePath()), driverSetting);
    QVERIFY(port.open());

    // Frames larger than the line's buffer, so that each write has to wait for room part-way.
    const int frames = 20;
    const int frameSize = 16384;
    const QByteArray frameA(frameSize, 'A');
    const QByteArray frameB(frameSize, 'B');
    QByteArray received;
    std::thread drain([&] { received = master.read(2 * frames * frameSize); });
    auto send = [&](const QByteArray &frame) {
        for (int i = 0; i < frames; ++i)
            port.writeData(frame.constData(), frame.size());
    };
    std::thread writerA(send, frameA);
    std::thread writerB(send, frameB);
    writerA.join();
    writerB.join();
    drain.join();

    QCOMPARE(received.size(), 2 * frames * frameSize);
    for (int offset = 0; offset < received.size(); offset += frameSize) {
        const QByteArray frame = received.mid(offset, frameSize);
        QVERIFY2(frame == frameA || frame == frameB,
                 qPrintable(QStringLiteral("frame at %1 is mixed").arg(offset)));
    }
}

void TestSerialPort::reportsLostLink_data()
{
    QTest::addColumn<bool>("byWrite");

    QTest::newRow("seen by a read") << false;
    QTest::newRow("seen by a write") << true;
}

void TestSerialPort::reportsLostLink()
{
    QFETCH(bool, byWrite);

    auto master = std::make_unique<PtyMaster>();
    QVERIFY(master->isValid());
    SerialPort port(lineSetting(master->slavePath()), driverSetting);
    port.setReadTimeout(10);
    QVERIFY(port.open());

    master->close();
    char buffer[200];
    if (byWrite)
        QVERIFY(port.writeData("lost", 4) < 4);
    else
        QCOMPARE(port.readData(buffer, sizeof buffer), 0);
    QCOMPARE(port.state(), SerialPort::State::LinkLost);
    QVERIFY(!port.isOpen());
    QCOMPARE(port.handle(), -1);
    QCOMPARE(port.error(), SerialPort::Error::LinkLost);
    QVERIFY2(port.errorString().contains(port.portName()), qPrintable(port.errorString()));

    // Further calls return at once with nothing and keep the first reason.
    const QString reason = port.errorString();
    QCOMPARE(port.writeData("x", 1), 0);
    QCOMPARE(port.readData(buffer, sizeof buffer), 0);
    QCOMPARE(bytesAvailable(port), -1);
    QCOMPARE(port.errorString(), reason);

    // A new controller end appears under another name: reopen there.
    master = std::make_unique<PtyMaster>();
    QVERIFY(master->isValid());
    QVERIFY(port.setDeviceSetting(lineSetting(master->slavePath())));
    QVERIFY2(port.reopen(), qPrintable(port.errorString()));
    QCOMPARE(port.error(), SerialPort::Error::NoError);
    QCOMPARE(port.writeData("back", 4), 4);
    QCOMPARE(master->read(4), QByteArray("back"));
}

void TestSerialPort::reopensAfterClose()
{
    PtyMaster master;
    QVERIFY(master.isValid());
    SerialPort port(lineSetting(master.slavePath()), driverSetting);
    port.setReadTimeout(2000);
    QVERIFY(port.open());
    port.close();
    QCOMPARE(port.state(), SerialPort::State::Closed);
    port.close();

    QVERIFY2(port.open(), qPrintable(port.errorString()));
    QVERIFY(master.write("again"));
    char buffer[200];
    QByteArray received;
    while (received.size() < 5) {
        const int count = port.readData(buffer, sizeof buffer);
        QVERIFY(count > 0);
        received.append(buffer, count);
    }
    QCOMPARE(received, QByteArray("again"));
}

void TestSerialPort::refusesUseWhenClosed()
{
    PtyMaster master;
    QVERIFY(master.isValid());
    SerialPort port(lineSetting(master.slavePath()), driverSetting);
    port.setReadTimeout(1);

    char buffer[10];
    QCOMPARE(port.readData(buffer, sizeof buffer), 0);
    QCOMPARE(port.error(), SerialPort::Error::NotOpen);
    QVERIFY(port.errorString().contains(master.slavePath()));
    port.clearError();
    QCOMPARE(port.writeData("x", 1), 0);
    QCOMPARE(port.error(), SerialPort::Error::NotOpen);
    QCOMPARE(bytesAvailable(port), -1);
    port.setOption(AbstractDeviceInterface::DiscardReceivedOption, 0);
}

QTEST_GUILESS_MAIN(TestSerialPort)
#include "tst_serialport.moc"
