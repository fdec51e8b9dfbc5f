#include "serializedport.h"
#include "workertestsupport.h"

#include <QtTest>

#include <atomic>
#include <thread>

using namespace WorkerTest;

namespace {

// A worker on a scripted port.
struct Fixture
{
    ScriptedPort port;
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access {worker};

    explicit Fixture(int count = 2)
    {
        access.setPort(&port);
        access.setAddrList(names(count));
    }
};

// Ends a worker thread also when a test fails half-way.
struct ThreadStopper
{
    QThread &thread;
    ~ThreadStopper()
    {
        thread.quit();
        thread.wait(10000);
    }
};

// Queues a response whenever the worker writes a read request.
void answerRequestsWith(ScriptedPort &port, const QByteArray &frame)
{
    port.setResponder([frame](ScriptedPort &p, const QByteArray &written) {
        if (isReadRequest(written))
            p.queueRead(frame);
    });
}

// A port that is not safe for two threads: it counts calls that overlap.
class OverlapCountingPort : public ScriptedPort
{
public:
    std::atomic<int> inside {0};
    std::atomic<int> overlaps {0};
    std::atomic<int> calls {0};

    int readData(char *, int) override { return enter(); }
    int writeData(const char *, int) override { return enter(); }
    void getOption(int, QVariant &) override { enter(); }
    void setOption(int, const QVariant &) override { enter(); }

private:
    int enter()
    {
        if (inside.fetch_add(1) != 0)
            overlaps.fetch_add(1);
        ++calls;
        std::this_thread::yield();
        inside.fetch_sub(1);
        return 0;
    }
};

} // namespace

Q_DECLARE_METATYPE(QList<QByteArray>)

class TestWorkerCycle : public QObject
{
    Q_OBJECT

private slots:
    void cycle_data();
    void cycle();
    void immediateReadOnSilentLine();
    void shortValues_data();
    void shortValues();
    void stopLoopReadEndsCycleWithoutDelivery();
    void drainIsBounded();
    void writes_data();
    void writes();
    void serializedPortNeverOverlaps();
};

// One cycle on scripted chunks. The controller answers every read request the cycle sends with
// `answer`; readCalls 0 leaves the number of reads unchecked.
void TestWorkerCycle::cycle_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<bool>("loop");
    QTest::addColumn<bool>("cmdJustSent");
    QTest::addColumn<QList<QByteArray>>("chunks");
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<QByteArray>("expected");
    QTest::addColumn<int>("timeouts");
    QTest::addColumn<int>("requests");
    QTest::addColumn<int>("readCalls");

    const QByteArray oldFrame = responseFrame("00000001", QList<quint32> {1, 2});
    const QByteArray newFrame = responseFrame("00000002", QList<quint32> {3, 4});
    QTest::newRow("behind the tail of an older response")
        << 2 << false << true << QList<QByteArray> {oldFrame.right(17) + newFrame} << QByteArray()
        << block({3, 4}) << 0 << 0 << 0;
    // Right after a request the old H code means the controller has not seen it yet: resend.
    QTest::newRow("stale H code after a request")
        << 2 << false << true << QList<QByteArray> {oldFrame} << newFrame << block({3, 4}) << 0 << 1
        << 0;
    QTest::newRow("same H code in steady reading")
        << 2 << false << false << QList<QByteArray> {oldFrame} << newFrame << block({1, 2}) << 0
        << 0 << 0;
    // After one response's worth of bytes every read brings one byte: one failed match each,
    // up to max(2N, 10) attempts.
    const QList<QByteArray> drip = QVector<QByteArray>(100, "x").toList();
    QTest::newRow("give up, N=2: 10 attempts")
        << 2 << false << false << (QList<QByteArray> {QByteArray(45, 'x')} + drip) << QByteArray()
        << QByteArray() << 1 << 0 << 12;
    QTest::newRow("give up, N=30: 60 attempts")
        << 30 << false << false
        << (QList<QByteArray> {QByteArray(200, 'x'), QByteArray(125, 'x')} + drip) << QByteArray()
        << QByteArray() << 1 << 0 << 2 + 61;
    // The 32nd empty read raises the time-out and restarts the exchange. Without a driver the
    // block only refreshes the last full block.
    QTest::newRow("32nd empty read restarts a loop cycle")
        << 2 << true << false << QList<QByteArray>() << newFrame << block({3, 4}) << 1 << 1 << 33;
}

