#include "drv_dev_setting.h"
#include "hush_cnc.h"

#include <QtTest>

namespace {

void invoke(QObject *object, const char *slot)
{
    QVERIFY2(QMetaObject::invokeMethod(object, slot, Qt::DirectConnection), slot);
}

// Values written one after another to a stream of the persisted version: a settings record, or
// the plain fields that spell out its layout.
template<typename... T> QByteArray streamed(const T &...values)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out.setVersion(QDataStream::Qt_4_8);
    (out << ... << values);
    return bytes;
}

void readInto(const QByteArray &bytes, DeviceSetting &s)
{
    QDataStream in(bytes);
    in.setVersion(QDataStream::Qt_4_8);
    in >> s;
}

} // namespace

class TestContract : public QObject
{
    Q_OBJECT

private slots:
    void dataSize_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<uint>("length");
        QTest::addColumn<uint>("size");
        QTest::newRow("bit 0") << 0 << 0u << 1u;
        QTest::newRow("bit 8") << 0 << 8u << 1u;
        QTest::newRow("bit 9") << 0 << 9u << 2u;
        QTest::newRow("qword") << 4 << 2u << 16u;
        QTest::newRow("block") << 5 << 7u << 7u;
        QTest::newRow("unknown 6") << 6 << 100u << 1u;
        QTest::newRow("dword wraps") << 3 << 0x40000001u << 4u;
    }

    void dataSize()
    {
        QFETCH(int, type);
        QFETCH(uint, length);
        QFETCH(uint, size);
        CommunicatorCommand cmd;
        cmd.dataType = CommunicatorCommand::DataType(type);
        cmd.length = length;
        QCOMPARE(cmd.getDataSize(), size);
    }

    void stringKey_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<int>("type");
        QTest::addColumn<uint>("length");
        QTest::addColumn<QString>("key");
        QTest::newRow("dword") << "d100" << 3 << 2u << "d100_3_2";
        QTest::newRow("negative type, large length")
            << "x" << -2 << 4000000000u << "x_-2_4000000000";
        // A placeholder inside the address is text, not a slot for the type or length.
        QTest::newRow("percent in address") << "A%2" << 3 << 2u << "A%2_3_2";
    }

    void stringKey()
    {
        QFETCH(QString, address);
        QFETCH(int, type);
        QFETCH(uint, length);
        CommunicatorCommand cmd(CommunicatorCommand::DataType(type), length, address);
        QTEST(cmd.stringKey(), "key");
    }

    void signalSlotTable()
    {
        // Method indices are part of the plug-in's binary face, so the order counts.
        const QString expected = QStringLiteral(
            "changeScreenID(int) getAddrValRightaway(QStringList,quintptr) "
            "startLoopRead(QStringList) showOverflowMsg(int) writeDWord(QString,int,QByteArray) "
            "writeBit(QString,bool) loopRead() updateDWordByteArray(QByteArray) "
            "initGCodeController(AbstractDeviceInterface*) "
            "extractZeroDataFromDWordByteArray(CommunicatorCommand::DataType,int) "
            "extractDataFromDWordByteArray(CommunicatorCommand::DataType,QString,QByteArray,int) "
            "addr2DWAddrList(CommunicatorCommand) sendStopSendCommand(AbstractDeviceInterface*) "
            "setWriteByteError() setWriteWordError() extractDataFromRespBuf(QString,int) "
            "writeDWord(AbstractDeviceInterface*,CommunicatorCommand,QByteArray) "
            "readBlock(CommunicatorCommand) readBit(CommunicatorCommand) stopLoopReadForGCode() "
            "startLoopReadForGCode() setAddressError(QString) setAddressError() "
            "setOutOfRangeError(int) setReadCommandNotSupportError(CommunicatorCommand::DataType) "
            "setReadTimeOutError() setReadError() setWriteDWordError() setWriteASCOIError() "
            "setWriteBitError()");
        const QMetaObject &mo = DriverHushCNC::staticMetaObject;
        QStringList actual;
        for (int i = mo.methodOffset(); i < mo.methodCount(); ++i)
            actual << QString::fromLatin1(mo.method(i).methodSignature());
        QCOMPARE(actual.join(' '), expected);
        QCOMPARE(mo.method(mo.methodOffset() + 1).parameterNames(),
                 QList<QByteArray>({"addrList", "responseByteArrayPointer"}));
        QCOMPARE(mo.method(mo.methodOffset() + 4).parameterNames(),
                 QList<QByteArray>({"address", "dwordLength", "writeData"}));
    }

    // Word, block and unknown types have no name in the message.
    void unsupportedTypeNames()
    {
        DriverHushCNC driver;
        const QList<QPair<int, QString>> types
            = {{0, "Bit Type"}, {2, ""}, {3, "Double Word Type"}, {4, "Quad Word Type"}, {9, ""}};
        for (const auto &t : types) {
            QMetaObject::invokeMethod(
                &driver, "setReadCommandNotSupportError",
                Q_ARG(CommunicatorCommand::DataType, CommunicatorCommand::DataType(t.first)));
            QCOMPARE(driver.getLastError(),
                     QStringLiteral("Not support the read command for %1.").arg(t.second));
        }
    }

    // The countdown starts at 50: calls 1..51 only count, the 52nd drops the flag and restarts.
    void clearErrorRule_data()
    {
        QTest::addColumn<int>("callsBeforeError");
        QTest::addColumn<int>("callsThatKeepIt");
        QTest::newRow("new driver") << 0 << 51;
        QTest::newRow("after 50 calls") << 50 << 1;
        QTest::newRow("after 52 calls") << 52 << 51;
    }

    void clearErrorRule()
    {
        QFETCH(int, callsBeforeError);
        QFETCH(int, callsThatKeepIt);
        DriverHushCNC driver;
        for (int i = 0; i < callsBeforeError; ++i)
            driver.clearError();
        invoke(&driver, "setWriteBitError");
        for (int i = 0; i < callsThatKeepIt; ++i) {
            driver.clearError();
            QVERIFY2(driver.hasError(), qPrintable(QString::number(i)));
        }
        driver.clearError();
        QVERIFY(!driver.hasError());
        QCOMPARE(driver.getLastError(), QStringLiteral("Write Bit Fail. "));
    }

    void deviceSetting()
    {
        DeviceSetting s(DEVICE_SERIAL, QStringLiteral("COM1"), 38400, 7, 2, 2, 5,
                        QStringLiteral("x"));
        s.setSocketData({{QStringLiteral("10.0.0.1"), QStringLiteral("502")},
                         {QStringLiteral("b"), QStringLiteral("2")}});
        s.setCurrentIPIndex(1);
        const QByteArray expected
            = streamed(16, QStringLiteral("COM1"), 38400, 7, 2, 2, 5, -1, 1, 2,
                       QStringLiteral("10.0.0.1"), quint16(502), QStringLiteral("b"), quint16(2));
        QCOMPARE(streamed(s), expected);

        DeviceSetting r(DEVICE_NONE, QString(), 0, 0, 0, 0);
        readInto(expected, r); // index checked against the old, empty list: stays 0
        QCOMPARE(r.currentIPIndex, 0);
        readInto(expected, r); // now the list has two entries
        QCOMPARE(streamed(r), expected);
    }

    // Fields the stream did not reach read as zero or empty, whatever the object held before, and
    // the index points into the list read.
    void damagedStreams_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("baudrate");
        QTest::addColumn<int>("sockets");
        QTest::addColumn<int>("index");
        const QByteArray head = streamed(16, QStringLiteral("COM1"), 38400, 7, 2, 2, 0, -1, 0);
        const QByteArray entry = streamed(-1, QStringLiteral("h"), quint16(7));
        QTest::newRow("cut in the name") << head.left(7) << 0 << 0 << 0;
        QTest::newRow("no socket count") << head << 38400 << 0 << 0;
        QTest::newRow("huge count, one entry") << head + entry << 38400 << 1 << 0;
        QTest::newRow("huge count, cut entry") << head + entry + streamed(100) << 38400 << 1 << 0;
        QTest::newRow("huge string length") << streamed(16, 0x7FFFFFF0) + "abc" << 0 << 0 << 0;
        // The index is checked against the two entries held before; the new list has one.
        QTest::newRow("index past the new list")
            << streamed(16, QStringLiteral("COM1"), 38400, 7, 2, 2, 0, -1, 1) + entry << 38400 << 1
            << 0;
    }

    void damagedStreams()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(int, baudrate);
        QFETCH(int, sockets);
        DeviceSetting s(DEVICE_NONE, QString(), 1, 2, 3, 4);
        s.setSocketData({{QStringLiteral("a"), QStringLiteral("1")},
                         {QStringLiteral("b"), QStringLiteral("2")}});
        readInto(bytes, s);
        QCOMPARE(s.baudrate, baudrate);
        QCOMPARE(s.sockets.size(), sockets);
        QTEST(s.currentIPIndex, "index");
    }

    // A placeholder inside the port name or the address is shown as it is.
    void dumpText()
    {
        QLoggingCategory::setFilterRules(QStringLiteral("hust.support.debug=true"));
        DeviceSetting s(DEVICE_SERIAL, QStringLiteral("COM%3"), 9600, 7, 2, 2);
        s.setSocketData({{QStringLiteral("%1.0.0.1"), QStringLiteral("502")}});
        QTest::ignoreMessage(QtDebugMsg,
                             "type: 16 string: \"COM%3\" baudrate: 9600 databits: 7 stopbits: 2 "
                             "parity: 2 linkID: -1 current ip: \"%1.0.0.1\" current port: 502");
        s.dump();
        QLoggingCategory::setFilterRules(QString());
    }

    // Indices outside the list read as nothing and change nothing; a port that is no number is 0.
    void socketIndices()
    {
        DeviceSetting s(DEVICE_SERIAL, QStringLiteral("COM1"), 38400, 7, 2, 2);
        QCOMPARE(s.socketIP(-1), QString());
        s.setSocketData({{QStringLiteral("a"), QStringLiteral("http")}});
        s.setSocketIP(QStringLiteral("z"), 1);
        QCOMPARE(s.socketIP(-1), QStringLiteral("a"));
        QCOMPARE(s.port(0), quint16(0));
    }

    void driverSetting()
    {
        const DriverSetting four(100, 3, 7, 20);
        const DriverSetting six(100, 3, 7, 20, QStringLiteral("10.1.1.1"), 502);
        QCOMPARE(streamed(six), streamed(four));
        QCOMPARE(streamed(four), streamed(100, 3, 7, 20));

        DriverSetting r(9, 9, 9, 9);
        QDataStream in(streamed(5, 6));
        in >> r;
        QCOMPARE(in.status(), QDataStream::ReadPastEnd);
        QCOMPARE(r.timeout, 5);
        QCOMPARE(r.stationid, 0);
    }
};

QTEST_GUILESS_MAIN(TestContract)
#include "tst_contract.moc"
