// Frames built and decoded by the worker, and its read cycle on a scripted port.
#include "hustframes.h"
#include "serializedport.h"
#include "workertestsupport.h"

#include <QRandomGenerator>
#include <QScopeGuard>
#include <QtTest>

using namespace WorkerTest;

namespace {

const QByteArray kStopFrame("\x12%\rO9000\rN1\r%\x14");
const QByteArray kRequestHead("\x12%\rO9000\rN0\r");

// How cycle() runs: an immediate read, a loop cycle, or loop reading started for a new list.
constexpr int Immediate = 0;
constexpr int Loop = 1;
constexpr int Switch = 2;

// A value as the controller writes it: eight hexadecimal digits with ':' to '?' for A to F.
QByteArray valueText(quint32 v)
{
    QByteArray text = QByteArray::number(v, 16).rightJustified(8, '0');
    for (char &c : text)
        c = c > '9' ? char(c - 'a' + ':') : c;
    return text;
}

// A response frame of 10 * n + 25 bytes: DC2, the H record, the v record, one d record per value
// text (given as sent, so that short texts can be scripted) and a ten-byte end that the worker
// does not interpret.
QByteArray responseFrame(const QByteArray &hCode, const QByteArrayList &texts)
{
    QByteArray f
        = "\x12H" + hCode + "\rv" + QByteArray::number(texts.size()).rightJustified(2, '0');
    for (const QByteArray &v : texts)
        f += "\rd" + v;
    return f + "\r%\x14        ";
}

QByteArray responseFrame(const QByteArray &hCode, const QList<quint32> &values)
{
    QByteArrayList texts;
    for (quint32 v : values)
        texts << valueText(v);
    return responseFrame(hCode, texts);
}

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

} // namespace

class TestWorkerFrames : public QObject
{
    Q_OBJECT

private slots:
    // Requests leave in pieces of at most 230 bytes after one discard; a refused one sends
    // nothing. The pieces also fix the frame's length: 16 + 7 * 99 + 2 bytes for 99 addresses.
    void readRequest_data()
    {
        QTest::addColumn<QStringList>("addresses");
        QTest::addColumn<QList<int>>("pieces");
        QTest::newRow("99") << names(99) << QList<int> {230, 230, 230, 21};
        QTest::newRow("100 refused") << names(100) << QList<int>();
    }

    void readRequest()
    {
        QFETCH(QStringList, addresses);
        QFETCH(QList<int>, pieces);
        Fixture f;
        f.access.setAddrList(addresses);
        f.access.cmdJustSent() = false;
        const QByteArray frame = f.access.packReadBytesCmd();
        f.access.sendTxBufForRead(frame);

        QList<int> sizes;
        for (const QByteArray &w : f.port.writes())
            sizes << w.size();
        QCOMPARE(sizes, pieces);
        QCOMPARE(f.port.written(), frame);
        QCOMPARE(f.port.discardCalls(), pieces.isEmpty() ? 0 : 1);
        QCOMPARE(f.access.cmdJustSent(), !pieces.isEmpty());
    }

    // Values decoded straight from the received bytes; ',' is admitted by the grammar but is no
    // digit.
    void decode_data()
    {
        QTest::addColumn<QByteArray>("received");
        QTest::addColumn<int>("position");
        QTest::addColumn<QList<quint32>>("values");
        QTest::newRow("worked example") << QByteArray("\x12H00000017\rv02\rd0000001:\rd000003>9\r")
                                        << 1 << QList<quint32> {26, 1001};
        QTest::newRow("comma and all ones")
            << QByteArray("\x12H00000017\rv02\rd0000,000\rd????????\r") << 1
            << QList<quint32> {0, 0xFFFFFFFF};
    }

    void decode()
    {
        QFETCH(QByteArray, received);
        QFETCH(int, position);
        QFETCH(QList<quint32>, values);
        HustFrames::ResponseMatcher matcher(values.size(), false);
        QCOMPARE(matcher.searchBackward(received), position);
        QList<quint32> decoded;
        for (int i = 0; i < values.size(); ++i)
            decoded << HustFrames::valueOf(matcher.valueText(i), matcher.valueSize(i));
        QCOMPARE(decoded, values);
        // Forward matches count only when a frame's end follows the records.
        const int size = received.size() + 2;
        QCOMPARE(matcher.searchForward(received + "%\x14", size), position);
        QCOMPARE(matcher.searchForward(received + "%.", size), -1);
    }

