// The driver's register path on a driver without a worker (no zel_env): address translation, the
// cache, block and bit reads and the diagnostic entry point.
#include "drivertestaccess.h"
#include "scriptedport.h"

#include <QSignalSpy>
#include <QtTest>

#include <memory>

using Type = CommunicatorCommand::DataType;

class TestDriverRegisters : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QLoggingCategory::setFilterRules(QStringLiteral("hust.driver.debug=false"));
    }

    // Without zel_env the plug-in is only asked for its settings: reads and writes are refused
    // through any port, G-code keys included, and no port call is made.
    void configurationOnlyDriverRefusesWork_data()
    {
        QTest::addColumn<QString>("address");
        QTest::newRow("register") << "DW100";
        QTest::newRow("G-code key") << "ReadCode";
    }

    void configurationOnlyDriverRefusesWork()
    {
        QFETCH(QString, address);
        DriverHushCNC driver;
        ScriptedPort port;
        const CommunicatorCommand cmd(CommunicatorCommand::DWordType, 1, address);
        QVERIFY(driver.read(&port, cmd).isEmpty());
        QVERIFY(!driver.write(&port, cmd, dwords({7})));
        QVERIFY(!driver.hasError());
        QCOMPARE(port.readCalls(), 0);
        QVERIFY(port.writes().isEmpty());
    }

    void addressTranslation_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<Type>("type");
        QTest::addColumn<quint32>("length");
        QTest::addColumn<QStringList>("expected");

        const Type dword = CommunicatorCommand::DWordType;
        const Type w = CommunicatorCommand::WordType;
        QTest::newRow("DW100 x3") << "DW100" << dword << 3u
                                  << QStringList {"d00100", "d00101", "d00102"};
        QTest::newRow("I16 word, upper half")
            << "I16" << w << 1u << QStringList {"d10800", "d10801"};
        QTest::newRow("I37 bit form") << "I37" << dword << 1u << QStringList {"d10801"};
        QTest::newRow("O255") << "O255" << dword << 1u << QStringList {"d10815"};
        QTest::newRow("S0") << "S0" << dword << 1u << QStringList {"d10824"};
        QTest::newRow("A40 four words") << "A40" << w << 4u << QStringList {"d10833", "d10834"};
        QTest::newRow("C0 counts words") << "C0" << dword << 2u << QStringList {"d10816"};
        QTest::newRow("DW length 0") << "DW5" << dword << 0u << QStringList();
        QTest::newRow("status key") << "PROTOCOL_STATUS0" << dword << 1u << QStringList();
        QTest::newRow("G-code key") << "ReadAllCode0" << dword << 1u << QStringList();
        QTest::newRow("last double word") << "DW99999" << dword << 1u << QStringList {"d99999"};
        QTest::newRow("past the last double word") << "DW99999" << dword << 2u << QStringList();
        QTest::newRow("negative length") << "DW5" << dword << quint32(-1) << QStringList();
    }

    void addressTranslation()
    {
        QFETCH(QString, address);
        QFETCH(Type, type);
        QFETCH(quint32, length);
        QFETCH(QStringList, expected);
        DriverHushCNC driver;
        QCOMPARE(DriverHushCNCTestAccess(driver).addr2DWAddrList(
                     CommunicatorCommand(type, length, address)),
                 expected);
    }

    void extraction_data()
    {
        QTest::addColumn<Type>("type");
        QTest::addColumn<QString>("address");
        QTest::addColumn<QByteArray>("block");
        QTest::addColumn<int>("length");
        QTest::addColumn<QByteArray>("expected");

        const Type w = CommunicatorCommand::WordType;
        const Type bit = CommunicatorCommand::BitType;
        const QByteArray two = dwords({0x56781234, 0x9abcdef0});
        QTest::newRow("three words, lower half") << w << "DW100" << two << 3 << two.left(6);
        QTest::newRow("upper half, beyond the block") << w << "I16" << two << 4 << two.mid(2);
        QTest::newRow("word, negative length") << w << "DW4" << two << -1 << QByteArray();
        QTest::newRow("bit set") << bit << "I2" << two << 1 << QByteArray(1, 1);
        QTest::newRow("B bit 31") << bit << "B5.31" << dwords({0x80000000u}) << 1
                                  << QByteArray(1, 1);
        QTest::newRow("B bit 32 reads 0") << bit << "B5.32" << two << 1 << QByteArray(1, 0);
        QTest::newRow("bit of an empty block")
            << bit << "I2" << QByteArray() << 1 << QByteArray(1, 0);
    }

    void extraction()
    {
        QFETCH(Type, type);
        QFETCH(QString, address);
        QFETCH(QByteArray, block);
        QFETCH(int, length);
        QFETCH(QByteArray, expected);
        DriverHushCNC driver;
        QCOMPARE(DriverHushCNCTestAccess(driver).extract(type, address, block, length), expected);
    }

    void firstReadsGrowTheListThenStartTheLoop()
    {
        DriverHushCNC driver;
        DriverHushCNCTestAccess access(driver);
        QSignalSpy started(&driver, SIGNAL(startLoopRead(QStringList)));
        const CommunicatorCommand dw100 = dw(100, 2);
        const QStringList expected {"d00100", "d00101"};

        QVERIFY(access.readBlock(dw100).isEmpty());
        QCOMPARE(access.list(), expected);
        QCOMPARE(started.count(), 0);

        QVERIFY(access.readBlock(dw100).isEmpty());
        QCOMPARE(started.count(), 1);
        QCOMPARE(started.at(0).at(0).toStringList(), expected);

        driver.updateDWordByteArray(dwords({11, 22}));
        QCOMPARE(driver.property("deliveredBlocks").toULongLong(), 1ULL);
        QCOMPARE(access.readBlock(dw100), dwords({11, 22}));
        QCOMPARE(started.count(), 1);
        QVERIFY(!driver.hasError());
    }

    // Reads served from the cache of a streaming list.
    void readsFromCache_data()
    {
        QTest::addColumn<QStringList>("list");
        QTest::addColumn<QByteArray>("cache");
        QTest::addColumn<Type>("type");
        QTest::addColumn<QString>("address");
        QTest::addColumn<QByteArray>("expected");
        QTest::addColumn<int>("added");
        QTest::addColumn<QString>("error");

        const Type dword = CommunicatorCommand::DWordType;
        const Type bit = CommunicatorCommand::BitType;
        const QStringList io {"d10800", "d10801"};
        QTest::newRow("second of two") << QStringList {"d00100", "d00101"} << dwords({1, 2})
                                       << dword << "DW101" << dwords({2}) << 0 << "";
        QTest::newRow("I37 in the second word")
            << io << dwords({0x20, 0x20}) << bit << "I37" << QByteArray(1, 1) << 0 << "";
        QTest::newRow("bit not yet in the list")
            << io << dwords({0x20, 0x20}) << bit << "B7.1" << QByteArray() << 1 << "";
        QTest::newRow("negative bit position reads 0")
            << QStringList {"d10800"} << dwords({0xffffffffu}) << bit << "B10800.-1"
            << QByteArray(1, 0) << 0 << "";
        // Beyond the double word that a one-item read returns: an address error, not a stray read.
        QTest::newRow("B10800.32")
            << QStringList {"d10800"} << dwords({0xffffffffu}) << bit << "B10800.32" << QByteArray()
            << 0 << "Get address (B10800.32) error.";
    }

    void readsFromCache()
    {
        QFETCH(QStringList, list);
        QFETCH(QByteArray, cache);
        QFETCH(Type, type);
        QFETCH(QString, address);
        QFETCH(QByteArray, expected);
        QFETCH(int, added);
        QFETCH(QString, error);
        DriverHushCNC driver;
        DriverHushCNCTestAccess access(driver);
        access.setStreaming(list, cache);
        const CommunicatorCommand cmd(type, 1, address);
        QCOMPARE(type == CommunicatorCommand::BitType ? access.readBit(cmd) : access.readBlock(cmd),
                 expected);
        QCOMPARE(access.list().size(), list.size() + added);
        if (added == 0)
            QCOMPARE(access.list(), list);
        QCOMPARE(driver.hasError(), !error.isEmpty());
        QCOMPARE(driver.getLastError(), error);
    }

    // A read that would take the list past 99 names is refused without an error; the driver
    // reports the count once and neither keeps the names nor starts loop reading.
    void overflow_data()
    {
        QTest::addColumn<int>("present");
        QTest::addColumn<int>("added");
        QTest::addColumn<int>("notice");
        QTest::newRow("100 names") << 98 << 2 << 100;
        QTest::newRow("99 names") << 97 << 2 << 0;
        QTest::newRow("a list already too long") << 120 << 0 << 120;
    }

    void overflow()
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
        QSignalSpy started(&driver, SIGNAL(startLoopRead(QStringList)));

        QVERIFY(access.readBlock(dw(added ? present : 0, quint32(qMax(added, 1)))).isEmpty());
        QVERIFY(!driver.hasError());
        QCOMPARE(started.count(), 0);
        QCOMPARE(overflow.count(), notice ? 1 : 0);
        if (notice) {
            QCOMPARE(overflow.at(0).at(0).toInt(), notice);
            QCOMPARE(access.list(), list);
        } else {
            QCOMPARE(access.list().size(), present + added);
        }
    }

    void freshReadWaitsForANewBlock()
    {
        DriverHushCNC driver;
        DriverHushCNCTestAccess access(driver);
        access.setStreaming({"d12003", "d12004"}, dwords({1, 2}));
        QSignalSpy loop(&driver, SIGNAL(loopRead()));
        const CommunicatorCommand fresh = dw(12003);

        QCOMPARE(access.readBlock(fresh), dwords({1}));
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

    void timeOutWhenTheCacheDoesNotMatch()
    {
        DriverHushCNC driver;
        DriverHushCNCTestAccess access(driver);
        access.setStreaming({"d00001", "d00002", "d00003"}, dwords({1, 2}));
        QSignalSpy loop(&driver, SIGNAL(loopRead()));
        QVERIFY(access.readBlock(dw(1)).isEmpty());
        QVERIFY(driver.hasError());
        QCOMPARE(driver.getLastError(), QStringLiteral("Read Time Out"));
        QCOMPARE(loop.count(), 5); // one request for a cycle after every pass
    }

    // With N = 3 names the (3N + 2)-th read elsewhere moves the trigger on; from N - 1 it moves
    // to N, where no block begins, and only from there back to 0.
    void triggerWalk()
    {
        DriverHushCNC driver;
        DriverHushCNCTestAccess access(driver);
        access.setStreaming({"d00000", "d00001", "d00002"}, dwords({0, 1, 2}));
        QSignalSpy loop(&driver, SIGNAL(loopRead()));
        const auto reads = [&](int index, int times) {
            for (int i = 0; i < times; ++i)
                QCOMPARE(access.readBlock(dw(index)), dwords({quint32(index)}));
        };
        reads(0, 1);
        reads(1, 11);
        QCOMPARE(loop.count(), 1);
        reads(1, 1);
        QCOMPARE(loop.count(), 2);
        reads(0, 11);
        reads(1, 22);
        QCOMPARE(loop.count(), 2);
        reads(0, 1);
        QCOMPARE(loop.count(), 3);
    }

    // The diagnostic decoding gives four bytes for each record asked for, reading the eight
    // characters after each record's letter as hexadecimal (fewer at the end of the text), and
    // the diagnostic request carries a count of any size.
    void diagnosticEntries_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("length");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("value characters") << "d0000:0?1\r" << 1 << dwords({0xA0F1});
        QTest::newRow("short text at the end") << "d1A" << 1 << dwords({0x1A});
        QTest::newRow("120 records, two in the text")
            << "d00000001\rd00000002\r" << 120 << dwords({1, 2}) + QByteArray(4 * 118, '\0');
    }

    void diagnosticEntries()
    {
        QFETCH(QString, text);
        QFETCH(int, length);
        QFETCH(QByteArray, expected);
        DriverHushCNC driver;
        QCOMPARE(DriverHushCNCTestAccess(driver).extractDataFromRespBuf(text, length), expected);
        QStringList names;
        for (int i = 0; i < length; ++i)
            names << QString::asprintf("d%05d", i);
        const QByteArray request = driver.packReadBytesCmdForTest(names);
        QCOMPARE(request.size(), 18 + 7 * length + (length > 99 ? 1 : 0));
        QVERIFY(request.contains("\rv" + QByteArray::number(length).rightJustified(2, '0') + "\r"));
    }

    // testCase ends after its reads, or on a cancel from another thread, also one that comes
    // before the call (cancelAtMs 0), which then sends nothing.
    void testCaseStops_data()
    {
        QTest::addColumn<int>("maxReads");
        QTest::addColumn<int>("cancelAtMs");
        QTest::addColumn<int>("reads"); // -1: some, fewer than maxReads
        QTest::newRow("after its reads") << 7 << -1 << 7;
        QTest::newRow("cancelled first") << 1000000 << 0 << 0;
        QTest::newRow("cancelled while it runs") << INT_MAX << 20 << -1;
    }

    void testCaseStops()
    {
        QFETCH(int, maxReads);
        QFETCH(int, cancelAtMs);
        QFETCH(int, reads);
        DriverHushCNC driver;
        ScriptedPort port;
        if (cancelAtMs == 0)
            driver.cancelTestCase();
        std::unique_ptr<QThread> canceller(QThread::create([&driver, cancelAtMs] {
            if (cancelAtMs > 0) {
                QThread::msleep(quint32(cancelAtMs));
                driver.cancelTestCase();
            }
        }));
        canceller->start();
        driver.testCase(&port, maxReads);
        canceller->wait();
        if (reads >= 0)
            QCOMPARE(port.readCalls(), reads);
        else
            QVERIFY(port.readCalls() > 0);
        QCOMPARE(port.writes().size(), reads == 0 ? 0 : 1);
    }
};

QTEST_GUILESS_MAIN(TestDriverRegisters)
#include "tst_driverregisters.moc"
