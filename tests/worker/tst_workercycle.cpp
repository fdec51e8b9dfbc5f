#include "serializedport.h"
#include "workertestsupport.h"

#include <QtTest>

#include <atomic>

using namespace WorkerTest;

namespace {

// A controller that streams: after a read request it answers with one response after another
// (H codes counting up) until it receives the stop frame. Scripted chunks, when queued, are
// handed out first.
class StreamingPort : public ScriptedPort
{
public:
    QList<quint32> values {0x1A, 1001};

    int readData(char *data, int maxSize) override
    {
        if (pendingReads() > 0 || !m_streaming)
            return ScriptedPort::readData(data, maxSize);
        if (m_stream.size() < maxSize) {
            const QByteArray h = valueChars(quint32(++m_hCode));
            m_stream.append(responseFrame(h, values));
        }
        const int n = qMin(maxSize, int(m_stream.size()));
        memcpy(data, m_stream.constData(), size_t(n));
        m_stream.remove(0, n);
        ScriptedPort::readData(data + n, 0); // counts the call
        return n;
    }

    int writeData(const char *data, int size) override
    {
        const QByteArray bytes(data, size);
        if (isReadRequest(bytes))
            m_streaming = true;
        else if (isStopFrame(bytes))
            m_streaming = false;
        return ScriptedPort::writeData(data, size);
    }

    void setOption(int option, const QVariant &value) override
    {
        ScriptedPort::setOption(option, value);
        m_stream.clear();
    }

    bool streaming() const { return m_streaming; }

private:
    std::atomic<bool> m_streaming {false};
    QByteArray m_stream;
    int m_hCode = 0;
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

} // namespace

Q_DECLARE_METATYPE(QList<QByteArray>)

class TestWorkerCycle : public QObject
{
    Q_OBJECT

private slots:
    void immediateCycle_data();
    void immediateCycle();
    void staleHCode_data();
    void staleHCode();
    void giveUpLimit_data();
    void giveUpLimit();
    void emptyReadRestartsInLoopMode();
    void immediateReadAgainstSilentLine();
    void immediateRead();
    void shortValues_data();
    void shortValues();
    void loopReadBeforeStartParks();
    void loopReadingFeedsTheDriver();
    void stopLoopReadEndsCycleWithoutDelivery();
    void drainIsBounded();
    void writeDWord_data();
    void writeDWord();
    void writeBit_data();
    void writeBit();
};

// One immediate cycle on scripted chunks, for N = 2.
void TestWorkerCycle::immediateCycle_data()
{
    QTest::addColumn<bool>("cmdJustSent");
    QTest::addColumn<QList<QByteArray>>("chunks");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray oldFrame = responseFrame("00000001", QList<quint32> {7, 8});
    const QByteArray newFrame = responseFrame("00000002", QList<quint32> {26, 1001});
    QTest::newRow("behind the tail of an older response")
        << true << QList<QByteArray> {oldFrame.right(17) + newFrame} << block({26, 1001});
    QTest::newRow("last of two after a request")
        << true << QList<QByteArray> {oldFrame.right(30) + newFrame.left(30), newFrame.mid(30)}
        << block({26, 1001});
    QTest::newRow("steady: frame at the start")
        << false << QList<QByteArray> {newFrame} << block({26, 1001});
    QTest::newRow("steady: match at position 0 fails")
        << false << QList<QByteArray> {newFrame.mid(1) + "x"} << QByteArray();
}

void TestWorkerCycle::immediateCycle()
{
    QFETCH(bool, cmdJustSent);
    QFETCH(QList<QByteArray>, chunks);
    QFETCH(QByteArray, expected);
    ScriptedPort port;
    for (const QByteArray &c : chunks)
        port.queueRead(c);
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    access.setAddrList(names(2));
    access.setCmdJustSent(cmdJustSent);
    access.setLastHCode("H00000001\r");
    QSignalSpy timeouts(&worker, &DriverHushCNCReaderWriter::setReadLoopTimeoutError);
    if (expected.isEmpty())
        QTest::ignoreMessage(QtDebugMsg, "==== error2.");

    QByteArray response("untouched");
    access.readFromCNCController(true, &response);

    QCOMPARE(response, expected.isEmpty() ? QByteArray("untouched") : expected);
    QCOMPARE(timeouts.count(), expected.isEmpty() ? 1 : 0);
    if (!expected.isEmpty()) {
        QVERIFY(!access.cmdJustSent());
        QCOMPARE(access.lastHCode(), cmdJustSent ? QString("H00000002\r") : "H00000001\r");
    }
    // An immediate cycle that gives up sends nothing.
    QVERIFY(port.writes().isEmpty());
}

void TestWorkerCycle::staleHCode_data()
{
    QTest::addColumn<bool>("cmdJustSent");
    QTest::newRow("right after a request") << true;
    QTest::newRow("steady reading") << false;
}

void TestWorkerCycle::staleHCode()
{
    QFETCH(bool, cmdJustSent);
    ScriptedPort port;
    port.queueRead(responseFrame("00000001", QList<quint32> {1, 2}));
    answerRequestsWith(port, responseFrame("00000002", QList<quint32> {3, 4}));
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    access.setAddrList(names(2));
    access.setCmdJustSent(cmdJustSent);
    access.setLastHCode("H00000001\r");
    if (cmdJustSent) {
        QTest::ignoreMessage(QtDebugMsg, "error0. H code is the same with previous data");
        QTest::ignoreMessage(QtDebugMsg, "retrySendReadCommand");
    }

    QByteArray response;
    access.readFromCNCController(true, &response);

    if (cmdJustSent) {
        QCOMPARE(response, block({3, 4}));
        const QList<QByteArray> writes = port.writes();
        QCOMPARE(writes.size(), 2);
        QVERIFY(isStopFrame(writes.at(0)));
        QCOMPARE(writes.at(1), access.packReadBytesCmd());
        QCOMPARE(access.lastHCode(), QString("H00000002\r"));
    } else {
        QCOMPARE(response, block({1, 2}));
        QVERIFY(port.writes().isEmpty());
    }
}

void TestWorkerCycle::giveUpLimit_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<QList<QByteArray>>("firstChunks");
    QTest::addColumn<int>("readsUntilGivingUp");
    // The first chunks fill one response's worth of bytes; every further read brings one byte,
    // so each pass makes one failed match attempt.
    QTest::newRow("N=2, limit 10") << 2 << QList<QByteArray> {QByteArray(45, 'x')} << 12;
    QTest::newRow("N=3, limit 10") << 3 << QList<QByteArray> {QByteArray(55, 'x')} << 12;
    QTest::newRow("N=30, limit 60")
        << 30 << QList<QByteArray> {QByteArray(200, 'x'), QByteArray(125, 'x')} << 2 + 61;
}