void TestWorkerCycle::cycle()
{
    QFETCH(int, count);
    QFETCH(bool, loop);
    QFETCH(bool, cmdJustSent);
    QFETCH(QList<QByteArray>, chunks);
    QFETCH(QByteArray, answer);
    QFETCH(QByteArray, expected);
    QFETCH(int, timeouts);
    QFETCH(int, requests);
    QFETCH(int, readCalls);
    Fixture f(count);
    for (const QByteArray &c : chunks)
        f.port.queueRead(c);
    if (!answer.isEmpty())
        answerRequestsWith(f.port, answer);
    f.access.cmdJustSent() = cmdJustSent;
    f.access.lastHCode() = "H00000001\r";
    f.worker.m_isStopLoopRead = !loop;
    QSignalSpy timeoutSpy(&f.worker, &DriverHushCNCReaderWriter::setReadLoopTimeoutError);

    QByteArray response("untouched");
    f.access.readFromCNCController(!loop, &response);

    if (loop) {
        QCOMPARE(f.access.lastFullBlock(), expected);
    } else {
        QCOMPARE(response, expected.isEmpty() ? QByteArray("untouched") : expected);
        if (!expected.isEmpty()) {
            QVERIFY(!f.access.cmdJustSent());
            QCOMPARE(f.access.lastHCode(), cmdJustSent ? QString("H00000002\r") : "H00000001\r");
        }
    }
    QCOMPARE(timeoutSpy.count(), timeouts);
    const QByteArray request = f.access.packReadBytesCmd();
    for (const QByteArray &w : f.port.writes())
        QVERIFY(!isReadRequest(w) || w == request);
    QCOMPARE(f.port.writes().count(request), requests);
    if (readCalls)
        QCOMPARE(f.port.readCalls(), readCalls);
}

// An immediate read on a silent line ends after three restarts, so that its caller is never held
// for long. It stops the stream before asking and leaves the loop state alone.
void TestWorkerCycle::immediateReadOnSilentLine()
{
    Fixture f;
    QSignalSpy timeoutSpy(&f.worker, &DriverHushCNCReaderWriter::setReadLoopTimeoutError);
    QByteArray response("untouched");

    f.worker.getAddrValRightaway(names(2, 10), quintptr(&response));

    QCOMPARE(response, QByteArray("untouched"));
    QCOMPARE(timeoutSpy.count(), 4);
    QVERIFY(isStopFrame(f.port.writes().value(0)));
    QCOMPARE(f.port.writes().count("\x12%\rO9000\rN0\rv02\rd00010\rd00011\r%\x14"), 1 + 3);
    QCOMPARE(f.port.readCalls(), 4 * 32);
    QVERIFY(f.worker.m_isStopLoopRead);
    QVERIFY(!f.worker.m_isLoopReading);
}

// Under the lenient pattern (a full last block for the same list) short values are taken from
// the last full block; such a block reaches the driver but does not replace the last full block.
void TestWorkerCycle::shortValues_data()
{
    QTest::addColumn<QList<QByteArray>>("texts");
    QTest::addColumn<QByteArray>("lastFullBlock");
    QTest::addColumn<QByteArray>("delivered");
    QTest::addColumn<bool>("full");
    const QList<QByteArray> shortTexts {"00000005", "000006"};
    QTest::newRow("full block, comma reads 0")
        << QList<QByteArray> {"????????", "0000,000"} << block({0x11, 0x22})
        << block({0xFFFFFFFF, 0}) << true;
    QTest::newRow("lenient") << shortTexts << block({0x11, 0x22}) << block({5, 0x22}) << false;
    QTest::newRow("strict: cache of another list")
        << shortTexts << block({0x11}) << QByteArray() << false;
}

void TestWorkerCycle::shortValues()
{
    QFETCH(QList<QByteArray>, texts);
    QFETCH(QByteArray, lastFullBlock);
    QFETCH(QByteArray, delivered);
    QFETCH(bool, full);
    Fixture f;
    f.port.queueRead(responseFrame("00000009", texts).repeated(20));
    DriverHushCNC driver;
    f.worker.setDriverInterface(&driver);
    f.access.lastHCode() = "H00000001\r";
    f.access.lastFullBlock() = lastFullBlock;
    f.worker.m_isStopLoopRead = false;

    f.access.readFromCNCController(false);

    QCOMPARE(DriverHushCNCTestAccess::blockData(driver), delivered);
    QCOMPARE(f.access.lastFullBlock(), full ? delivered : lastFullBlock);
}

void TestWorkerCycle::stopLoopReadEndsCycleWithoutDelivery()
{
    ScriptedPort port; // a silent controller: the cycle keeps reading
    SerializedPort serialized(&port);
    DriverHushCNC driver;
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    QThread thread;
    worker.moveToThread(&thread);
    ThreadStopper stopper {thread};
    worker.setDriverInterface(&driver);
    access.setPort(&serialized);
    thread.start();

    QMetaObject::invokeMethod(&worker, "startLoopRead", Q_ARG(QStringList, names(2)));
    QTRY_VERIFY(port.readCalls() > 3);
    QVERIFY(worker.m_isLoopReading);
    // A response arrives only once the stop flag is set; the cycle must not deliver it.
    worker.m_isStopLoopRead = true;
    port.queueRead(responseFrame("00000003", QList<quint32> {5, 6}));
    worker.stopLoopRead();

    QTRY_VERIFY(!worker.m_isLoopReading);
    QVERIFY(worker.m_isStopLoopRead);
    QVERIFY(isStopFrame(port.writes().last()));
    QVERIFY(DriverHushCNCTestAccess::blockData(driver).isEmpty());
}

