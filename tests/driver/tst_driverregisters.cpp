// The driver's register path on a driver without a worker: address translation, the cache,
// block and bit reads and the diagnostic entry points.
#include "drivertestaccess.h"
#include "scriptedport.h"

#include <QCoreApplication>
#include <QSignalSpy>
#include <QtTest>

using Type = CommunicatorCommand::DataType;

class TestDriverRegisters : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QCoreApplication::instance()->setProperty("zel_env", QVariant());
        QLoggingCategory::setFilterRules(QStringLiteral("hust.driver.debug=false"));
    }

    void addressTranslation_data();
    void addressTranslation();
    void extraction_data();
    void extraction();
    void zeroExtraction_data();
    void zeroExtraction();
    void firstReadsGrowTheListThenStartTheLoop();
    void readsFromCache_data();
    void readsFromCache();
    void overflow_data();
    void overflow();
    void freshReadWaitsForANewBlock();
    void timeOutWhenTheCacheDoesNotMatch();
    void triggerWalk();
    void writeBitDirectDisableReadsBack();
    void responseRecords_data();
    void responseRecords();
    void readRequestFrame();
    void txPieces_data();
    void txPieces();
    void stopFrameBuiltOnce();
    void testCaseStopsAfterItsReads();
};

void TestDriverRegisters::addressTranslation_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<Type>("type");
    QTest::addColumn<quint32>("length");
    QTest::addColumn<QStringList>("expected");

    const Type dw = CommunicatorCommand::DWordType;
    const Type w = CommunicatorCommand::WordType;
    QTest::newRow("DW100 x3") << "DW100" << dw << 3u << QStringList {"d00100", "d00101", "d00102"};
    QTest::newRow("B10800") << "B10800" << dw << 1u << QStringList {"d10800"};
    QTest::newRow("I0 word") << "I0" << w << 1u << QStringList {"d10800"};
    QTest::newRow("I16 word, upper half") << "I16" << w << 1u << QStringList {"d10800", "d10801"};
    QTest::newRow("I37 bit form") << "I37" << dw << 1u << QStringList {"d10801"};
    QTest::newRow("O255") << "O255" << dw << 1u << QStringList {"d10815"};
    QTest::newRow("S0") << "S0" << dw << 1u << QStringList {"d10824"};
    QTest::newRow("A40 four words") << "A40" << w << 4u << QStringList {"d10833", "d10834"};
    QTest::newRow("C0 counts words") << "C0" << dw << 2u << QStringList {"d10816"};
    QTest::newRow("DW length 0") << "DW5" << dw << 0u << QStringList();
    QTest::newRow("I length 0") << "I5" << dw << 0u << QStringList {"d10800"};
    QTest::newRow("unlisted prefix") << "X100" << w << 2u << QStringList {"d00003"};
    QTest::newRow("lower-case dw") << "dw5" << dw << 1u << QStringList {"d00000"};
    QTest::newRow("status key") << "PROTOCOL_STATUS0" << dw << 1u << QStringList();
    QTest::newRow("GB") << "GB1" << dw << 1u << QStringList();
    QTest::newRow("G-code key") << "ReadAllCode0" << dw << 1u << QStringList();
    QTest::newRow("point spoils the number") << "B10800.3" << dw << 1u << QStringList {"d00000"};
    QTest::newRow("last double word") << "DW99999" << dw << 1u << QStringList {"d99999"};
    QTest::newRow("past the last double word") << "DW99999" << dw << 2u << QStringList();
    QTest::newRow("six-digit number") << "DW100000" << dw << 1u << QStringList();
    QTest::newRow("negative length") << "DW5" << dw << quint32(-1) << QStringList();
    QTest::newRow("huge length") << "DW0" << dw << 4000000000u << QStringList();
}

void TestDriverRegisters::addressTranslation()
{
    QFETCH(QString, address);
    QFETCH(Type, type);
    QFETCH(quint32, length);
    QFETCH(QStringList, expected);
    DriverHushCNC driver;
    QCOMPARE(DriverHushCNCTestAccess(driver).addr2DWAddrList(command(type, length, address)),
             expected);
}