    // The matcher finds what the regular expression of the response pattern finds, at the same
    // positions and with the same captures, on frames for n - 1 to n + 1 records with random
    // damage: bytes dropped, doubled or replaced by characters at the edges of the grammar.
    void matcherAgreesWithRegExp_data()
    {
        QTest::addColumn<int>("count");
        QTest::addColumn<bool>("lenient");
        for (int n : {0, 1, 3, 99}) {
            QTest::addRow("strict %d", n) << n << false;
            QTest::addRow("lenient %d", n) << n << true;
        }
    }

    void matcherAgreesWithRegExp()
    {
        QFETCH(int, count);
        QFETCH(bool, lenient);
        QRandomGenerator random(quint32(count * 2 + lenient));
        const QByteArray edges("Hvd\r\x12%,/09:?@AF\x14 ");
        QRegExp oracle(HustFrames::responsePattern(count, lenient), Qt::CaseSensitive,
                       QRegExp::RegExp);
        HustFrames::ResponseMatcher matcher(count, lenient);
        // What differs between the matcher's result and the oracle's; empty when they agree.
        const auto difference = [&](int found, int expected) -> QString {
            if (found != expected)
                return QStringLiteral("position %1, expected %2").arg(found).arg(expected);
            if (expected >= 0 && matcher.matchedLength() != oracle.matchedLength())
                return QStringLiteral("length");
            for (int nth = 0; expected >= 0 && nth <= 3; ++nth) {
                if (QString::fromLatin1(matcher.cap(nth)) != oracle.cap(nth))
                    return QStringLiteral("capture %1").arg(nth);
            }
            return QString();
        };
        for (int round = 0; round < 300; ++round) {
            QByteArray input;
            for (int frames = 1 + int(random.bounded(3)); frames > 0; --frames) {
                QByteArrayList texts;
                const int n = qMax(0, count - 1 + int(random.bounded(3)));
                for (int i = 0; i < n; ++i)
                    texts << valueText(random.generate()).right(5 + int(random.bounded(4)));
                input += responseFrame(valueText(random.generate()), texts);
            }
            for (int damage = int(random.bounded(4)); damage > 0; --damage) {
                const int at = int(random.bounded(input.size()));
                switch (random.bounded(3)) {
                case 0:
                    input.remove(at, 1);
                    break;
                case 1:
                    input.insert(at, input.at(at));
                    break;
                default:
                    input[at] = edges.at(int(random.bounded(edges.size())));
                }
            }
            const QString text = QString::fromLatin1(input);
            const QString first = difference(matcher.indexIn(input.constData(), input.size()),
                                             oracle.indexIn(text));
            QVERIFY2(first.isEmpty(), qPrintable(first + " in " + input.toHex()));
            const QString last = difference(matcher.lastIndexIn(input.constData(), input.size()),
                                            oracle.lastIndexIn(text));
            QVERIFY2(last.isEmpty(), qPrintable(last + " in " + input.toHex()));
            // From anywhere, also before the start and past the end.
            const int from = int(random.bounded(2 * input.size() + 7)) - input.size() - 3;
            const QString at = difference(matcher.indexIn(input.constData(), input.size(), from),
                                          oracle.indexIn(text, from))
                + difference(matcher.lastIndexIn(input.constData(), input.size(), from),
                             oracle.lastIndexIn(text, from));
            QVERIFY2(at.isEmpty(),
                     qPrintable(at + QStringLiteral(" from %1 in ").arg(from) + input.toHex()));
        }
    }

