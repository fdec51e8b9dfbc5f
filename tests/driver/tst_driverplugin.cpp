// The plug-in file, loaded by path as the run-time loads it, writing and reading back the
// controller simulator's registers over a pseudo-terminal through the host serial port, used
// only through DriverInterface from the main thread with the event loop running between polls.
#include "driverinterface.h"
#include "serialport.h"
#include "simulator.h"

#include <QPluginLoader>
#include <QtTest>

#include <memory>

namespace {

using Type = CommunicatorCommand::DataType;

QByteArray le32(quint32 value)
{
    QByteArray bytes(4, '\0');
    qToLittleEndian(value, bytes.data());
    return bytes;
}

// The commands of the screen on show, the registers the tests read among them.
const QList<CommunicatorCommand> Screen {{Type::DWordType, 3, QStringLiteral("DW100")},
                                         {Type::DWordType, 1, QStringLiteral("DW250")},
                                         {Type::DWordType, 2, QStringLiteral("DW10")},
                                         {Type::WordType, 16, QStringLiteral("I0")}};

} // namespace

class TestDriverPlugin : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        hustsim::SimulatorConfig config;
        config.paced = false;
        config.frameCounter = false;
        m_sim.reset(new hustsim::Simulator(config));
        m_sim->setRegister(11, 0xFFFFFFFFu);
        QVERIFY2(m_sim->start(), qPrintable(m_sim->errorString()));
        m_port.reset(
            new SerialPort(DeviceSetting(DEVICE_SERIAL, m_sim->devicePath(), 38400, 7, 2, 2),
                           DriverSetting(1000, 0, 0, 0)));
        QVERIFY2(m_port->open(), qPrintable(m_port->errorString()));

        QCoreApplication::instance()->setProperty("zel_env", true);
        m_loader.reset(new QPluginLoader(QStringLiteral(HUST_PLUGIN_PATH)));
        QVERIFY2(m_loader->load(), qPrintable(m_loader->errorString()));
        m_driver = qobject_cast<DriverInterface *>(m_loader->instance());
        QVERIFY(m_driver);
        m_driver->clearSessionCommand();
        m_driver->setSessionCommand(Screen);
    }

    void cleanupTestCase()
    {
        // The driver's worker uses the port: end it before the port and the simulator go.
        if (m_driver)
            delete m_driver->getThisObject();
        m_port.reset();
        m_sim.reset();
    }

    // A write reaches the controller and, after a screen change empties the cache, reads back.
    void writes_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<Type>("type");
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<int>("reg");
        QTest::addColumn<quint32>("value");

        QTest::newRow("double word")
            << "DW250" << Type::DWordType << le32(0x89ABCDEF) << 250 << 0x89ABCDEFu;
        // Only the lowest bit of the data byte counts.
        QTest::newRow("bit clear")
            << "B11.0" << Type::BitType << QByteArray(1, 0x02) << 11 << 0xFFFFFFFEu;
    }

    void writes()
    {
        QFETCH(QString, address);
        QFETCH(Type, type);
        QFETCH(QByteArray, data);
        QFETCH(int, reg);
        QFETCH(quint32, value);
        QVERIFY(m_driver->write(m_port.get(), CommunicatorCommand(type, 1, address), data));
        QTRY_COMPARE(m_sim->registerValue(reg), value);
        m_driver->clearSessionCommand();
        m_driver->setSessionCommand(Screen);
        const CommunicatorCommand whole(Type::DWordType, 1, QStringLiteral("DW%1").arg(reg));
        QCOMPARE(poll(whole, le32(value)).toHex(), le32(value).toHex());
    }

private:
    // Reads the whole screen, as the run-time does in each cycle, until `cmd` answers `expected`
    // or five seconds have passed; returns the last answer.
    QByteArray poll(const CommunicatorCommand &cmd, const QByteArray &expected)
    {
        QElapsedTimer clock;
        clock.start();
        for (;;) {
            for (const CommunicatorCommand &item : Screen)
                m_driver->read(m_port.get(), item);
            const QByteArray data = m_driver->read(m_port.get(), cmd);
            if (data == expected || clock.elapsed() >= 5000)
                return data;
            QTest::qWait(5);
        }
    }

    std::unique_ptr<hustsim::Simulator> m_sim;
    std::unique_ptr<SerialPort> m_port;
    std::unique_ptr<QPluginLoader> m_loader;
    DriverInterface *m_driver = nullptr;
};

QTEST_GUILESS_MAIN(TestDriverPlugin)
#include "tst_driverplugin.moc"
