// G-code programs moved end to end: the plug-in loaded as the run-time loads it, the host serial
// port and the controller simulator on a pseudo-terminal, driven through the six G-code keys.
#include "communicatorcommand.h"
#include "driverinterface.h"
#include "drv_dev_setting.h"
#include "serialport.h"
#include "simulator.h"

#include <QPluginLoader>
#include <QtEndian>
#include <QtTest>

#include <memory>

namespace {

constexpr quint32 kReadFinished = 0x1;
constexpr quint32 kReadRequested = 0x2;
constexpr quint32 kSendFinished = 0x10000;
constexpr quint32 kSendRequested = 0x20000;

// A transfer of a few hundred kilobytes over the unpaced pty, with its fixed pauses.
constexpr int kTransferTimeoutMs = 30000;

CommunicatorCommand key(const char *name, CommunicatorCommand::DataType type)
{
    return CommunicatorCommand(type, 1, QLatin1String(name));
}

// A generated program of about `bytes` bytes, without blank lines or a final line feed.
QByteArray largeProgram(int bytes)
{
    QByteArray text = "%\nO0777 (GENERATED)\n";
    for (int n = 1; text.size() < bytes; ++n)
        text += QStringLiteral("N%1 G01 X%2 Y-%3.25 F1200\n")
                    .arg(n)
                    .arg(n % 400)
                    .arg(n % 97)
                    .toLatin1();
    return text + "M30\n%";
}

} // namespace

class TestGCodeTransfer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void roundTrip_data();
    void roundTrip();

private:
    quint32 status();
    QByteArray read(const CommunicatorCommand &command);
    void write(const char *name, CommunicatorCommand::DataType type, const QByteArray &data);

    std::unique_ptr<hustsim::Simulator> m_sim;
    std::unique_ptr<SerialPort> m_port;
    QPluginLoader m_loader;
    DriverInterface *m_driver = nullptr;
};

void TestGCodeTransfer::initTestCase()
{
    hustsim::SimulatorConfig config;
    config.paced = false;
    m_sim.reset(new hustsim::Simulator(config));
    m_sim->setProgram(QStringLiteral("O0100"), "O0100\nG00 X0 Y0\nM30\n");
    m_sim->setProgram(QStringLiteral("O0200"), "O0200\nM30\n");
    QVERIFY(m_sim->setCurrentProgram(QStringLiteral("O0100")));
    QVERIFY2(m_sim->start(), qPrintable(m_sim->errorString()));
    m_port.reset(new SerialPort(DeviceSetting(DEVICE_SERIAL, m_sim->devicePath(), 38400, 7, 2, 2),
                                DriverSetting(1000, 2, 0, 0)));
    QVERIFY2(m_port->open(), qPrintable(m_port->errorString()));

    QCoreApplication::instance()->setProperty("zel_env", true);
    m_loader.setFileName(QStringLiteral(HUST_PLUGIN_PATH));
    QVERIFY2(m_loader.load(), qPrintable(m_loader.errorString()));
    m_driver = qobject_cast<DriverInterface *>(m_loader.instance());
    QVERIFY(m_driver);
    QList<CommunicatorCommand> screen {
        CommunicatorCommand(CommunicatorCommand::DWordType, 1, QStringLiteral("DW0"))};
    m_driver->setSessionCommand(screen);
}

void TestGCodeTransfer::cleanupTestCase()
{
    if (m_driver) {
        QCoreApplication::instance()->setProperty("isExit", true);
        m_driver->clearSessionCommand();
    }
    // The driver, its worker and the G-code object go before the port they use.
    m_loader.unload();
    m_driver = nullptr;
}

quint32 TestGCodeTransfer::status()
{
    const QByteArray word = read(key("PROTOCOL_STATUS0", CommunicatorCommand::DWordType));
    if (word.size() != 4)
        return 0;
    return qFromLittleEndian<quint32>(reinterpret_cast<const uchar *>(word.constData()));
}

QByteArray TestGCodeTransfer::read(const CommunicatorCommand &command)
{
    return m_driver->read(m_port.get(), command);
}

void TestGCodeTransfer::write(const char *name, CommunicatorCommand::DataType type,
                              const QByteArray &data)
{
    QVERIFY(m_driver->write(m_port.get(), key(name, type), data));
}

void TestGCodeTransfer::roundTrip_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<QByteArray>("sent"); // what the controller stores
    QTest::addColumn<QByteArray>("requestKey");
    QTest::addColumn<QByteArray>("received"); // what the read hands back

    const QByteArray few("O0001\nG00 X10 Y5\nM30");
    // The sent program replaced O0100; the controller lists every program, each ending in a line
    // feed.
    QTest::newRow("read all") << few + "\n"
                              << few << QByteArray("ReadAllCode0") << few + "\nO0200\nM30\n";
    const QByteArray large = largeProgram(300 * 1024);
    QTest::newRow("300 KiB, read current") << large << large << QByteArray("ReadCurrentCode0")
                                           << QByteArray(large).replace('%', QByteArray());
}

// Burning makes the sent program the current one; the read that follows returns it.
void TestGCodeTransfer::roundTrip()
{
    QFETCH(QByteArray, file);
    QFETCH(QByteArray, sent);
    QFETCH(QByteArray, requestKey);
    QFETCH(QByteArray, received);
    const char *request = requestKey.constData();
    const qint64 from = m_sim->frameCount();

    write("BurningCodeBit0", CommunicatorCommand::BitType, QByteArray(1, 1));
    write("PROTOCOL_STATUS0", CommunicatorCommand::DWordType, QByteArray(4, 0));
    write("Code2CtrlCmd", CommunicatorCommand::BlockType, file);
    QTRY_VERIFY_WITH_TIMEOUT(status() & kSendFinished, kTransferTimeoutMs);
    QVERIFY(status() & kSendRequested);
    const auto burn = m_sim->waitForFrame(hustsim::FrameKind::Burn, 5000, from);
    QVERIFY(burn);
    QCOMPARE(m_sim->program(m_sim->currentProgramName()), sent);
    QCOMPARE(m_sim->pendingProgram(), QByteArray());

    write("PROTOCOL_STATUS0", CommunicatorCommand::DWordType, QByteArray(4, 0));
    write(request, CommunicatorCommand::BitType, QByteArray(1, 1));
    QTRY_VERIFY_WITH_TIMEOUT(status() & kReadFinished, kTransferTimeoutMs);
    QVERIFY(status() & kReadRequested);
    QCOMPARE(read(key("ReadCode", CommunicatorCommand::BlockType)), received);
    // The text is handed out once.
    QVERIFY(read(key("ReadCode", CommunicatorCommand::BlockType)).isEmpty());
    write(request, CommunicatorCommand::BitType, QByteArray(1, 0));
    write("PROTOCOL_STATUS0", CommunicatorCommand::DWordType, QByteArray(4, 0));
    QCOMPARE(status(), 0u);
    const auto asked = m_sim->waitForFrame(requestKey == "ReadAllCode0"
                                               ? hustsim::FrameKind::ProgramRequestAll
                                               : hustsim::FrameKind::ProgramRequestCurrent,
                                           0, from);
    QVERIFY(asked);
    QVERIFY(asked->sequence > burn->sequence);
}

QTEST_GUILESS_MAIN(TestGCodeTransfer)
#include "tst_gcodetransfer.moc"
