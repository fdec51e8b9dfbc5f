#include "rawclient.h"
#include "simulator.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <memory>

using namespace hustsim;

Q_DECLARE_METATYPE(hustsim::LineSettings)

namespace {

const QByteArray kWorkedRequest("\x12%\rO9000\rN0\rv02\rd00010\rd00011\r%\x14");
const QByteArray kStop("\x12%\rO9000\rN1\r%\x14");
const QByteArray kWrite1001To10800("\x12%\rO9012\rN10800\rd000003>9\r%\x14");
const QByteArray kSetBit5Of100("\x12%\rO9013\rN00100\rd05\r%\x14");
const QByteArray kClearBit5Of100("\x12%\rO9014\rN00100\rd05\r%\x14");
const QByteArray kCurrentProgram("\x12%\rO9012\rN10768\rD000003>:\r%\x14");
const QByteArray kAllPrograms("\x12%\rO9012\rN10768\rD000003?1\r%\x14");
const QByteArray kSendHeader("\x12%\rO9012\rN10768\rD000003>9\r%\x14");
const QByteArray kBurn("\x12%\rO9000\rN100011\rG10 P600 L01%\x14");

} // namespace

class TestSimulator : public QObject
{
    Q_OBJECT

    SimulatorConfig m_config; // unpaced unless a test says otherwise
    std::unique_ptr<Simulator> m_sim;
    RawClient m_client;

    void startSimulator()
    {
        m_sim = std::make_unique<Simulator>(m_config);
        QVERIFY2(m_sim->start(), qPrintable(m_sim->errorString()));
        QVERIFY(m_client.open(m_sim->devicePath()));
    }
    bool streams(const QByteArray &request)
    {
        return m_client.send(request) && m_client.readFrames(1).size() == 1;
    }
    // Sends a frame and waits until the simulator has recorded it.
    std::optional<RecordedFrame> sendAndWait(const QByteArray &bytes, FrameKind kind)
    {
        const qint64 from = m_sim->frameCount();
        if (!m_client.send(bytes))
            return std::nullopt;
        return m_sim->waitForFrame(kind, 5000, from);
    }

private slots:
    void init()
    {
        m_config = SimulatorConfig();
        m_config.paced = false;
    }
    void cleanup()
    {
        m_client.close();
        m_sim.reset();
    }

    void streamFrames_data()
    {
        QTest::addColumn<QList<int>>("indices");
        QTest::addColumn<QList<quint32>>("values");
        QTest::addColumn<bool>("counter");
        QTest::newRow("counter and worked pair")
            << QList<int> {0, 10, 11} << QList<quint32> {7, 26, 1001} << true;
        QTest::newRow("--no-counter") << QList<int> {0} << QList<quint32> {7} << false;
        QTest::newRow("empty list") << QList<int> {} << QList<quint32> {} << true;
        QTest::newRow("all value digits")
            << QList<int> {99999, 1} << QList<quint32> {0xFEDCBA98u, 0xFFFFFFFFu} << true;
        QList<int> many;
        QList<quint32> manyValues;
        for (int i = 0; i < 99; ++i) {
            many.append(500 + 2 * i);
            manyValues.append(quint32(i * 0x01010101));
        }
        QTest::newRow("99 addresses") << many << manyValues << true;
    }
    void streamFrames()
    {
        QFETCH(QList<int>, indices);
        QFETCH(QList<quint32>, values);
        QFETCH(bool, counter);
        m_config.frameCounter = counter;
        startSimulator();
        for (int i = 0; i < indices.size(); ++i)
            m_sim->setRegister(indices.at(i), values.at(i));
        // A new request replaces the list streaming before, which never comes back.
        QVERIFY(m_client.send(readRequest({20, 21, 22, 23})));
        QCOMPARE(m_client.readFrames(2).size(), 2);
        QVERIFY(sendAndWait(readRequest(indices), FrameKind::ReadRequest));
        const int size = 10 * indices.size() + 25;
        const QByteArray first
            = m_client.readFrame([&](const QByteArray &f) { return f.size() == size; });
        const QList<QByteArray> frames = QList<QByteArray> {first} + m_client.readFrames(8);
        QCOMPARE(frames.size(), 9);
        // Double word 0 counts the frames sent; each value character stands for '0' + digit.
        quint32 base = 0;
        for (char c : valueTextsOf(frames.at(0)).value(0))
            base = base * 16 + quint32(c - '0');
        for (int i = 0; i < frames.size(); ++i) {
            QList<quint32> expected = values;
            if (counter && indices.contains(0))
                expected[0] = base + quint32(i);
            QVERIFY2(isResponse(frames.at(i), expected), frames.at(i).toHex().constData());
            if (i > 0)
                QVERIFY(hCodeOf(frames.at(i)) != hCodeOf(frames.at(i - 1)));
        }
    }

