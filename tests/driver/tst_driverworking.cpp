// The driver with its worker, over a port that plays the controller: read and write dispatch,
// retries, G-code routing, the session gate across threads, screen switches and teardown.
#include "drivertestaccess.h"
#include "fakecontroller.h"
#include "tools.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QtTest>

#include <atomic>
#include <memory>

using Type = CommunicatorCommand::DataType;

namespace {

CommunicatorCommand dw(int index, quint32 length = 1)
{
    return command(CommunicatorCommand::DWordType, length, QStringLiteral("DW%1").arg(index));
}

QByteArray seeded(int first, int count = 1)
{
    QByteArray bytes;
    for (int i = 0; i < count; ++i)
        bytes += dwords({FakeController::seededValue(first + i)});
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
    void initTestCase();
    void init() { QCoreApplication::instance()->setProperty("isExit", QVariant()); }

    void configurationOnlyDriverRefusesWork();
    void readsFlowFromTheController();
    void writes_data();
    void writes();
    void bitWritePatchesTheCache();
    void retriesWhileAnErrorIsPending_data();
    void retriesWhileAnErrorIsPending();
    void gcodeKeysGoToTheTransferObject();
    void gateHoldsOtherThreads_data();
    void gateHoldsOtherThreads();
    void holderThreadNeitherBlocksNorSlipsPast();
    void screenSwitchesNeverServeOldValues();
    void destroyWhileLoopReading();
};

void TestDriverWorking::initTestCase()
{
    QCoreApplication::instance()->setProperty("zel_env", true);
    QLoggingCategory::setFilterRules(QStringLiteral("hust.driver.debug=false"));
}

void TestDriverWorking::configurationOnlyDriverRefusesWork()
{
    QCoreApplication::instance()->setProperty("zel_env", QVariant());
    DriverHushCNC driver;
    QCoreApplication::instance()->setProperty("zel_env", true);
    FakeController port;
    DriverHushCNCTestAccess access(driver);
    QVERIFY(!access.worker());
    QVERIFY(driver.read(&port, dw(1)).isEmpty());
    QVERIFY(!driver.write(&port, dw(1), dwords({1})));
    driver.clearSessionCommand();
    driver.setSessionCommand({dw(3)});
    QCOMPARE(access.list(), QStringList {"d00003"});
    QCOMPARE(port.stopFrames(), 0);
}

void TestDriverWorking::readsFlowFromTheController()
{
    FakeController port;
    DriverHushCNC driver;
    DriverHushCNCTestAccess access(driver);
    QSignalSpy started(&driver, SIGNAL(startLoopRead(QStringList)));

    QVERIFY(driver.read(&port, dw(100, 2)).isEmpty()); // the list grows
    QVERIFY(access.workerStarted());
    QVERIFY(access.workerThread()->isRunning());
    QCOMPARE(port.stopFrames(), 1); // handing over the port stops the controller's stream
    QVERIFY(driver.read(&port, dw(100, 2)).isEmpty()); // loop reading starts
    QCOMPARE(started.count(), 1);
    QCOMPARE(readUntilData(driver, &port, dw(100, 2)), seeded(100, 2));
    QCOMPARE(port.stopFrames(), 1);
}

void TestDriverWorking::writes_data()
{
    QTest::addColumn<Type>("type");
    QTest::addColumn<QString>("address");
    QTest::addColumn<quint32>("length");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<QString>("error");
    QTest::addColumn<int>("emittedLength");
    QTest::addColumn<QByteArray>("emittedData");

    const Type dwType = CommunicatorCommand::DWordType;
    const QByteArray eight = dwords({0x11111111, 0x22222222});
    const QString ascoi = QStringLiteral("Not support for writing ASCOI address. ");
    QTest::newRow("two double words")
        << dwType << "DW100" << 2u << eight << true << QString() << 2 << eight;
    QTest::newRow("D prefix is no ASCOI")
        << dwType << "D5" << 1u << eight.left(4) << true << QString() << 1 << eight.left(4);
    QTest::newRow("quad words: refused quietly")
        << CommunicatorCommand::QWordType << "DW1" << 1u << eight << false << QString() << -1
        << QByteArray();
    QTest::newRow("block padded") << CommunicatorCommand::BlockType << "DW200" << 5u
                                  << QByteArray("\x01\x02\x03\x04\x05", 5) << true << QString() << 2
                                  << QByteArray("\x01\x02\x03\x04\x05\0\0\0", 8);
    QTest::newRow("block data shorter than its length")
        << CommunicatorCommand::BlockType << "DW200" << 8u << eight.left(5) << false
        << QStringLiteral("Write Double Word Fail. ") << -1 << QByteArray();
    QTest::newRow("bit of another device")
        << CommunicatorCommand::BitType << "X5" << 1u << QByteArray(1, 1) << false << ascoi << -1
        << QByteArray();
}

void TestDriverWorking::writes()
{
    QFETCH(Type, type);
    QFETCH(QString, address);
    QFETCH(quint32, length);
    QFETCH(QByteArray, data);
    QFETCH(bool, accepted);
    QFETCH(QString, error);
    QFETCH(int, emittedLength);
    QFETCH(QByteArray, emittedData);

    FakeController port;
    DriverHushCNC driver;
    QSignalSpy dwordSpy(&driver, SIGNAL(writeDWord(QString, int, QByteArray)));
    QSignalSpy bitSpy(&driver, SIGNAL(writeBit(QString, bool)));
    QCOMPARE(driver.write(&port, command(type, length, address), data), accepted);
    QCOMPARE(driver.hasError(), !error.isEmpty());
    if (!error.isEmpty())
        QCOMPARE(driver.getLastError(), error);
    QCOMPARE(bitSpy.count(), 0);
    if (emittedLength < 0) {
        QCOMPARE(dwordSpy.count(), 0);
        return;
    }
    QCOMPARE(dwordSpy.count(), 1);
    QCOMPARE(dwordSpy.at(0).at(0).toString(), address);
    QCOMPARE(dwordSpy.at(0).at(1).toInt(), emittedLength);
    QCOMPARE(dwordSpy.at(0).at(2).toByteArray(), emittedData);
}

void TestDriverWorking::bitWritePatchesTheCache()
{
    FakeController port;
    DriverHushCNC driver;
    DriverHushCNCTestAccess access(driver);
    QSignalSpy bitSpy(&driver, SIGNAL(writeBit(QString, bool)));
    const QStringList list {"d00006", "d00007", "d00008", "d00009", "d00010"};
    access.setStreaming(list, QByteArray(20, '\0'));

    const CommunicatorCommand b10_3 = command(CommunicatorCommand::BitType, 1, "B10.3");
    QVERIFY(driver.write(&port, b10_3, QByteArray(1, 1)));
    QByteArray expected(20, '\0');
    expected[16] = 0x08; // bit 4 * 32 + 3
    QCOMPARE(access.cache(), expected);
    QTRY_COMPARE(port.value(10), FakeController::seededValue(10) | 0x8);

    QVERIFY(driver.write(&port, b10_3, QByteArray(1, 0)));
    QCOMPARE(access.cache(), QByteArray(20, '\0'));

    // With direct bit writing disabled the bit is still sent but the cache stays as it is.
    const CommunicatorCommand key
        = command(CommunicatorCommand::BitType, 1, "WriteBitDirectDisable0");
    QVERIFY(driver.write(&port, key, QByteArray(1, 1)));
    QCOMPARE(driver.read(&port, key), QByteArray(1, 1));
    QVERIFY(driver.write(&port, b10_3, QByteArray(1, 1)));
    QCOMPARE(access.cache(), QByteArray(20, '\0'));
    QCOMPARE(bitSpy.count(), 3);
    QCOMPARE(bitSpy.at(1).at(1).toBool(), false);
    QTRY_COMPARE(port.value(10), FakeController::seededValue(10) | 0x8);
}

void TestDriverWorking::retriesWhileAnErrorIsPending_data()
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
void TestDriverWorking::retriesWhileAnErrorIsPending()
{
    QFETCH(int, retry);
    QFETCH(bool, pending);
    QFETCH(int, attempts);
    FakeController port;
    port.setRetry(retry);
    DriverHushCNC driver;
    DriverHushCNCTestAccess access(driver);
    QVERIFY(driver.write(&port, command(CommunicatorCommand::BitType, 1, "WriteBitDirectDisable0"),
                         QByteArray(1, 0)));
    access.worker()->m_isLoopReading = true; // keep the worker out of it
    access.setStreaming({"d00001"}, dwords({42}));
    if (pending)
        access.setReadTimeOutError();
    const int before = access.clearErrorCountdown();
    QCOMPARE(driver.read(&port, dw(1)), dwords({42}));
    QCOMPARE(before - access.clearErrorCountdown(), 1 + attempts);

    // A single byte is refused at once, without retries.
    const int beforeByte = access.clearErrorCountdown();
    QVERIFY(driver.read(&port, command(CommunicatorCommand::ByteType, 1, "DW1")).isEmpty());
    QCOMPARE(driver.getLastError(), QStringLiteral("Not support the read command for Byte Type."));
    QCOMPARE(beforeByte - access.clearErrorCountdown(), 2);
}

void TestDriverWorking::gcodeKeysGoToTheTransferObject()
{
    FakeController port;
    DriverHushCNC driver;
    DriverHushCNCTestAccess access(driver);
    const CommunicatorCommand status
        = command(CommunicatorCommand::DWordType, 1, "PROTOCOL_STATUS0");

    QVERIFY(driver.write(&port, status, dwords({0x40})));
    QCOMPARE(access.gcodeKeyList(),
             (QStringList {"ReadAllCode0", "ReadCurrentCode0", "BurningCodeBit0", "Code2CtrlCmd",
                           "PROTOCOL_STATUS0", "ReadCode"}));
    HustGCodeprotocol *gcode = access.gcodeController();
    QVERIFY(gcode);
    QCOMPARE(gcode->thread(), access.workerThread());
    access.initGCodeController(&port);
    QCOMPARE(access.gcodeController(), gcode);
    QCOMPARE(driver.read(&port, status), dwords({0x40}));
    QVERIFY(driver.read(&port, command(CommunicatorCommand::ByteType, 4, "ReadCode")).isEmpty());

    // While a transfer holds the line every read answers nothing, the keys included.
    access.stopLoopReadForGCode();
    QVERIFY(access.loopReadStoppedForGCode());
    QVERIFY(driver.read(&port, status).isEmpty());
    access.startLoopReadForGCode();
    QCOMPARE(driver.read(&port, status), dwords({0x40}));

    // A send runs in the worker's thread; its stop and start signals reach the driver.
    QVERIFY(driver.write(&port, command(CommunicatorCommand::ByteType, 4, "Code2CtrlCmd"),
                         QByteArray("G01\n")));
    QTRY_VERIFY_WITH_TIMEOUT(QByteArrayToInt(driver.read(&port, status))
                                 & int(HustGCodeprotocol::SendFinishedBit),
                             5000);
    QVERIFY(!access.loopReadStoppedForGCode());
}

void TestDriverWorking::gateHoldsOtherThreads_data()
{
    QTest::addColumn<bool>("exiting");
    QTest::newRow("held until the next set") << false;
    QTest::newRow("an exiting application is not held") << true;
}

void TestDriverWorking::gateHoldsOtherThreads()
{
    QFETCH(bool, exiting);
    FakeController port;
    DriverHushCNC driver;
    driver.setSessionCommand({dw(5)});
    QCOMPARE(readUntilData(driver, &port, dw(5)), seeded(5));
    if (exiting)
        QCoreApplication::instance()->setProperty("isExit", true);

    driver.clearSessionCommand();
    std::atomic<bool> done(false);
    QByteArray result;
    std::unique_ptr<QThread> reader(QThread::create([&] {
        result = exiting ? driver.read(&port, dw(6)) : readUntilData(driver, &port, dw(6));
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

void TestDriverWorking::holderThreadNeitherBlocksNorSlipsPast()
{
    FakeController port;
    DriverHushCNC driver;
    DriverHushCNCTestAccess access(driver);
    QCOMPARE(readUntilData(driver, &port, dw(5)), seeded(5));
    driver.clearSessionCommand();
    QVERIFY(driver.read(&port, dw(5)).isEmpty());
    QVERIFY(driver.read(&port, command(CommunicatorCommand::BitType, 1, "B5.1")).isEmpty());
    QVERIFY(access.list().isEmpty());
    driver.setSessionCommand({dw(7)});
    QCOMPARE(access.list(), QStringList {"d00007"});
    QCOMPARE(readUntilData(driver, &port, dw(7)), seeded(7));
}

// The run-time switches screens while other threads keep reading: no read may answer with a
// value that another address holds.
void TestDriverWorking::screenSwitchesNeverServeOldValues()
{
    FakeController port;
    DriverHushCNC driver;
    const QList<CommunicatorCommand> screens[2] = {{dw(100, 3), dw(104)}, {dw(200), dw(202, 3)}};
    const int firstOf[2][2] = {{100, 104}, {200, 202}};
    QCOMPARE(readUntilData(driver, &port, dw(100, 3)), seeded(100, 3));

    std::atomic<bool> stop(false);
    std::atomic<int> wrong(0);
    std::atomic<int> served(0);
    auto readLoop = [&](int screen) {
        while (!stop) {
            for (const CommunicatorCommand &cmd : screens[screen]) {
                const QByteArray result = driver.read(&port, cmd);
                if (result.isEmpty())
                    continue;
                ++served;
                if (result != seeded(ExtractPLCDeviceAddress(cmd.address, 10), int(cmd.length)))
                    ++wrong;
            }
        }
    };
    std::unique_ptr<QThread> readerA(QThread::create(readLoop, 0));
    std::unique_ptr<QThread> readerB(QThread::create(readLoop, 1));
    readerA->start();
    readerB->start();

    const int switches = 120;
    for (int i = 1; i <= switches; ++i) {
        const int screen = i % 2;
        driver.clearSessionCommand();
        driver.setSessionCommand(screens[screen]);
        if (i % 20 == 0) {
            const CommunicatorCommand cmd = dw(firstOf[screen][0]);
            QCOMPARE(readUntilData(driver, &port, cmd), seeded(firstOf[screen][0]));
        }
    }
    stop = true;
    readerA->wait();
    readerB->wait();
    QCOMPARE(wrong.load(), 0);
    QVERIFY(served > 0);
}

void TestDriverWorking::destroyWhileLoopReading()
{
    FakeController port;
    auto driver = std::make_unique<DriverHushCNC>();
    QCOMPARE(readUntilData(*driver, &port, dw(10, 20)), seeded(10, 20));
    QVERIFY(port.isStreaming());
    QPointer<QThread> thread = DriverHushCNCTestAccess(*driver).workerThread();
    QVERIFY(thread->isRunning());
    driver.reset();
    QVERIFY(!thread);
}

QTEST_GUILESS_MAIN(TestDriverWorking)
#include "tst_driverworking.moc"
