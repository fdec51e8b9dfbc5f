// The plug-in file, loaded by path as the run-time loads it, reading and writing the controller
// simulator's registers over a pseudo-terminal through the host serial port. The driver is used
// only through DriverInterface, from the main thread, with the event loop running between polls.
#include "driverinterface.h"
#include "serialport.h"
#include "simulator.h"

#include <QPluginLoader>
#include <QtTest>

#include <memory>

namespace {

using Type = CommunicatorCommand::DataType;

// Double words 0..399 hold n * 1000 + 7; the ASCOI area d10800..d10839 (I, O, C, S and A, eight
// double words each) holds mixed bit patterns.
constexpr int PlainRegisters = 400;
constexpr int AscoiBase = 10800;
constexpr int AscoiRegisters = 40;

quint32 seeded(int index)
{
    if (index >= AscoiBase)
        return (0x9E3779B9u * quint32(index - AscoiBase + 1)) ^ 0x0F0F00FFu;
    return quint32(index) * 1000 + 7;
}

QByteArray le32(quint32 value)
{
    QByteArray bytes(4, '\0');
    for (int i = 0; i < 4; ++i)
        bytes[i] = char(value >> (8 * i));
    return bytes;
}

QByteArray words(int index, bool high)
{
    return le32(seeded(index)).mid(high ? 2 : 0, 2);
}

QByteArray bitByte(int index, int bit)
{
    return QByteArray(1, char((seeded(index) >> bit) & 1u));
}

// The commands of the screen on show: every register the tests read.
QList<CommunicatorCommand> screen()
{
    QList<CommunicatorCommand> commands {{Type::DWordType, 2, QStringLiteral("DW10")},
                                         {Type::DWordType, 1, QStringLiteral("DW20")},
                                         {Type::DWordType, 3, QStringLiteral("DW100")},
                                         {Type::WordType, 1, QStringLiteral("DW116")},
                                         {Type::DWordType, 2, QStringLiteral("DW200")},
                                         {Type::DWordType, 1, QStringLiteral("DW250")},
                                         {Type::DWordType, 3, QStringLiteral("DW300")}};
    for (const char *prefix : {"I", "O", "C", "S", "A"})
        commands.append({Type::WordType, 16, QString::fromLatin1(prefix) + QLatin1Char('0')});
    return commands;
}

} // namespace

class TestDriverPlugin : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void reads_data();
    void reads();
    void bitWrites_data();
    void bitWrites();
    void writes_data();
    void writes();
    void refusals_data();
    void refusals();
    void silentController();

private:
    // Reads like a screen until the answer equals `expected` (any data when it is empty), for at
    // most five seconds; returns the last answer.
    QByteArray poll(const CommunicatorCommand &cmd, const QByteArray &expected = QByteArray());
    QByteArray readOnce(const CommunicatorCommand &cmd);

    std::unique_ptr<hustsim::Simulator> m_sim;
    std::unique_ptr<SerialPort> m_port;
    std::unique_ptr<QPluginLoader> m_loader;
    DriverInterface *m_driver = nullptr;
};

void TestDriverPlugin::initTestCase()
{
    hustsim::SimulatorConfig config;
    config.paced = false;
    config.frameCounter = false;
    m_sim.reset(new hustsim::Simulator(config));
    for (int i = 0; i < PlainRegisters; ++i)
        m_sim->setRegister(i, seeded(i));
    for (int i = AscoiBase; i < AscoiBase + AscoiRegisters; ++i)
        m_sim->setRegister(i, seeded(i));
    QVERIFY2(m_sim->start(), qPrintable(m_sim->errorString()));

    // No retries, no delay: a failing read gives up after one attempt.
    m_port.reset(new SerialPort(DeviceSetting(DEVICE_SERIAL, m_sim->devicePath(), 38400, 7, 2, 2),
                                DriverSetting(1000, 0, 0, 0)));
    QVERIFY2(m_port->open(), qPrintable(m_port->errorString()));

    QCoreApplication::instance()->setProperty("zel_env", true);
    m_loader.reset(new QPluginLoader(QStringLiteral(HUST_PLUGIN_PATH)));
    QVERIFY2(m_loader->load(), qPrintable(m_loader->errorString()));
    m_driver = qobject_cast<DriverInterface *>(m_loader->instance());
    QVERIFY(m_driver);
    QVERIFY(m_driver->isSupportSessionCommand());
    m_driver->clearSessionCommand();
    m_driver->setSessionCommand(screen());
}