void TestWorkerCycle::giveUpLimit()
{
    QFETCH(int, count);
    QFETCH(QList<QByteArray>, firstChunks);
    QFETCH(int, readsUntilGivingUp);
    ScriptedPort port;
    for (const QByteArray &c : firstChunks)
        port.queueRead(c);
    for (int i = 0; i < 100; ++i)
        port.queueRead("x");
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    access.setAddrList(names(count));
    QSignalSpy timeouts(&worker, &DriverHushCNCReaderWriter::setReadLoopTimeoutError);
    QTest::ignoreMessage(QtDebugMsg, "==== error2.");

    QByteArray response;
    access.readFromCNCController(true, &response);

    QCOMPARE(port.readCalls(), readsUntilGivingUp);
    QCOMPARE(timeouts.count(), 1);
    QVERIFY(response.isEmpty());
}

// The 32nd empty read raises the time-out and restarts the exchange; the cycle then takes the
// controller's answer. With no driver set, the block only refreshes the last full block.
void TestWorkerCycle::emptyReadRestartsInLoopMode()
{
    ScriptedPort port;
    answerRequestsWith(port, responseFrame("00000005", QList<quint32> {9, 10}));
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    access.setAddrList(names(2));
    worker.m_isStopLoopRead = false;
    QSignalSpy timeouts(&worker, &DriverHushCNCReaderWriter::setReadLoopTimeoutError);
    QTest::ignoreMessage(QtDebugMsg, "retrySendReadCommand");
    QTest::ignoreMessage(QtDebugMsg, "loop read: no driver to take the block");

    access.readFromCNCController(false);

    QCOMPARE(port.readCalls(), 33);
    QCOMPARE(timeouts.count(), 1);
    QCOMPARE(access.lastFullBlock(), block({9, 10}));
    QVERIFY(!access.hasDriver());
}

// Against a silent line a cycle ends after three restarts; shown here on an immediate read, whose
// caller waits for it.
void TestWorkerCycle::immediateReadAgainstSilentLine()
{
    ScriptedPort port;
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    QSignalSpy timeouts(&worker, &DriverHushCNCReaderWriter::setReadLoopTimeoutError);
    QByteArray response("untouched");

    worker.getAddrValRightaway(names(2), quintptr(&response));

    QCOMPARE(response, QByteArray("untouched"));
    QCOMPARE(timeouts.count(), 4); // three restarts, then the cycle ends
    QCOMPARE(port.readCalls(), 4 * 32);
    int requests = 0;
    for (const QByteArray &w : port.writes())
        requests += isReadRequest(w) ? 1 : 0;
    QCOMPARE(requests, 1 + 3);
}

