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
    void init();
    void cleanup();
    void appliesLineSettings_data();
    void appliesLineSettings();
    void refusesToOpen_data();
    void refusesToOpen();
    void refusesSecondClaim();
    void readsWhatArrived_data();
    void readsWhatArrived();
    void readWaitsForFirstByte();
    void writesArriveWhole_data();
    void writesArriveWhole();
    void stalledWriteReportsCount();
    void countsAndDiscardsInput();
    void concurrentReadAndWrite();
    void concurrentWritesStayWhole();
    void reportsLostLink_data();
    void reportsLostLink();
    void refusesUseWhenClosed();

private:
    std::unique_ptr<PtyMaster> m_master;
    std::unique_ptr<SerialPort> m_port; // on the slave of m_master, 38400 7E2, not yet open
};

void TestSerialPort::init()
{
    m_master = std::make_unique<PtyMaster>();
    QVERIFY(m_master->isValid());
    m_port = std::make_unique<SerialPort>(lineSetting(m_master->slavePath()), driverSetting);
}

void TestSerialPort::cleanup()
{
    m_port.reset();
    m_master.reset();
}

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
    const DeviceSetting setting
        = lineSetting(m_master->slavePath(), baud, dataBits, stopBits, parity);

    // What the port asks of the terminal, starting from cooked settings.
    termios asked {};
    asked.c_cflag = CS8 | PARENB;
    asked.c_iflag = ICRNL | IXON | ISTRIP;
    asked.c_lflag = ICANON | ECHO | ISIG;
    asked.c_oflag = OPOST;
    QString refusal;
    QVERIFY(SerialPort::makeLineSettings(setting, &asked, &refusal));
    QCOMPARE(uint(asked.c_cflag & CSIZE), size);
    QCOMPARE(bool(asked.c_cflag & PARENB), parity != 0);
    QCOMPARE(bool(asked.c_cflag & PARODD), parity == 1);
    QCOMPARE(bool(asked.c_iflag & INPCK), parity != 0);
    QCOMPARE(bool(asked.c_cflag & CSTOPB), stopBits == 2);
    QCOMPARE(::cfgetispeed(&asked), speed);

    // What the terminal took. A pseudo-terminal always keeps 8 bits without parity, so only the
    // speed, the stop bits and raw mode can be seen on it.
    QVERIFY(m_port->setDeviceSetting(setting));
    QVERIFY2(m_port->open(), qPrintable(m_port->errorString()));
    termios taken;
    QCOMPARE(::tcgetattr(m_port->handle(), &taken), 0);
    QCOMPARE(bool(taken.c_cflag & CSTOPB), stopBits == 2);
    QCOMPARE(::cfgetospeed(&taken), speed);
    QCOMPARE(taken.c_lflag & (ICANON | ECHO | ISIG), tcflag_t(0));
    QCOMPARE(taken.c_oflag & OPOST, tcflag_t(0));
    QCOMPARE(taken.c_iflag & (IXON | IXOFF | ICRNL | ISTRIP), tcflag_t(0));

    // New parameters on an open port apply at once; refused ones leave the old ones in force.
    QVERIFY(m_port->setDeviceSetting(lineSetting(m_master->slavePath(), 19200, 8, 1, 0)));
    QVERIFY(!m_port->setDeviceSetting(lineSetting(m_master->slavePath(), 4800, 9, 2, 0)));
    QCOMPARE(m_port->error(), SerialPort::Error::UnsupportedSetting);
    QCOMPARE(::tcgetattr(m_port->handle(), &taken), 0);
    QCOMPARE(::cfgetospeed(&taken), speed_t(B19200));
    QVERIFY(!(taken.c_cflag & CSTOPB));
    QCOMPARE(m_port->getDeviceSetting()->baudrate, 19200);
}

