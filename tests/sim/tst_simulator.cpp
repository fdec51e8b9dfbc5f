#include "rawclient.h"
#include "simulator.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <memory>

using namespace hustsim;

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

// A response frame's structure with any H code: the bytes outside the H record must match.
bool sameApartFromHCode(const QByteArray &frame, const QByteArray &expected)
{
    return frame.size() == expected.size() && frame.left(10) == expected.left(10)
        && frame.mid(18) == expected.mid(18)
        && QRegularExpression("^[0-9:-?]{8}$")
               .match(QString::fromLatin1(hCodeOf(frame)))
               .hasMatch();
}

} // namespace

class TestSimulator : public QObject
{
    Q_OBJECT

private:
    // Starts a simulator (unpaced unless the config says otherwise) and connects the client.
    void startSimulator(SimulatorConfig config = unpaced())
    {
        m_sim = std::make_unique<Simulator>(config);
        QVERIFY2(m_sim->start(), qPrintable(m_sim->errorString()));
        QVERIFY(m_client.open(m_sim->devicePath()));
    }
    static SimulatorConfig unpaced()
    {
        SimulatorConfig config;
        config.paced = false;
        return config;
    }
    // Sends a frame and waits until the simulator has recorded it.
    std::optional<RecordedFrame> sendAndWait(const QByteArray &bytes, FrameKind kind)
    {
        const qint64 from = m_sim->frameCount();
        if (!m_client.send(bytes))
            return std::nullopt;
        return m_sim->waitForFrame(kind, 5000, from);
    }

    std::unique_ptr<Simulator> m_sim;
    RawClient m_client;

private slots:
    void cleanup()
    {
        m_client.close();
        m_sim.reset();
    }

