#include "codec.h"
#include "simulator.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

using namespace hustsim;

namespace {

// The panel's side of a pseudo-terminal, opened in raw mode and driven byte by byte.
class RawClient
{
public:
    ~RawClient() { close(); }

    bool open(const QString &path)
    {
        close();
        m_fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        termios tio {};
        if (m_fd >= 0 && tcgetattr(m_fd, &tio) == 0) {
            cfmakeraw(&tio);
            tcsetattr(m_fd, TCSANOW, &tio);
        }
        return m_fd >= 0;
    }
    void close()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
        m_buffer.clear();
    }
    // Writes all of `bytes` within 5 s; false when the line refuses them (errno tells why).
    bool send(const QByteArray &bytes)
    {
        QElapsedTimer timer;
        timer.start();
        for (int done = 0; done < bytes.size();) {
            const ssize_t n = ::write(m_fd, bytes.constData() + done, size_t(bytes.size() - done));
            if (n > 0) {
                done += int(n);
            } else if (n < 0 && errno == EAGAIN && timer.elapsed() < 5000) {
                pollfd p {m_fd, POLLOUT, 0};
                ::poll(&p, 1, 20);
            } else {
                return false;
            }
        }
        return true;
    }
    // Reads whatever arrives within `ms` milliseconds.
    QByteArray readFor(int ms)
    {
        QElapsedTimer timer;
        timer.start();
        const int before = m_buffer.size();
        while (timer.elapsed() < ms)
            readOnce(int(std::max<qint64>(1, ms - timer.elapsed())));
        return m_buffer.mid(before);
    }
    // Reads until nothing has arrived for 100 ms (at most 5 s in all); true when quiet.
    bool drainUntilQuiet()
    {
        for (int i = 0; i < 50; ++i, m_buffer.clear()) {
            if (readFor(100).isEmpty())
                return true;
        }
        return false;
    }
    // The next complete frame (DC2 ... "%" DC4) that `accept` (when given) takes, skipping
    // everything else; empty when none comes within 5 s.
    QByteArray readFrame(const std::function<bool(const QByteArray &)> &accept = {})
    {
        QElapsedTimer timer;
        timer.start();
        for (;;) {
            const int start = m_buffer.indexOf('\x12');
            const int end = m_buffer.indexOf(QByteArray("%\x14", 2), qMax(start, 0));
            if (start >= 0 && end >= 0) {
                const QByteArray frame = m_buffer.mid(start, end + 2 - start);
                m_buffer.remove(0, end + 2);
                if (!accept || accept(frame))
                    return frame;
            } else if (timer.elapsed() >= 5000) {
                return QByteArray();
            } else {
                m_buffer.remove(0, start < 0 ? m_buffer.size() : start);
                readOnce(20);
            }
        }
    }

private:
    void readOnce(int ms)
    {
        pollfd p {m_fd, POLLIN, 0};
        ::poll(&p, 1, ms);
        char chunk[4096];
        const ssize_t n = ::read(m_fd, chunk, sizeof chunk);
        if (n > 0)
            m_buffer.append(chunk, int(n));
    }

    int m_fd = -1;
    QByteArray m_buffer;
};

// Frames built from literal pieces so that tests do not depend on the simulator's own codec.

// The eight value characters of `value` ("0".."9", ":".."?").
QByteArray valueText(quint32 value)
{
    QByteArray text(8, '0');
    for (int i = 7; i >= 0; --i, value >>= 4)
        text[i] = char('0' + (value & 0xF));
    return text;
}

// The response carrying `values`, with the H code written as eight zeros.
QByteArray expectedResponse(const QList<quint32> &values)
{
    QByteArray frame("\x12%\rO9000\rH00000000\rv");
    frame += QByteArray::number(values.size()).rightJustified(2, '0') + "\r";
    for (quint32 v : values)
        frame += "d" + valueText(v) + "\r";
    return frame + "%\x14";
}

QByteArray hCodeOf(const QByteArray &frame)
{
    return frame.mid(10, 8);
}

// True when `frame` is the response carrying `values` under any well-formed H code.
bool isResponse(QByteArray frame, const QList<quint32> &values)
{
    const QByteArray h = hCodeOf(frame);
    return h.size() == 8
        && std::all_of(h.begin(), h.end(), [](char c) { return c >= '0' && c <= '?'; })
        && frame.replace(10, 8, "00000000") == expectedResponse(values);
}

