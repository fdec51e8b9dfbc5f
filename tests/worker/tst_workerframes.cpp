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
    void readRequestPieces_data();
    void readRequestPieces();
    void writeFrames_data();
    void writeFrames();
    void stopFrameIsFixed();
    void decode_data();
    void decode();
    void forwardSearchOnWholeFrames();
    void forwardSearchRefusesSplices();
    void shortValuesTakeCachedBytes_data();
    void shortValuesTakeCachedBytes();
    void bitLocation_data();
    void bitLocation();
    void wordTypeAddress_data();
    void wordTypeAddress();
    void packDWordList_data();
    void packDWordList();
};

void TestWorkerFrames::readRequest_data()
{
    QTest::addColumn<QStringList>("addresses");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("two") << QStringList {"d00010", "d00011"}
                         << QByteArray("\x12%\rO9000\rN0\rv02\rd00010\rd00011\r%\x14");
    QTest::newRow("empty") << QStringList() << QByteArray("\x12%\rO9000\rN0\rv00\r%\x14");
    QByteArray ninetyNine("\x12%\rO9000\rN0\rv99\r");
    for (const QString &n : names(99))
        ninetyNine.append(n.toLatin1()).append('\r');
    QTest::newRow("99") << names(99) << ninetyNine.append("%\x14");
    QTest::newRow("100 refused") << names(100) << QByteArray();
}

void TestWorkerFrames::readRequest()
{
    QFETCH(QStringList, addresses);
    QFETCH(QByteArray, expected);
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setAddrList(addresses);
    const QByteArray frame = access.packReadBytesCmd();
    QCOMPARE(frame, expected);
    if (!expected.isEmpty()) {
        QCOMPARE(frame.size(), 18 + 7 * addresses.size());
        QCOMPARE(access.calculateRxBufSize(), 10 * addresses.size() + 25);
    }
}

void TestWorkerFrames::readRequestPieces_data()
{
    QTest::addColumn<QStringList>("addresses");
    QTest::addColumn<QList<int>>("pieces");
    QTest::newRow("99 addresses") << names(99) << QList<int> {230, 230, 230, 21};
    // 29 six-character names and one of eight make a frame of exactly 230 bytes.
    QTest::newRow("230 bytes") << (names(29) << "d0000099") << QList<int> {230};
    QTest::newRow("231 bytes") << (names(29) << "d00000999") << QList<int> {230, 1};
    QTest::newRow("refused frame") << names(100) << QList<int>();
}

void TestWorkerFrames::readRequestPieces()
{
    QFETCH(QStringList, addresses);
    QFETCH(QList<int>, pieces);
    ScriptedPort port;
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    access.setAddrList(addresses);
    access.setCmdJustSent(false);
    const QByteArray frame = access.packReadBytesCmd();
    access.sendTxBufForRead(frame);

    QList<int> sizes;
    for (const QByteArray &w : port.writes())
        sizes << w.size();
    QCOMPARE(sizes, pieces);
    QCOMPARE(port.written(), frame);
    // A refused frame sends nothing at all, not even the discard.
    QCOMPARE(port.discardCalls(), pieces.isEmpty() ? 0 : 1);
    QCOMPARE(access.cmdJustSent(), !pieces.isEmpty());
}

void TestWorkerFrames::writeFrames_data()
{
    QTest::addColumn<bool>("isBit");
    QTest::addColumn<int>("address");
    QTest::addColumn<quint32>("value");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("dword 1001 to 10800")
        << false << 10800 << 1001u << QByteArray("\x12%\rO9012\rN10800\rd000003>9\r%\x14");
    QTest::newRow("dword zero") << false << 0 << 0u
                                << QByteArray("\x12%\rO9012\rN00000\rd00000000\r%\x14");
    QTest::newRow("dword all ones")
        << false << 99999 << 0xFFFFFFFFu << QByteArray("\x12%\rO9012\rN99999\rd????????\r%\x14");
    QTest::newRow("dword address too big") << false << 100000 << 1u << QByteArray();
    QTest::newRow("dword negative address") << false << -1 << 1u << QByteArray();
    // For bit frames the value column holds bit position * 2 + (set ? 1 : 0).
    QTest::newRow("set bit 5 of 100")
        << true << 100 << (5u * 2 + 1) << QByteArray("\x12%\rO9013\rN00100\rd05\r%\x14");
    QTest::newRow("clear bit 7 of 12")
        << true << 12 << (7u * 2) << QByteArray("\x12%\rO9014\rN00012\rd07\r%\x14");
    QTest::newRow("bit 99") << true << 1 << (99u * 2)
                            << QByteArray("\x12%\rO9014\rN00001\rd99\r%\x14");
    QTest::newRow("bit 100 refused") << true << 1 << (100u * 2) << QByteArray();
    QTest::newRow("bit address too big") << true << 100000 << 2u << QByteArray();
}