    // Every row first streams another list, so each also shows a new request replacing it.
    void streamFrames_data()
    {
        QTest::addColumn<QList<int>>("indices");
        QTest::addColumn<QList<quint32>>("values");
        QTest::addColumn<bool>("counter");
        QTest::addColumn<QByteArray>("exactTail");
        QTest::newRow("worked pair") << QList<int> {10, 11} << QList<quint32> {26, 1001} << true
                                     << QByteArray("\rv02\rd0000001:\rd000003>9\r%\x14");
        QTest::newRow("empty list") << QList<int> {} << QList<quint32> {} << true << QByteArray();
        QTest::newRow("all hex digits")
            << QList<int> {99999, 1} << QList<quint32> {0xFEDCBA98u, 0xFFFFFFFFu} << true
            << QByteArray();
        QList<int> many;
        QList<quint32> manyValues;
        for (int i = 0; i < 99; ++i) {
            many.append(500 + 2 * i);
            manyValues.append(quint32(i * 0x01010101));
        }
        QTest::newRow("99 addresses") << many << manyValues << true << QByteArray();
        QTest::newRow("counter") << QList<int> {0} << QList<quint32> {7} << true << QByteArray();
        QTest::newRow("--no-counter")
            << QList<int> {0} << QList<quint32> {7} << false << QByteArray();
    }
    void streamFrames()
    {
        QFETCH(QList<int>, indices);
        QFETCH(QList<quint32>, values);
        QFETCH(bool, counter);
        QFETCH(QByteArray, exactTail);
        SimulatorConfig config = unpaced();
        config.frameCounter = counter;
        startSimulator(config);
        for (int i = 0; i < indices.size(); ++i)
            m_sim->setRegister(indices.at(i), values.at(i));
        QVERIFY(m_client.send(readRequest({20, 21, 22})));
        QCOMPARE(m_client.readFrames(2, 5000).size(), 2);

        const auto request = sendAndWait(readRequest(indices), FrameKind::ReadRequest);
        QVERIFY(request);
        QCOMPARE(request->addresses, QVector<int>(indices.begin(), indices.end()));
        const int size = 10 * indices.size() + 25;
        const QByteArray frame
            = m_client.readFrameUntil([&](const QByteArray &f) { return f.size() == size; }, 5000);
        if (!exactTail.isEmpty())
            QCOMPARE(frame.mid(18), exactTail);
        // Once the new list is on the line, the old one never comes back.
        const QList<QByteArray> frames = QList<QByteArray> {frame} + m_client.readFrames(8, 5000);
        QCOMPARE(frames.size(), 9);
        // Double word 0 counts the frames sent; each value character stands for '0' + digit.
        quint32 base = 0;
        for (char c : valueTextsOf(frame).value(0))
            base = base * 16 + quint32(c - '0');
        for (int i = 0; i < frames.size(); ++i) {
            QList<quint32> expected = values;
            if (counter && indices.contains(0))
                expected[0] = base + quint32(i);
            QVERIFY2(sameApartFromHCode(frames.at(i), expectedResponse("00000000", expected)),
                     frames.at(i).toHex().constData());
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
        QTest::addColumn<int>("bit");
        QTest::newRow("write 1001 to 10800")
            << kWrite1001To10800 << int(FrameKind::WriteDWord) << 10800 << 5u << 1001u << -1;
        QTest::newRow("set bit 5 of 100")
            << kSetBit5Of100 << int(FrameKind::BitSet) << 100 << 0x1u << 0x21u << 5;
        QTest::newRow("clear bit 5 of 100") << kClearBit5Of100 << int(FrameKind::BitClear) << 100
                                            << 0xFFFFFFFFu << 0xFFFFFFDFu << 5;
    }
    void writes()
    {
        QFETCH(QByteArray, frame);
        QFETCH(int, kind);
        QFETCH(int, index);
        QFETCH(quint32, before);
        QFETCH(quint32, after);
        QFETCH(int, bit);
        startSimulator();
        m_sim->setRegister(index, before);
        QVERIFY(m_client.send(readRequest({index})));
        QCOMPARE(m_client.readFrames(1, 5000).size(), 1);

        const auto recorded = sendAndWait(frame, FrameKind(kind));
        QVERIFY(recorded);
        QCOMPARE(recorded->raw, frame);
        QCOMPARE(recorded->addresses, QVector<int> {index});
        QCOMPARE(recorded->bit, bit);
        QCOMPARE(m_sim->registerValue(index), after);
        // The stream shows the new value from the next frame built on.
        const QByteArray expected = expectedResponse("00000000", {after});
        QVERIFY(!m_client
                     .readFrameUntil(
                         [&](const QByteArray &f) { return sameApartFromHCode(f, expected); }, 5000)
                     .isEmpty());
    }

    void stopEndsStream()
    {
        startSimulator();
        QVERIFY(m_client.send(kWorkedRequest));
        QCOMPARE(m_client.readFrames(1, 5000).size(), 1);
        QVERIFY(m_sim->isStreaming());
        QVERIFY(sendAndWait(kStop, FrameKind::Stop));
        QVERIFY(!m_sim->isStreaming());
        // What was already on the line drains away, then nothing more comes.
        QVERIFY(m_client.drainUntilQuiet(100, 5000));
        const quint64 sent = m_sim->responseFramesSent();
        QVERIFY(m_client.readFor(100).isEmpty());
        QCOMPARE(m_sim->responseFramesSent(), sent);
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
        QVERIFY(m_client.send(kWorkedRequest));
        QCOMPARE(m_client.readFrames(1, 5000).size(), 1);

        QVERIFY(sendAndWait(request, FrameKind(kind)));
        QVERIFY(!m_sim->isStreaming());
        const QByteArray got = m_client.readFrameUntil(
            [](const QByteArray &f) { return !f.startsWith("\x12%\rO9000"); }, 5000);
        QCOMPARE(got, answer);
        QVERIFY(m_client.drainUntilQuiet(100, 5000));
    }

    void sendAndBurn()
    {
        startSimulator();
        m_sim->setProgram("O0001", "G00\n");
        const QByteArray text("N10 G01 X2\nN20 M30");
        QVERIFY(sendAndWait(kSendHeader, FrameKind::SendHeader));
        // The data frame has no CR after its "%" and would not parse as a request on its own.
        const auto data = sendAndWait("\x12%" + text + "%\x14", FrameKind::ProgramData);
        QVERIFY(data);
        QCOMPARE(data->text, text);
        QCOMPARE(m_sim->pendingProgram(), text);
        QCOMPARE(m_sim->program("O0001"), QByteArray("G00\n"));

        QVERIFY(sendAndWait(kBurn, FrameKind::Burn));
        QCOMPARE(m_sim->program("O0001"), text);
        QVERIFY(m_sim->pendingProgram().isEmpty());
        QVERIFY(m_client.send(kCurrentProgram));
        QCOMPARE(m_client.readFrames(1, 5000).value(0), "\x12%\r" + text + "%\x14");
    }

    void recordedKinds_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QStringList>("kinds");
        const QStringList readOnly {"read_request"};
        QTest::newRow("garbage before a frame")
            << QByteArray("xx\x14%\r\x12zz") + kWorkedRequest << readOnly;
        QTest::newRow("unknown command")
            << QByteArray("\x12%\rO1234\rN0\r%\x14") << QStringList {"unknown"};
        QTest::newRow("count and lines disagree")
            << QByteArray("\x12%\rO9000\rN0\rv03\rd00010\rd00011\r%\x14")
            << QStringList {"malformed"};
        QTest::newRow("bad value character")
            << QByteArray("\x12%\rO9012\rN10800\rd0000G000\r%\x14") << QStringList {"malformed"};
        QTest::newRow("bit beyond a double word")
            << QByteArray("\x12%\rO9013\rN00100\rd40\r%\x14") << QStringList {"malformed"};
        QTest::newRow("no CR after the opening")
            << QByteArray("\x12%O9000\rN1\r%\x14") << QStringList {"malformed"};
        QTest::newRow("broken off by a new frame") << QByteArray("\x12%\rO9000\rN0\rv02\rd000")
                + kStop << QStringList {"malformed", "stop"};
        QTest::newRow("two frames back to back")
            << kSetBit5Of100 + kClearBit5Of100 << QStringList {"bit_set", "bit_clear"};
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

    void slaveReopens()
    {
        startSimulator();
        const QString path = m_sim->devicePath();
        for (int round = 0; round < 3; ++round) {
            m_client.close();
            QVERIFY(m_client.open(path));
            QVERIFY(m_client.send(kWorkedRequest));
            QCOMPARE(m_client.readFrames(1, 5000).size(), 1);
        }
    }

    void silence()
    {
        SimulatorConfig config = unpaced();
        config.faults.silence = true;
        startSimulator(config);
        QVERIFY(sendAndWait(kWorkedRequest, FrameKind::ReadRequest));
        QVERIFY(sendAndWait(kWrite1001To10800, FrameKind::WriteDWord));
        QCOMPARE(m_sim->registerValue(10800), 1001u);
        QVERIFY(sendAndWait(kCurrentProgram, FrameKind::ProgramRequestCurrent));
        QVERIFY(m_client.readFor(200).isEmpty());
        QCOMPARE(m_sim->bytesSent(), 0u);

        m_sim->setSilence(false);
        QVERIFY(sendAndWait(kWorkedRequest, FrameKind::ReadRequest));
        QCOMPARE(m_client.readFrames(1, 5000).size(), 1);
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
        SimulatorConfig config = unpaced();
        config.faults.garbageProbability = fault == "garbage" ? 1.0 : 0.0;
        config.faults.garbageMaxBytes = 4;
        config.faults.hCodeRepeat = fault == "repeated H" ? 3 : 1;
        config.faults.shortValueProbability = fault == "short values" ? 1.0 : 0.0;
        config.faults.cutProbability = fault == "cut" ? 1.0 : 0.0;
        startSimulator(config);
        const QList<quint32> values {0x12345678, 0xABCDEF01};
        m_sim->setRegister(10, values.at(0));
        m_sim->setRegister(11, values.at(1));
        QVERIFY(m_client.send(kWorkedRequest));
        QByteArray received;
        QTRY_VERIFY_WITH_TIMEOUT((received += m_client.readFor(20)).count('\x12') > 31, 5000);
        // Whatever precedes the first DC2 and follows the last may be cut by the reading.
        const QList<QByteArray> pieces = received.split('\x12').mid(1, 30);
        const QByteArray whole = expectedResponse("00000000", values);
        QList<int> runs {1};
        for (int i = 0; i < pieces.size(); ++i) {
            const QByteArray frame = '\x12' + pieces.at(i);
            const int end = frame.indexOf(QByteArray("%\x14", 2));
            if (fault == "garbage") {
                QCOMPARE(end, whole.size() - 2);
                QVERIFY2(frame.size() - whole.size() >= 1 && frame.size() - whole.size() <= 4,
                         frame.toHex().constData());
            } else if (fault == "repeated H") {
                QVERIFY(sameApartFromHCode(frame, whole));
                if (i > 0 && hCodeOf(frame) == hCodeOf('\x12' + pieces.at(i - 1)))
                    ++runs.last();
                else if (i > 0)
                    runs.append(1);
            } else if (fault == "short values") {
                const QList<QByteArray> texts = valueTextsOf(frame);
                QCOMPARE(texts.size(), 2);
                for (int k = 0; k < 2; ++k) {
                    QVERIFY(texts.at(k).size() >= 5 && texts.at(k).size() <= 7);
                    // A short record carries the value's low digits.
                    QVERIFY(valueText(values.at(k)).endsWith(texts.at(k)));
                }
            } else {
                QVERIFY(frame.size() < whole.size());
                // Everything but the H code is a prefix of the whole frame.
                QByteArray masked = frame;
                for (int k = 10; k < qMin(18, masked.size()); ++k)
                    masked[k] = '0';
                QVERIFY2(whole.startsWith(masked), frame.toHex().constData());
            }
        }
        if (fault == "repeated H") {
            QVERIFY(runs.size() >= 6);
            for (int i = 1; i < runs.size() - 1; ++i)
                QCOMPARE(runs.at(i), 3);
        }
    }

    void cablePull()
    {
        startSimulator();
        QVERIFY(m_client.send(kWorkedRequest));
        QCOMPARE(m_client.readFrames(1, 5000).size(), 1);
        m_sim->pullCable(400);
        QVERIFY(m_sim->isLinkDown());
        QVERIFY(m_client.drainUntilQuiet(100, 5000));
        // Sent while the cable is out: lost.
        const quint64 received = m_sim->bytesReceived();
        QVERIFY(m_client.send(kWrite1001To10800));
        QTRY_COMPARE_WITH_TIMEOUT(m_sim->bytesReceived(), received + kWrite1001To10800.size(),
                                  5000);
        QTRY_VERIFY_WITH_TIMEOUT(!m_sim->isLinkDown(), 5000);
        QCOMPARE(m_sim->registerValue(10800), 0u);
        QCOMPARE(m_sim->frames().size(), 1);
        // Restored: the stream resumes and requests are heard again.
        QCOMPARE(m_client.readFrames(1, 5000).size(), 1);
        QVERIFY(sendAndWait(kWrite1001To10800, FrameKind::WriteDWord));
        QCOMPARE(m_sim->registerValue(10800), 1001u);
    }

    void hangup()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        SimulatorConfig config = unpaced();
        config.linkPath = dir.filePath("cnc");
        QString announced;
        std::mutex announcedMutex;
        m_sim = std::make_unique<Simulator>(config);
        m_sim->setDevicePathChangedHandler([&](const QString &path) {
            std::lock_guard<std::mutex> lock(announcedMutex);
            announced = path;
        });
        QVERIFY(m_sim->start());
        const QString firstPath = m_sim->devicePath();
        QCOMPARE(QFileInfo(config.linkPath).symLinkTarget(), firstPath);
        QVERIFY(m_client.open(config.linkPath));
        QVERIFY(m_client.send(kWorkedRequest));
        QCOMPARE(m_client.readFrames(1, 5000).size(), 1);

        m_sim->hangup(300);
        QTRY_VERIFY_WITH_TIMEOUT(m_sim->isLinkDown(), 5000);
        QVERIFY(!m_client.send(kStop));
        QCOMPARE(errno, EIO);

        QTRY_COMPARE_WITH_TIMEOUT(m_sim->hangupCount(), 1, 5000);
        const QString secondPath = m_sim->devicePath();
        QVERIFY(secondPath != firstPath);
        {
            std::lock_guard<std::mutex> lock(announcedMutex);
            QCOMPARE(announced, secondPath);
        }
        QCOMPARE(QFileInfo(config.linkPath).symLinkTarget(), secondPath);
        QVERIFY(m_client.open(config.linkPath));
        QVERIFY(m_client.send(kWorkedRequest));
        QCOMPARE(m_client.readFrames(1, 5000).size(), 1);
    }

