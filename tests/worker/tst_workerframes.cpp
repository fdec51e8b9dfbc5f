#include "hustframes.h"
#include "workertestsupport.h"

#include <QtTest>

using namespace WorkerTest;

Q_DECLARE_METATYPE(QList<quint32>)

class TestWorkerFrames : public QObject
{
    Q_OBJECT

private slots:
    void readRequest_data();
    void readRequest();
    void writeFrames_data();
    void writeFrames();
    void stopFrame();
    void decode_data();
    void decode();
    void forwardSearchOnWholeFrames();
    void forwardSearchRefusesSplices();
    void packDWordList_data();
    void packDWordList();
};

// Requests leave in pieces of at most 230 bytes after one discard; a refused one sends nothing.
void TestWorkerFrames::readRequest_data()
{
    QTest::addColumn<QStringList>("addresses");
    QTest::addColumn<QByteArray>("expected");
    QTest::addColumn<QList<int>>("pieces");
    const auto request = [](const QStringList &list) {
        QByteArray f
            = "\x12%\rO9000\rN0\rv" + QByteArray::number(list.size()).rightJustified(2, '0');
        return f.append('\r').append(list.join('\r').toLatin1()).append("\r%\x14");
    };
    QTest::newRow("two") << QStringList {"d00010", "d00011"}
                         << QByteArray("\x12%\rO9000\rN0\rv02\rd00010\rd00011\r%\x14")
                         << QList<int> {32};
    QTest::newRow("empty") << QStringList() << QByteArray("\x12%\rO9000\rN0\rv00\r%\x14")
                           << QList<int> {18};
    QTest::newRow("99") << names(99) << request(names(99)) << QList<int> {230, 230, 230, 21};
    // 29 six-character names and one of eight make a frame of exactly 230 bytes.
    const QStringList one230 = names(29) << "d0000099";
    QTest::newRow("230 bytes") << one230 << request(one230) << QList<int> {230};
    QTest::newRow("100 refused") << names(100) << QByteArray() << QList<int>();
}

void TestWorkerFrames::readRequest()
{
    QFETCH(QStringList, addresses);
    QFETCH(QByteArray, expected);
    QFETCH(QList<int>, pieces);
    ScriptedPort port;
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    access.setAddrList(addresses);
    access.setCmdJustSent(false);
    const QByteArray frame = access.packReadBytesCmd();
    QCOMPARE(frame, expected);
    access.sendTxBufForRead(frame);

    QList<int> sizes;
    for (const QByteArray &w : port.writes())
        sizes << w.size();
    QCOMPARE(sizes, pieces);
    QCOMPARE(port.written(), frame);
    QCOMPARE(port.discardCalls(), pieces.isEmpty() ? 0 : 1);
    QCOMPARE(access.cmdJustSent(), !pieces.isEmpty());
    if (!expected.isEmpty())
        QCOMPARE(access.calculateRxBufSize(), 10 * addresses.size() + 25);
}

// Double-word writes; bit frames are checked through writeBit on the port.
void TestWorkerFrames::writeFrames_data()
{
    QTest::addColumn<int>("address");
    QTest::addColumn<quint32>("value");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("1001 to 10800")
        << 10800 << 1001u << QByteArray("\x12%\rO9012\rN10800\rd000003>9\r%\x14");
    QTest::newRow("all ones to 99999")
        << 99999 << 0xFFFFFFFFu << QByteArray("\x12%\rO9012\rN99999\rd????????\r%\x14");
    QTest::newRow("address too big") << 100000 << 1u << QByteArray();
    QTest::newRow("negative address") << -1 << 1u << QByteArray();
}

void TestWorkerFrames::writeFrames()
{
    QFETCH(int, address);
    QFETCH(quint32, value);
    DriverHushCNCReaderWriter worker;
    QTEST(DriverHushCNCReaderWriterTestAccess(worker).packWriteDWordCmd(address, value),
          "expected");
}

// The stop frame goes out as it is, without a discard before it.
void TestWorkerFrames::stopFrame()
{
    ScriptedPort port;
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    access.sendStopSendCommand();
    QCOMPARE(port.written(), QByteArray("\x12%\rO9000\rN1\r%\x14"));
    QCOMPARE(port.discardCalls(), 0);
}

void TestWorkerFrames::decode_data()
{
    QTest::addColumn<QByteArray>("received");
    QTest::addColumn<int>("count");
    QTest::addColumn<bool>("lenient");
    QTest::addColumn<int>("position");
    QTest::addColumn<QStringList>("values");

    const QByteArray example("\x12H00000017\rv02\rd0000001:\rd000003>9\r");
    QTest::newRow("worked example")
        << example << 2 << false << 1 << QStringList {"0000001A", "000003E9"};
    QTest::newRow("comma") << QByteArray("\x12H0000,000\rv01\rd0000,000\r") << 1 << false << 1
                           << QStringList {"0000,000"};
    QTest::newRow("v digits not compared") << QByteArray("\x12H00000001\rv07\rd00000005\r") << 1
                                           << false << 1 << QStringList {"00000005"};
    QTest::newRow("no records") << QByteArray("\x12H00000001\rv00\r") << 0 << false << 1
                                << QStringList();
    QTest::newRow("strict refuses short") << QByteArray("\x12H00000001\rv02\rd00005\rd00000006\r")
                                          << 2 << false << -1 << QStringList();
    QTest::newRow("lenient 5 to 7") << QByteArray("\x12H00001\rv03\rd00005\rd000006\rd0000007\r")
                                    << 3 << true << 1 << QStringList {"00005", "000006", "0000007"};
    QTest::newRow("lenient refuses 4")
        << QByteArray("\x12H00000001\rv01\rd0005\r") << 1 << true << -1 << QStringList();
    QTest::newRow("letters A-F are not value characters")
        << QByteArray("\x12H00000001\rv01\rd000000AB\r") << 1 << false << -1 << QStringList();
}

