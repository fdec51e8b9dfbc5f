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

quint32 value(const QByteArray &dword)
{
    if (dword.size() != 4)
        return 0;
    return qFromLittleEndian<quint32>(reinterpret_cast<const uchar *>(dword.constData()));
}

// A generated program of about `bytes` bytes, without blank lines or a final line feed.
QByteArray largeProgram(int bytes)
{
    QByteArray text = "%\nO0777 (GENERATED)\n";
    for (int n = 1; text.size() < bytes; ++n)
        text += "N" + QByteArray::number(n) + " G01 X" + QByteArray::number(n % 400) + " F1200\n";
    return text + "M30\n%";
}

} // namespace

class TestGCodeTransfer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        hustsim::SimulatorConfig config;
        config.paced = false;
        m_sim.reset(new hustsim::Simulator(config));
        m_sim->setProgram(QStringLiteral("O0100"), "O0100\nG00 X0 Y0\nM30\n");
        m_sim->setProgram(QStringLiteral("O0200"), "O0200\nM30\n");
        QVERIFY(m_sim->setCurrentProgram(QStringLiteral("O0100")));
        QVERIFY2(m_sim->start(), qPrintable(m_sim->errorString()));
        m_port.reset(
            new SerialPort(DeviceSetting(DEVICE_SERIAL, m_sim->devicePath(), 38400, 7, 2, 2),
                           DriverSetting(1000, 2, 0, 0)));
        QVERIFY2(m_port->open(), qPrintable(m_port->errorString()));

        QCoreApplication::instance()->setProperty("zel_env", true);
        m_loader.setFileName(QStringLiteral(HUST_PLUGIN_PATH));
        QVERIFY2(m_loader.load(), qPrintable(m_loader.errorString()));
        m_driver = qobject_cast<DriverInterface *>(m_loader.instance());
        QVERIFY(m_driver);
        m_driver->setSessionCommand({key("DW0", CommunicatorCommand::DWordType)});
    }

    void cleanupTestCase()
    {
        if (m_driver) {
            QCoreApplication::instance()->setProperty("isExit", true);
            m_driver->clearSessionCommand();
        }
        // The driver, its worker and the G-code object go before the port they use.
        m_loader.unload();
    }

    void roundTrip_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QByteArray>("sent"); // what the controller stores
        QTest::addColumn<QByteArray>("requestKey");
        QTest::addColumn<QByteArray>("received"); // what the read hands back

        const QByteArray few("O0001\nG00 X10 Y5\nM30");
        // The sent program replaced O0100; the controller lists every program, each ending in a
        // line feed.
        QTest::newRow("read all") << few + "\n"
                                  << few << QByteArray("ReadAllCode0") << few + "\nO0200\nM30\n";
        const QByteArray large = largeProgram(300 * 1024);
        QTest::newRow("300 KiB, read current") << large << large << QByteArray("ReadCurrentCode0")
                                               << QByteArray(large).replace('%', QByteArray());
    }

    // Burning makes the sent program the current one; the read that follows returns it.
    void roundTrip()
    {
        QFETCH(QByteArray, file);
        QFETCH(QByteArray, sent);
        QFETCH(QByteArray, requestKey);
        QFETCH(QByteArray, received);
        const qint64 from = m_sim->frameCount();

        write("BurningCodeBit0", QByteArray(1, 1));
        write("PROTOCOL_STATUS0", QByteArray(4, 0));
        transfer("Code2CtrlCmd", file, kSendFinished);
        QVERIFY(status() & kSendRequested);
        QVERIFY(m_sim->waitForFrame(hustsim::FrameKind::Burn, 5000, from));
        QCOMPARE(m_sim->program(m_sim->currentProgramName()), sent);
        QCOMPARE(m_sim->pendingProgram(), QByteArray());

        write("PROTOCOL_STATUS0", QByteArray(4, 0));
        transfer(requestKey.constData(), QByteArray(1, 1), kReadFinished);
        QVERIFY(status() & kReadRequested);
        const CommunicatorCommand readCode = key("ReadCode", CommunicatorCommand::BlockType);
        QCOMPARE(read(readCode), received);
        QVERIFY(read(readCode).isEmpty()); // the text is handed out once
    }

private:
    QByteArray read(const CommunicatorCommand &command)
    {
        return m_driver->read(m_port.get(), command);
    }

    quint32 status()
    {
        return value(read(key("PROTOCOL_STATUS0", CommunicatorCommand::DWordType)));
    }

    // Writes a key as the panel does: one byte as a bit, four as the status word, more as a block.
    void write(const char *name, const QByteArray &data)
    {
        const auto type = data.size() == 1 ? CommunicatorCommand::BitType
            : data.size() == 4             ? CommunicatorCommand::DWordType
                                           : CommunicatorCommand::BlockType;
        QVERIFY(m_driver->write(m_port.get(), key(name, type), data));
    }

    // Starts a transfer with one key write and waits for its end. Meanwhile register reads (DW0
    // counts the simulator's frames) come back empty without an error; afterwards they are fresh.
    // A restart of loop reading that outlasts a read's wait (a loaded machine) leaves a time-out
    // pending for 51 more clearError() calls, so the transfer starts once none is pending.
    void transfer(const char *name, const QByteArray &data, quint32 statusBit)
    {
        const CommunicatorCommand dw0 = key("DW0", CommunicatorCommand::DWordType);
        QTRY_VERIFY_WITH_TIMEOUT(read(dw0).size() == 4 && !m_driver->hasError(), 10000);
        quint32 before = value(read(dw0));
        write(name, data);
        bool paused = false;
        QElapsedTimer clock;
        clock.start();
        while (!(status() & statusBit) && clock.elapsed() < kTransferTimeoutMs) {
            const QByteArray data = read(dw0);
            if (data.isEmpty())
                QVERIFY2(!m_driver->hasError(), qPrintable(m_driver->getLastError()));
            else if (!paused)
                before = qMax(before, value(data));
            paused = paused || data.isEmpty();
            QTest::qWait(20);
        }
        QVERIFY(status() & statusBit);
        QVERIFY(paused);
        QTRY_VERIFY_WITH_TIMEOUT(value(read(dw0)) > before, 10000);
    }

    std::unique_ptr<hustsim::Simulator> m_sim;
    std::unique_ptr<SerialPort> m_port;
    QPluginLoader m_loader;
    DriverInterface *m_driver = nullptr;
};

QTEST_GUILESS_MAIN(TestGCodeTransfer)
#include "tst_gcodetransfer.moc"
