// The driver with its worker, over the host serial port and the controller simulator on a
// pseudo-terminal: write dispatch, the session gate across threads and teardown.
#include "drivertestaccess.h"
#include "scriptedport.h"
#include "serialport.h"
#include "simulator.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QtTest>

#include <atomic>
#include <memory>

using Type = CommunicatorCommand::DataType;

namespace {

// Double word n holds n * 1000 + 7, so a value read for one address is never another's.
quint32 seededValue(int index)
{
    return quint32(index) * 1000u + 7u;
}

QByteArray seeded(int first, int count = 1)
{
    QByteArray bytes;
    for (int i = 0; i < count; ++i)
        bytes += dwords({seededValue(first + i)});
    return bytes;
}

// Reads until the driver answers with data, as the run-time's polling does.
QByteArray readUntilData(DriverHushCNC &driver, AbstractDeviceInterface *port,
                         const CommunicatorCommand &cmd)
{
    QByteArray result;
    QElapsedTimer timer;
    timer.start();
    while (result.isEmpty() && timer.elapsed() < 10000) {
        result = driver.read(port, cmd);
        QCoreApplication::processEvents();
    }
    return result;
}

// The host port, counting the delays the driver takes: one per read attempt.
class CountingPort : public SerialPort
{
public:
    using SerialPort::SerialPort;
    int getDelay() override
    {
        ++delays;
        return SerialPort::getDelay();
    }
    std::atomic<int> delays {0};
};

} // namespace