void TestWorkerFrames::decode()
{
    QFETCH(QByteArray, received);
    QFETCH(int, count);
    QFETCH(bool, lenient);
    QFETCH(int, position);
    QFETCH(QStringList, values);
    HustFrames::ResponseMatcher matcher(HustFrames::responsePattern(count, lenient));
    QCOMPARE(matcher.searchBackward(received), position);
    if (position >= 0)
        QCOMPARE(matcher.valueTexts(), values);
    // Forward matches count only when a frame's end follows the records.
    QCOMPARE(matcher.searchForward(received + "%\x14"), position);
    if (position >= 0)
        QCOMPARE(matcher.searchForward(received + "%"), -1);
}

// In a stream of whole frames, whatever window the forward search sees, it finds the same
// match as the bare pattern: the guard changes nothing that such a stream delivers.
void TestWorkerFrames::forwardSearchOnWholeFrames()
{
    const QByteArray older = responseFrame("00000001", QList<quint32> {11, 22, 33});
    const QByteArray newer = responseFrame("00000002", QList<quint32> {44, 55, 66});
    const QByteArray stream = older + older + newer + newer;
    const int size = HustFrames::responseSize(3);
    for (bool lenient : {false, true}) {
        const QString pattern = HustFrames::responsePattern(3, lenient);
        for (int end = size; end <= stream.size(); ++end) {
            QByteArray window = stream.left(end);
            HustFrames::trimAndRotate(window, size);
            QRegExp bare(pattern, Qt::CaseSensitive, QRegExp::RegExp);
            HustFrames::ResponseMatcher matcher(pattern);
            const int expected = bare.indexIn(QString::fromLatin1(window));
            QVERIFY(expected > 0); // on whole frames the forward search never fails
            QCOMPARE(matcher.searchForward(window), expected);
        }
    }
}

// A frame cut short and followed by the next frame's head can be joined by the rotation so that
// records land on the wrong addresses; the forward search refuses every such window.
void TestWorkerFrames::forwardSearchRefusesSplices()
{
    const QByteArray whole = responseFrame("00000001", QList<quint32> {11, 22, 33});
    const QByteArray newer = responseFrame("00000002", QList<quint32> {44, 55, 66});
    const int size = HustFrames::responseSize(3);
    const QString pattern = HustFrames::responsePattern(3, false);
    // A record is wrong when it holds neither its address's older nor its newer value.
    const auto wrong = [](const QStringList &texts) {
        for (int i = 0; i < texts.size(); ++i) {
            const quint32 v = HustFrames::valueOf(texts.at(i));
            if (v != quint32(11 * (i + 1)) && v != quint32(11 * (i + 4)))
                return true;
        }
        return false;
    };
    int wrongByBarePattern = 0;
    for (int cut = 1; cut < whole.size(); ++cut) {
        for (int arrived = 1; arrived < newer.size(); ++arrived) {
            QByteArray window = whole + whole.left(cut) + newer.left(arrived);
            HustFrames::trimAndRotate(window, size);
            QRegExp bare(pattern, Qt::CaseSensitive, QRegExp::RegExp);
            if (bare.indexIn(QString::fromLatin1(window)) > 0) {
                QString records = bare.cap(0);
                records.remove(bare.cap(1));
                records.remove(bare.cap(2));
                records.remove(QLatin1Char('\r'));
                wrongByBarePattern += wrong(records.split(QLatin1Char('d'), Qt::SkipEmptyParts));
            }
            HustFrames::ResponseMatcher matcher(pattern);
            if (matcher.searchForward(window) > 0)
                QVERIFY2(!wrong(matcher.valueTexts()),
                         qPrintable(QStringLiteral("cut at %1, %2 bytes of the next frame")
                                        .arg(cut)
                                        .arg(arrived)));
        }
    }
    QVERIFY(wrongByBarePattern > 0);
}

void TestWorkerFrames::packDWordList_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<int>("count");
    QTest::addColumn<QVector<DWORD>>("expected");
    QTest::newRow("6 bytes for 2")
        << QByteArray::fromHex("0102030405 06") << 2 << QVector<DWORD> {0x04030201, 0x0605};
    QTest::newRow("beyond the data")
        << QByteArray::fromHex("ff") << 3 << QVector<DWORD> {0xff, 0, 0};
    QTest::newRow("negative") << QByteArray::fromHex("01020304") << -2 << QVector<DWORD>();
}

void TestWorkerFrames::packDWordList()
{
    QFETCH(QByteArray, data);
    QFETCH(int, count);
    QFETCH(QVector<DWORD>, expected);
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    QVector<DWORD> dwords {42};
    access.packDWordList(data, dwords, count);
    QCOMPARE(dwords, QVector<DWORD> {42} + expected);
}

QTEST_GUILESS_MAIN(TestWorkerFrames)
#include "tst_workerframes.moc"