    // Windows over streams of an older and a newer frame, cut at every byte. Joining the newest
    // frame's head to the older frame's tail can tear a value (leading digits of one frame,
    // trailing digits of the other) or shift records onto other addresses; the bare pattern
    // accepts such windows, the forward search must not, and it must still accept windows that
    // join safely.
    void forwardSearch_data()
    {
        QTest::addColumn<QByteArrayList>("streams");
        const QList<quint32> older {0x11111111, 0x22222222, 0x33333333};
        const QList<quint32> newer {0x44444444, 0x55555555, 0x66666666};
        const QByteArray whole = responseFrame("00000001", older);
        const QByteArray next = responseFrame("00000002", newer);

        QTest::newRow("whole frames") << QByteArrayList {whole + whole + next + next};
        QByteArrayList cut;
        for (int at = 1; at < whole.size(); ++at)
            cut << whole + whole.left(at) + next;
        QTest::newRow("a frame cut short") << cut;
        const QByteArray shortOlder = responseFrame("00000001", {"11111111", "22222", "33333333"});
        const QByteArray shortNewer
            = responseFrame("00000002", {"44444444", "5555555", "66666666"});
        QTest::newRow("values sent short")
            << QByteArrayList {whole + shortOlder + next + next, whole + next + shortNewer + next,
                               whole + shortOlder + shortNewer + next};
    }

    void forwardSearch()
    {
        QFETCH(QByteArrayList, streams);
        const int size = HustFrames::responseSize(3);
        const QString pattern = HustFrames::responsePattern(3, true);
        // A full value text is wrong when its address never held it; short texts are filled
        // from the last full block by the read cycle.
        const auto wrong = [](const QByteArrayList &texts) {
            for (int i = 0; i < texts.size(); ++i) {
                const quint32 v = HustFrames::valueOf(texts.at(i).constData(), texts.at(i).size());
                if (texts.at(i).size() == 8 && v != 0x11111111u * (i + 1)
                    && v != 0x11111111u * (i + 4))
                    return true;
            }
            return texts.size() != 3;
        };
        int accepted = 0;
        int tornByBarePattern = 0;
        for (const QByteArray &stream : streams) {
            for (int end = size; end <= stream.size(); ++end) {
                QByteArray window = stream.left(end).right(size);
                const int p = window.indexOf('\x12');
                if (p > 0)
                    window = window.mid(p) + window.left(p);
                QRegExp bare(pattern, Qt::CaseSensitive, QRegExp::RegExp);
                if (bare.indexIn(QString::fromLatin1(window)) > 0) {
                    QString records = bare.cap(0);
                    records.remove(bare.cap(1));
                    records.remove(bare.cap(2));
                    records.remove(QLatin1Char('\r'));
                    QByteArrayList texts = records.toLatin1().split('d');
                    texts.removeAll(QByteArray());
                    tornByBarePattern += wrong(texts);
                }

                HustFrames::ResponseMatcher matcher(3, true);
                const QByteArray received = stream.left(end);
                if (matcher.searchForward(received, size) > 0) {
                    ++accepted;
                    QByteArrayList texts;
                    for (int i = 0; i < 3; ++i)
                        texts << QByteArray(matcher.valueText(i), matcher.valueSize(i));
                    QVERIFY2(!wrong(texts), texts.join(' ').constData());
                }
            }
        }
        QVERIFY(tornByBarePattern > 0);
        QVERIFY(accepted > 0);
    }

