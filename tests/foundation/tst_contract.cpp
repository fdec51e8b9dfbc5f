#include "hush_cnc.h"

#include <QtTest>

namespace {

void invoke(QObject *object, const char *slot)
{
    QVERIFY2(QMetaObject::invokeMethod(object, slot, Qt::DirectConnection), slot);
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
        QTest::newRow("dword") << 3 << 2u << 8u;
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

    void stringKey()
    {
        QCOMPARE(CommunicatorCommand(CommunicatorCommand::DWordType, 2, "d100").stringKey(),
                 QStringLiteral("d100_3_2"));
        CommunicatorCommand odd(CommunicatorCommand::BitType, 4000000000u, "x");
        odd.dataType = CommunicatorCommand::DataType(-2);
        QCOMPARE(odd.stringKey(), QStringLiteral("x_-2_4000000000"));
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

    // Error texts that no driver path test raises.
    void errorMessages()
    {
        DriverHushCNC driver;
        invoke(&driver, "setAddressError");
        QCOMPARE(driver.getLastError(), QStringLiteral("Get address () error."));
        invoke(&driver, "setReadError");
        QCOMPARE(driver.getLastError(), QStringLiteral("Read command error. "));
        QMetaObject::invokeMethod(&driver, "setOutOfRangeError", Q_ARG(int, -3));
        QCOMPARE(driver.getLastError(), QStringLiteral("Out of range. (-3)"));
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
};

QTEST_GUILESS_MAIN(TestContract)
#include "tst_contract.moc"