void TestDriverRegisters::extraction_data()
{
    QTest::addColumn<Type>("type");
    QTest::addColumn<QString>("address");
    QTest::addColumn<QByteArray>("block");
    QTest::addColumn<int>("length");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray two = dwords({0x56781234, 0x9abcdef0});
    QTest::newRow("word, lower half")
        << CommunicatorCommand::WordType << "I0" << two << 1 << QByteArray("\x34\x12", 2);
    QTest::newRow("word, upper half")
        << CommunicatorCommand::WordType << "I16" << two << 1 << QByteArray("\x78\x56", 2);
    QTest::newRow("three words from DW100")
        << CommunicatorCommand::WordType << "DW100" << two << 3 << two.left(6);
    QTest::newRow("word beyond the block")
        << CommunicatorCommand::WordType << "DW20" << two << 4 << two.mid(2);
    QTest::newRow("word, negative length")
        << CommunicatorCommand::WordType << "DW4" << two << -1 << QByteArray();
    QTest::newRow("bit set") << CommunicatorCommand::BitType << "I2" << two << 1
                             << QByteArray(1, 1);
    QTest::newRow("bit clear") << CommunicatorCommand::BitType << "I0" << two << 1
                               << QByteArray(1, 0);
    QTest::newRow("B bit 31") << CommunicatorCommand::BitType << "B5.31" << dwords({0x80000000u})
                              << 1 << QByteArray(1, 1);
    QTest::newRow("B bit 32 reads 0")
        << CommunicatorCommand::BitType << "B5.32" << two << 1 << QByteArray(1, 0);
    QTest::newRow("bit of an empty block")
        << CommunicatorCommand::BitType << "I2" << QByteArray() << 1 << QByteArray(1, 0);
}

void TestDriverRegisters::extraction()
{
    QFETCH(Type, type);
    QFETCH(QString, address);
    QFETCH(QByteArray, block);
    QFETCH(int, length);
    QFETCH(QByteArray, expected);
    DriverHushCNC driver;
    QCOMPARE(DriverHushCNCTestAccess(driver).extract(type, address, block, length), expected);
}

void TestDriverRegisters::zeroExtraction_data()
{
    QTest::addColumn<Type>("type");
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("size");
    QTest::newRow("words") << CommunicatorCommand::WordType << 3 << 6;
    QTest::newRow("quad words count as 4") << CommunicatorCommand::QWordType << 2 << 8;
    QTest::newRow("zero length") << CommunicatorCommand::DWordType << 0 << 0;
    QTest::newRow("too long") << CommunicatorCommand::DWordType << INT_MAX << 0;
}

void TestDriverRegisters::zeroExtraction()
{
    QFETCH(Type, type);
    QFETCH(int, length);
    QFETCH(int, size);
    DriverHushCNC driver;
    QCOMPARE(DriverHushCNCTestAccess(driver).extractZero(type, length), QByteArray(size, '\0'));
}

void TestDriverRegisters::firstReadsGrowTheListThenStartTheLoop()
{
    DriverHushCNC driver;
    DriverHushCNCTestAccess access(driver);
    QSignalSpy started(&driver, SIGNAL(startLoopRead(QStringList)));
    const CommunicatorCommand dw100 = command(CommunicatorCommand::DWordType, 2, "DW100");
    const QStringList expected {"d00100", "d00101"};

    QVERIFY(access.readBlock(dw100).isEmpty());
    QCOMPARE(access.list(), expected);
    QCOMPARE(started.count(), 0);

    QVERIFY(access.readBlock(dw100).isEmpty());
    QCOMPARE(started.count(), 1);
    QCOMPARE(started.at(0).at(0).toStringList(), expected);

    driver.updateDWordByteArray(dwords({11, 22}));
    QCOMPARE(access.readBlock(dw100), dwords({11, 22}));
    QCOMPARE(started.count(), 1);
    QVERIFY(!driver.hasError());
}