    // One cycle on scripted chunks. The controller answers every read request for the list with
    // `answer`, and a request for another list with a frame of its count; readCalls 0 leaves the
    // number of reads unchecked. A switch starts loop reading for a new list right after the old
    // one was stopped: `chunks` then holds a frame of the old list when the controller ignored the
    // stop frames and kept streaming (the drain gave up), and a frame of the list it streams is
    // under way, ahead of the answer, whenever a request arrives. No chunks: it stopped.
    void cycle_data()
    {
        QTest::addColumn<int>("count");
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("cmdJustSent");
        QTest::addColumn<QByteArrayList>("chunks");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QByteArray>("expected");
        QTest::addColumn<int>("timeouts");
        QTest::addColumn<int>("requests");
        QTest::addColumn<int>("readCalls");

        const QByteArray oldFrame = responseFrame("00000001", QList<quint32> {1, 2});
        const QByteArray newFrame = responseFrame("00000002", QList<quint32> {3, 4});
        QTest::newRow("behind the tail of an older response")
            << 2 << Immediate << true << QByteArrayList {oldFrame.right(17) + newFrame}
            << QByteArray() << block({3, 4}) << 0 << 0 << 0;
        // Right after a request the old H code means the controller has not seen it yet: resend.
        // The first two records of a longer frame of the list before match; its count does not.
        QTest::newRow("frame of a longer list")
            << 2 << Immediate << true
            << QByteArrayList {responseFrame("00000009", QList<quint32> {7, 8, 9}) + newFrame}
            << QByteArray() << block({3, 4}) << 0 << 0 << 0;
        // Bytes after a NUL are lost: the digits on either side must not join into one value.
        const int cut = newFrame.indexOf("d00000003") + 4;
        QTest::newRow("bytes lost after a NUL") << 2 << Immediate << true
                                                << QByteArrayList {newFrame.left(cut)
                                                                       + QByteArray("\0"
                                                                                    "1234",
                                                                                    5),
                                                                   newFrame.mid(cut)}
                                                << QByteArray() << QByteArray() << 1 << 0 << 0;
        QTest::newRow("stale H code after a request")
            << 2 << Immediate << true << QByteArrayList {oldFrame} << newFrame << block({3, 4}) << 0
            << 1 << 0;
        // After one response's worth of bytes every read brings one byte: one failed match each,
        // up to max(2N, 10) attempts.
        const QByteArrayList drip = QVector<QByteArray>(100, "x").toList();
        QTest::newRow("give up, N=2: 10 attempts")
            << 2 << Immediate << false << (QByteArrayList {QByteArray(45, 'x')} + drip)
            << QByteArray() << QByteArray() << 1 << 0 << 12;
        QTest::newRow("give up, N=30: 60 attempts")
            << 30 << Immediate << false
            << (QByteArrayList {QByteArray(200, 'x'), QByteArray(125, 'x')} + drip) << QByteArray()
            << QByteArray() << 1 << 0 << 2 + 61;
        // The 32nd empty read raises the time-out and restarts the exchange. Without a driver
        // the block only refreshes the last full block.
        QTest::newRow("32nd empty read restarts a loop cycle")
            << 2 << Loop << false << QByteArrayList() << newFrame << block({3, 4}) << 1 << 1 << 33;
        // Between lists of one length a frame of the old list passes the count check: the old
        // stream is fenced off first by a request of another count (two names for a list of one),
        // whose answer the cycle waits for behind the rest of an old frame, however long.
        QTest::newRow("switch, stop frames lost, 1 address")
            << 1 << Switch << false
            << QByteArrayList {responseFrame("00000009", QList<quint32> {1})}
            << responseFrame("00000002", QList<quint32> {3}) << block({3}) << 0 << 2 << 0;
        QList<quint32> values;
        for (quint32 i = 0; i < 99; ++i)
            values << 1000 + i;
        QTest::newRow("switch, stop frames lost, 99 addresses")
            << 99 << Switch << false
            << QByteArrayList {responseFrame("00000009", QVector<quint32>(99, 1).toList())}
            << responseFrame("00000002", values) << block(values) << 0 << 2 << 0;
        QTest::newRow("switch, stop frames lost, old list of another length: no fence")
            << 2 << Switch << false
            << QByteArrayList {responseFrame("00000009", QList<quint32> {7, 8, 9})} << newFrame
            << block({3, 4}) << 0 << 1 << 0;
        QTest::newRow("switch, drain went quiet: no fence")
            << 2 << Switch << false << QByteArrayList() << newFrame << block({3, 4}) << 0 << 1 << 0;
    }