    void writes_data()
    {
        QTest::addColumn<QByteArray>("frame");
        QTest::addColumn<int>("kind");
        QTest::addColumn<int>("index");
        QTest::addColumn<quint32>("before");
        QTest::addColumn<quint32>("after");
        QTest::newRow("write 1001 to 10800")
            << kWrite1001To10800 << int(FrameKind::WriteDWord) << 10800 << 5u << 1001u;
        QTest::newRow("set bit 5 of 100")
            << kSetBit5Of100 << int(FrameKind::BitSet) << 100 << 0x1u << 0x21u;
        QTest::newRow("clear bit 5 of 100")
            << kClearBit5Of100 << int(FrameKind::BitClear) << 100 << 0xFFFFFFFFu << 0xFFFFFFDFu;
    }
    void writes()
    {
        QFETCH(QByteArray, frame);
        QFETCH(int, kind);
        QFETCH(int, index);
        QFETCH(quint32, before);
        QFETCH(quint32, after);
        startSimulator();
        m_sim->setRegister(index, before);
        QVERIFY(streams(readRequest({index})));
        QVERIFY(sendAndWait(frame, FrameKind(kind)));
        QCOMPARE(m_sim->registerValue(index), after);
        // The stream shows the new value from the next frame built on.
        QVERIFY(!m_client.readFrame([&](const QByteArray &f) { return isResponse(f, {after}); })
                     .isEmpty());
    }

    void stopEndsStream()
    {
        startSimulator();
        QVERIFY(streams(kWorkedRequest));
        QVERIFY(sendAndWait(kStop, FrameKind::Stop));
        // What was already on the line drains away, then nothing more comes.
        QVERIFY(m_client.drainUntilQuiet());
        // The master sees a hangup while the client has the line closed; it must keep serving.
        m_client.close();
        QVERIFY(m_client.open(m_sim->devicePath()));
        QVERIFY(streams(kWorkedRequest));
    }

