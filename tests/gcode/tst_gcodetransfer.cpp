// G-code programs moved end to end: the plug-in loaded as the run-time loads it, the host serial
// port and the controller simulator on a pseudo-terminal, driven through the six G-code keys.
#include "abstractdeviceinterface.h"
#include "communicatorcommand.h"
#include "driverinterface.h"
#include "drv_dev_setting.h"
#include "serialport.h"
#include "simulator.h"

#include <QPluginLoader>
#include <QtEndian>
#include <QtTest>

#include <atomic>
#include <cstring>
#include <memory>

namespace {

constexpr quint32 kReadFinished = 0x1;
constexpr quint32 kReadRequested = 0x2;
constexpr quint32 kSendFinished = 0x10000;
constexpr quint32 kSendRequested = 0x20000;

// A transfer of a few hundred kilobytes over the unpaced pty, with its fixed pauses.
constexpr int kTransferTimeoutMs = 30000;

// The host port, able to cut each program answer after some bytes (a broken line) and to hold the
// next send header until released (keeping the worker busy).
class CuttingPort : public AbstractDeviceInterface
{
public:
    explicit CuttingPort(SerialPort *port)
        : m_port(port)
    { }

    void cutProgramAnswerAfter(int bytes)
    {
        m_budget = -1;
        m_cutAfter = bytes;
    }

    int readData(char *data, int maxSize) override
    {
        return pass(m_port->readData(data, maxSize), data);
    }
    int receiveData(char *data, int maxSize) override
    {
        return pass(m_port->receiveData(data, maxSize), data);
    }
    void holdNextSendHeader() { m_holdArmed = true; }
    bool isHolding() const { return m_holding; }
    void release() { m_release.release(); }

    int writeData(const char *data, int size) override
    {
        const QByteArray bytes = QByteArray::fromRawData(data, size);
        if (m_cutAfter >= 0 && bytes.contains("O9012") && !bytes.contains("D000003>9"))
            m_budget = m_cutAfter.load();
        if (bytes.contains("D000003>9") && m_holdArmed.exchange(false)) {
            m_holding = true;
            m_release.tryAcquire(1, kHoldLimitMs);
            m_holding = false;
        }
        return m_port->writeData(data, size);
    }
    DeviceSetting *getDeviceSetting() override { return m_port->getDeviceSetting(); }
    void getOption(int option, QVariant &value) override { m_port->getOption(option, value); }
    void setOption(int option, const QVariant &value) override { m_port->setOption(option, value); }
    int getRetry() override { return m_port->getRetry(); }
    int getDelay() override { return m_port->getDelay(); }

private:
    int pass(int received, char *data)
    {
        const int budget = m_budget;
        if (budget < 0 || received <= 0)
            return received;
        const int kept = qMin(budget, received);
        std::memset(data + kept, 0, size_t(received - kept));
        m_budget = budget - kept;
        return kept;
    }

    static constexpr int kHoldLimitMs = 10000;

    SerialPort *m_port;
    std::atomic<int> m_cutAfter {-1};
    std::atomic<int> m_budget {-1};
    std::atomic<bool> m_holdArmed {false};
    std::atomic<bool> m_holding {false};
    QSemaphore m_release;
};

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

QByteArray withoutPercent(QByteArray text)
{
    return text.replace('%', QByteArray());
}

} // namespace

class TestGCodeTransfer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void roundTrip_data();
    void roundTrip();
    void burnClearedBeforeTheSendRuns();
    void registerReadsPauseDuringTransfer();
    void brokenLine_data();
    void brokenLine();