// Reads served from the cache of a streaming list; one-item bit reads take the bit path.
void TestDriverRegisters::readsFromCache_data()
{
    QTest::addColumn<QStringList>("list");
    QTest::addColumn<QByteArray>("cache");
    QTest::addColumn<Type>("type");
    QTest::addColumn<quint32>("length");
    QTest::addColumn<QString>("address");
    QTest::addColumn<QByteArray>("expected");
    QTest::addColumn<int>("added");

    const Type dw = CommunicatorCommand::DWordType;
    const Type bit = CommunicatorCommand::BitType;
    const QStringList io {"d10800", "d10801"};
    const QByteArray bit5 = dwords({0x20, 0x20});
    QTest::newRow("second of two") << QStringList {"d00100", "d00101"} << dwords({1, 2}) << dw << 1u
                                   << "DW101" << dwords({2}) << 0;
    QTest::newRow("multi-item bit read: first double word only")
        << io << dwords({0x0, 0x1}) << bit << 4u << "I0" << QByteArray(1, 0) << 0;
    // Nothing to look up: an empty result, but no error and no new name.
    QTest::newRow("length 0") << QStringList {"d00005"} << dwords({9}) << dw << 0u << "DW5"
                              << QByteArray() << 0;
    QTest::newRow("special name") << QStringList {"d00005"} << dwords({9}) << dw << 1u << "GB1"
                                  << QByteArray() << 0;
    QTest::newRow("I5 set") << io << bit5 << bit << 1u << "I5" << QByteArray(1, 1) << 0;
    QTest::newRow("I37 in the second word")
        << io << bit5 << bit << 1u << "I37" << QByteArray(1, 1) << 0;
    QTest::newRow("B10800.3") << QStringList {"d10800"} << dwords({0x8}) << bit << 1u << "B10800.3"
                              << QByteArray(1, 1) << 0;
    QTest::newRow("B10800 is bit 0") << QStringList {"d10800"} << dwords({0x8}) << bit << 1u
                                     << "B10800" << QByteArray(1, 0) << 0;
    QTest::newRow("bit not yet in the list")
        << io << bit5 << bit << 1u << "B7.1" << QByteArray() << 1;
}

void TestDriverRegisters::readsFromCache()
{
    QFETCH(QStringList, list);
    QFETCH(QByteArray, cache);
    QFETCH(Type, type);
    QFETCH(quint32, length);
    QFETCH(QString, address);
    QFETCH(QByteArray, expected);
    QFETCH(int, added);
    DriverHushCNC driver;
    DriverHushCNCTestAccess access(driver);
    access.setStreaming(list, cache);
    const CommunicatorCommand cmd = command(type, length, address);
    const bool oneBit = type == CommunicatorCommand::BitType && length == 1;
    QCOMPARE(oneBit ? access.readBit(cmd) : access.readBlock(cmd), expected);
    QCOMPARE(access.list().size(), list.size() + added);
    if (added == 0)
        QCOMPARE(access.list(), list);
    QVERIFY(!driver.hasError());
}

void TestDriverRegisters::overflow_data()
{
    QTest::addColumn<int>("present");
    QTest::addColumn<int>("added");
    QTest::addColumn<int>("notice");
    QTest::newRow("100 names") << 98 << 2 << 100;
    QTest::newRow("99 names") << 97 << 2 << 0;
    QTest::newRow("a list already too long") << 120 << 0 << 120;
}