    void cycle()
    {
        QFETCH(int, count);
        QFETCH(int, mode);
        QFETCH(bool, cmdJustSent);
        QFETCH(QByteArrayList, chunks);
        QFETCH(QByteArray, answer);
        QFETCH(QByteArray, expected);
        QFETCH(int, timeouts);
        QFETCH(int, requests);
        QFETCH(int, readCalls);
        QByteArray underWay = mode == Switch ? chunks.value(0) : QByteArray();
        Fixture f(count);
        f.access.cmdJustSent() = cmdJustSent;
        f.access.lastHCode() = "H00000001\r";
        f.worker.m_isStopLoopRead = mode == Immediate;
        if (mode == Switch) {
            // The old screen's request, for a list of the old frame's count.
            const int v = underWay.indexOf('v');
            f.access.setAddrList(names(v < 0 ? count : underWay.mid(v + 1, 2).toInt(), 50));
            f.access.sendTxBufForRead(f.access.packReadBytesCmd());
            f.access.drainGaveUp() = true;
            if (underWay.isEmpty())
                f.worker.stopLoopRead();
            f.port.clearRecord();
        } else {
            for (const QByteArray &c : chunks)
                f.port.queueRead(c);
        }
        DriverHushCNCReaderWriter &worker = f.worker;
        f.port.setResponder([&, answer, count](ScriptedPort &p, const QByteArray &written) {
            if (!written.startsWith(kRequestHead))
                return;
            // From the start of a switch the driver sees a cycle under way and asks for no more.
            QVERIFY(mode != Switch || worker.m_isLoopReading);
            const int asked = written.mid(kRequestHead.size() + 1, 2).toInt();
            const QByteArray reply = asked == count
                ? answer
                : responseFrame("00000007", QVector<quint32>(asked).toList());
            if (!underWay.isEmpty()) {
                p.queueRead(underWay);
                underWay = reply;
            }
            if (!reply.isEmpty())
                p.queueRead(reply);
        });
        QSignalSpy timeoutSpy(&f.worker, &DriverHushCNCReaderWriter::setReadLoopTimeoutError);

        QByteArray response("untouched");
        if (mode == Switch)
            f.worker.startLoopRead(names(count));
        else
            f.access.readFromCNCController(mode == Immediate, &response);

        if (mode != Immediate) {
            QCOMPARE(f.access.lastFullBlock(), expected);
        } else {
            QCOMPARE(response, expected.isEmpty() ? QByteArray("untouched") : expected);
            if (!expected.isEmpty()) {
                QVERIFY(!f.access.cmdJustSent());
                QCOMPARE(f.access.lastHCode(), QByteArray("H00000002\r"));
            }
        }
        QCOMPARE(timeoutSpy.count(), timeouts);
        // Every request is the list's or a fence, a request of another count.
        const QByteArray written = f.port.written();
        const QByteArray request = f.access.packReadBytesCmd();
        const QByteArray countRecord = request.mid(kRequestHead.size(), 4);
        int sent = 0;
        for (int at = written.indexOf(kRequestHead); at >= 0;
             at = written.indexOf(kRequestHead, at + 1), ++sent) {
            QVERIFY(written.mid(at).startsWith(request)
                    || written.mid(at + kRequestHead.size(), 4) != countRecord);
        }
        QCOMPARE(sent, requests);
        // A switch sends its list's request once, after any fence.
        if (mode == Switch) {
            QCOMPARE(written.count(request), 1);
            QVERIFY(written.endsWith(request));
        }
        if (readCalls)
            QCOMPARE(f.port.readCalls(), readCalls);
    }

    // A read cycle on a silent line, or on one held in break (reads bring NUL bytes), ends
    // after three restarts, so that an immediate read's caller is never held for long and a loop
    // cycle never holds the worker's thread. An immediate read stops the stream before asking and
    // leaves the loop state alone; a loop cycle ends with one more restart, so that a link that
    // came back is answered from the next cycle on.
    void cycleOnSilentLine_data()
    {
        QTest::addColumn<bool>("loop");
        QTest::addColumn<QByteArray>("idleRead");
        QTest::newRow("immediate, silent") << false << QByteArray();
        QTest::newRow("immediate, held in break") << false << QByteArray(4, '\0');
        QTest::newRow("loop cycle, silent") << true << QByteArray();
    }