void TestDriverPlugin::cleanupTestCase()
{
    // The driver's worker uses the port: end it before the port and the simulator go.
    if (m_driver)
        delete m_driver->getThisObject();
    m_port.reset();
    m_sim.reset();
}

QByteArray TestDriverPlugin::readOnce(const CommunicatorCommand &cmd)
{
    const QByteArray data = m_driver->read(m_port.get(), cmd);
    QCoreApplication::processEvents();
    return data;
}

QByteArray TestDriverPlugin::poll(const CommunicatorCommand &cmd, const QByteArray &expected)
{
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        // Read the whole screen first, as the run-time does in each cycle: the driver asks the
        // controller for a fresh block when the screen's first registers are read.
        for (const CommunicatorCommand &item : screen())
            readOnce(item);
        const QByteArray data = readOnce(cmd);
        const bool done = expected.isEmpty() ? !data.isEmpty() : data == expected;
        if (done || clock.elapsed() >= 5000)
            return data;
        QTest::qWait(5);
    }
}

void TestDriverPlugin::reads_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<Type>("type");
    QTest::addColumn<int>("length");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("DW double word") << "DW101" << Type::DWordType << 1 << le32(seeded(101));
    QTest::newRow("DW three double words")
        << "DW100" << Type::DWordType << 3
        << le32(seeded(100)) + le32(seeded(101)) + le32(seeded(102));
    QTest::newRow("DW word, low half") << "DW100" << Type::WordType << 1 << words(100, false);
    QTest::newRow("DW word, high half") << "DW116" << Type::WordType << 1 << words(116, true);
    QTest::newRow("DW three words")
        << "DW100" << Type::WordType << 3 << le32(seeded(100)) + words(101, false);
    QTest::newRow("B register bit") << "B100.6" << Type::BitType << 1 << bitByte(100, 6);
    QTest::newRow("B register bit 31") << "B101.31" << Type::BitType << 1 << bitByte(101, 31);
    QTest::newRow("B without a point is bit 0") << "B101" << Type::BitType << 1 << bitByte(101, 0);
    QTest::newRow("B double word") << "B102" << Type::DWordType << 1 << le32(seeded(102));

    for (int k = 0; k < 5; ++k) {
        const char prefix[] = {"IOCSA"[k], '\0'};
        const QString p = QLatin1String(prefix);
        const int d = AscoiBase + 8 * k;
        for (int bit : {0, 5, 13, 37, 70, 255}) {
            QTest::addRow("%s%d bit", prefix, bit) << p + QString::number(bit) << Type::BitType << 1
                                                   << bitByte(d + bit / 32, bit % 32);
        }
        QTest::addRow("%s0 word", prefix) << p + "0" << Type::WordType << 1 << words(d, false);
        QTest::addRow("%s16 word", prefix) << p + "16" << Type::WordType << 1 << words(d, true);
        QTest::addRow("%s16 two words", prefix)
            << p + "16" << Type::WordType << 2 << words(d, true) + words(d + 1, false);
        QTest::addRow("%s40 four words", prefix)
            << p + "40" << Type::WordType << 4 << le32(seeded(d + 1)) + le32(seeded(d + 2));
        QTest::addRow("%s64 double word", prefix)
            << p + "64" << Type::DWordType << 1 << le32(seeded(d + 2));
    }
}