    void programRequests_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QByteArray>("answer");
        QTest::newRow("current") << kCurrentProgram << int(FrameKind::ProgramRequestCurrent)
                                 << QByteArray("\x12%\rO0002\rG01 X5\r%\x14");
        QTest::newRow("all") << kAllPrograms << int(FrameKind::ProgramRequestAll)
                             << QByteArray("\x12%\rO0001\nG00 X1\nO0002\rG01 X5\r\n%\x14");
    }
    void programRequests()
    {
        QFETCH(QByteArray, request);
        QFETCH(int, kind);
        QFETCH(QByteArray, answer);
        startSimulator();
        m_sim->setProgram("b", "O0002\rG01 X5\r");
        m_sim->setProgram("a", "O0001\nG00 X1\n");
        QVERIFY(m_sim->setCurrentProgram("b"));
        // A running register stream ends with the program request.
        QVERIFY(streams(kWorkedRequest));
        QVERIFY(sendAndWait(request, FrameKind(kind)));
        QVERIFY(!m_sim->isStreaming());
        QCOMPARE(
            m_client.readFrame([](const QByteArray &f) { return !f.startsWith("\x12%\rO9000"); }),
            answer);
    }

    void sendAndBurn()
    {
        startSimulator();
        m_sim->setProgram("O0001", "G00\n");
        const QByteArray text("N10 G01 X2\nN20 M30");
        QVERIFY(sendAndWait(kSendHeader, FrameKind::SendHeader));
        // The data frame has no CR after its "%" and would not parse as a request on its own.
        QVERIFY(sendAndWait("\x12%" + text + "%\x14", FrameKind::ProgramData));
        QCOMPARE(m_sim->pendingProgram(), text);
        QCOMPARE(m_sim->program("O0001"), QByteArray("G00\n"));
        QVERIFY(sendAndWait(kBurn, FrameKind::Burn));
        QCOMPARE(m_sim->program("O0001"), text);
        QVERIFY(m_sim->pendingProgram().isEmpty());
        QVERIFY(m_client.send(kCurrentProgram));
        QCOMPARE(m_client.readFrames(1).value(0), "\x12%\r" + text + "%\x14");
    }

    void recordedKinds_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QStringList>("kinds");
        QTest::newRow("garbage before a frame")
            << QByteArray("xx\x14%\r\x12zz") + kWorkedRequest << QStringList {"read_request"};
        QTest::newRow("unknown command")
            << QByteArray("\x12%\rO1234\rN0\r%\x14") << QStringList {"unknown"};
        QTest::newRow("bit beyond a double word")
            << QByteArray("\x12%\rO9013\rN00100\rd40\r%\x14") << QStringList {"malformed"};
        QTest::newRow("broken off by a new frame") << QByteArray("\x12%\rO9000\rN0\rv02\rd000")
                + kStop << QStringList {"malformed", "stop"};
    }
    void recordedKinds()
    {
        QFETCH(QByteArray, input);
        QFETCH(QStringList, kinds);
        startSimulator();
        QVERIFY(m_client.send(input));
        QTRY_COMPARE_WITH_TIMEOUT(m_sim->frameCount(), qint64(kinds.size()), 5000);
        QStringList got;
        for (const RecordedFrame &frame : m_sim->frames())
            got.append(frameKindName(frame.kind));
        QCOMPARE(got, kinds);
    }

    void silence()
    {
        m_config.faults.silence = true;
        startSimulator();
        QVERIFY(sendAndWait(kWorkedRequest, FrameKind::ReadRequest));
        QVERIFY(sendAndWait(kWrite1001To10800, FrameKind::WriteDWord));
        QCOMPARE(m_sim->registerValue(10800), 1001u);
        QVERIFY(sendAndWait(kCurrentProgram, FrameKind::ProgramRequestCurrent));
        QVERIFY(m_client.readFor(200).isEmpty());
        QCOMPARE(m_sim->bytesSent(), 0u);
        m_sim->setSilence(false);
        QVERIFY(streams(kWorkedRequest));
    }

    void faultsShapeFrames_data()
    {
        QTest::addColumn<QString>("fault");
        for (const char *fault : {"garbage", "repeated H", "short values", "cut"})
            QTest::newRow(fault) << QString::fromLatin1(fault);
    }
    void faultsShapeFrames()
    {
        QFETCH(QString, fault);
        FaultSettings &faults = m_config.faults;
        faults.garbageProbability = fault == "garbage" ? 1.0 : 0.0;
        faults.garbageMaxBytes = 4;
        faults.hCodeRepeat = fault == "repeated H" ? 3 : 1;
        faults.shortValueProbability = fault == "short values" ? 1.0 : 0.0;
        faults.cutProbability = fault == "cut" ? 1.0 : 0.0;
        startSimulator();
        const QList<quint32> values {0x12345678, 0xABCDEF01};
        m_sim->setRegister(10, values.at(0));
        m_sim->setRegister(11, values.at(1));
        QVERIFY(m_client.send(kWorkedRequest));
        QByteArray received;
        QTRY_VERIFY_WITH_TIMEOUT((received += m_client.readFor(20)).count('\x12') > 31, 5000);
        // Whatever precedes the first DC2 and follows the last may be cut by the reading.
        const QList<QByteArray> pieces = received.split('\x12').mid(1, 30);
        const QByteArray whole = expectedResponse(values);
        QList<int> hChanges;
        for (int i = 0; i < pieces.size(); ++i) {
            const QByteArray frame = '\x12' + pieces.at(i);
            if (fault == "garbage") {
                // The stray bytes before a frame show up at the end of the one before it.
                QVERIFY2(isResponse(frame.left(whole.size()), values)
                             && frame.size() - whole.size() >= 1
                             && frame.size() - whole.size() <= 4,
                         frame.toHex().constData());
            } else if (fault == "repeated H") {
                QVERIFY(isResponse(frame, values));
                if (i > 0 && hCodeOf(frame) != hCodeOf('\x12' + pieces.at(i - 1)))
                    hChanges.append(i);
            } else if (fault == "short values") {
                const QList<QByteArray> texts = valueTextsOf(frame);
                QCOMPARE(texts.size(), 2);
                for (int k = 0; k < 2; ++k) {
                    QVERIFY(texts.at(k).size() >= 5 && texts.at(k).size() <= 7);
                    // A short record carries the value's low digits.
                    QVERIFY(valueText(values.at(k)).endsWith(texts.at(k)));
                }
            } else {
                // A proper prefix of the whole frame, apart from the H code.
                QByteArray masked = frame;
                for (int k = 10; k < qMin(18, masked.size()); ++k)
                    masked[k] = '0';
                QVERIFY2(frame.size() < whole.size() && whole.startsWith(masked),
                         frame.toHex().constData());
            }
        }
        // Inside the reading, every H code is carried by exactly three frames.
        QVERIFY(fault != "repeated H" || hChanges.size() >= 5);
        for (int i = 1; i < hChanges.size(); ++i)
            QCOMPARE(hChanges.at(i) - hChanges.at(i - 1), 3);
    }

    void cablePull()
    {
        startSimulator();
        QVERIFY(streams(kWorkedRequest));
        // Long enough that the write below is sent while the cable is still out on a busy machine.
        m_sim->pullCable(2000);
        QVERIFY(m_client.drainUntilQuiet());
        // Sent while the cable is out: lost.
        const quint64 received = m_sim->bytesReceived();
        QVERIFY(m_client.send(kWrite1001To10800));
        QTRY_COMPARE_WITH_TIMEOUT(m_sim->bytesReceived(), received + kWrite1001To10800.size(),
                                  5000);
        QTRY_VERIFY_WITH_TIMEOUT(!m_sim->isLinkDown(), 5000);
        QCOMPARE(m_sim->registerValue(10800), 0u);
        QCOMPARE(m_sim->frames().size(), 1);
        // Restored: the stream resumes and requests are heard again.
        QCOMPARE(m_client.readFrames(1).size(), 1);
        QVERIFY(sendAndWait(kWrite1001To10800, FrameKind::WriteDWord));
    }

    void hangup()
    {
        QTemporaryDir dir;
        m_config.linkPath = dir.filePath("cnc");
        startSimulator();
        const QString firstPath = m_sim->devicePath();
        QVERIFY(streams(kWorkedRequest));
        m_sim->hangup(300);
        QTRY_VERIFY_WITH_TIMEOUT(m_sim->isLinkDown(), 5000);
        QVERIFY(!m_client.send(kStop));
        QCOMPARE(errno, EIO);
        // A new pseudo-terminal comes up and the link follows it.
        QTRY_VERIFY_WITH_TIMEOUT(m_sim->devicePath() != firstPath, 5000);
        QCOMPARE(m_sim->hangupCount(), 1);
        QCOMPARE(QFileInfo(m_config.linkPath).symLinkTarget(), m_sim->devicePath());
        QVERIFY(m_client.open(m_config.linkPath));
        QVERIFY(streams(kWorkedRequest));
    }

    void paceFollowsLine_data()
    {
        QTest::addColumn<LineSettings>("line");
        QTest::addColumn<double>("speed");
        QTest::addColumn<double>("charactersPerSecond");
        QTest::newRow("38400 7E2 x4")
            << LineSettings {38400, 7, Parity::Even, 2} << 4.0 << 38400.0 / 11 * 4;
        QTest::newRow("9600 8N1 x10") << LineSettings {9600, 8, Parity::None, 1} << 10.0 << 9600.0;
    }
    void paceFollowsLine()
    {
        QFETCH(LineSettings, line);
        QFETCH(double, speed);
        QFETCH(double, charactersPerSecond);
        m_config.paced = true;
        m_config.line = line;
        m_config.speed = speed;
        startSimulator();
        QVERIFY(m_client.send(readRequest({1, 2, 3, 4, 5, 6, 7, 8})));
        // Let the stream settle, then count bytes over a long window.
        m_client.readFor(300);
        QElapsedTimer timer;
        timer.start();
        const qint64 count = m_client.readFor(2000).size();
        const double rate = count * 1000.0 / double(timer.elapsed());
        // Never faster than the line; slower only as far as a busy machine delays the reader.
        QVERIFY2(rate <= 1.05 * charactersPerSecond && rate >= 0.5 * charactersPerSecond,
                 qPrintable(QString::number(rate)));
    }
};

QTEST_GUILESS_MAIN(TestSimulator)
#include "tst_simulator.moc"