void TestDriverRegisters::overflow()
{
    QFETCH(int, present);
    QFETCH(int, added);
    QFETCH(int, notice);
    DriverHushCNC driver;
    DriverHushCNCTestAccess access(driver);
    QStringList list;
    for (int i = 0; i < present; ++i)
        list << QString::asprintf("d%05d", i);
    access.setStreaming(list, QByteArray(4 * present, '\0'));
    QSignalSpy overflow(&driver, SIGNAL(showOverflowMsg(int)));

    const QString address = QStringLiteral("DW%1").arg(added ? present : 0);
    QVERIFY(access.readBlock(command(CommunicatorCommand::DWordType, qMax(added, 1), address))
                .isEmpty());
    if (notice) {
        QCOMPARE(overflow.count(), 1);
        QCOMPARE(overflow.at(0).at(0).toInt(), notice);
        QCOMPARE(access.list(), list);
    } else {
        QCOMPARE(overflow.count(), 0);
        QCOMPARE(access.list().size(), present + added);
    }
}

void TestDriverRegisters::freshReadWaitsForANewBlock()
{
    DriverHushCNC driver;
    DriverHushCNCTestAccess access(driver);
    access.setStreaming({"d12003", "d12004"}, dwords({1, 2}));
    QSignalSpy loop(&driver, SIGNAL(loopRead()));
    const CommunicatorCommand fresh = command(CommunicatorCommand::DWordType, 1, "DW12003");

    QCOMPARE(access.readBlock(fresh), dwords({1}));
    QVERIFY(!access.blockUpdated());
    QCOMPARE(loop.count(), 1);

    // The second read is served only by a block delivered after the first.
    QThread *worker = QThread::create([&driver] {
        QThread::msleep(60);
        driver.updateDWordByteArray(dwords({3, 4}));
    });
    worker->start();
    QCOMPARE(access.readBlock(fresh), dwords({3}));
    worker->wait();
    delete worker;
    QVERIFY(!driver.hasError());
}

void TestDriverRegisters::timeOutWhenTheCacheDoesNotMatch()
{
    DriverHushCNC driver;
    DriverHushCNCTestAccess access(driver);
    access.setStreaming({"d00001", "d00002", "d00003"}, dwords({1, 2}));
    QSignalSpy loop(&driver, SIGNAL(loopRead()));
    QVERIFY(access.readBlock(command(CommunicatorCommand::DWordType, 1, "DW1")).isEmpty());
    QVERIFY(driver.hasError());
    QCOMPARE(driver.getLastError(), QStringLiteral("Read Time Out"));
    QCOMPARE(loop.count(), 5); // one request for a cycle after every pass
}

void TestDriverRegisters::triggerWalk()
{
    DriverHushCNC driver;
    DriverHushCNCTestAccess access(driver);
    access.setStreaming({"d00000", "d00001", "d00002"}, dwords({0, 1, 2}));
    QSignalSpy loop(&driver, SIGNAL(loopRead()));
    auto read = [&](int n) {
        return access.readBlock(
            command(CommunicatorCommand::DWordType, 1, QStringLiteral("DW%1").arg(n)));
    };

    QCOMPARE(read(0), dwords({0}));
    QCOMPARE(loop.count(), 1);

    // With N = 3, the (3N + 2)-th read elsewhere moves the trigger on.
    for (int i = 0; i < 10; ++i)
        read(1);
    QCOMPARE(access.triggerIndex(), 0);
    QCOMPARE(loop.count(), 1);
    read(1);
    QCOMPARE(access.triggerIndex(), 1);
    read(1);
    QCOMPARE(loop.count(), 2);

    // From N - 1 it moves to N, where no block begins, and from there back to 0.
    for (int step = 0; step < 3; ++step) {
        for (int i = 0; i < 11; ++i)
            read(step == 0 ? 0 : 1);
    }
    QCOMPARE(access.triggerIndex(), 0);
}

void TestDriverRegisters::writeBitDirectDisableReadsBack()
{
    DriverHushCNC driver;
    DriverHushCNCTestAccess access(driver);
    const CommunicatorCommand key
        = command(CommunicatorCommand::BitType, 1, "WriteBitDirectDisable0");
    QCOMPARE(access.readBit(key), QByteArray(1, 0));
    QVERIFY(access.list().isEmpty());

    // A register bit beyond the double word that a one-item read returns is an address error.
    access.setStreaming({"d10800"}, dwords({0xffffffffu}));
    QVERIFY(access.readBit(command(CommunicatorCommand::BitType, 1, "B10800.32")).isEmpty());
    QVERIFY(driver.hasError());
    QCOMPARE(driver.getLastError(), QStringLiteral("Get address (B10800.32) error."));
}