QByteArray readRequest(const QList<int> &indices)
{
    QByteArray frame("\x12%\rO9000\rN0\rv");
    frame += QByteArray::number(indices.size()).rightJustified(2, '0') + "\r";
    for (int index : indices)
        frame += "d" + QByteArray::number(index).rightJustified(5, '0') + "\r";
    return frame + "%\x14";
}

// The value of eight value characters.
quint32 valueOf(const QByteArray &text)
{
    quint32 value = 0;
    for (char c : text)
        value = value * 16 + quint32(c - '0');
    return value;
}

quint32 monotonicMs()
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return quint32(qint64(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000);
}

QList<QByteArray> valueTextsOf(const QByteArray &frame)
{
    QList<QByteArray> texts;
    for (const QByteArray &line : frame.split('\r')) {
        if (line.startsWith('d'))
            texts.append(line.mid(1));
    }
    return texts;
}

const QByteArray kWorkedRequest("\x12%\rO9000\rN0\rv02\rd00010\rd00011\r%\x14");
const QByteArray kStop("\x12%\rO9000\rN1\r%\x14");
const QByteArray kWrite1001To10800("\x12%\rO9012\rN10800\rd000003>9\r%\x14");
const QByteArray kCurrentProgram("\x12%\rO9012\rN10768\rD000003>:\r%\x14");
const QByteArray kSendHeader("\x12%\rO9012\rN10768\rD000003>9\r%\x14");

