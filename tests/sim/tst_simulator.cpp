#include "rawclient.h"
#include "simulator.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QRandomGenerator>
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

    void streamFrames_data()
    {
        QTest::addColumn<QList<int>>("indices");
        QTest::addColumn<QList<quint32>>("values");
        QTest::newRow("worked pair") << QList<int> {10, 11} << QList<quint32> {26, 1001};
        QTest::newRow("empty list") << QList<int> {} << QList<quint32> {};
        QTest::newRow("all hex digits")
            << QList<int> {99999, 1} << QList<quint32> {0xFEDCBA98u, 0xFFFFFFFFu};
        QList<int> many;
        QList<quint32> manyValues;
        for (int i = 0; i < 99; ++i) {
            many.append(500 + 2 * i);
            manyValues.append(quint32(i * 0x01010101));
        }
        QTest::newRow("99 addresses") << many << manyValues;
    }
    void streamFrames()
    {
        QFETCH(QList<int>, indices);
        QFETCH(QList<quint32>, values);
        startSimulator();
        for (int i = 0; i < indices.size(); ++i)
            m_sim->setRegister(indices.at(i), values.at(i));

        QVERIFY(m_client.send(readRequest(indices)));
        const QList<QByteArray> frames = m_client.readFrames(4, 5000);
        QCOMPARE(frames.size(), 4);
        const QByteArray expected = expectedResponse("00000000", values);
        QCOMPARE(expected.size(), 10 * indices.size() + 25);
        for (int i = 0; i < frames.size(); ++i) {
            QVERIFY2(sameApartFromHCode(frames.at(i), expected), frames.at(i).toHex().constData());
            if (i > 0)
                QVERIFY(hCodeOf(frames.at(i)) != hCodeOf(frames.at(i - 1)));
        }
        const auto request = m_sim->waitForFrame(FrameKind::ReadRequest, 1000);
        QVERIFY(request);
        QCOMPARE(request->addresses, QVector<int>(indices.begin(), indices.end()));
    }

    void workedRequestBytes()
    {
        startSimulator();
        m_sim->setRegister(10, 26);
        m_sim->setRegister(11, 1001);
        QCOMPARE(kWorkedRequest.size(), 32);
        QVERIFY(m_client.send(kWorkedRequest));
        const QList<QByteArray> frames = m_client.readFrames(1, 5000);
        QCOMPARE(frames.size(), 1);
        QCOMPARE(frames.at(0).size(), 45);
        QCOMPARE(frames.at(0).mid(18), QByteArray("\rv02\rd0000001:\rd000003>9\r%\x14"));
    }

    void frameCounter_data()
    {
        QTest::addColumn<bool>("counter");
        QTest::newRow("counting") << true;
        QTest::newRow("--no-counter") << false;
    }
    void frameCounter()
    {
        QFETCH(bool, counter);
        SimulatorConfig config = unpaced();
        config.frameCounter = counter;
        startSimulator(config);
        m_sim->setRegister(0, 7);
        QVERIFY(m_client.send(readRequest({0})));
        const QList<QByteArray> frames = m_client.readFrames(6, 5000);
        QCOMPARE(frames.size(), 6);
        bool ok = false;
        quint32 previous = valueTextsOf(frames.at(0)).value(0).toUInt(&ok, 16);
        for (int i = 1; i < frames.size(); ++i) {
            // The value characters of 0..9 are plain digits, so small counts parse as hex.
            const quint32 value = valueTextsOf(frames.at(i)).value(0).toUInt(&ok, 16);
            QVERIFY(ok);
            QCOMPARE(value, counter ? previous + 1 : 7u);
            previous = value;
        }
    }

    void newRequestReplacesList()
    {
        startSimulator();
        m_sim->setRegister(10, 0x10);
        m_sim->setRegister(20, 0x20);
        QVERIFY(m_client.send(readRequest({10})));
        QCOMPARE(m_client.readFrames(2, 5000).size(), 2);

        QVERIFY(m_client.send(readRequest({20, 20, 10})));
        const QByteArray expected = expectedResponse("00000000", {0x20, 0x20, 0x10});
        const QByteArray first = m_client.readFrameUntil(
            [&](const QByteArray &f) { return f.size() == expected.size(); }, 5000);
        QVERIFY(sameApartFromHCode(first, expected));
        // Once the new list is on the line, the old one never comes back.
        const QList<QByteArray> after = m_client.readFrames(20, 5000);
        QCOMPARE(after.size(), 20);
        for (const QByteArray &frame : after)
            QVERIFY(sameApartFromHCode(frame, expected));
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
        QTest::newRow("write all ones")
            << QByteArray("\x12%\rO9012\rN00003\rd????????\r%\x14") << int(FrameKind::WriteDWord)
            << 3 << 0u << 0xFFFFFFFFu << -1;
        QTest::newRow("set bit 5 of 100")
            << kSetBit5Of100 << int(FrameKind::BitSet) << 100 << 0x1u << 0x21u << 5;
        QTest::newRow("clear bit 5 of 100") << kClearBit5Of100 << int(FrameKind::BitClear) << 100
                                            << 0xFFFFFFFFu << 0xFFFFFFDFu << 5;
        QTest::newRow("set bit 31") << QByteArray("\x12%\rO9013\rN99999\rd31\r%\x14")
                                    << int(FrameKind::BitSet) << 99999 << 0u << 0x80000000u << 31;
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
        QTest::newRow("four-digit index")
            << QByteArray("\x12%\rO9012\rN1080\rd000003>9\r%\x14") << QStringList {"malformed"};
        QTest::newRow("no CR after the opening")
            << QByteArray("\x12%O9000\rN1\r%\x14") << QStringList {"malformed"};
        QTest::newRow("broken off by a new frame") << QByteArray("\x12%\rO9000\rN0\rv02\rd000")
                + kStop << QStringList {"malformed", "stop"};
        QTest::newRow("unknown program request")
            << QByteArray("\x12%\rO9012\rN10768\rD000003>8\r%\x14") << QStringList {"unknown"};
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

    void randomInputIsSurvived()
    {
        startSimulator();
        QRandomGenerator random(20240611);
        QByteArray noise(256 * 1024, '\0');
        for (char &c : noise) {
            // Many DC2, "%" and DC4 bytes, so that envelopes open and close often.
            const quint32 r = random.bounded(8);
            c = r == 0   ? '\x12'
                : r == 1 ? '%'
                : r == 2 ? '\x14'
                : r == 3 ? '\r'
                         : char(random.generate());
        }
        QVERIFY(m_client.send(noise));
        QTRY_COMPARE_WITH_TIMEOUT(m_sim->bytesReceived(), quint64(noise.size()), 10000);
        // Close whatever frame the noise left open, then talk normally again.
        m_sim->setRegister(10, 26);
        m_sim->setRegister(11, 1001);
        QVERIFY(sendAndWait(kStop + kWorkedRequest, FrameKind::ReadRequest));
        const QByteArray expected = expectedResponse("00000000", {26, 1001});
        QVERIFY(!m_client
                     .readFrameUntil(
                         [&](const QByteArray &f) { return sameApartFromHCode(f, expected); }, 5000)
                     .isEmpty());
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

    void garbageBetweenFrames()
    {
        SimulatorConfig config = unpaced();
        config.faults.garbageProbability = 1.0;
        config.faults.garbageMaxBytes = 4;
        startSimulator(config);
        QVERIFY(m_client.send(kWorkedRequest));
        QByteArray received;
        QTRY_VERIFY_WITH_TIMEOUT((received += m_client.readFor(20)).count('\x12') > 20, 5000);
        // Every frame is whole and followed by 1..4 bytes that are not DC2.
        const QList<QByteArray> pieces = received.split('\x12').mid(1, 19);
        for (const QByteArray &piece : pieces) {
            const int end = piece.indexOf(QByteArray("%\x14", 2));
            QCOMPARE(end, 42);
            QVERIFY2(piece.size() - (end + 2) >= 1 && piece.size() - (end + 2) <= 4,
                     piece.toHex().constData());
        }
    }

    void repeatedHCodes()
    {
        SimulatorConfig config = unpaced();
        config.faults.hCodeRepeat = 3;
        startSimulator(config);
        QVERIFY(m_client.send(kWorkedRequest));
        const QList<QByteArray> frames = m_client.readFrames(20, 5000);
        QCOMPARE(frames.size(), 20);
        QList<int> runs {1};
        for (int i = 1; i < frames.size(); ++i) {
            if (hCodeOf(frames.at(i)) == hCodeOf(frames.at(i - 1)))
                ++runs.last();
            else
                runs.append(1);
        }
        // The first and last run may be cut by where reading started and stopped.
        QVERIFY(runs.size() >= 6);
        for (int i = 1; i < runs.size() - 1; ++i)
            QCOMPARE(runs.at(i), 3);
    }

    void shortValues()
    {
        SimulatorConfig config = unpaced();
        config.faults.shortValueProbability = 1.0;
        startSimulator(config);
        m_sim->setRegister(10, 0x12345678);
        m_sim->setRegister(11, 0xABCDEF01);
        QVERIFY(m_client.send(kWorkedRequest));
        const QList<QByteArray> frames = m_client.readFrames(20, 5000);
        QCOMPARE(frames.size(), 20);
        const QByteArray full10 = valueText(0x12345678);
        const QByteArray full11 = valueText(0xABCDEF01);
        for (const QByteArray &frame : frames) {
            const QList<QByteArray> texts = valueTextsOf(frame);
            QCOMPARE(texts.size(), 2);
            for (int i = 0; i < 2; ++i) {
                QVERIFY(texts.at(i).size() >= 5 && texts.at(i).size() <= 7);
                // A short record carries the value's low digits.
                QVERIFY((i == 0 ? full10 : full11).endsWith(texts.at(i)));
            }
        }
    }

    void cutFrames()
    {
        SimulatorConfig config = unpaced();
        config.faults.cutProbability = 1.0;
        startSimulator(config);
        m_sim->setRegister(10, 26);
        m_sim->setRegister(11, 1001);
        QVERIFY(m_client.send(kWorkedRequest));
        QByteArray received;
        QTRY_VERIFY_WITH_TIMEOUT((received += m_client.readFor(20)).count('\x12') > 30, 5000);
        const QByteArray whole = expectedResponse("00000000", {26, 1001});
        const QList<QByteArray> pieces = received.split('\x12').mid(1, 29);
        for (const QByteArray &piece : pieces) {
            const QByteArray frame = '\x12' + piece;
            QVERIFY(frame.size() >= 1 && frame.size() < whole.size());
            // Everything but the H code is a prefix of the whole frame.
            QByteArray masked = frame;
            for (int i = 10; i < qMin(18, masked.size()); ++i)
                masked[i] = '0';
            QVERIFY2(whole.startsWith(masked), frame.toHex().constData());
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
        m_client.buffer().clear();
        QElapsedTimer timer;
        timer.start();
        const qint64 count = m_client.readFor(2000).size();
        const double rate = count * 1000.0 / double(timer.elapsed());
        QVERIFY2(qAbs(rate - charactersPerSecond) <= 0.05 * charactersPerSecond,
                 qPrintable(QStringLiteral("%1 characters a second, expected %2")
                                .arg(rate)
                                .arg(charactersPerSecond)));
    }
};

QTEST_GUILESS_MAIN(TestSimulator)
#include "tst_simulator.moc"