void TestDriverPlugin::reads()
{
    QFETCH(QString, address);
    QFETCH(Type, type);
    QFETCH(int, length);
    QFETCH(QByteArray, expected);

    const QByteArray data = poll(CommunicatorCommand(type, quint32(length), address));
    QCOMPARE(data.toHex(), expected.toHex());
}

void TestDriverPlugin::bitWrites_data()
{
    QTest::addColumn<int>("reg");
    QTest::addColumn<int>("bit");

    QTest::newRow("set bit 5") << 10 << 5; // d10 = 0x2717: bit 5 clear
    QTest::newRow("clear bit 0") << 11 << 0; // d11 = 0x2AFF: bit 0 set
    QTest::newRow("set bit 31") << 20 << 31;
}

void TestDriverPlugin::bitWrites()
{
    QFETCH(int, reg);
    QFETCH(int, bit);

    const QString address = QStringLiteral("B%1.%2").arg(reg).arg(bit);
    const CommunicatorCommand cmd(Type::BitType, 1, address);
    const QByteArray before = bitByte(reg, bit);
    QCOMPARE(poll(cmd), before);

    const bool value = before.at(0) == 0;
    const quint32 confirmed = seeded(reg) ^ (1u << bit);
    const qint64 mark = m_sim->frameCount();
    // Only the lowest bit of the data byte counts.
    QVERIFY(m_driver->write(m_port.get(), cmd, QByteArray(1, char(value ? 0x03 : 0x02))));
    // The cache is patched before the controller has seen the frame.
    QCOMPARE(readOnce(cmd), QByteArray(1, char(value)));

    const auto frame = m_sim->waitForFrame(
        value ? hustsim::FrameKind::BitSet : hustsim::FrameKind::BitClear, 5000, mark);
    QVERIFY(frame.has_value());
    QCOMPARE(frame->addresses, QVector<int> {reg});
    QCOMPARE(frame->bit, bit);
    QTRY_COMPARE(m_sim->registerValue(reg), confirmed);
    // A screen change empties the cache: what the driver reads now comes from the controller.
    m_driver->clearSessionCommand();
    m_driver->setSessionCommand(screen());
    const CommunicatorCommand whole(Type::DWordType, 1, QStringLiteral("DW%1").arg(reg));
    QCOMPARE(poll(whole, le32(confirmed)).toHex(), le32(confirmed).toHex());
}

void TestDriverPlugin::writes_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<Type>("type");
    QTest::addColumn<int>("length");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<int>("first");
    // The registers from `first` on, as the driver reads them back.
    QTest::addColumn<QByteArray>("memory");

    const QByteArray two = le32(0xCAFEBABE) + le32(0x00C0FFEE);
    QTest::newRow("double word") << "DW250" << Type::DWordType << 1 << le32(0x89ABCDEF) << 250
                                 << le32(0x89ABCDEF);
    QTest::newRow("two double words") << "DW200" << Type::DWordType << 2 << two << 200 << two;
    QTest::newRow("B double word")
        << "B201" << Type::DWordType << 1 << le32(0x7FFFFFFF) << 201 << le32(0x7FFFFFFF);
    QTest::newRow("block of 8 bytes")
        << "DW300" << Type::BlockType << 8 << QByteArray::fromHex("0102030405060708") << 300
        << QByteArray::fromHex("0102030405060708") + le32(seeded(302));
    QTest::newRow("block of 5 bytes, padded")
        << "DW300" << Type::BlockType << 5 << QByteArray::fromHex("1122334455") << 300
        << QByteArray::fromHex("1122334455000000") + le32(seeded(302));
}

void TestDriverPlugin::writes()
{
    QFETCH(QString, address);
    QFETCH(Type, type);
    QFETCH(int, length);
    QFETCH(QByteArray, data);
    QFETCH(int, first);
    QFETCH(QByteArray, memory);

    QVERIFY(
        m_driver->write(m_port.get(), CommunicatorCommand(type, quint32(length), address), data));
    const int count = memory.size() / 4;
    for (int i = 0; i < count; ++i)
        QTRY_COMPARE(le32(m_sim->registerValue(first + i)).toHex(), memory.mid(4 * i, 4).toHex());
    const CommunicatorCommand back(Type::DWordType, quint32(count),
                                   QStringLiteral("DW%1").arg(first));
    QCOMPARE(poll(back, memory).toHex(), memory.toHex());
}