    void cycleOnSilentLine()
    {
        QFETCH(bool, loop);
        QFETCH(QByteArray, idleRead);
        Fixture f;
        f.port.setIdleRead(idleRead);
        QSignalSpy timeoutSpy(&f.worker, &DriverHushCNCReaderWriter::setReadLoopTimeoutError);
        QByteArray response("untouched");
        const QByteArray request("\x12%\rO9000\rN0\rv02\rd00010\rd00011\r%\x14");

        if (loop)
            f.worker.startLoopRead(names(2, 10)); // sends the request and runs the first cycle
        else
            f.worker.getAddrValRightaway(names(2, 10), quintptr(&response));

        // Each of the three restarts and the end raise the time-out, and so does the 16th empty
        // read after each restart.
        QCOMPARE(timeoutSpy.count(), 4 + 3);
        QCOMPARE(f.port.writes().value(0), loop ? request : kStopFrame);
        QCOMPARE(f.port.writes().count(request), 1 + 3 + (loop ? 1 : 0));
        QCOMPARE(f.port.readCalls(), 4 * 32);
        QCOMPARE(response, QByteArray("untouched"));
        QCOMPARE(bool(f.worker.m_isStopLoopRead), !loop);
        QVERIFY(!f.worker.m_isLoopReading);
    }

    // A lost link fails the port's writes. The request is written again at each empty read, so
    // the first answer after the link's return is delivered in the same cycle, not after the
    // next restart.
    void requestWrittenAgainAfterFailedWrite()
    {
        Fixture f;
        DriverHushCNC driver;
        f.worker.setDriverInterface(&driver);
        const QByteArray request("\x12%\rO9000\rN0\rv02\rd00010\rd00011\r%\x14");
        int requests = 0;
        f.port.setWriteResult(0);
        f.port.setResponder([&requests, &request](ScriptedPort &port, const QByteArray &bytes) {
            if (bytes != request)
                return;
            if (++requests == 3)
                port.setWriteResult(-1); // the link is back from the next write on
            else if (requests == 4)
                port.queueRead(responseFrame("00000001", QList<quint32> {5, 6}));
        });

        f.worker.startLoopRead(names(2, 10));

        QCOMPARE(DriverHushCNCTestAccess::blockData(driver), block({5, 6}));
        QCOMPARE(requests, 4);
        QCOMPARE(f.port.readCalls(), 3 + 1);
    }

    // Under the lenient pattern (a full last block for the same list) short values are taken
    // from the last full block; such a block reaches the driver but does not replace the last
    // full block. A last block of another list leaves the strict pattern, which refuses them.
    void shortValues_data()
    {
        QTest::addColumn<QByteArray>("lastFullBlock");
        QTest::addColumn<QByteArray>("delivered");
        QTest::newRow("lenient") << block({0x11, 0x22}) << block({5, 0x22});
        QTest::newRow("strict: last block of another list") << block({0x11}) << QByteArray();
    }

    void shortValues()
    {
        QFETCH(QByteArray, lastFullBlock);
        QFETCH(QByteArray, delivered);
        Fixture f;
        f.port.queueRead(
            responseFrame("00000009", QByteArrayList {"00000005", "000006"}).repeated(20));
        DriverHushCNC driver;
        f.worker.setDriverInterface(&driver);
        f.access.lastHCode() = "H00000001\r";
        f.access.lastFullBlock() = lastFullBlock;
        f.worker.m_isStopLoopRead = false;

        f.access.readFromCNCController(false);

        QCOMPARE(DriverHushCNCTestAccess::blockData(driver), delivered);
        QCOMPARE(f.access.lastFullBlock(), lastFullBlock);
    }