private:
    quint32 status();
    QByteArray read(const CommunicatorCommand &command);
    void write(const char *name, CommunicatorCommand::DataType type, const QByteArray &data);
    // Clears the status word, sends the text and waits for the send to end.
    void send(const QByteArray &text, bool burn);
    // Requests a read, waits for it to end and takes the text; clears the flags afterwards.
    void receive(const char *requestKey, QByteArray *text, int timeoutMs = kTransferTimeoutMs);
    // Reads DW0 (the simulator's frame counter) until the driver has a value for it.
    bool counter(quint32 *value, int timeoutMs);

    std::unique_ptr<hustsim::Simulator> m_sim;
    std::unique_ptr<SerialPort> m_serial;
    std::unique_ptr<CuttingPort> m_port;
    QPluginLoader m_loader;
    DriverInterface *m_driver = nullptr;
    QList<CommunicatorCommand> m_screen; // what the screen on show reads
};

void TestGCodeTransfer::initTestCase()
{
    hustsim::SimulatorConfig config;
    config.paced = false;
    m_sim.reset(new hustsim::Simulator(config));
    m_sim->setProgram(QStringLiteral("O0100"), "O0100\nG00 X0 Y0\nM30\n");
    QVERIFY2(m_sim->start(), qPrintable(m_sim->errorString()));
    m_serial.reset(new SerialPort(DeviceSetting(DEVICE_SERIAL, m_sim->devicePath(), 38400, 7, 2, 2),
                                  DriverSetting(1000, 2, 0, 0)));
    QVERIFY2(m_serial->open(), qPrintable(m_serial->errorString()));
    m_port.reset(new CuttingPort(m_serial.get()));

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

void TestGCodeTransfer::init()
{
    m_sim->setSilence(false);
    m_port->cutProgramAnswerAfter(-1);
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

void TestGCodeTransfer::send(const QByteArray &text, bool burn)
{
    write("BurningCodeBit0", CommunicatorCommand::BitType, QByteArray(1, burn ? 1 : 0));
    write("PROTOCOL_STATUS0", CommunicatorCommand::DWordType, QByteArray(4, 0));
    write("Code2CtrlCmd", CommunicatorCommand::BlockType, text);
    QTRY_VERIFY_WITH_TIMEOUT(status() & kSendFinished, kTransferTimeoutMs);
    QVERIFY(status() & kSendRequested);
}

void TestGCodeTransfer::receive(const char *requestKey, QByteArray *text, int timeoutMs)
{
    write("PROTOCOL_STATUS0", CommunicatorCommand::DWordType, QByteArray(4, 0));
    write(requestKey, CommunicatorCommand::BitType, QByteArray(1, 1));
    QTRY_VERIFY_WITH_TIMEOUT(status() & kReadFinished, timeoutMs);
    QVERIFY(status() & kReadRequested);
    *text = read(key("ReadCode", CommunicatorCommand::BlockType));
    // The text is handed out once.
    QVERIFY(read(key("ReadCode", CommunicatorCommand::BlockType)).isEmpty());
    write(requestKey, CommunicatorCommand::BitType, QByteArray(1, 0));
    write("PROTOCOL_STATUS0", CommunicatorCommand::DWordType, QByteArray(4, 0));
    QCOMPARE(status(), 0u);
}

bool TestGCodeTransfer::counter(quint32 *value, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    const CommunicatorCommand dw0(CommunicatorCommand::DWordType, 1, QStringLiteral("DW0"));
    while (clock.elapsed() < timeoutMs) {
        const QByteArray data = read(dw0);
        if (data.size() == 4) {
            *value = qFromLittleEndian<quint32>(reinterpret_cast<const uchar *>(data.constData()));
            return true;
        }
        QTest::qWait(20);
    }
    return false;
}

void TestGCodeTransfer::roundTrip_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<QByteArray>("sent"); // what the controller receives
    QTest::addColumn<QByteArray>("received"); // what a read of it hands back

    QTest::newRow("few lines") << QByteArray("O0001\nG00 X10 Y5\nM30\n")
                               << QByteArray("O0001\nG00 X10 Y5\nM30")
                               << QByteArray("O0001\nG00 X10 Y5\nM30");
    // Blank lines go; a CR LF line that is empty keeps its CR; "%" is stored but not read back.
    QTest::newRow("comments, blank, percent and CR LF lines")
        << QByteArray("%\n(FACE MILL)\n\n\nG01 X1 (CUT)\r\n\r\nM30\r\n%\n")
        << QByteArray("%\n(FACE MILL)\nG01 X1 (CUT)\r\n\r\nM30\r\n%")
        << QByteArray("\n(FACE MILL)\nG01 X1 (CUT)\r\n\r\nM30\r\n");
    const QByteArray large = largeProgram(300 * 1024);
    QTest::newRow("300 KiB") << large << large << withoutPercent(large);
}

// Burning makes the sent program the current one, which a read of the current program returns.
void TestGCodeTransfer::roundTrip()
{
    QFETCH(QByteArray, file);
    QFETCH(QByteArray, sent);
    QFETCH(QByteArray, received);

    const qint64 from = m_sim->frameCount();
    send(file, true);
    if (QTest::currentTestFailed())
        return;
    const auto burn = m_sim->waitForFrame(hustsim::FrameKind::Burn, 5000, from);
    QVERIFY(burn);
    QCOMPARE(m_sim->program(m_sim->currentProgramName()), sent);
    QCOMPARE(m_sim->pendingProgram(), QByteArray());

    QByteArray text;
    receive("ReadCurrentCode0", &text);
    if (QTest::currentTestFailed())
        return;
    QCOMPARE(text, received);
    const auto request = m_sim->waitForFrame(hustsim::FrameKind::ProgramRequestCurrent, 0, from);
    QVERIFY(request);
    QVERIFY(request->sequence > burn->sequence);
}

// The burn flag counts as it stands when the send runs, not when it was requested.
void TestGCodeTransfer::burnClearedBeforeTheSendRuns()
{
    const QString current = m_sim->currentProgramName();
    const QByteArray stored = m_sim->program(current);
    const qint64 from = m_sim->frameCount();

    // A first send, held at its header, keeps the worker busy while the second one is requested.
    m_port->holdNextSendHeader();
    write("PROTOCOL_STATUS0", CommunicatorCommand::DWordType, QByteArray(4, 0));
    write("BurningCodeBit0", CommunicatorCommand::BitType, QByteArray(1, 0));
    write("Code2CtrlCmd", CommunicatorCommand::BlockType, "O0554\nG00 Z40\n");
    QTRY_VERIFY_WITH_TIMEOUT(m_port->isHolding(), 5000);
    write("BurningCodeBit0", CommunicatorCommand::BitType, QByteArray(1, 1));
    write("Code2CtrlCmd", CommunicatorCommand::BlockType, "O0555\nG00 Z50\n");
    write("BurningCodeBit0", CommunicatorCommand::BitType, QByteArray(1, 0));
    // A read queued behind both sends shows when they are over, and what the controller holds.
    write("ReadCurrentCode0", CommunicatorCommand::BitType, QByteArray(1, 1));
    m_port->release();
    QTRY_VERIFY_WITH_TIMEOUT(status() & kReadFinished, kTransferTimeoutMs);
    QVERIFY(status() & kSendFinished);
    write("ReadCurrentCode0", CommunicatorCommand::BitType, QByteArray(1, 0));
    write("PROTOCOL_STATUS0", CommunicatorCommand::DWordType, QByteArray(4, 0));
    QCOMPARE(read(key("ReadCode", CommunicatorCommand::BlockType)), withoutPercent(stored));

    QList<hustsim::FrameKind> transfers;
    for (const hustsim::RecordedFrame &frame : m_sim->frames()) {
        if (frame.sequence >= from && frame.kind != hustsim::FrameKind::Stop
            && frame.kind != hustsim::FrameKind::ReadRequest)
            transfers << frame.kind;
    }
    QVERIFY(!transfers.contains(hustsim::FrameKind::Burn));
    QCOMPARE(
        transfers.mid(0, 5),
        (QList<hustsim::FrameKind> {hustsim::FrameKind::SendHeader, hustsim::FrameKind::ProgramData,
                                    hustsim::FrameKind::SendHeader, hustsim::FrameKind::ProgramData,
                                    hustsim::FrameKind::ProgramRequestCurrent}));
    QCOMPARE(m_sim->pendingProgram(), QByteArray("O0555\nG00 Z50"));
    QCOMPARE(m_sim->currentProgramName(), current);
    QCOMPARE(m_sim->program(current), stored);
}

// Register reads come back empty, without an error, while a transfer holds the line; afterwards
// loop reading resumes with fresh blocks.
void TestGCodeTransfer::registerReadsPauseDuringTransfer()
{
    quint32 before = 0;
    QVERIFY(counter(&before, 10000));

    const CommunicatorCommand dw0(CommunicatorCommand::DWordType, 1, QStringLiteral("DW0"));
    write("PROTOCOL_STATUS0", CommunicatorCommand::DWordType, QByteArray(4, 0));
    write("ReadCurrentCode0", CommunicatorCommand::BitType, QByteArray(1, 1));
    // Every block loop reading delivered before the pause counts less than a fresh one.
    quint32 latest = before;
    bool sawPause = false;
    QElapsedTimer clock;
    clock.start();
    while (!(status() & kReadFinished) && clock.elapsed() < kTransferTimeoutMs) {
        const QByteArray data = read(dw0);
        if (data.isEmpty()) {
            sawPause = true;
            QVERIFY2(!m_driver->hasError(), qPrintable(m_driver->getLastError()));
        } else if (!sawPause) {
            latest = qMax(
                latest,
                qFromLittleEndian<quint32>(reinterpret_cast<const uchar *>(data.constData())));
        }
        QTest::qWait(20);
    }
    QVERIFY(status() & kReadFinished);
    QVERIFY(sawPause);
    write("ReadCurrentCode0", CommunicatorCommand::BitType, QByteArray(1, 0));
    QVERIFY(!read(key("ReadCode", CommunicatorCommand::BlockType)).isEmpty());

    const qint64 afterTransfer = m_sim->frameCount();
    quint32 after = latest;
    QTRY_VERIFY_WITH_TIMEOUT(counter(&after, 1000) && after > latest, 10000);
    QVERIFY(m_sim->waitForFrame(hustsim::FrameKind::ReadRequest, 0, afterTransfer));
}

void TestGCodeTransfer::brokenLine_data()
{
    QTest::addColumn<bool>("silent");
    QTest::addColumn<int>("cutAfter");

    QTest::newRow("silent controller") << true << -1;
    QTest::newRow("answer stops midway") << false << 20;
}

// A read whose answers never complete ends, within a bounded time, with its status bits set and
// an empty text; the line works again afterwards.
void TestGCodeTransfer::brokenLine()
{
    QFETCH(bool, silent);
    QFETCH(int, cutAfter);

    // With loop reading stopped the transfer is the next thing the worker does; a read cycle
    // that met the fault would first use up its own restarts.
    m_driver->clearSessionCommand();
    m_driver->setSessionCommand(m_screen);
    m_sim->setProgram(m_sim->currentProgramName(), "O0100\nG00 X0 Y0\nG01 X100 F500\nM30\n");
    m_sim->setSilence(silent);
    m_port->cutProgramAnswerAfter(cutAfter);
    QByteArray text = "not read";
    receive("ReadCurrentCode0", &text, 10000);
    if (QTest::currentTestFailed())
        return;
    QCOMPARE(text, QByteArray());

    m_sim->setSilence(false);
    m_port->cutProgramAnswerAfter(-1);
    receive("ReadCurrentCode0", &text);
    if (QTest::currentTestFailed())
        return;
    QCOMPARE(text, QByteArray("O0100\nG00 X0 Y0\nG01 X100 F500\nM30\n"));
}

QTEST_GUILESS_MAIN(TestGCodeTransfer)
#include "tst_gcodetransfer.moc"