void TestSerialPort::refusesToOpen_data()
{
    QTest::addColumn<QString>("device"); // pty, missing, file or directory
    QTest::addColumn<int>("baud");
    QTest::addColumn<int>("dataBits");
    QTest::addColumn<int>("stopBits");
    QTest::addColumn<int>("parity");
    QTest::addColumn<SerialPort::Error>("error");
    QTest::addColumn<QString>("reason");

    const auto unsupported = SerialPort::Error::UnsupportedSetting;
    QTest::newRow("odd baud") << "pty" << 12345 << 8 << 1 << 0 << unsupported << "baud rate 12345";
    QTest::newRow("4 data bits") << "pty" << 9600 << 4 << 1 << 0 << unsupported << "data bits 4";
    QTest::newRow("9 data bits") << "pty" << 9600 << 9 << 1 << 0 << unsupported << "data bits 9";
    QTest::newRow("parity 3") << "pty" << 9600 << 8 << 1 << 3 << unsupported << "parity code 3";
    QTest::newRow("parity -1") << "pty" << 9600 << 8 << 1 << -1 << unsupported << "parity code -1";
    QTest::newRow("0 stop bits") << "pty" << 9600 << 8 << 0 << 0 << unsupported << "stop bits 0";
    QTest::newRow("3 stop bits") << "pty" << 9600 << 8 << 3 << 0 << unsupported << "stop bits 3";
    QTest::newRow("missing") << "missing" << 38400 << 7 << 2 << 2
                             << SerialPort::Error::DeviceNotFound << "No such file or directory";
    QTest::newRow("regular file") << "file" << 38400 << 7 << 2 << 2
                                  << SerialPort::Error::NotATerminal << "not a terminal";
    QTest::newRow("directory") << "directory" << 38400 << 7 << 2 << 2
                               << SerialPort::Error::OpenFailed << "Is a directory";
}