    void paceFollowsLine_data()
    {
        QTest::addColumn<int>("baud");
        QTest::addColumn<int>("dataBits");
        QTest::addColumn<int>("parity");
        QTest::addColumn<int>("stopBits");
        QTest::addColumn<double>("speed");
        QTest::addColumn<double>("charactersPerSecond");
        QTest::newRow("38400 7E2 x4")
            << 38400 << 7 << int(Parity::Even) << 2 << 4.0 << 38400.0 / 11 * 4;
        QTest::newRow("9600 8N1 x10") << 9600 << 8 << int(Parity::None) << 1 << 10.0 << 9600.0;
    }
    void paceFollowsLine()
    {
        QFETCH(int, baud);
        QFETCH(int, dataBits);
        QFETCH(int, parity);
        QFETCH(int, stopBits);
        QFETCH(double, speed);
        QFETCH(double, charactersPerSecond);
        SimulatorConfig config;
        config.line = {baud, dataBits, Parity(parity), stopBits};
        config.speed = speed;
        startSimulator(config);
        QVERIFY(m_client.send(readRequest({1, 2, 3, 4, 5, 6, 7, 8})));
        // Let the stream settle, then count bytes over a long window.
        m_client.readFor(300);
        QElapsedTimer timer;
        timer.start();
        const qint64 count = m_client.readFor(2000).size();
        const double rate = count * 1000.0 / double(timer.elapsed());
        QVERIFY2(qAbs(rate - charactersPerSecond) <= 0.05 * charactersPerSecond,
                 qPrintable(QString::number(rate)));
    }
};

QTEST_GUILESS_MAIN(TestSimulator)
#include "tst_simulator.moc"