void TestWorkerCycle::immediateRead()
{
    ScriptedPort port;
    answerRequestsWith(port, responseFrame("00000017", QList<quint32> {0x1A, 1001}));
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    QByteArray response;

    worker.getAddrValRightaway(names(2, 10), quintptr(&response));

    QCOMPARE(response, QByteArray::fromHex("1a000000e9030000"));
    const QList<QByteArray> writes = port.writes();
    QCOMPARE(writes.size(), 3);
    QVERIFY(isStopFrame(writes.at(0)));
    QCOMPARE(writes.at(1), QByteArray("\x12%\rO9000\rN0\rv02\rd00010\rd00011\r%\x14"));
    QVERIFY(isStopFrame(writes.at(2)));
    // Loop state is untouched.
    QVERIFY(worker.m_isStopLoopRead);
    QVERIFY(!worker.m_isLoopReading);
}

// Under the lenient pattern (a full last block for the same list) short values are taken from
// the last full block; the block reaches the driver but does not replace the last full block.
void TestWorkerCycle::shortValues_data()
{
    QTest::addColumn<QByteArray>("lastFullBlock");
    QTest::addColumn<QByteArray>("delivered");
    QTest::newRow("lenient") << block({0x11, 0x22}) << block({5, 0x22});
    QTest::newRow("strict: cache of another list") << block({0x11}) << QByteArray();
}

void TestWorkerCycle::shortValues()
{
    QFETCH(QByteArray, lastFullBlock);
    QFETCH(QByteArray, delivered);
    const QByteArray frame = responseFrame("00000009", QList<QByteArray> {"00000005", "000006"});
    ScriptedPort port;
    port.queueRead(frame.repeated(20));
    DriverHushCNC driver;
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    worker.setDriverInterface(&driver);
    access.setPort(&port);
    access.setAddrList(names(2));
    access.setLastHCode("H00000001\r");
    access.setLastFullBlock(lastFullBlock);
    worker.m_isStopLoopRead = false;
    if (delivered.isEmpty())
        QTest::ignoreMessage(QtDebugMsg, "==== error2.");

    access.readFromCNCController(false);

    QCOMPARE(DriverHushCNCTestAccess::blockData(driver), delivered);
    QCOMPARE(access.lastFullBlock(), lastFullBlock);
}

void TestWorkerCycle::loopReadBeforeStartParks()
{
    ScriptedPort port;
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    worker.loopRead();
    QVERIFY(worker.m_isStopLoopRead);
    QVERIFY(worker.m_isLoopReading);
    QCOMPARE(port.readCalls(), 0);
    QCOMPARE(port.discardCalls(), 0);
}

void TestWorkerCycle::loopReadingFeedsTheDriver()
{
    StreamingPort port;
    port.values = {0x1A, 1001, 0xFFFFFFFF};
    SerializedPort serialized(&port);
    DriverHushCNC driver;
    DriverHushCNCReaderWriter worker;
    QThread thread;
    worker.moveToThread(&thread);
    ThreadStopper stopper {thread};
    worker.setDriverInterface(&driver);
    worker.setReadInterface(&serialized);
    QVERIFY(isStopFrame(port.writes().value(0)));
    thread.start();

    QMetaObject::invokeMethod(&worker, "startLoopRead", Q_ARG(QStringList, names(3)));
    QTRY_COMPARE(DriverHushCNCTestAccess::blockData(driver), block({0x1A, 1001, 0xFFFFFFFF}));
    QTRY_VERIFY(!worker.m_isLoopReading);
    QVERIFY(!worker.m_isStopLoopRead);

    // Another sampled cycle picks up a change.
    port.values = {1, 2, 3};
    QMetaObject::invokeMethod(&worker, "loopRead");
    QTRY_COMPARE(DriverHushCNCTestAccess::blockData(driver), block({1, 2, 3}));

    worker.stopLoopRead();
    QVERIFY(!port.streaming());
    thread.quit();
    QVERIFY(thread.wait(5000));
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
    thread.quit();
    QVERIFY(thread.wait(5000));
}

// A controller that never goes quiet: the drain gives up after about two seconds, re-sending
// the stop frame on every pass from the 27th on.
void TestWorkerCycle::drainIsBounded()
{
    ScriptedPort port;
    port.setAvailable(10);
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    QTest::ignoreMessage(QtDebugMsg,
                         QRegularExpression("drain gave up: the line did not go quiet"));
    access.checkRxBufAndExit();
    QCOMPARE(port.availableQueries(), 100);
    QCOMPARE(port.writes().size(), 100 - 26); // passes 27 to 100
    QCOMPARE(port.discardCalls(), 101);
}