void TestWorkerFrames::writeFrames()
{
    QFETCH(bool, isBit);
    QFETCH(int, address);
    QFETCH(quint32, value);
    QFETCH(QByteArray, expected);
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    const QByteArray frame = isBit
        ? access.packWriteBtypeBitCmd(address, int(value / 2), value % 2 == 1)
        : access.packWriteDWordCmd(address, value);
    QCOMPARE(frame, expected);
    if (!expected.isEmpty())
        QCOMPARE(frame.size(), isBit ? 22 : 28);
}

void TestWorkerFrames::stopFrameIsFixed()
{
    ScriptedPort port;
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setPort(&port);
    access.sendStopSendCommand();
    access.sendStopSendCommand();
    const QByteArray stop("\x12%\rO9000\rN1\r%\x14");
    QCOMPARE(stop.size(), 14);
    QCOMPARE(port.writes(), (QList<QByteArray> {stop, stop}));
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
    QTest::newRow("digits and letters") << QByteArray("\x12H????????\rv01\rd01:;<=>?\r") << 1
                                        << false << 1 << QStringList {"01ABCDEF"};
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
            QCOMPARE(matcher.searchForward(window), bare.indexIn(QString::fromLatin1(window)));
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

void TestWorkerFrames::shortValuesTakeCachedBytes_data()
{
    QTest::addColumn<QStringList>("texts");
    QTest::addColumn<QByteArray>("lastFullBlock");
    QTest::addColumn<QByteArray>("expected");
    QTest::addColumn<bool>("full");
    const QByteArray cache = block({0x11111111, 0x22222222});
    QTest::newRow("worked example") << QStringList {"0000001A", "000003E9"} << QByteArray()
                                    << QByteArray::fromHex("1a000000e9030000") << true;
    QTest::newRow("all ones and comma")
        << QStringList {"FFFFFFFF", "0000,000"} << QByteArray() << block({0xFFFFFFFF, 0}) << true;
    QTest::newRow("short value from cache")
        << QStringList {"00000005", "00006"} << cache << block({5, 0x22222222}) << false;
    QTest::newRow("cache of another size")
        << QStringList {"00000005", "00006"} << block({1}) << block({5}) << false;
}

void TestWorkerFrames::shortValuesTakeCachedBytes()
{
    QFETCH(QStringList, texts);
    QFETCH(QByteArray, lastFullBlock);
    QFETCH(QByteArray, expected);
    QFETCH(bool, full);
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess access(worker);
    access.setLastFullBlock(lastFullBlock);
    bool isFull = !full;
    QCOMPARE(access.extractDataFromRespBuf(texts, texts.size(), isFull), expected);
    QCOMPARE(isFull, full);
}

void TestWorkerFrames::bitLocation_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<int>("bit");
    QTest::newRow("B12.7") << "B12.7" << 7;
    QTest::newRow("B12") << "B12" << 0;
    QTest::newRow("B12.x") << "B12.x" << 0;
    QTest::newRow("B10800.31") << "B10800.31" << 31;
    QTest::newRow("I37") << "I37" << 5;
    QTest::newRow("O255") << "O255" << 31;
    QTest::newRow("A32") << "A32" << 0;
}

void TestWorkerFrames::bitLocation()
{
    QFETCH(QString, address);
    QFETCH(int, bit);
    QCOMPARE(DriverHushCNCReaderWriter::getBitLoc(address), bit);
}

void TestWorkerFrames::wordTypeAddress_data()
{
    QTest::addColumn<QString>("prefix");
    QTest::addColumn<int>("address");
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("newAddress");
    QTest::addColumn<int>("newLength");
    QTest::newRow("DW unchanged") << "DW" << 100 << 3 << 100 << 3;
    QTest::newRow("B unchanged") << "B" << 10800 << 0 << 10800 << 0;
    QTest::newRow("I0 length 1") << "I" << 0 << 1 << 10800 << 1;
    QTest::newRow("C35 length 0") << "C" << 35 << 0 << 10817 << 1;
    QTest::newRow("O255 length 3") << "O" << 255 << 3 << 10815 << 2;
    QTest::newRow("S0 length 4") << "S" << 0 << 4 << 10824 << 2;
    QTest::newRow("A40") << "A" << 40 << 4 << 10833 << 2;
    QTest::newRow("other prefix") << "X" << 100 << 2 << 3 << 1;
    QTest::newRow("lower case is other") << "i" << 64 << 1 << 2 << 1;
}

void TestWorkerFrames::wordTypeAddress()
{
    QFETCH(QString, prefix);
    QFETCH(int, address);
    QFETCH(int, length);
    DriverHushCNCReaderWriter::reCalculateAddrAndLengthForWordType(prefix, address, length);
    QTEST(address, "newAddress");
    QTEST(length, "newLength");
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
    QTest::newRow("none") << QByteArray::fromHex("01020304") << 0 << QVector<DWORD>();
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
