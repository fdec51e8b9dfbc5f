#include "communicatorcommand.h"
#include "hustgcodecontroller.h"
#include "scriptedport.h"
#include "tools.h"

#include <QSemaphore>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

namespace {

const QByteArray kRequestCurrent("\x12%\rO9012\rN10768\rD000003>:\r%\x14");
const QByteArray kRequestAll("\x12%\rO9012\rN10768\rD000003?1\r%\x14");
const QByteArray kSendHeader("\x12%\rO9012\rN10768\rD000003>9\r%\x14");
const QByteArray kBurnFrame("\x12%\rO9000\rN100011\rG10 P600 L01%\x14");

QByteArray framed(const QByteArray &text)
{
    return "\x12%\r" + text + "%\x14";
}

// Records the protocol's pauses instead of sleeping them.
class InstantGCode : public HustGCodeprotocol
{
public:
    QList<int> pauses; // read only after the thread that pauses has ended

protected:
    void pause(int ms) override { pauses.append(ms); }
};

CommunicatorCommand command(const QString &key)
{
    return CommunicatorCommand(CommunicatorCommand::DWordType, 1, key);
}

QByteArray readKey(HustGCodeprotocol &gcode, const QString &key)
{
    QByteArray out;
    gcode.processReadCommand(command(key), out);
    return out;
}

quint32 statusWord(HustGCodeprotocol &gcode)
{
    return quint32(QByteArrayToInt(readKey(gcode, "PROTOCOL_STATUS0")));
}

} // namespace

class TestGCodeProtocol : public QObject
{
    Q_OBJECT

private slots:
    void writeKeys_data()
    {
        QTest::addColumn<QStringList>("keys");
        QTest::addColumn<QByteArrayList>("values");
        QTest::addColumn<quint32>("status");
        QTest::addColumn<QByteArray>("flags"); // ReadCurrentCode0, ReadAllCode0, BurningCodeBit0
        QTest::addColumn<QStringList>("requests"); // request signals in emission order

        const QByteArray off(1, '\0');
        const QByteArray none(3, '\0');
        QTest::newRow("0 clears the flag only")
            << QStringList {"ReadAllCode0", "ReadAllCode0"} << QByteArrayList {"\x01", off} << 0x2u
            << none << QStringList {"read 1"};
        QTest::newRow("only 1 sets, ReadCode is read-only")
            << QStringList {"ReadCurrentCode0", "BurningCodeBit0", "ReadCode"}
            << QByteArrayList {"\x02\x01", "", "G1"} << 0u << none << QStringList();
        QTest::newRow("status clears request bits, not flags")
            << QStringList {"ReadCurrentCode0", "Code2CtrlCmd", "PROTOCOL_STATUS0"}
            << QByteArrayList {"\x01", "G1", QByteArray(4, '\0')} << 0u << QByteArray("\1\0\0", 3)
            << QStringList {"read 0", "send"};
    }

    void writeKeys()
    {
        QFETCH(QStringList, keys);
        QFETCH(QByteArrayList, values);
        QFETCH(quint32, status);
        QFETCH(QByteArray, flags);
        QFETCH(QStringList, requests);

        HustGCodeprotocol gcode;
        // Only the recording of requests is under test here, not the transfers they start.
        gcode.disconnect(&gcode);
        QStringList emitted;
        connect(&gcode, &HustGCodeprotocol::readDataFromControllerSignal,
                [&emitted](int type) { emitted << QStringLiteral("read %1").arg(type); });
        connect(&gcode, &HustGCodeprotocol::writeDataToControllerSignal,
                [&emitted] { emitted << QStringLiteral("send"); });

        for (int i = 0; i < keys.size(); ++i)
            gcode.processWriteCommand(command(keys.at(i)), values.at(i));

        QCOMPARE(statusWord(gcode), status);
        QCOMPARE(readKey(gcode, "ReadCurrentCode0") + readKey(gcode, "ReadAllCode0")
                     + readKey(gcode, "BurningCodeBit0"),
                 flags);
        QCOMPARE(emitted, requests);
        QCOMPARE(readKey(gcode, "ReadCode"), QByteArray(keys.contains("Code2CtrlCmd") ? "G1" : ""));
    }

    void exchange_data()
    {
        QTest::addColumn<QByteArrayList>("chunks");
        QTest::addColumn<QByteArray>("expected");
        QTest::addColumn<int>("polls");
        QTest::addColumn<int>("restarts"); // startLoopReadSignal emitted by the exchange

        const int idle = HustGCodeprotocol::IdlePollLimit;
        QTest::newRow("markers split across polls")
            << QByteArrayList {"\x12", "%", "\rG01\r%", "\x14"} << QByteArray("G01\r") << 4 << 0;
        QTest::newRow("noise and an end before, a start inside, text after")
            << QByteArrayList {"\x05noise%\x14\x12%\rold" + framed("G01\r") + "N99 trailing"}
            << QByteArray("G01\r") << 1 << 0;
        QTest::newRow("text up to the first zero byte")
            << QByteArrayList {QByteArray("\x12%\rG01\0lost", 11), "\r%\x14"} << QByteArray("G01\r")
            << 2 << 0;
        QTest::newRow("stops midway")
            << QByteArrayList {"\x12%\rG01 X", "1"} << QByteArray() << 2 + idle << 1;
        // A line that babbles after a start marker is given up once the answer outgrows the limit.
        const int limitPolls = HustGCodeprotocol::MaxAnswerSize / HustGCodeprotocol::PollSize;
        const QByteArray noise(HustGCodeprotocol::PollSize, 'x');
        QTest::newRow("babbles past the size limit")
            << QByteArrayList {"\x12%\r"} + QVector<QByteArray>(limitPolls + 10, noise).toList()
            << QByteArray() << 2 + limitPolls << 1;
    }