    // Two loop cycles on a scripted stream: `backlog` bytes of `first` wait before the first
    // cycle, the rest arrives during it; `second` arrives for the second cycle, after a write when
    // `write` is set. Each cycle delivers its block of `blocks`. Frames A to D hold 1 2, 3 4, 5 6
    // and 7 8; joining B's head to A's tail at a record boundary is a match the forward search
    // takes.
    void carriedFrame_data()
    {
        QTest::addColumn<int>("backlog");
        QTest::addColumn<QByteArrayList>("first");
        QTest::addColumn<bool>("write");
        QTest::addColumn<QByteArrayList>("second");
        QTest::addColumn<QByteArray>("lastFullBlock");
        QTest::addColumn<QByteArrayList>("blocks");
        const QByteArray a = responseFrame("00000002", QList<quint32> {1, 2});
        const QByteArray b = responseFrame("00000003", QList<quint32> {3, 4});
        const QByteArray c = responseFrame("00000004", QList<quint32> {5, 6});
        const QByteArray d = responseFrame("00000005", QList<quint32> {7, 8});
        const QByteArray shortValue
            = responseFrame("00000006", QByteArrayList {"00000009", "00000:"});
        QTest::newRow("frame split across the backlog and later reads")
            << 27 << QByteArrayList {a.right(7) + b.left(20), b.mid(20)} << false
            << QByteArrayList {c} << QByteArray() << QByteArrayList {block({3, 4}), block({5, 6})};
        QTest::newRow("head read past a match")
            << 0 << QByteArrayList {a.mid(25), b.left(25)} << false << QByteArrayList {b.mid(25)}
            << QByteArray() << QByteArrayList {block({3, 2}), block({3, 4})};
        // B's head and C's tail would make a frame the controller never sent.
        QTest::newRow("a write drops the carried head")
            << 0 << QByteArrayList {a.mid(25), b.left(25)} << true << QByteArrayList {c.mid(25), d}
            << QByteArray() << QByteArrayList {block({3, 2}), block({7, 8})};
        // A frame shorter than a response: reading its rest brings in the next frame's head.
        QTest::newRow("short value under the lenient pattern")
            << 20 << QByteArrayList {shortValue.left(20), shortValue.mid(20) + c.left(2)} << false
            << QByteArrayList {c.mid(2)} << block({0x11, 0x22})
            << QByteArrayList {block({9, 0x22}), block({5, 6})};
    }

    void carriedFrame()
    {
        QFETCH(int, backlog);
        QFETCH(QByteArrayList, first);
        QFETCH(bool, write);
        QFETCH(QByteArrayList, second);
        QFETCH(QByteArray, lastFullBlock);
        QFETCH(QByteArrayList, blocks);
        Fixture f;
        DriverHushCNC driver;
        f.worker.setDriverInterface(&driver);
        f.access.lastHCode() = "H00000001\r";
        f.access.lastFullBlock() = lastFullBlock;
        f.worker.m_isStopLoopRead = false;
        for (const QByteArray &chunk : first)
            f.port.queueRead(chunk);
        f.port.setAvailable(backlog);

        f.worker.loopRead();
        QByteArrayList delivered {DriverHushCNCTestAccess::blockData(driver)};
        f.port.setAvailable(0);
        if (write)
            f.worker.writeBit("B1.1", true);
        for (const QByteArray &chunk : second)
            f.port.queueRead(chunk);
        f.worker.loopRead();
        delivered << DriverHushCNCTestAccess::blockData(driver);

        QCOMPARE(delivered, blocks);
    }

    void stopLoopReadEndsCycleWithoutDelivery()
    {
        Fixture f; // a silent controller: the cycle keeps reading
        SerializedPort serialized(&f.port);
        f.access.setPort(&serialized);
        DriverHushCNC driver;
        f.worker.setDriverInterface(&driver);
        QThread thread;
        f.worker.moveToThread(&thread);
        const auto stopper = qScopeGuard([&thread] {
            thread.quit();
            thread.wait(10000);
        });
        thread.start();

        QMetaObject::invokeMethod(&f.worker, "startLoopRead", Q_ARG(QStringList, names(2)));
        QTRY_VERIFY(f.port.readCalls() > 3);
        QVERIFY(f.worker.m_isLoopReading);
        // A response arrives only once the stop flag is set; the cycle must not deliver it.
        f.worker.m_isStopLoopRead = true;
        f.port.queueRead(responseFrame("00000003", QList<quint32> {5, 6}));
        f.worker.stopLoopRead();

        QTRY_VERIFY(!f.worker.m_isLoopReading);
        QVERIFY(f.worker.m_isStopLoopRead);
        QCOMPARE(f.port.writes().last(), kStopFrame);
        QVERIFY(DriverHushCNCTestAccess::blockData(driver).isEmpty());
    }