class TestDriverWorking : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QCoreApplication::instance()->setProperty("zel_env", true);
        QLoggingCategory::setFilterRules(QStringLiteral("hust.*.debug=false"));
    }

    void init()
    {
        hustsim::SimulatorConfig config;
        config.paced = false;
        config.frameCounter = false;
        m_sim.reset(new hustsim::Simulator(config));
        for (int i = 0; i < 300; ++i)
            m_sim->setRegister(i, seededValue(i));
        QVERIFY2(m_sim->start(), qPrintable(m_sim->errorString()));
        m_port.reset(
            new CountingPort(DeviceSetting(DEVICE_SERIAL, m_sim->devicePath(), 38400, 7, 2, 2),
                             DriverSetting(1000, 0, 0, 0)));
        QVERIFY2(m_port->open(), qPrintable(m_port->errorString()));
    }

    void cleanup()
    {
        QCoreApplication::instance()->setProperty("isExit", QVariant());
        m_port.reset();
        m_sim.reset();
    }

    void writes_data()
    {
        QTest::addColumn<Type>("type");
        QTest::addColumn<QString>("address");
        QTest::addColumn<quint32>("length");
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QList<QVariantList>>("emitted"); // address, double words, padded data

        const Type block = CommunicatorCommand::BlockType;
        const QByteArray eight = dwords({0x11111111, 0x22222222});
        const QString ascoi = QStringLiteral("Not support for writing ASCOI address. ");
        const QList<QVariantList> none; // refused writes send nothing
        QTest::newRow("block padded")
            << block << "DW200" << 5u << eight.left(5) << ""
            << QList<QVariantList> {{"DW200", 2, eight.left(5) + QByteArray(3, 0)}};
        QTest::newRow("words") << CommunicatorCommand::WordType << "DW1" << 1u << eight.left(2)
                               << "Not support the word write command." << none;
        QTest::newRow("block data shorter than its length")
            << block << "DW200" << 8u << eight.left(5) << "Write Double Word Fail. " << none;
        QTest::newRow("double word to A64")
            << CommunicatorCommand::DWordType << "A64" << 1u << eight.left(4) << ascoi << none;
        QTest::newRow("bit of another device")
            << CommunicatorCommand::BitType << "X5" << 1u << QByteArray(1, 1) << ascoi << none;
    }

    void writes()
    {
        QFETCH(Type, type);
        QFETCH(QString, address);
        QFETCH(quint32, length);
        QFETCH(QByteArray, data);
        QFETCH(QString, error);
        QFETCH(QList<QVariantList>, emitted);

        DriverHushCNC driver;
        QSignalSpy dwordSpy(&driver, SIGNAL(writeDWord(QString, int, QByteArray)));
        QSignalSpy bitSpy(&driver, SIGNAL(writeBit(QString, bool)));
        QCOMPARE(driver.write(port(), CommunicatorCommand(type, length, address), data),
                 !emitted.isEmpty());
        QCOMPARE(driver.hasError(), !error.isEmpty());
        QCOMPARE(driver.getLastError(), error);
        QVERIFY(bitSpy.isEmpty());
        QCOMPARE(QList<QVariantList>(dwordSpy), emitted);
    }

    // A bit write sets its bit in the cache at once and a write of 0 clears it again; bit b of
    // the double word at position i of the list is bit b + 32 i of the cache, also beyond bit 31.
    // With direct bit writing disabled the bit is still sent but the cache stays as it is.
    void bitWritePatchesTheCache_data()
    {
        QTest::addColumn<bool>("disabled");
        QTest::addColumn<QString>("address");
        QTest::addColumn<int>("byte"); // of the cache that the bit lies in, -1: none
        QTest::addColumn<char>("mask");
        QTest::newRow("B10.3") << false << "B10.3" << 8 << char(0x08); // bit 2 * 32 + 3
        QTest::newRow("B9.40 reaches the next double word") << false << "B9.40" << 9 << char(0x01);
        QTest::newRow("direct writing disabled") << true << "B10.3" << -1 << char(0);
    }

    void bitWritePatchesTheCache()
    {
        QFETCH(bool, disabled);
        QFETCH(QString, address);
        QFETCH(int, byte);
        QFETCH(char, mask);
        DriverHushCNC driver;
        DriverHushCNCTestAccess access(driver);
        QSignalSpy bitSpy(&driver, SIGNAL(writeBit(QString, bool)));
        const CommunicatorCommand key
            = CommunicatorCommand(CommunicatorCommand::BitType, 1, "WriteBitDirectDisable0");
        QVERIFY(driver.write(port(), key, QByteArray(1, disabled)));
        QCOMPARE(driver.read(port(), key), QByteArray(1, disabled));
        access.setStreaming({"d00008", "d00009", "d00010"}, QByteArray(12, '\0'));

        const CommunicatorCommand bit(CommunicatorCommand::BitType, 1, address);
        QVERIFY(driver.write(port(), bit, QByteArray(1, 1)));
        QByteArray expected(12, '\0');
        if (byte >= 0)
            expected[byte] = mask;
        QCOMPARE(DriverHushCNCTestAccess::blockData(driver), expected);
        QVERIFY(driver.write(port(), bit, QByteArray(1, 0)));
        QCOMPARE(DriverHushCNCTestAccess::blockData(driver), QByteArray(12, '\0'));
        QCOMPARE(QList<QList<QVariant>>(bitSpy),
                 (QList<QList<QVariant>> {{address, true}, {address, false}}));
    }

    // The G-code object talks through the port of the request that creates it, not through the
    // port the worker took at its start.
    void gcodeTakesThePortOfItsFirstRequest()
    {
        DriverHushCNC driver;
        ScriptedPort other;
        const CommunicatorCommand key
            = CommunicatorCommand(CommunicatorCommand::BitType, 1, "WriteBitDirectDisable0");
        QVERIFY(driver.write(port(), key, QByteArray(1, 0))); // the worker takes the host port
        const CommunicatorCommand status(CommunicatorCommand::DWordType, 1, "PROTOCOL_STATUS0");
        QVERIFY(driver.write(
            &other, CommunicatorCommand(CommunicatorCommand::BitType, 1, "ReadCurrentCode0"),
            QByteArray(1, 1)));
        const auto readFinished = [&] {
            const QByteArray word = driver.read(&other, status);
            return !word.isEmpty() && (word.at(0) & 0x1);
        };
        QTRY_VERIFY_WITH_TIMEOUT(readFinished(), 10000);
        QVERIFY(other.written().contains("\rO9012\rN10768\rD000003>:\r"));
    }

    // Between clearSessionCommand() and setSessionCommand() reads of other threads wait at the
    // gate while those of the holder answer nothing at once.
    void sessionGate()
    {
        DriverHushCNC driver;
        DriverHushCNCTestAccess access(driver);
        driver.setSessionCommand({dw(5)});
        QCOMPARE(readUntilData(driver, port(), dw(5)), seeded(5));

        driver.clearSessionCommand();
        QVERIFY(driver.read(port(), dw(5)).isEmpty());
        std::atomic<bool> done(false);
        QByteArray result;
        const int delays = m_port->delays;
        std::unique_ptr<QThread> reader(QThread::create([&] {
            result = readUntilData(driver, port(), dw(6));
            done = true;
        }));
        reader->start();
        // The reader takes the port's delay right before it comes to the gate; a reader that
        // passed the gate would have put d00006 into the list.
        QTRY_VERIFY(m_port->delays > delays);
        QTest::qWait(50);
        QVERIFY(!done);
        QVERIFY(access.list().isEmpty());

        // A second clear from the holder does not wait on itself.
        driver.clearSessionCommand();
        QVERIFY(!done);
        driver.setSessionCommand({dw(6)});
        QCOMPARE(access.list(), QStringList {"d00006"});
        QTRY_VERIFY_WITH_TIMEOUT(done, 10000);
        reader->wait();
        QCOMPARE(result, seeded(6));
    }

    // An exiting application's screens are not held at the gate.
    void exitingApplicationIsNotHeld()
    {
        DriverHushCNC driver;
        driver.setSessionCommand({dw(5)});
        QCOMPARE(readUntilData(driver, port(), dw(5)), seeded(5));
        QCoreApplication::instance()->setProperty("isExit", true);
        driver.clearSessionCommand();
        std::atomic<bool> done(false);
        std::unique_ptr<QThread> reader(QThread::create([&] {
            driver.read(port(), dw(6));
            done = true;
        }));
        reader->start();
        QTRY_VERIFY_WITH_TIMEOUT(done, 10000);
        reader->wait();
    }

    // A read that fails is tried getRetry() more times; a negative retry count means one try.
    void retries_data()
    {
        QTest::addColumn<int>("retry");
        QTest::addColumn<QString>("address");
        QTest::addColumn<int>("attempts");
        QTest::addColumn<QByteArray>("value");
        QTest::newRow("good read") << 2 << "B10800.3" << 1 << QByteArray(1, 1);
        QTest::newRow("bit beyond the data") << 2 << "B10800.32" << 3 << QByteArray();
        QTest::newRow("negative retry") << -4 << "B10800.32" << 1 << QByteArray();
    }

    void retries()
    {
        QFETCH(int, retry);
        QFETCH(QString, address);
        QFETCH(int, attempts);
        QFETCH(QByteArray, value);
        m_port->setDriverSetting(DriverSetting(1000, retry, 0, 0));
        DriverHushCNC driver;
        const CommunicatorCommand key
            = CommunicatorCommand(CommunicatorCommand::BitType, 1, "WriteBitDirectDisable0");
        QVERIFY(driver.write(port(), key, QByteArray(1, 0))); // starts the worker
        DriverHushCNCTestAccess(driver).setStreaming({"d10800"}, dwords({0x8}));

        const int before = m_port->delays;
        const QByteArray result
            = driver.read(port(), CommunicatorCommand(CommunicatorCommand::BitType, 1, address));
        QCOMPARE(m_port->delays - before, attempts);
        QCOMPARE(result, value);
    }

    void destroyWhileLoopReading()
    {
        delete new DriverHushCNC(); // its worker thread never started
        auto driver = std::make_unique<DriverHushCNC>();
        QCOMPARE(readUntilData(*driver, port(), dw(10, 20)), seeded(10, 20));
        QPointer<QThread> thread = DriverHushCNCTestAccess(*driver).workerThread();
        QVERIFY(thread->isRunning());
        driver.reset();
        QVERIFY(!thread);
    }

private:
    CountingPort *port() const { return m_port.get(); }

    std::unique_ptr<hustsim::Simulator> m_sim;
    std::unique_ptr<CountingPort> m_port;
};

QTEST_GUILESS_MAIN(TestDriverWorking)
#include "tst_driverworking.moc"
