#include "drv_dev_setting.h"
#include "hush_cnc.h"

#include <QtTest>

namespace {

// A driver that overrides only what the interface leaves pure.
class MinimalDriver : public DriverInterface
{
public:
    int totalSize() override { return 0; }
    bool write(AbstractDeviceInterface *, CommunicatorCommand const &, QByteArray const &) override { return false; }
    QByteArray read(AbstractDeviceInterface *, CommunicatorCommand const &) override { return {}; }
    bool initialize(AbstractDeviceInterface *) override { return false; }
    bool validation(QString const &) override { return false; }
    DeviceSetting *getDefaultSerialDeviceSetting() override { return nullptr; }
    DriverSetting *getDefaultDriverSetting() override { return nullptr; }
    int supportedCommunicationFlags() override { return 0; }
    void setDebugMode(bool) override {}
    int getBlockAccessSize() override { return 0; }
    int getBitBlockAccessSize() override { return 0; }
    bool hasError() override { return false; }
    QString getLastError() override { return {}; }
    QObject *getThisObject() override { return nullptr; }
};

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
        QTest::newRow("bit 1") << 0 << 1u << 1u;
        QTest::newRow("bit 8") << 0 << 8u << 1u;
        QTest::newRow("bit 9") << 0 << 9u << 2u;
        QTest::newRow("byte") << 1 << 5u << 5u;
        QTest::newRow("word") << 2 << 3u << 6u;
        QTest::newRow("dword") << 3 << 2u << 8u;
        QTest::newRow("qword") << 4 << 2u << 16u;
        QTest::newRow("block") << 5 << 7u << 7u;
        QTest::newRow("unknown 6") << 6 << 100u << 1u;
        QTest::newRow("negative") << -1 << 100u << 1u;
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
        QCOMPARE(CommunicatorCommand(CommunicatorCommand::DWordType, 2, "d100").stringKey(), QStringLiteral("d100_3_2"));
        QCOMPARE(CommunicatorCommand().stringKey(), QStringLiteral("_0_0"));
        CommunicatorCommand odd(CommunicatorCommand::BitType, 4000000000u, "x");
        odd.dataType = CommunicatorCommand::DataType(-2);
        QCOMPARE(odd.stringKey(), QStringLiteral("x_-2_4000000000"));
    }

    void interfaceDefaults()
    {
        MinimalDriver d;
        QCOMPARE(d.name(), QStringLiteral("Not Assigned"));
        QCOMPARE(d.vender(), QStringLiteral("Not Assigned"));
        QCOMPARE(d.getVersionNumber(), QStringLiteral("Not Assigned"));
        QCOMPARE(d.getStringBasedDefaultDriverSetting(), QStringLiteral("RS232,9600,EVEN,7,1"));
        QVERIFY(!d.isSupportSessionCommand());
        QVERIFY(d.deviceSettingChanged(nullptr));
        QVERIFY(d.isConnected(nullptr));
    }

    void constantAnswers()
    {
        DriverHushCNC driver;
        DriverInterface *d = &driver;
        QCOMPARE(d->name(), QStringLiteral("Hust CNC Controller"));
        QCOMPARE(d->vender(), QStringLiteral("Hust"));
        QCOMPARE(d->getVersionNumber(), QStringLiteral("1.0.0"));
        QCOMPARE(d->supportedCommunicationFlags(), 16);
        QCOMPARE(d->getStringBasedDefaultDriverSetting(), QStringLiteral("RS232,38400,EVEN,7,2"));
        QCOMPARE(d->getBlockAccessSize(), 0);
        QCOMPARE(d->getBitBlockAccessSize(), 0);
        QCOMPARE(d->totalSize(), 1024);
        QVERIFY(d->initialize(nullptr));
        QVERIFY(d->validation(QStringLiteral("anything")));
        QVERIFY(d->isSupportSessionCommand());
        QVERIFY(d->deviceSettingChanged(nullptr));
        QVERIFY(d->isConnected(nullptr));
        QCOMPARE(d->getThisObject(), static_cast<QObject *>(&driver));
        QVERIFY(!d->hasError());
        QCOMPARE(d->getLastError(), QString());

        QScopedPointer<DeviceSetting> dev(d->getDefaultSerialDeviceSetting());
        QCOMPARE(int(dev->type), 16);
        QCOMPARE(dev->string, QStringLiteral("COM1"));
        QCOMPARE(dev->baudrate, 38400);
        QCOMPARE(dev->databits, 7);
        QCOMPARE(dev->stopbits, 2);
        QCOMPARE(dev->parity, 2);
        QScopedPointer<DriverSetting> drv(d->getDefaultDriverSetting());
        QCOMPARE(drv->timeout + drv->retry + drv->stationid + drv->delay, 0);
    }

    void configurationOnly()
    {
        QVERIFY(!QCoreApplication::instance()->property("zel_env").isValid());
        DriverHushCNC driver;
        CommunicatorCommand cmd(CommunicatorCommand::DWordType, 1, QStringLiteral("DW100"));
        QVERIFY(driver.read(nullptr, cmd).isEmpty());
        QVERIFY(!driver.write(nullptr, cmd, QByteArray(4, 0)));
        driver.setSessionCommand({cmd});
        driver.clearSessionCommand();
        QVERIFY(driver.read(nullptr, cmd).isEmpty());
    }

    void typeIdentification()
    {
        DriverHushCNC driver;
        DriverInterface *asInterface = &driver;
        QCOMPARE(driver.qt_metacast("DriverHushCNC"), static_cast<void *>(&driver));
        QCOMPARE(driver.qt_metacast(DriverInterface_iid), static_cast<void *>(asInterface));
        QCOMPARE(driver.qt_metacast("DriverInterface"), static_cast<void *>(asInterface));
        QCOMPARE(qobject_cast<DriverInterface *>(&driver), asInterface);
        QCOMPARE(driver.qt_metacast("QObject"), static_cast<void *>(&driver));
        QVERIFY(!driver.qt_metacast("Unrelated"));
    }

    void signalSlotTable()
    {
        const QStringList expected = {
            "changeScreenID(int)", "getAddrValRightaway(QStringList,quintptr)",
            "startLoopRead(QStringList)", "showOverflowMsg(int)",
            "writeDWord(QString,int,QByteArray)", "writeBit(QString,bool)", "loopRead()",
            "updateDWordByteArray(QByteArray)", "initGCodeController(AbstractDeviceInterface*)",
            "extractZeroDataFromDWordByteArray(CommunicatorCommand::DataType,int)",
            "extractDataFromDWordByteArray(CommunicatorCommand::DataType,QString,QByteArray,int)",
            "addr2DWAddrList(CommunicatorCommand)", "sendStopSendCommand(AbstractDeviceInterface*)",
            "setWriteByteError()", "setWriteWordError()", "extractDataFromRespBuf(QString,int)",
            "writeDWord(AbstractDeviceInterface*,CommunicatorCommand,QByteArray)",
            "readBlock(CommunicatorCommand)", "readBit(CommunicatorCommand)",
            "stopLoopReadForGCode()", "startLoopReadForGCode()", "setAddressError(QString)",
            "setAddressError()", "setOutOfRangeError(int)",
            "setReadCommandNotSupportError(CommunicatorCommand::DataType)", "setReadTimeOutError()",
            "setReadError()", "setWriteDWordError()", "setWriteASCOIError()", "setWriteBitError()"};
        const QMetaObject &mo = DriverHushCNC::staticMetaObject;
        QStringList actual;
        for (int i = mo.methodOffset(); i < mo.methodCount(); ++i)
            actual << QString::fromLatin1(mo.method(i).methodSignature());
        QCOMPARE(actual, expected);
        QCOMPARE(mo.method(mo.methodOffset() + 1).parameterNames(),
                 QList<QByteArray>({"addrList", "responseByteArrayPointer"}));
        QCOMPARE(mo.method(mo.methodOffset() + 4).parameterNames(),
                 QList<QByteArray>({"address", "dwordLength", "writeData"}));
    }

    void errorMessages_data()
    {
        QTest::addColumn<QByteArray>("slot");
        QTest::addColumn<QString>("message");
        QTest::newRow("byte write") << QByteArray("setWriteByteError") << "Not support the byte write command.";
        QTest::newRow("word write") << QByteArray("setWriteWordError") << "Not support the word write command.";
        QTest::newRow("address, empty") << QByteArray("setAddressError") << "Get address () error.";
        QTest::newRow("time out") << QByteArray("setReadTimeOutError") << "Read Time Out";
        QTest::newRow("read") << QByteArray("setReadError") << "Read command error. ";
        QTest::newRow("dword write") << QByteArray("setWriteDWordError") << "Write Double Word Fail. ";
        QTest::newRow("ascoi") << QByteArray("setWriteASCOIError") << "Not support for writing ASCOI address. ";
        QTest::newRow("bit write") << QByteArray("setWriteBitError") << "Write Bit Fail. ";
    }

    void errorMessages()
    {
        QFETCH(QByteArray, slot);
        QFETCH(QString, message);
        DriverHushCNC driver;
        invoke(&driver, slot.constData());
        QVERIFY(driver.hasError());
        QCOMPARE(driver.getLastError(), message);
    }

    void errorMessagesWithArguments()
    {
        DriverHushCNC driver;
        QMetaObject::invokeMethod(&driver, "setAddressError", Q_ARG(QString, QStringLiteral("d00012")));
        QCOMPARE(driver.getLastError(), QStringLiteral("Get address (d00012) error."));
        QMetaObject::invokeMethod(&driver, "setOutOfRangeError", Q_ARG(int, -3));
        QCOMPARE(driver.getLastError(), QStringLiteral("Out of range. (-3)"));
        const QList<QPair<int, QString>> types = {
            {0, "Bit Type"}, {1, "Byte Type"}, {2, ""}, {3, "Double Word Type"},
            {4, "Quad Word Type"}, {5, ""}, {9, ""}};
        for (const auto &t : types) {
            QMetaObject::invokeMethod(&driver, "setReadCommandNotSupportError",
                                      Q_ARG(CommunicatorCommand::DataType, CommunicatorCommand::DataType(t.first)));
            QCOMPARE(driver.getLastError(), QStringLiteral("Not support the read command for %1.").arg(t.second));
        }
    }

    // The countdown starts at 50: calls 1..51 only count, the 52nd drops the flag and restarts.
    void clearErrorRule_data()
    {
        QTest::addColumn<int>("callsBeforeError");
        QTest::addColumn<int>("callsThatKeepIt");
        QTest::newRow("new driver") << 0 << 51;
        QTest::newRow("after 51 calls") << 51 << 0;
        QTest::newRow("after 50 calls") << 50 << 1;
        QTest::newRow("after 52 calls") << 52 << 51;
        QTest::newRow("after 60 calls") << 60 << 43;
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
