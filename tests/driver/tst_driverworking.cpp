// The driver with its worker, over the host serial port and the controller simulator on a
// pseudo-terminal: read and write dispatch, retries, the session gate across threads and teardown.
#include "drivertestaccess.h"
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
        QCoreApplication::instance()->setProperty("isExit", QVariant());
        hustsim::SimulatorConfig config;
        config.paced = false;
        config.frameCounter = false;
        m_sim.reset(new hustsim::Simulator(config));
        for (int i = 0; i < 300; ++i)
            m_sim->setRegister(i, seededValue(i));
        QVERIFY2(m_sim->start(), qPrintable(m_sim->errorString()));
        m_port.reset(
            new SerialPort(DeviceSetting(DEVICE_SERIAL, m_sim->devicePath(), 38400, 7, 2, 2),
                           DriverSetting(1000, 0, 0, 0)));
        QVERIFY2(m_port->open(), qPrintable(m_port->errorString()));
    }

    void cleanup()
    {
        m_port.reset();
        m_sim.reset();
    }

    void readsFlowFromTheController()
    {
        DriverHushCNC driver;
        DriverHushCNCTestAccess access(driver);
        QSignalSpy started(&driver, SIGNAL(startLoopRead(QStringList)));

        QVERIFY(driver.read(port(), dw(100, 2)).isEmpty()); // the list grows
        QVERIFY(access.workerThread()->isRunning());
        QVERIFY(driver.read(port(), dw(100, 2)).isEmpty()); // loop reading starts
        QCOMPARE(started.count(), 1);
        QCOMPARE(readUntilData(driver, port(), dw(100, 2)), seeded(100, 2));
        // Handing over the port stopped the controller's stream, once.
        const QVector<hustsim::RecordedFrame> frames = m_sim->frames();
        QCOMPARE(std::count_if(frames.cbegin(), frames.cend(),
                               [](const auto &f) { return f.kind == hustsim::FrameKind::Stop; }),
                 1);
    }

    void writes_data()
    {
        QTest::addColumn<Type>("type");
        QTest::addColumn<QString>("address");
        QTest::addColumn<quint32>("length");
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QString>("error");
        QTest::addColumn<int>("emittedLength");
        QTest::addColumn<QByteArray>("emittedData");

        const Type dwType = CommunicatorCommand::DWordType;
        const Type block = CommunicatorCommand::BlockType;
        const QByteArray eight = dwords({0x11111111, 0x22222222});
        const QString ascoi = QStringLiteral("Not support for writing ASCOI address. ");
        QTest::newRow("two double words") << dwType << "DW100" << 2u << eight << "" << 2 << eight;
        QTest::newRow("block padded") << block << "DW200" << 5u << eight.left(5) << "" << 2
                                      << eight.left(5) + QByteArray(3, '\0');
        // Refused writes send nothing; an empty error means a quiet refusal.
        QTest::newRow("quad words: refused quietly")
            << CommunicatorCommand::QWordType << "DW1" << 1u << eight << "" << -1 << QByteArray();
        QTest::newRow("words") << CommunicatorCommand::WordType << "DW1" << 1u << eight.left(2)
                               << "Not support the word write command." << -1 << QByteArray();
        QTest::newRow("block data shorter than its length")
            << block << "DW200" << 8u << eight.left(5) << "Write Double Word Fail. " << -1
            << QByteArray();
        QTest::newRow("double word to A64")
            << dwType << "A64" << 1u << eight.left(4) << ascoi << -1 << QByteArray();
        QTest::newRow("bit of another device") << CommunicatorCommand::BitType << "X5" << 1u
                                               << QByteArray(1, 1) << ascoi << -1 << QByteArray();
    }

    void writes()
    {
        QFETCH(Type, type);
        QFETCH(QString, address);
        QFETCH(quint32, length);
        QFETCH(QByteArray, data);
        QFETCH(QString, error);
        QFETCH(int, emittedLength);
        QFETCH(QByteArray, emittedData);

        DriverHushCNC driver;
        QSignalSpy dwordSpy(&driver, SIGNAL(writeDWord(QString, int, QByteArray)));
        QSignalSpy bitSpy(&driver, SIGNAL(writeBit(QString, bool)));
        QCOMPARE(driver.write(port(), CommunicatorCommand(type, length, address), data),
                 emittedLength > 0);
        QCOMPARE(driver.hasError(), !error.isEmpty());
        QCOMPARE(driver.getLastError(), error);
        QCOMPARE(bitSpy.count(), 0);
        QCOMPARE(dwordSpy.count(), emittedLength > 0 ? 1 : 0);
        if (emittedLength > 0) {
            QCOMPARE(dwordSpy.at(0).at(0).toString(), address);
            QCOMPARE(dwordSpy.at(0).at(1).toInt(), emittedLength);
            QCOMPARE(dwordSpy.at(0).at(2).toByteArray(), emittedData);
        }
    }

    void bitWritePatchesTheCache()
    {
        DriverHushCNC driver;
        DriverHushCNCTestAccess access(driver);
        QSignalSpy bitSpy(&driver, SIGNAL(writeBit(QString, bool)));
        const QStringList list {"d00006", "d00007", "d00008", "d00009", "d00010"};
        access.setStreaming(list, QByteArray(20, '\0'));

        const CommunicatorCommand b10_3
            = CommunicatorCommand(CommunicatorCommand::BitType, 1, "B10.3");
        QVERIFY(driver.write(port(), b10_3, QByteArray(1, 1)));
        QByteArray expected(20, '\0');
        expected[16] = 0x08; // bit 4 * 32 + 3
        QCOMPARE(access.cache(), expected);
        QVERIFY(driver.write(port(), b10_3, QByteArray(1, 0)));
        QCOMPARE(access.cache(), QByteArray(20, '\0'));

        // With direct bit writing disabled the bit is still sent but the cache stays as it is.
        const CommunicatorCommand key
            = CommunicatorCommand(CommunicatorCommand::BitType, 1, "WriteBitDirectDisable0");
        QVERIFY(driver.write(port(), key, QByteArray(1, 1)));
        QCOMPARE(driver.read(port(), key), QByteArray(1, 1));
        QVERIFY(driver.write(port(), b10_3, QByteArray(1, 1)));
        QCOMPARE(access.cache(), QByteArray(20, '\0'));
        QCOMPARE(bitSpy.count(), 3);
        QCOMPARE(bitSpy.at(1).at(1).toBool(), false);
        QCOMPARE(bitSpy.at(2), (QList<QVariant> {QStringLiteral("B10.3"), true}));
    }

    void retriesWhileAnErrorIsPending_data()
    {
        QTest::addColumn<int>("retry");
        QTest::addColumn<bool>("pending");
        QTest::addColumn<int>("attempts");
        QTest::newRow("no error: one attempt") << 2 << false << 1;
        QTest::newRow("pending error, retry 2") << 2 << true << 3;
        QTest::newRow("pending error, negative retry") << -4 << true << 1;
    }

    // A pending error is dropped only by every 52nd clearError(), so reads right after a failure
    // use up their retries although their data is good, and return that data.
    void retriesWhileAnErrorIsPending()
    {
        QFETCH(int, retry);
        QFETCH(bool, pending);
        QFETCH(int, attempts);
        m_port->setDriverSetting(DriverSetting(1000, retry, 0, 0));
        DriverHushCNC driver;
        DriverHushCNCTestAccess access(driver);
        QVERIFY(driver.write(
            port(), CommunicatorCommand(CommunicatorCommand::BitType, 1, "WriteBitDirectDisable0"),
            QByteArray(1, 0)));
        access.worker()->m_isLoopReading = true; // keep the worker out of it
        access.setStreaming({"d00001"}, dwords({42}));
        if (pending)
            access.setReadTimeOutError();
        const int before = access.clearErrorCountdown();
        QCOMPARE(driver.read(port(), dw(1)), dwords({42}));
        QCOMPARE(before - access.clearErrorCountdown(), 1 + attempts);

        // A single byte is refused at once, without retries.
        const int beforeByte = access.clearErrorCountdown();
        QVERIFY(driver.read(port(), CommunicatorCommand(CommunicatorCommand::ByteType, 1, "DW1"))
                    .isEmpty());
        QCOMPARE(driver.getLastError(),
                 QStringLiteral("Not support the read command for Byte Type."));
        QCOMPARE(beforeByte - access.clearErrorCountdown(), 2);
    }

    void gateHoldsOtherThreads_data()
    {
        QTest::addColumn<bool>("exiting");
        QTest::newRow("held until the next set") << false;
        QTest::newRow("an exiting application is not held") << true;
    }

    void gateHoldsOtherThreads()
    {
        QFETCH(bool, exiting);
        DriverHushCNC driver;
        driver.setSessionCommand({dw(5)});
        QCOMPARE(readUntilData(driver, port(), dw(5)), seeded(5));
        if (exiting)
            QCoreApplication::instance()->setProperty("isExit", true);

        driver.clearSessionCommand();
        std::atomic<bool> done(false);
        QByteArray result;
        std::unique_ptr<QThread> reader(QThread::create([&] {
            result = exiting ? driver.read(port(), dw(6)) : readUntilData(driver, port(), dw(6));
            done = true;
        }));
        reader->start();
        if (exiting) {
            QTRY_VERIFY(done);
            reader->wait();
            return;
        }
        QTest::qWait(150);
        QVERIFY(!done);

        // A second clear from the holder does not wait on itself.
        driver.clearSessionCommand();
        QVERIFY(!done);
        driver.setSessionCommand({dw(6)});
        QTRY_VERIFY_WITH_TIMEOUT(done, 10000);
        reader->wait();
        QCOMPARE(result, seeded(6));
    }

    void holderThreadNeitherBlocksNorSlipsPast()
    {
        DriverHushCNC driver;
        DriverHushCNCTestAccess access(driver);
        QCOMPARE(readUntilData(driver, port(), dw(5)), seeded(5));
        driver.clearSessionCommand();
        QVERIFY(driver.read(port(), dw(5)).isEmpty());
        QVERIFY(driver.read(port(), CommunicatorCommand(CommunicatorCommand::BitType, 1, "B5.1"))
                    .isEmpty());
        QVERIFY(access.list().isEmpty());
        driver.setSessionCommand({dw(7)});
        QCOMPARE(access.list(), QStringList {"d00007"});
        QCOMPARE(readUntilData(driver, port(), dw(7)), seeded(7));
    }

    void destroyWhileLoopReading()
    {
        auto driver = std::make_unique<DriverHushCNC>();
        QCOMPARE(readUntilData(*driver, port(), dw(10, 20)), seeded(10, 20));
        QPointer<QThread> thread = DriverHushCNCTestAccess(*driver).workerThread();
        QVERIFY(thread->isRunning());
        driver.reset();
        QVERIFY(!thread);
    }

private:
    SerialPort *port() const { return m_port.get(); }

    std::unique_ptr<hustsim::Simulator> m_sim;
    std::unique_ptr<SerialPort> m_port;
};

QTEST_GUILESS_MAIN(TestDriverWorking)
#include "tst_driverworking.moc"