// A controller that never goes quiet: the drain gives up, re-sending the stop frame on every
// pass from the 27th on.
void TestWorkerCycle::drainIsBounded()
{
    Fixture f;
    f.port.setAvailable(10);
    f.access.checkRxBufAndExit();
    QCOMPARE(f.port.availableQueries(), 100);
    QCOMPARE(f.port.writes().size(), 100 - 26);
    QCOMPARE(f.port.discardCalls(), 101);
}

// Double-word writes of 1001, all ones and a value of one byte (the data ends there), or a bit
// write: one frame per value, each right after a discard of the input; a short port write or a
// refusal raises the matching error signal.
void TestWorkerCycle::writes_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("bit");
    QTest::addColumn<int>("writeResult");
    QTest::addColumn<QList<QByteArray>>("frames");
    QTest::addColumn<int>("errors");
    const auto dw = [](const char *n, const char *v) {
        return QByteArray("\x12%\rO9012\r") + n + "\rd" + v + "\r%\x14";
    };
    const QList<QByteArray> set {"\x12%\rO9013\rN00012\rd07\r%\x14"};
    QTest::newRow("DW99997 x3") << "DW99997" << 3 << -1 << -1
                                << QList<QByteArray> {dw("N99997", "000003>9"),
                                                      dw("N99998", "????????"),
                                                      dw("N99999", "00000005")}
                                << 0;
    QTest::newRow("short dword writes")
        << "DW100" << 3 << -1 << 5
        << QList<QByteArray> {dw("N00100", "000003>9"), dw("N00101", "????????"),
                              dw("N00102", "00000005")}
        << 3;
    QTest::newRow("beyond 99999") << "DW99999" << 2 << -1 << -1 << QList<QByteArray>() << 1;
    QTest::newRow("set B12.7") << "B12.7" << 0 << 1 << -1 << set << 0;
    QTest::newRow("clear B1.99") << "B1.99" << 0 << 0 << -1
                                 << QList<QByteArray> {"\x12%\rO9014\rN00001\rd99\r%\x14"} << 0;
    QTest::newRow("short bit write") << "B12.7" << 0 << 1 << 21 << set << 1;
    QTest::newRow("bit 100 refused") << "B12.100" << 0 << 1 << -1 << QList<QByteArray>() << 1;
    QTest::newRow("address 100000 refused")
        << "B100000.1" << 0 << 1 << -1 << QList<QByteArray>() << 1;
}

void TestWorkerCycle::writes()
{
    QFETCH(QString, address);
    QFETCH(int, length);
    QFETCH(int, bit);
    QFETCH(int, writeResult);
    QFETCH(QList<QByteArray>, frames);
    QFETCH(int, errors);
    Fixture f;
    f.port.setWriteResult(writeResult);
    QList<int> discardsBeforeWrite;
    f.port.setResponder([&discardsBeforeWrite](ScriptedPort &p, const QByteArray &) {
        discardsBeforeWrite << p.discardCalls();
    });
    QSignalSpy dwordErrors(&f.worker, &DriverHushCNCReaderWriter::setWriteDWordError);
    QSignalSpy bitErrors(&f.worker, &DriverHushCNCReaderWriter::setWriteBitError);

    if (bit < 0)
        f.worker.writeDWord(address, length, block({1001, 0xFFFFFFFF}) + '\x05');
    else
        f.worker.writeBit(address, bit == 1);

    QCOMPARE(f.port.writes(), frames);
    QCOMPARE(f.port.discardCalls(), frames.size());
    for (int i = 0; i < discardsBeforeWrite.size(); ++i)
        QCOMPARE(discardsBeforeWrite.at(i), i + 1);
    QCOMPARE(dwordErrors.count(), bit < 0 ? errors : 0);
    QCOMPARE(bitErrors.count(), bit < 0 ? 0 : errors);
}

// The driver's thread sends stop frames and drains while the worker's thread reads.
void TestWorkerCycle::serializedPortNeverOverlaps()
{
    OverlapCountingPort port;
    SerializedPort serialized(&port);
    auto hammer = [&serialized]() {
        char buffer[4];
        QVariant value;
        for (int i = 0; i < 20000; ++i) {
            serialized.readData(buffer, 4);
            serialized.writeData(buffer, 4);
            serialized.getOption(13, value);
            serialized.setOption(12, 0);
        }
    };
    std::thread other(hammer);
    hammer();
    other.join();
    QCOMPARE(port.calls.load(), 2 * 4 * 20000);
    QCOMPARE(port.overlaps.load(), 0);
}

QTEST_GUILESS_MAIN(TestWorkerCycle)
#include "tst_workercycle.moc"