void TestDriverPlugin::refusals_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<Type>("type");
    QTest::addColumn<int>("length");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QString>("message");

    const QString ascoi = QStringLiteral("Not support for writing ASCOI address. ");
    QTest::newRow("word write") << "DW250" << Type::WordType << 1 << QByteArray(2, '\1')
                                << "Not support the word write command.";
    QTest::newRow("byte write") << "DW250" << Type::ByteType << 1 << QByteArray(1, '\1')
                                << "Not support the byte write command.";
    QTest::newRow("short double-word data")
        << "DW250" << Type::DWordType << 2 << QByteArray(7, '\1') << "Write Double Word Fail. ";
    for (const char *address : {"I0", "O32", "C5", "S0", "A64"})
        QTest::addRow("double word to %s", address)
            << address << Type::DWordType << 1 << QByteArray(4, '\1') << ascoi;
    QTest::newRow("block to C0") << "C0" << Type::BlockType << 4 << QByteArray(4, '\1') << ascoi;
    QTest::newRow("bit of I5") << "I5" << Type::BitType << 1 << QByteArray(1, '\1') << ascoi;
    QTest::newRow("bit of DW250.1")
        << "DW250.1" << Type::BitType << 1 << QByteArray(1, '\1') << ascoi;
}

void TestDriverPlugin::refusals()
{
    QFETCH(QString, address);
    QFETCH(Type, type);
    QFETCH(int, length);
    QFETCH(QByteArray, data);
    QFETCH(QString, message);

    const qint64 mark = m_sim->frameCount();
    QVERIFY(
        !m_driver->write(m_port.get(), CommunicatorCommand(type, quint32(length), address), data));
    QVERIFY(m_driver->hasError());
    QCOMPARE(m_driver->getLastError(), message);

    // Nothing was sent: the next write frame the controller sees is the one that follows.
    const quint32 marker = 0x5A000000u | quint32(m_sim->frameCount() & 0xFFFF);
    QVERIFY(m_driver->write(m_port.get(), CommunicatorCommand(Type::DWordType, 1, "DW251"),
                            le32(marker)));
    QVERIFY(m_sim->waitForFrame(hustsim::FrameKind::WriteDWord, 5000, mark).has_value());
    QList<QVector<int>> written;
    for (const hustsim::RecordedFrame &frame : m_sim->frames()) {
        if (frame.sequence >= mark && frame.kind != hustsim::FrameKind::ReadRequest
            && frame.kind != hustsim::FrameKind::Stop)
            written.append(frame.addresses);
    }
    QCOMPARE(written, QList<QVector<int>> {{251}});
}

void TestDriverPlugin::silentController()
{
    m_sim->setSilence(true);
    // A new screen empties the cache; with no answer the read gives up after its one attempt.
    m_driver->clearSessionCommand();
    m_driver->setSessionCommand(screen());
    const CommunicatorCommand cmd(Type::DWordType, 1, QStringLiteral("DW101"));
    QElapsedTimer clock;
    clock.start();
    bool timedOut = false;
    while (!timedOut && clock.elapsed() < 10000) {
        QVERIFY(readOnce(cmd).isEmpty());
        timedOut
            = m_driver->hasError() && m_driver->getLastError() == QLatin1String("Read Time Out");
    }
    QVERIFY(timedOut);

    m_sim->setSilence(false);
    QCOMPARE(poll(cmd, le32(seeded(101))).toHex(), le32(seeded(101)).toHex());
}

QTEST_GUILESS_MAIN(TestDriverPlugin)
#include "tst_driverplugin.moc"