void TestDriverRegisters::responseRecords_data()
{
    QTest::addColumn<QString>("data");
    QTest::addColumn<int>("length");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("hex digits") << "d0000A0F1\r" << 1 << QByteArray("\xf1\xa0\x00\x00", 4);
    QTest::newRow("value characters") << "d0000:0?1\r" << 1 << QByteArray("\xf1\xa0\x00\x00", 4);
    QTest::newRow("two records") << "d00000001\rd????????\r" << 2 << dwords({1, 0xffffffffu});
    QTest::newRow("comma is not a digit") << "d0000,000\r" << 1 << dwords({0});
    QTest::newRow("records missing from the text") << "d00000002\r" << 2 << dwords({2, 0});
    QTest::newRow("more than a response holds") << "" << 100 << QByteArray();
}

void TestDriverRegisters::responseRecords()
{
    QFETCH(QString, data);
    QFETCH(int, length);
    QFETCH(QByteArray, expected);
    DriverHushCNC driver;
    QCOMPARE(DriverHushCNCTestAccess(driver).extractDataFromRespBuf(data, length), expected);
}

void TestDriverRegisters::readRequestFrame()
{
    DriverHushCNC driver;
    QCOMPARE(driver.packReadBytesCmdForTest({"d00010", "d00011"}),
             QByteArray("\x12%\rO9000\rN0\rv02\rd00010\rd00011\r%\x14"));
    QCOMPARE(driver.packReadBytesCmdForTest({}), QByteArray("\x12%\rO9000\rN0\rv00\r%\x14"));
}

void TestDriverRegisters::txPieces_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QList<int>>("pieces");
    QTest::newRow("500") << 500 << QList<int> {230, 230, 40};
    QTest::newRow("230") << 230 << QList<int> {230};
    QTest::newRow("empty") << 0 << QList<int> {0};
}

void TestDriverRegisters::txPieces()
{
    QFETCH(int, size);
    QFETCH(QList<int>, pieces);
    DriverHushCNC driver;
    ScriptedPort port;
    driver.sendTxBufForReadForTest(QByteArray(size, 'x'), &port);
    QList<int> written;
    for (const QByteArray &w : port.writes())
        written << w.size();
    QCOMPARE(written, pieces);
    QCOMPARE(port.discardCalls(), 1);
}

void TestDriverRegisters::stopFrameBuiltOnce()
{
    DriverHushCNC driver;
    ScriptedPort port;
    DriverHushCNCTestAccess access(driver);
    access.sendStopSendCommand(&port);
    access.sendStopSendCommand(&port);
    access.sendStopSendCommand(nullptr);
    const QByteArray stop("\x12%\rO9000\rN1\r%\x14");
    QCOMPARE(port.writes(), (QList<QByteArray> {stop, stop}));
    QCOMPARE(port.discardCalls(), 2);
}

void TestDriverRegisters::testCaseStopsAfterItsReads()
{
    DriverHushCNC driver;
    ScriptedPort port;
    driver.testCase(&port, 7);
    QCOMPARE(port.readCalls(), 7);
    QCOMPARE(port.writes().size(), 1);
    QVERIFY(port.written().contains("v15\rd00010\r"));
    QVERIFY(port.written().contains("d00024\r%\x14"));

    // A cancel from another thread ends a run that would otherwise go on for long.
    QThread *canceller = QThread::create([&driver] {
        QThread::msleep(20);
        driver.cancelTestCase();
    });
    canceller->start();
    driver.testCase(&port, INT_MAX);
    canceller->wait();
    delete canceller;
    QVERIFY(port.readCalls() > 7);
}

QTEST_GUILESS_MAIN(TestDriverRegisters)
#include "tst_driverregisters.moc"