    void exchange()
    {
        QFETCH(QByteArrayList, chunks);
        QFETCH(QByteArray, expected);
        QFETCH(int, polls);
        QFETCH(int, restarts);

        ScriptedPort port;
        port.setResponder([chunks](ScriptedPort &p, const QByteArray &) {
            for (const QByteArray &chunk : chunks)
                p.queueRead(chunk);
        });
        HustGCodeprotocol gcode;
        gcode.setReadInterface(&port);
        QSignalSpy startSpy(&gcode, &HustGCodeprotocol::startLoopReadSignal);

        QCOMPARE(gcode.getGCode(kRequestCurrent), expected);
        QCOMPARE(port.writes(), QByteArrayList {kRequestCurrent});
        QCOMPARE(port.readCalls(), polls);
        QCOMPARE(startSpy.count(), restarts);
    }

    void agreement_data()
    {
        QTest::addColumn<QByteArrayList>("answers");
        QTest::addColumn<QByteArray>("expected");
        QTest::addColumn<int>("requests");
        QTest::addColumn<bool>("agreed");

        QTest::newRow("same length differ, then both again")
            << QByteArrayList {framed("G1\r"), framed("G2\r"), framed("G3\r"), framed("G3\r")}
            << QByteArray("G3\r") << 4 << true;
        QTest::newRow("second shorter is asked again")
            << QByteArrayList {framed("G100\r"), framed("G1\r"), framed("G100\r")}
            << QByteArray("G100\r") << 3 << true;

        QByteArrayList restless;
        for (int i = 0; i < 100; ++i)
            restless << framed(QByteArray::number(i % 10));
        QTest::newRow("answers that never agree")
            << restless << QByteArray() << 2 + 2 * HustGCodeprotocol::MaxAgreementRounds << false;
    }

    void agreement()
    {
        QFETCH(QByteArrayList, answers);
        QFETCH(QByteArray, expected);
        QFETCH(int, requests);
        QFETCH(bool, agreed);

        // Each request for all programs gets the next answer, then silence.
        ScriptedPort port;
        port.setResponder([&answers](ScriptedPort &p, const QByteArray &written) {
            if (written == kRequestAll && !answers.isEmpty())
                p.queueRead(answers.takeFirst());
        });
        InstantGCode gcode;
        gcode.setReadInterface(&port);
        QByteArray out("stale");
        QCOMPARE(gcode.getGCodeFromController(out, 1), agreed);
        QCOMPARE(out, expected);
        QCOMPARE(port.writes().count(kRequestAll), requests);
        QCOMPARE(port.discardCalls(), 1);
    }

    // The send runs queued in the worker's thread; the burn flag counts as it stands then.
    void send_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<bool>("burnAtRequest");
        QTest::addColumn<bool>("burnAtRun");

        QTest::newRow("empty lines dropped, carriage returns kept, cut at zero byte")
            << QByteArray("\nG1\r\n\r\n\nG2\n\0G3\n", 15) << QByteArray("G1\r\n\r\nG2") << false
            << false;
        QTest::newRow("burn") << QByteArray("G1\n") << QByteArray("G1") << false << true;
        QTest::newRow("burn cleared before the send runs")
            << QByteArray("G1\n") << QByteArray("G1") << true << false;
    }

    void send()
    {
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, sent);
        QFETCH(bool, burnAtRequest);
        QFETCH(bool, burnAtRun);

        ScriptedPort port;
        InstantGCode gcode;
        gcode.setReadInterface(&port);
        QThread worker;
        gcode.moveToThread(&worker);
        worker.start();

        // Hold the worker thread so that the send request waits in its queue.
        QSemaphore gate;
        QMetaObject::invokeMethod(
            &gcode, [&gate] { gate.acquire(); }, Qt::QueuedConnection);
        gcode.processWriteCommand(command("BurningCodeBit0"), QByteArray(1, burnAtRequest));
        gcode.processWriteCommand(command("Code2CtrlCmd"), text);
        gcode.processWriteCommand(command("BurningCodeBit0"), QByteArray(1, burnAtRun));
        QCOMPARE(statusWord(gcode), 0x20000u);
        gate.release();

        QTRY_COMPARE(statusWord(gcode), 0x30000u);
        worker.quit();
        QVERIFY(worker.wait(5000));
        const QByteArrayList burn = burnAtRun ? QByteArrayList {kBurnFrame} : QByteArrayList();
        QCOMPARE(port.writes(), QByteArrayList({kSendHeader, "\x12%" + sent + "%\x14"}) + burn);
        QCOMPARE(port.discardCalls(), 1);
        QCOMPARE(port.readCalls(), 0);
        QCOMPARE(gcode.pauses,
                 (burnAtRun ? QList<int> {200, 300, 300, 100} : QList<int> {200, 300, 100}));
        QCOMPARE(readKey(gcode, "ReadCode"), sent);
    }
};

QTEST_GUILESS_MAIN(TestGCodeProtocol)
#include "tst_gcodeprotocol.moc"
