#include "serialport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

Q_DECLARE_METATYPE(SerialPort::Error)

namespace {

// The controller's end of a pseudo-terminal pair; the port under test opens the slave path.
struct PtyMaster
{
    PtyMaster()
        : fd(::posix_openpt(O_RDWR | O_NOCTTY))
    {
        if (fd >= 0 && ::grantpt(fd) == 0 && ::unlockpt(fd) == 0)
            slavePath = QString::fromLocal8Bit(::ptsname(fd));
    }
    ~PtyMaster() { close(); }
    void close()
    {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
    bool write(const QByteArray &bytes)
    {
        for (qsizetype done = 0; done < bytes.size();) {
            const ssize_t count = ::write(fd, bytes.constData() + done, bytes.size() - done);
            if (count <= 0)
                return false;
            done += count;
        }
        return true;
    }
    // Collects bytes until `size` have come or the line stays quiet for two seconds.
    QByteArray read(int size)
    {
        QByteArray bytes;
        char chunk[4096];
        pollfd entry {fd, POLLIN, 0};
        for (ssize_t count = 0; bytes.size() < size && ::poll(&entry, 1, 2000) > 0;) {
            if ((count = ::read(fd, chunk, sizeof chunk)) <= 0)
                break;
            bytes.append(chunk, int(count));
        }
        return bytes;
    }

    int fd;
    QString slavePath;
};

// "38400 7E2": baud, data bits, parity (N, O, E, anything else is code 3), stop bits.
DeviceSetting lineSetting(const QString &path, const QString &line = QStringLiteral("38400 7E2"))
{
    const int parity = QStringLiteral("NOE").indexOf(line.at(line.size() - 2));
    return DeviceSetting(DEVICE_SERIAL, path, line.section(' ', 0, 0).toInt(),
                         line.at(line.size() - 3).digitValue(),
                         line.at(line.size() - 1).digitValue(), parity < 0 ? 3 : parity);
}

const DriverSetting driverSetting(1000, 3, 1, 20);

QByteArray pattern(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 7) % 251 + 1);
    return bytes;
}

int bytesAvailable(SerialPort &port)
{
    QVariant value;
    port.getOption(AbstractDeviceInterface::BytesAvailableOption, value);
    return value.toInt();
}

// Collects the host port's warnings while it lives.
struct HostWarnings
{
    HostWarnings()
    {
        active = this;
        previous = qInstallMessageHandler(collect);
    }
    ~HostWarnings()
    {
        qInstallMessageHandler(previous);
        active = nullptr;
    }
    static void collect(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        if (type == QtWarningMsg && qstrcmp(context.category, "hust.host") == 0)
            active->texts << text;
        previous(type, context, text);
    }

    QStringList texts;
    static inline HostWarnings *active = nullptr;
    static inline QtMessageHandler previous = nullptr;
};

} // namespace

class TestSerialPort : public QObject
{
    Q_OBJECT

    std::unique_ptr<PtyMaster> m_master;
    std::unique_ptr<SerialPort> m_port; // on the slave of m_master, 38400 7E2, not yet open

private slots:
    void init()
    {
        m_master = std::make_unique<PtyMaster>();
        QVERIFY(!m_master->slavePath.isEmpty());
        m_port = std::make_unique<SerialPort>(lineSetting(m_master->slavePath), driverSetting);
    }
    void cleanup()
    {
        m_port.reset();
        m_master.reset();
    }