void TestWorkerCycle::writeDWord_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<int>("length");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<int>("writeResult");
    QTest::addColumn<QStringList>("addressLines");
    QTest::addColumn<int>("errors");
    const QByteArray three = block({1, 2, 3});
    QTest::newRow("DW100 x3") << "DW100" << 3 << three << -1
                              << QStringList {"N00100", "N00101", "N00102"} << 0;
    QTest::newRow("C35") << "C35" << 1 << three << -1 << QStringList {"N10817"} << 0;
    QTest::newRow("short writes") << "DW100" << 3 << three << 5
                                  << QStringList {"N00100", "N00101", "N00102"} << 3;
    QTest::newRow("beyond 99999") << "DW99999" << 2 << three << -1 << QStringList() << 1;
    QTest::newRow("nothing") << "DW1" << 0 << three << -1 << QStringList() << 0;
}

void TestWorkerCycle::writeDWord()
{
    QFETCH(QString, address);
    QFETCH(int, length);
    QFETCH(QByteArray, data);
    QFETCH(int, writeResult);
    QFETCH(QStringList, addressLines);
    QFETCH(int, errors);
    ScriptedPort port;
    port.setWriteResult(writeResult);
    // Records whether a discard came right before each write.
    QList<int> discardsBeforeWrite;
    port.setResponder([&discardsBeforeWrite](ScriptedPort &p, const QByteArray &) {
        discardsBeforeWrite << p.discardCalls();
    });
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    QSignalSpy spy(&worker, &DriverHushCNCReaderWriter::setWriteDWordError);
    if (addressLines.isEmpty() && length > 0)
        QTest::ignoreMessage(QtDebugMsg, QRegularExpression("double-word write refused"));

    worker.writeDWord(address, length, data);

    const QList<QByteArray> writes = port.writes();
    QCOMPARE(writes.size(), addressLines.size());
    for (int i = 0; i < writes.size(); ++i) {
        const QList<QByteArray> lines = writes.at(i).split('\r');
        QCOMPARE(lines.value(1), QByteArray("O9012"));
        QCOMPARE(QString::fromLatin1(lines.value(2)), addressLines.at(i));
        QCOMPARE(lines.value(3), "d" + valueChars(quint32(i + 1)));
        QCOMPARE(discardsBeforeWrite.at(i), i + 1);
    }
    QCOMPARE(spy.count(), errors);
}

void TestWorkerCycle::writeBit_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<bool>("value");
    QTest::addColumn<int>("writeResult");
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<int>("errors");
    QTest::newRow("set B12.7") << "B12.7" << true << -1
                               << QByteArray("\x12%\rO9013\rN00012\rd07\r%\x14") << 0;
    QTest::newRow("clear B12.7") << "B12.7" << false << -1
                                 << QByteArray("\x12%\rO9014\rN00012\rd07\r%\x14") << 0;
    QTest::newRow("B12 is bit 0") << "B12" << true << -1
                                  << QByteArray("\x12%\rO9013\rN00012\rd00\r%\x14") << 0;
    QTest::newRow("short write") << "B12.7" << true << 21
                                 << QByteArray("\x12%\rO9013\rN00012\rd07\r%\x14") << 1;
    QTest::newRow("not a B address") << "DW12.7" << true << -1 << QByteArray() << 0;
    QTest::newRow("bit 100 refused") << "B12.100" << true << -1 << QByteArray() << 1;
    QTest::newRow("address 100000 refused") << "B100000.1" << true << -1 << QByteArray() << 1;
}

void TestWorkerCycle::writeBit()
{
    QFETCH(QString, address);
    QFETCH(bool, value);
    QFETCH(int, writeResult);
    QFETCH(QByteArray, frame);
    QFETCH(int, errors);
    ScriptedPort port;
    port.setWriteResult(writeResult);
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    QSignalSpy spy(&worker, &DriverHushCNCReaderWriter::setWriteBitError);
    if (frame.isEmpty() && errors > 0)
        QTest::ignoreMessage(QtDebugMsg, QRegularExpression("write refused"));

    worker.writeBit(address, value);

    QCOMPARE(port.written(), frame);
    QCOMPARE(port.discardCalls(), frame.isEmpty() ? 0 : 1);
    QCOMPARE(spy.count(), errors);
}

QTEST_GUILESS_MAIN(TestWorkerCycle)
#include "tst_workercycle.moc"