    // A controller that never goes quiet: the drain still ends, having asked it to stop again.
    void drainIsBounded()
    {
        Fixture f;
        f.port.setAvailable(10);
        f.access.checkRxBufAndExit();
        QVERIFY(f.access.drainGaveUp());
        QVERIFY(!f.port.writes().isEmpty());
        QCOMPARE(f.port.writes().count(kStopFrame), f.port.writes().size());
    }

    // A bit written between loop cycles stays set in the cache through the blocks of frames that
    // may have left the controller before the write reached it (the first frame to start after
    // it), and goes with the first block that shows the write; from then on blocks count as
    // they come, a bit cleared by the controller included.
    void bitWriteHeldUntilShown()
    {
        Fixture f;
        DriverHushCNC driver;
        f.worker.setDriverInterface(&driver);
        f.access.lastHCode() = "H00000001\r";
        f.worker.m_isStopLoopRead = false;
        DriverHushCNCTestAccess access(driver);
        access.setStreaming(names(2), block({0, 0}));
        QVERIFY(access.writeBit("B1.3", true));
        f.worker.writeBit("B1.3", true);
        f.port.queueRead(responseFrame("00000002", QList<quint32> {0, 0}));
        f.port.queueRead(responseFrame("00000003", QList<quint32> {0, 8}));
        f.port.queueRead(responseFrame("00000004", QList<quint32> {0, 0}));
        QByteArrayList caches;
        for (int cycle = 0; cycle < 3; ++cycle) {
            f.worker.loopRead();
            caches << DriverHushCNCTestAccess::blockData(driver);
        }
        QCOMPARE(caches, (QByteArrayList {block({0, 8}), block({0, 8}), block({0, 0})}));
    }

    // Double-word writes of 1001, all ones and a value of one byte (the data ends there), or a
    // bit write: one frame per value, each right after a discard of the input; a short port
    // write or a refusal raises the matching error signal.
    void writes_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("bit");
        QTest::addColumn<int>("writeResult");
        QTest::addColumn<QByteArrayList>("frames");
        QTest::addColumn<int>("errors");
        const auto dw = [](const char *n, const char *v) {
            return QByteArray("\x12%\rO9012\r") + n + "\rd" + v + "\r%\x14";
        };
        const QByteArrayList set {"\x12%\rO9013\rN00012\rd07\r%\x14"};
        QTest::newRow("DW99997 x3")
            << "DW99997" << 3 << -1 << -1
            << QByteArrayList {dw("N99997", "000003>9"), dw("N99998", "????????"),
                               dw("N99999", "00000005")}
            << 0;
        QTest::newRow("short dword write")
            << "DW100" << 1 << -1 << 5 << QByteArrayList {dw("N00100", "000003>9")} << 1;
        QTest::newRow("beyond 99999") << "DW99999" << 2 << -1 << -1 << QByteArrayList() << 1;
        QTest::newRow("set B12.7") << "B12.7" << 0 << 1 << -1 << set << 0;
        QTest::newRow("clear B1.99")
            << "B1.99" << 0 << 0 << -1 << QByteArrayList {"\x12%\rO9014\rN00001\rd99\r%\x14"} << 0;
        QTest::newRow("short bit write") << "B12.7" << 0 << 1 << 21 << set << 1;
        QTest::newRow("bit 100 refused") << "B12.100" << 0 << 1 << -1 << QByteArrayList() << 1;
        QTest::newRow("address 100000 refused")
            << "B100000.1" << 0 << 1 << -1 << QByteArrayList() << 1;
    }

    void writes()
    {
        QFETCH(QString, address);
        QFETCH(int, length);
        QFETCH(int, bit);
        QFETCH(int, writeResult);
        QFETCH(QByteArrayList, frames);
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
};

QTEST_GUILESS_MAIN(TestWorkerFrames)
#include "tst_workerframes.moc"