    void appliesLineSettings_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<uint>("size");
        QTest::addColumn<speed_t>("speed");
        QTest::addColumn<QString>("leftBehind"); // by an earlier process that was killed
        QTest::newRow("7E2") << "38400 7E2" << uint(CS7) << speed_t(B38400) << "";
        QTest::newRow("8O1") << "115200 8O1" << uint(CS8) << speed_t(B115200) << "";
        QTest::newRow("5N1") << "300 5N1" << uint(CS5) << speed_t(B300) << "";
        // Everything but the data bits and parity already in place: nothing left to change.
        QTest::newRow("7E2 over a killed port's settings")
            << "38400 7E2" << uint(CS7) << speed_t(B38400) << "killed port";
        QTest::newRow("7E2 over suspended output")
            << "38400 7E2" << uint(CS7) << speed_t(B38400) << "suspended output";
    }
    void appliesLineSettings()
    {
        QFETCH(QString, line);
        QFETCH(uint, size);
        QFETCH(speed_t, speed);
        QFETCH(QString, leftBehind);
        const DeviceSetting setting = lineSetting(m_master->slavePath, line);
        const bool parity = setting.parity != 0;
        // A pseudo-terminal always keeps 8 bits without parity, so those are checked on the
        // settings asked for, starting from flags that the port has to replace.
        termios asked {};
        asked.c_cflag = CS8 | PARENB;
        QString refusal;
        QVERIFY(SerialPort::makeLineSettings(setting, &asked, &refusal));
        QCOMPARE(uint(asked.c_cflag & CSIZE), size);
        QCOMPARE(bool(asked.c_cflag & PARENB), parity);
        QCOMPARE(bool(asked.c_cflag & PARODD), setting.parity == 1);
        QCOMPARE(bool(asked.c_iflag & INPCK), parity);

        const int other = ::open(qPrintable(m_master->slavePath), O_RDWR | O_NOCTTY | O_NONBLOCK);
        QVERIFY(other >= 0);
        termios found;
        QCOMPARE(::tcgetattr(other, &found), 0);
        if (leftBehind == QLatin1String("killed port")) {
            QVERIFY(SerialPort::makeLineSettings(setting, &found, &refusal));
            QCOMPARE(::tcsetattr(other, TCSANOW, &found), 0);
            QCOMPARE(::tcgetattr(other, &found), 0);
        } else if (leftBehind == QLatin1String("suspended output")) {
            QCOMPARE(::tcflow(other, TCOOFF), 0);
        }

        QVERIFY(m_port->setDeviceSetting(setting));
        QVERIFY2(m_port->open(), qPrintable(m_port->errorString()));
        termios taken;
        QCOMPARE(::tcgetattr(m_port->handle(), &taken), 0);
        QCOMPARE(bool(taken.c_cflag & CSTOPB), setting.stopbits == 2);
        QCOMPARE(::cfgetospeed(&taken), speed);
        QCOMPARE(taken.c_lflag & (ICANON | ECHO | ISIG), tcflag_t(0));
        QCOMPARE(taken.c_oflag & OPOST, tcflag_t(0));
        QCOMPARE(taken.c_iflag & (IXON | IXOFF | ICRNL | ISTRIP), tcflag_t(0));
        QCOMPARE(m_port->writeData("out", 3), 3);
        QCOMPARE(m_master->read(3), QByteArray("out"));
        // Nothing a killed port could leave behind refuses a later open: an exclusive mode
        // outlives its process on a pseudo-terminal.
        // (qemu-user does not carry this request and answers ENOSYS, which no kernel does.)
        int exclusive = 0;
        if (::ioctl(other, TIOCGEXCL, &exclusive) != 0)
            QCOMPARE(errno, ENOSYS);
        QCOMPARE(exclusive, 0);

        m_port->close();
        termios restored;
        QCOMPARE(::tcgetattr(other, &restored), 0);
        ::close(other);
        QCOMPARE(restored.c_iflag, found.c_iflag);
        QCOMPARE(restored.c_oflag, found.c_oflag);
        QCOMPARE(restored.c_cflag, found.c_cflag);
        QCOMPARE(restored.c_lflag, found.c_lflag);
    }

    void refusesToOpen_data()
    {
        QTest::addColumn<QString>("device"); // pty, busy, missing or file
        QTest::addColumn<QString>("line");
        QTest::addColumn<SerialPort::Error>("error");
        QTest::addColumn<QString>("reason");
        const auto unsupported = SerialPort::Error::UnsupportedSetting;
        const QString line("38400 7E2");
        QTest::newRow("odd baud") << "pty"
                                  << "12345 8N1" << unsupported << "baud rate 12345";
        QTest::newRow("9 data bits") << "pty"
                                     << "9600 9N1" << unsupported << "data bits 9";
        QTest::newRow("parity 3") << "pty"
                                  << "9600 8X1" << unsupported << "parity code 3";
        QTest::newRow("busy") << "busy" << line << SerialPort::Error::Busy << "in use";
        QTest::newRow("missing") << "missing" << line << SerialPort::Error::DeviceNotFound
                                 << "No such file or directory";
        QTest::newRow("file") << "file" << line << SerialPort::Error::NotATerminal
                              << "not a terminal";
    }
    void refusesToOpen()
    {
        QFETCH(QString, device);
        QFETCH(QString, line);
        QFETCH(SerialPort::Error, error);
        QFETCH(QString, reason);
        QTemporaryDir dir;
        const bool pty = device == QLatin1String("pty") || device == QLatin1String("busy");
        const QString path = pty ? m_master->slavePath : dir.filePath(QStringLiteral("plain"));
        if (device == QLatin1String("busy"))
            QVERIFY(m_port->open());
        if (device == QLatin1String("file"))
            QVERIFY(QFile(path).open(QIODevice::WriteOnly));

        SerialPort port(lineSetting(path, line), driverSetting);
        QVERIFY(!port.open());
        QCOMPARE(port.state(), SerialPort::State::Closed);
        QCOMPARE(port.handle(), -1);
        QCOMPARE(port.error(), error);
        QVERIFY2(port.errorString().contains(path), qPrintable(port.errorString()));
        QVERIFY2(port.errorString().contains(reason), qPrintable(port.errorString()));
        // A refused attempt leaves the terminal free for the next sound claim.
        m_port->close();
        QVERIFY2(m_port->open(), qPrintable(m_port->errorString()));
    }

    void readsWhatArrived_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<bool>("late"); // sent only after the read has started waiting
        QTest::newRow("one late byte") << 1 << true;
        QTest::newRow("more than the buffer") << 500 << false;
    }
    void readsWhatArrived()
    {
        QFETCH(int, size);
        QFETCH(bool, late);
        m_port->setReadTimeout(5000);
        QVERIFY(m_port->open());
        const QByteArray sent = pattern(size);
        std::thread controller([&] {
            if (late)
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            m_master->write(sent);
        });
        QByteArray received;
        char buffer[200];
        for (int calls = 0; received.size() < size && calls < size; ++calls) {
            const int count = calls % 2 ? m_port->receiveData(buffer, sizeof buffer)
                                        : m_port->readData(buffer, sizeof buffer);
            if (count <= 0 || count > int(sizeof buffer))
                break;
            received.append(buffer, count);
        }
        controller.join();
        QCOMPARE(received, sent);
        // Nothing more comes: the read returns empty after its wait, and a quiet line is no
        // failure.
        m_port->setReadTimeout(20);
        QCOMPARE(m_port->readData(buffer, sizeof buffer), 0);
        QCOMPARE(m_port->readData(nullptr, sizeof buffer), 0);
        QCOMPARE(m_port->error(), SerialPort::Error::NoError);
    }

    void countsAndDiscardsInput()
    {
        m_port->setReadTimeout(10);
        QVERIFY(m_port->open());
        QVERIFY(m_master->write("0123456789"));
        QTRY_COMPARE(bytesAvailable(*m_port), 10);
        // Only option 12 with the value 0 discards.
        m_port->setOption(AbstractDeviceInterface::DiscardReceivedOption, 1);
        QCOMPARE(bytesAvailable(*m_port), 10);
        m_port->setOption(AbstractDeviceInterface::DiscardReceivedOption, 0);
        QCOMPARE(bytesAvailable(*m_port), 0);
        // What arrives after the discard is read normally.
        QVERIFY(m_master->write("AB"));
        QTRY_COMPARE(bytesAvailable(*m_port), 2);
        char buffer[200];
        QCOMPARE(m_port->readData(buffer, sizeof buffer), 2);
        QCOMPARE(QByteArray(buffer, 2), QByteArray("AB"));
    }

    void concurrentReadAndWrites()
    {
        // Two threads write frames larger than the line's buffer, so that each write waits for
        // room part-way and must still arrive whole, while another reads and polls the count.
        m_port->setReadTimeout(5);
        QVERIFY(m_port->open());
        const int frames = 20;
        const int frameSize = 16384;
        const QByteArray frameA(frameSize, 'A');
        const QByteArray frameB(frameSize, 'B');
        const QByteArray inbound = pattern(20000);

        QByteArray atMaster;
        std::thread drain([&] { atMaster = m_master->read(2 * frames * frameSize); });
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
        std::atomic<int> written {0};
        auto send = [&](const QByteArray &frame) {
            for (int i = 0; i < frames; ++i)
                written += m_port->writeData(frame.constData(), frame.size());
        };
        std::thread writerA(send, frameA);
        std::thread writerB(send, frameB);
        for (std::thread *thread : {&writerA, &writerB, &reader, &controller, &drain})
            thread->join();

        QVERIFY(atPort == inbound);
        QCOMPARE(written.load(), 2 * frames * frameSize);
        QCOMPARE(atMaster.size(), 2 * frames * frameSize);
        for (int offset = 0; offset < atMaster.size(); offset += frameSize) {
            const QByteArray frame = atMaster.mid(offset, frameSize);
            QVERIFY2(frame == frameA || frame == frameB, qPrintable(QString::number(offset)));
        }
        QCOMPARE(m_port->error(), SerialPort::Error::NoError);
    }

    void recoversLostLink_data()
    {
        QTest::addColumn<QString>("loss");
        QTest::newRow("hang-up seen by a read") << "read";
        QTest::newRow("hang-up seen by a write") << "write";
        QTest::newRow("vanished and returning link") << "vanished";
    }
    void recoversLostLink()
    {
        QFETCH(QString, loss);
        // The port names the controller through a symbolic link, as a simulator's link or
        // /dev/serial/by-id do; a restarted controller re-points it.
        QTemporaryDir dir;
        const QString link = dir.filePath(QStringLiteral("cnc"));
        const auto pointLink = [&link](const QString &target) {
            QFile::remove(link);
            return QFile::link(target, link);
        };
        QVERIFY(pointLink(m_master->slavePath));
        QVERIFY(m_port->setDeviceSetting(lineSetting(link)));
        m_port->setReadTimeout(10);
        QVERIFY(m_port->open());
        HostWarnings warnings;

        char buffer[200];
        if (loss == QLatin1String("vanished")) {
            QFile::remove(link);
            QCOMPARE(m_port->readData(buffer, sizeof buffer), 0);
        } else {
            m_master->close();
            if (loss == QLatin1String("write"))
                QVERIFY(m_port->writeData("lost", 4) < 4);
            else
                QCOMPARE(m_port->readData(buffer, sizeof buffer), 0);
        }
        QCOMPARE(m_port->state(), SerialPort::State::LinkLost);
        QCOMPARE(m_port->handle(), -1);
        QCOMPARE(m_port->error(), SerialPort::Error::LinkLost);
        const QString reason = m_port->errorString();
        QVERIFY2(reason.contains(link), qPrintable(reason));
        // The controller is off for a while; its path is gone. Reads give nothing without
        // waiting for the line, writes fail, and reopening is tried without a warning each time.
        QFile::remove(link);
        m_port->setReadTimeout(30000);
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < 2; ++i) {
            QCOMPARE(m_port->readData(buffer, sizeof buffer), 0);
            QCOMPARE(m_port->writeData("x", 1), 0);
            QCOMPARE(bytesAvailable(*m_port), -1);
            QTest::qWait(SerialPort::ReopenIntervalMs);
        }
        QVERIFY(timer.elapsed() < m_port->readTimeout());

        // The controller comes back behind the same path: the port takes it up by itself.
        if (loss != QLatin1String("vanished"))
            m_master = std::make_unique<PtyMaster>();
        QVERIFY(pointLink(m_master->slavePath));
        bool sent = false;
        QTRY_VERIFY_WITH_TIMEOUT(sent || (sent = m_port->writeData("back", 4) == 4), 10000);
        QCOMPARE(m_master->read(4), QByteArray("back"));
        QVERIFY(m_master->write("fresh"));
        QCOMPARE(m_port->readData(buffer, 5), 5);
        QCOMPARE(QByteArray(buffer, 5), QByteArray("fresh"));
        QCOMPARE(m_port->state(), SerialPort::State::Open);
        QCOMPARE(m_port->errorString(), reason);
        // One warning for the loss and one for the reopening, however often it was tried.
        QCOMPARE(warnings.texts.size(), 2);
        QVERIFY2(warnings.texts.at(1).startsWith(QLatin1String("Reopened")),
                 qPrintable(warnings.texts.at(1)));
    }
};

QTEST_GUILESS_MAIN(TestSerialPort)
#include "tst_serialport.moc"