void TestSerialPort::refusesToOpen()
{
    QFETCH(QString, device);
    QFETCH(int, baud);
    QFETCH(int, dataBits);
    QFETCH(int, stopBits);
    QFETCH(int, parity);
    QFETCH(SerialPort::Error, error);
    QFETCH(QString, reason);

    QTemporaryDir dir;
    QString path = m_master->slavePath();
    if (device == QLatin1String("missing")) {
        path = dir.filePath(QStringLiteral("does-not-exist"));
    } else if (device == QLatin1String("directory")) {
        path = dir.path();
    } else if (device == QLatin1String("file")) {
        path = dir.filePath(QStringLiteral("plain"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
    }

    SerialPort port(lineSetting(path, baud, dataBits, stopBits, parity), driverSetting);
    QVERIFY(!port.open());
    QCOMPARE(port.state(), SerialPort::State::Closed);
    QCOMPARE(port.handle(), -1);
    QCOMPARE(port.error(), error);
    QVERIFY2(port.errorString().contains(path), qPrintable(port.errorString()));
    QVERIFY2(port.errorString().contains(reason), qPrintable(port.errorString()));

    // A refused attempt leaves the terminal free for a port with sound settings.
    QVERIFY2(m_port->open(), qPrintable(m_port->errorString()));
}

void TestSerialPort::refusesSecondClaim()
{
    SerialPort second(lineSetting(m_master->slavePath()), driverSetting);
    QVERIFY(m_port->open());
    QVERIFY(!second.open());
    QCOMPARE(second.error(), SerialPort::Error::Busy);
    QVERIFY2(second.errorString().contains(m_master->slavePath()),
             qPrintable(second.errorString()));
    QVERIFY2(second.errorString().contains(QStringLiteral("in use")),
             qPrintable(second.errorString()));
    QVERIFY(!m_port->open()); // already open
    QVERIFY(m_port->isOpen());

    m_port->close();
    QVERIFY2(second.open(), qPrintable(second.errorString()));
    QCOMPARE(second.error(), SerialPort::Error::NoError);
    second.close();
    QVERIFY2(m_port->open(), qPrintable(m_port->errorString()));
}

void TestSerialPort::readsWhatArrived_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("capacity");

    QTest::newRow("silent line") << 0 << 200;
    QTest::newRow("one byte") << 1 << 200;
    QTest::newRow("exactly full") << 200 << 200;
    QTest::newRow("more than capacity") << 500 << 200;
    QTest::newRow("small buffer") << 64 << 30;
}

void TestSerialPort::readsWhatArrived()
{
    QFETCH(int, size);
    QFETCH(int, capacity);
    m_port->setReadTimeout(5000);
    QVERIFY(m_port->open());

    const QByteArray sent = pattern(size);
    QVERIFY(m_master->write(sent));
    QByteArray received;
    QByteArray buffer(capacity, '\0');
    for (int calls = 0; received.size() < size && calls < size; ++calls) {
        const int count = calls % 2 ? m_port->receiveData(buffer.data(), capacity)
                                    : m_port->readData(buffer.data(), capacity);
        QVERIFY(count > 0 && count <= capacity);
        received.append(buffer.constData(), count);
    }
    QCOMPARE(received, sent);
    // Nothing more comes: the read returns empty after its wait, and a quiet line is no failure.
    m_port->setReadTimeout(20);
    QCOMPARE(m_port->readData(buffer.data(), capacity), 0);
    QCOMPARE(m_port->readData(nullptr, capacity), 0);
    QCOMPARE(m_port->error(), SerialPort::Error::NoError);
}

void TestSerialPort::readWaitsForFirstByte()
{
    m_port->setReadTimeout(10000);
    QVERIFY(m_port->open());
    std::thread controller([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        m_master->write("late");
    });
    char buffer[200];
    const int count = m_port->receiveData(buffer, sizeof buffer);
    controller.join();
    QVERIFY(count > 0);
    QCOMPARE(QByteArray(buffer, count), QByteArray("late").left(count));
}
void TestSerialPort::writesArriveWhole_data()
{
    QTest::addColumn<int>("size");

    QTest::newRow("one byte") << 1;
    QTest::newRow("longest frame") << 230;
    QTest::newRow("64 KiB") << 65536;
}

void TestSerialPort::writesArriveWhole()
{
    QFETCH(int, size);
    QVERIFY(m_port->open());

    const QByteArray sent = pattern(size, 3);
    QByteArray received;
    std::thread drain([&] { received = m_master->read(size); });
    const int written = m_port->writeData(sent.constData(), size);
    drain.join();
    QCOMPARE(written, size);
    QVERIFY(received == sent);
    QCOMPARE(m_port->error(), SerialPort::Error::NoError);
}

void TestSerialPort::stalledWriteReportsCount()
{
    m_port->setWriteTimeout(30);
    QVERIFY(m_port->open());

    // Nobody reads the master: the line fills up and the write gives up with what went out.
    const QByteArray sent = pattern(1024 * 1024);
    const int written = m_port->writeData(sent.constData(), sent.size());
    QVERIFY(written >= 0 && written < sent.size());
    QCOMPARE(m_port->error(), SerialPort::Error::WriteStalled);
    QVERIFY2(m_port->errorString().contains(QString::number(written)),
             qPrintable(m_port->errorString()));
    QVERIFY(m_port->isOpen());

    // Once drained the line takes writes again, and the bytes came in order.
    QCOMPARE(m_master->read(written), sent.left(written));
    QCOMPARE(m_port->writeData("ok", 2), 2);
    QCOMPARE(m_master->read(2), QByteArray("ok"));
}

void TestSerialPort::countsAndDiscardsInput()
{
    m_port->setReadTimeout(10);
    QVERIFY(m_port->open());
    QCOMPARE(bytesAvailable(*m_port), 0);
    QVERIFY(m_master->write("0123456789"));
    QTRY_COMPARE(bytesAvailable(*m_port), 10);

    // Only option 12 with the value 0 discards.
    m_port->setOption(AbstractDeviceInterface::DiscardReceivedOption, 1);
    m_port->setOption(AbstractDeviceInterface::DiscardReceivedOption, QStringLiteral("x"));
    m_port->setOption(AbstractDeviceInterface::BytesAvailableOption, 0);
    QCOMPARE(bytesAvailable(*m_port), 10);
    m_port->setOption(AbstractDeviceInterface::DiscardReceivedOption, 0);
    QCOMPARE(bytesAvailable(*m_port), 0);
    char buffer[200];
    QCOMPARE(m_port->readData(buffer, sizeof buffer), 0);

    // What arrives after the discard is read normally.
    QVERIFY(m_master->write("AB"));
    QTRY_COMPARE(bytesAvailable(*m_port), 2);
    QCOMPARE(m_port->readData(buffer, sizeof buffer), 2);
    QVariant other(42);
    m_port->getOption(7, other);
    QVERIFY(!other.isValid());
}

void TestSerialPort::concurrentReadAndWrite()
{
    // The worker reads and polls the count while another thread writes frames.
    m_port->setReadTimeout(5);
    QVERIFY(m_port->open());
    const int frames = 200;
    const int frameSize = 230;
    const QByteArray outbound = pattern(frames * frameSize, 1);
    const QByteArray inbound = pattern(20000, 2);

    QByteArray atMaster;
    std::thread drain([&] { atMaster = m_master->read(outbound.size()); });
    std::thread controller([&] { m_master->write(inbound); });
    QByteArray atPort;
    std::thread reader([&] {
        char buffer[200];
        for (int idle = 0; atPort.size() < inbound.size() && idle < 400;) {
            const int count = m_port->readData(buffer, sizeof buffer);
            idle = count > 0 ? 0 : idle + 1;
            atPort.append(buffer, count);
            bytesAvailable(*m_port);
        }
    });
    int written = 0;
    for (int i = 0; i < frames; ++i)
        written += m_port->writeData(outbound.constData() + i * frameSize, frameSize);
    reader.join();
    controller.join();
    drain.join();

    QCOMPARE(written, outbound.size());
    QVERIFY(atMaster == outbound);
    QVERIFY(atPort == inbound);
    QCOMPARE(m_port->error(), SerialPort::Error::NoError);
}

void TestSerialPort::concurrentWritesStayWhole()
{
    QVERIFY(m_port->open());
    // Frames larger than the line's buffer, so that each write has to wait for room part-way.
    const int frames = 20;
    const int frameSize = 16384;
    const QByteArray frameA(frameSize, 'A');
    const QByteArray frameB(frameSize, 'B');
    QByteArray received;
    std::thread drain([&] { received = m_master->read(2 * frames * frameSize); });
    auto send = [this](const QByteArray &frame) {
        for (int i = 0; i < frames; ++i)
            m_port->writeData(frame.constData(), frame.size());
    };
    std::thread writerA(send, frameA);
    std::thread writerB(send, frameB);
    writerA.join();
    writerB.join();
    drain.join();

    QCOMPARE(received.size(), 2 * frames * frameSize);
    for (int offset = 0; offset < received.size(); offset += frameSize) {
        const QByteArray frame = received.mid(offset, frameSize);
        QVERIFY2(frame == frameA || frame == frameB, qPrintable(QString::number(offset)));
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
    m_port->setReadTimeout(10);
    QVERIFY(m_port->open());

    m_master->close();
    char buffer[200];
    if (byWrite)
        QVERIFY(m_port->writeData("lost", 4) < 4);
    else
        QCOMPARE(m_port->readData(buffer, sizeof buffer), 0);
    QCOMPARE(m_port->state(), SerialPort::State::LinkLost);
    QCOMPARE(m_port->handle(), -1);
    QCOMPARE(m_port->error(), SerialPort::Error::LinkLost);
    const QString reason = m_port->errorString();
    QVERIFY2(reason.contains(m_port->portName()), qPrintable(reason));

    // Further calls give nothing and keep the first reason.
    QCOMPARE(m_port->writeData("x", 1), 0);
    QCOMPARE(m_port->readData(buffer, sizeof buffer), 0);
    QCOMPARE(bytesAvailable(*m_port), -1);
    QCOMPARE(m_port->errorString(), reason);

    // A new controller end appears under another name: reopen there.
    m_master = std::make_unique<PtyMaster>();
    QVERIFY(m_port->setDeviceSetting(lineSetting(m_master->slavePath())));
    QVERIFY2(m_port->reopen(), qPrintable(m_port->errorString()));
    QCOMPARE(m_port->error(), SerialPort::Error::NoError);
    QCOMPARE(m_port->writeData("back", 4), 4);
    QCOMPARE(m_master->read(4), QByteArray("back"));
}

void TestSerialPort::refusesUseWhenClosed()
{
    m_port->setReadTimeout(1);
    char buffer[10];
    QCOMPARE(m_port->readData(buffer, sizeof buffer), 0);
    QCOMPARE(m_port->error(), SerialPort::Error::NotOpen);
    QVERIFY(m_port->errorString().contains(m_master->slavePath()));
    m_port->clearError();
    QCOMPARE(m_port->writeData("x", 1), 0);
    QCOMPARE(m_port->error(), SerialPort::Error::NotOpen);
    QCOMPARE(bytesAvailable(*m_port), -1);
}

QTEST_GUILESS_MAIN(TestSerialPort)
#include "tst_serialport.moc"