// The kinds and raw bytes the request parser reports for `input` fed `chunk` bytes at a time.
QList<QPair<QString, QByteArray>> parseInChunks(const QByteArray &input, int chunk)
{
    RequestParser parser;
    QList<QPair<QString, QByteArray>> out;
    for (int i = 0; i < input.size(); i += chunk)
        parser.feed(input.constData() + i, qMin(chunk, input.size() - i), [&](Request &&r) {
            out.append({frameKindName(r.kind), r.raw});
        });
    return out;
}

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
        return m_client.send(request) && !m_client.readFrame().isEmpty();
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
        QTest::addColumn<bool>("paced");
        QTest::newRow("counter and far end") << QList<int> {0, 10, 11, 99999} << false;
        QTest::newRow("empty list") << QList<int> {} << false;
        QList<int> many;
        for (int i = 0; i < 99; ++i)
            many.append(500 + 2 * i);
        QTest::newRow("99 addresses") << many << false;
        QTest::newRow("at line speed") << QList<int> {0, 10, 11, 99999} << true;
    }
    void streamFrames()
    {
        QFETCH(QList<int>, indices);
        QFETCH(bool, paced);
        m_config.paced = paced;
        startSimulator();
        QList<quint32> values;
        for (int index : indices) // the 99 addresses use all sixteen value characters
            values.append(quint32(index) * 0x9E3779B9u);
        for (int i = 0; i < indices.size(); ++i)
            m_sim->setRegister(indices.at(i), values.at(i));
        // A new request replaces the list streaming before, which never comes back.
        QVERIFY(streams(readRequest({20, 21})));
        QElapsedTimer sent;
        sent.start();
        QVERIFY(sendAndWait(readRequest(indices), FrameKind::ReadRequest));
        // A paced controller takes a request only once its last character has crossed the line.
        const qint64 lineMs = readRequest(indices).size() * 11 * 1000 / 38400;
        QVERIFY(!paced || sent.elapsed() >= lineMs);
        const int size = 10 * indices.size() + 25;
        QList<QByteArray> frames {
            m_client.readFrame([&](const QByteArray &f) { return f.size() == size; })};
        while (frames.size() < 9 && !frames.last().isEmpty())
            frames.append(m_client.readFrame());
        // Double word 0 counts the frames sent.
        const quint32 base = valueOf(valueTextsOf(frames.at(0)).value(0));
        for (int i = 0; i < frames.size(); ++i) {
            QList<quint32> expected = values;
            if (indices.contains(0))
                expected[0] = base + quint32(i);
            QVERIFY2(isResponse(frames.at(i), expected), frames.at(i).toHex().constData());
            if (i > 0)
                QVERIFY(hCodeOf(frames.at(i)) != hCodeOf(frames.at(i - 1)));
        }
        QVERIFY(sendAndWait(kStop, FrameKind::Stop));
        // What was already on the line drains away, then nothing more comes.
        QVERIFY(m_client.drainUntilQuiet());
        // The master sees a hangup while the client has the line closed; it must keep serving.
        m_client.close();
        QVERIFY(m_client.open(m_sim->devicePath()));
        QVERIFY(streams(kWorkedRequest));
    }

    void writes_data()
    {
        QTest::addColumn<QByteArray>("frame");
        QTest::addColumn<int>("index");
        QTest::addColumn<quint32>("before");
        QTest::addColumn<quint32>("after");
        QTest::newRow("write 1001 to 10800") << kWrite1001To10800 << 10800 << 5u << 1001u;
        QTest::newRow("set bit 5 of 100")
            << QByteArray("\x12%\rO9013\rN00100\rd05\r%\x14") << 100 << 0x1u << 0x21u;
        QTest::newRow("clear bit 5 of 100")
            << QByteArray("\x12%\rO9014\rN00100\rd05\r%\x14") << 100 << 0xFFFFFFFFu << 0xFFFFFFDFu;
    }
    void writes()
    {
        QFETCH(QByteArray, frame);
        QFETCH(int, index);
        QFETCH(quint32, before);
        QFETCH(quint32, after);
        startSimulator();
        m_sim->setRegister(index, before);
        QVERIFY(streams(readRequest({index})));
        QVERIFY(m_client.send(frame));
        // The stream shows the new value from the next frame built on.
        QVERIFY(!m_client.readFrame([&](const QByteArray &f) { return isResponse(f, {after}); })
                     .isEmpty());
        QCOMPARE(m_sim->registerValue(index), after);
    }

    void programExchanges()
    {
        startSimulator();
        m_sim->setProgram("b", "O0002\rG01 X5\r");
        m_sim->setProgram("a", "O0001\nG00 X1\n");
        QVERIFY(m_sim->setCurrentProgram("b"));
        // A running register stream ends with a program request.
        QVERIFY(streams(kWorkedRequest));
        QVERIFY(m_client.send("\x12%\rO9012\rN10768\rD000003?1\r%\x14"));
        QCOMPARE(
            m_client.readFrame([](const QByteArray &f) { return !f.startsWith("\x12%\rO9000"); }),
            QByteArray("\x12%\rO0001\nG00 X1\nO0002\rG01 X5\r\n%\x14"));
        QVERIFY(!m_sim->isStreaming());
        // Sent programs wait for the burn, which replaces the current one.
        const QByteArray text("N10 G01 X2\nN20 M30");
        QVERIFY(sendAndWait(kSendHeader, FrameKind::SendHeader));
        // The data frame has no CR after its "%" and would not parse as a request on its own.
        QVERIFY(sendAndWait("\x12%" + text + "%\x14", FrameKind::ProgramData));
        QCOMPARE(m_sim->pendingProgram(), text);
        QCOMPARE(m_sim->program("b"), QByteArray("O0002\rG01 X5\r"));
        QVERIFY(sendAndWait("\x12%\rO9000\rN100011\rG10 P600 L01%\x14", FrameKind::Burn));
        QVERIFY(m_sim->pendingProgram().isEmpty());
        QVERIFY(m_client.send(kCurrentProgram));
        QCOMPARE(m_client.readFrame(), "\x12%\r" + text + "%\x14");
    }

    void parsesAtAnyReadBoundary_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QStringList>("kinds"); // empty: whatever the whole input gives
        QTest::newRow("garbage before a frame")
            << QByteArray("xx\x14%\r\x12zz") + kStop << QStringList {"stop"};
        QTest::newRow("bit beyond a double word")
            << QByteArray("\x12%\rO9013\rN00100\rd40\r%\x14") << QStringList {"malformed"};
        QTest::newRow("burn line ended by a CR")
            << QByteArray("\x12%\rO9000\rN100011\rG10 P600 L01\r%\x14")
            << QStringList {"malformed"};
        QTest::newRow("broken off by a new frame") << QByteArray("\x12%\rO9000\rN0\rv02\rd000")
                + kStop << QStringList {"malformed", "stop"};
        QTest::newRow("frame that never ends") << "\x12%\r" + QByteArray(2 * kMaxRequestFrame, 'x')
                + kStop << QStringList {"malformed", "stop"};
        // Envelopes, program text and loose markers mixed with random bytes.
        QRandomGenerator random(20240611);
        const QList<QByteArray> pieces {kWorkedRequest, kStop,   kSendHeader, "\x12%G00\n%\x14",
                                        "\x12%",        "%\x14", "\x12",      "garbage\r"};
        QByteArray input;
        for (int i = 0; i < 400; ++i) {
            input += pieces.at(int(random.bounded(pieces.size())));
            for (int k = int(random.bounded(8)); k > 0; --k)
                input += char(random.generate());
        }
        QTest::newRow("random") << input << QStringList();
    }
    void parsesAtAnyReadBoundary()
    {
        QFETCH(QByteArray, input);
        QFETCH(QStringList, kinds);
        const auto whole = parseInChunks(input, input.size());
        QStringList wholeKinds;
        for (const auto &request : whole)
            wholeKinds.append(request.first);
        QCOMPARE(wholeKinds, kinds.isEmpty() ? wholeKinds : kinds);
        for (int chunk : {1, 2, 7, 64})
            QCOMPARE(parseInChunks(input, chunk), whole);
    }

    void faultsShapeFrames_data()
    {
        QTest::addColumn<QString>("fault");
        for (const char *fault : {"garbage", "repeated H", "short values", "cut", "lost stop"})
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
        faults.loseStopProbability = fault == "lost stop" ? 1.0 : 0.0;
        startSimulator();
        const QList<quint32> values {0x12345678, 0xABCDEF01};
        m_sim->setRegister(10, values.at(0));
        m_sim->setRegister(11, values.at(1));
        QVERIFY(m_client.send(kWorkedRequest));
        // A lost stop frame leaves the stream running.
        if (fault == "lost stop")
            QVERIFY(sendAndWait(kStop, FrameKind::Stop));
        QByteArray received;
        QTRY_VERIFY_WITH_TIMEOUT((received += m_client.readFor(20)).count('\x12') > 31, 5000);
        // Whatever precedes the first DC2 and follows the last may be cut by the reading.
        const QList<QByteArray> pieces = received.split('\x12').mid(1, 30);
        const QByteArray whole = expectedResponse(values);
        QList<int> hChanges;
        for (int i = 0; i < pieces.size(); ++i) {
            const QByteArray frame = '\x12' + pieces.at(i);
            const int extra = frame.size() - whole.size();
            const QList<QByteArray> texts = valueTextsOf(frame);
            bool shaped = isResponse(frame, values);
            if (fault == "garbage") // the stray bytes before a frame trail the one before it
                shaped = isResponse(frame.left(whole.size()), values) && extra >= 1 && extra <= 4;
            else if (fault == "cut") // a proper prefix of the whole frame
                shaped = extra < 0 && isResponse(frame + whole.mid(frame.size()), values);
            else if (fault == "short values") // each record carries the value's low 5 to 7 digits
                shaped = texts.size() == 2;
            for (int k = 0; fault == "short values" && shaped && k < 2; ++k)
                shaped = texts.at(k).size() >= 5 && texts.at(k).size() <= 7
                    && valueText(values.at(k)).endsWith(texts.at(k));
            QVERIFY2(shaped, frame.toHex().constData());
            if (i > 0 && hCodeOf(frame) != hCodeOf('\x12' + pieces.at(i - 1)))
                hChanges.append(i);
        }
        // Inside the reading, every H code is carried by exactly three frames.
        QVERIFY(fault != "repeated H" || hChanges.size() >= 5);
        for (int i = 1; fault == "repeated H" && i < hChanges.size(); ++i)
            QCOMPARE(hChanges.at(i) - hChanges.at(i - 1), 3);
    }

    void quietLine_data()
    {
        QTest::addColumn<bool>("cable");
        QTest::newRow("silence") << false;
        QTest::newRow("cable pull") << true;
    }
    void quietLine()
    {
        QFETCH(bool, cable);
        startSimulator();
        QVERIFY(streams(kWorkedRequest));
        // Long enough that the write below is sent while the cable is still out on a busy machine.
        if (cable)
            m_sim->pullCable(2000);
        else
            m_sim->setSilence(true);
        QVERIFY(m_client.drainUntilQuiet());
        const quint64 received = m_sim->bytesReceived();
        QVERIFY(m_client.send(kWrite1001To10800));
        QTRY_COMPARE_WITH_TIMEOUT(m_sim->bytesReceived(), received + kWrite1001To10800.size(),
                                  5000);
        // A silent controller still hears and applies the write; a pulled cable loses it.
        QTRY_COMPARE_WITH_TIMEOUT(m_sim->frames().size(), cable ? 1 : 2, 5000);
        QCOMPARE(m_sim->registerValue(10800), cable ? 0u : 1001u);
        m_sim->setSilence(false);
        QTRY_VERIFY_WITH_TIMEOUT(!m_sim->isLinkDown(), 5000);
        // Restored: the stream resumes and requests are heard again.
        QVERIFY(!m_client.readFrame().isEmpty());
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
        QCOMPARE(QFileInfo(m_config.linkPath).symLinkTarget(), m_sim->devicePath());
        QVERIFY(m_client.open(m_config.linkPath));
        QVERIFY(streams(kWorkedRequest));
    }

    void paceFollowsLine()
    {
        // 12 bits a character (8E2): a pacer that counts fewer, or ignores the baud rate or the
        // speed factor, sends faster than this.
        m_config.paced = true;
        m_config.line = LineSettings {9600, 8, Parity::Even, 2};
        m_config.speed = 10.0;
        const double charactersPerSecond = 9600.0 / 12 * 10;
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

    // The hust-sim program as a process: its first line, its options and its exit.
    void servesAndLogsUntilTerminated()
    {
        QTemporaryDir dir;
        const QString link = dir.filePath("cnc");
        const QString log = dir.filePath("frames.jsonl");
        QProcess sim;
        sim.start(HUST_SIM_PATH,
                  {"--no-pace", "--no-counter", "--link", link, "--log", log, "--set", "10=0x1A",
                   "--set", "0=7", "--clock", "11"});
        QVERIFY(sim.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(sim.canReadLine(), 10000);
        const QByteArray first = sim.readLine().trimmed();
        QVERIFY2(first.startsWith("PTY /dev/"), first.constData());
        QCOMPARE(QFileInfo(link).symLinkTarget(), QString::fromLatin1(first.mid(4)));

        QVERIFY(m_client.open(link));
        // Double word 11 holds the monotonic clock in ms as the frame is formatted.
        const quint32 before = monotonicMs();
        QVERIFY(m_client.send(readRequest({10, 0, 11})));
        const QByteArray frame = m_client.readFrame();
        const quint32 clock = valueOf(valueTextsOf(frame).value(2));
        QVERIFY(clock - before <= monotonicMs() - before);
        QVERIFY(isResponse(frame, {26, 7, clock}));
        QVERIFY(m_client.send(QByteArray("\x12%\rO9000\rN1\r%\x14")));
        QVERIFY(m_client.drainUntilQuiet());
        m_client.close();

        sim.terminate();
        QVERIFY(sim.waitForFinished(10000));
        QCOMPARE(sim.exitStatus(), QProcess::NormalExit);
        QCOMPARE(sim.exitCode(), 0);
        QVERIFY(!QFileInfo(link).isSymLink());

        QFile lines(log);
        QVERIFY(lines.open(QIODevice::ReadOnly));
        QList<QJsonObject> objects;
        while (!lines.atEnd())
            objects.append(QJsonDocument::fromJson(lines.readLine()).object());
        QCOMPARE(objects.size(), 2);
        QCOMPARE(objects.at(0).value("kind").toString(), QStringLiteral("read_request"));
        QCOMPARE(objects.at(0).value("addresses").toArray(), (QJsonArray {10, 0, 11}));
        QCOMPARE(objects.at(1).value("kind").toString(), QStringLiteral("stop"));
    }

    void usageErrors_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("unknown option") << QStringList {"--frobnicate"};
        QTest::newRow("register out of range") << QStringList {"--set", "100000=1"};
        QTest::newRow("no such program") << QStringList {"--current", "nothing"};
    }
    void usageErrors()
    {
        QFETCH(QStringList, arguments);
        QProcess sim;
        sim.start(HUST_SIM_PATH, arguments);
        QVERIFY(sim.waitForFinished(10000));
        QCOMPARE(sim.exitCode(), 2);
        const QByteArray error = sim.readAllStandardError();
        QVERIFY2(error.startsWith("hust-sim: ") && error.count('\n') == 1, error.constData());
        QVERIFY(sim.readAllStandardOutput().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestSimulator)
#include "tst_simulator.moc"
