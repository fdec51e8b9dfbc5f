#include "hustframes.h"
#include "workertestsupport.h"

#include <QtTest>

using namespace WorkerTest;

class TestWorkerFrames : public QObject
{
    Q_OBJECT

private slots:
    void readRequest_data();
    void readRequest();
    void decode_data();
    void decode();
    void forwardSearch_data();
    void forwardSearch();
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
    access.cmdJustSent() = false;
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
    QTest::newRow("v digits not compared") << QByteArray("\x12H00000001\rv07\rd00000005\r") << 1
                                           << false << 1 << QStringList {"00000005"};
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
    const int size = received.size() + 2;
    QCOMPARE(matcher.searchForward(received + "%\x14", size), position);
    if (position >= 0)
        QCOMPARE(matcher.searchForward(received + "%.", size), -1);
}

// Windows over streams of an older and a newer frame, cut at every byte. Joining the newest
// frame's head to the older frame's tail can tear a value (leading digits of one frame, trailing
// digits of the other) or shift records onto other addresses; the bare pattern accepts such
// windows, the forward search must not, and it must still accept windows that join safely.
void TestWorkerFrames::forwardSearch_data()
{
    QTest::addColumn<QList<QByteArray>>("streams");
    const QList<quint32> older {0x11111111, 0x22222222, 0x33333333};
    const QList<quint32> newer {0x44444444, 0x55555555, 0x66666666};
    const QByteArray whole = responseFrame("00000001", older);
    const QByteArray next = responseFrame("00000002", newer);

    QTest::newRow("whole frames") << QList<QByteArray> {whole + whole + next + next};
    QList<QByteArray> cut;
    for (int at = 1; at < whole.size(); ++at)
        cut << whole + whole.left(at) + next;
    QTest::newRow("a frame cut short") << cut;
    const QByteArray shortOlder = responseFrame("00000001", {"11111111", "22222", "33333333"});
    const QByteArray shortNewer = responseFrame("00000002", {"44444444", "5555555", "66666666"});
    QTest::newRow("values sent short")
        << QList<QByteArray> {whole + shortOlder + next + next, whole + next + shortNewer + next,
                              whole + shortOlder + shortNewer + next};
}

void TestWorkerFrames::forwardSearch()
{
    QFETCH(QList<QByteArray>, streams);
    const int size = HustFrames::responseSize(3);
    const QString pattern = HustFrames::responsePattern(3, true);
    // A full value text is wrong when its address never held it; short texts are filled from
    // the last full block by the read cycle.
    const auto wrong = [](const QStringList &texts) {
        for (int i = 0; i < texts.size(); ++i) {
            const quint32 v = HustFrames::valueOf(texts.at(i));
            if (texts.at(i).size() == 8 && v != 0x11111111u * (i + 1) && v != 0x11111111u * (i + 4))
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
                tornByBarePattern += wrong(records.split(QLatin1Char('d'), Qt::SkipEmptyParts));
            }

            HustFrames::ResponseMatcher matcher(pattern);
            if (matcher.searchForward(stream.left(end), size) > 0) {
                ++accepted;
                QVERIFY2(!wrong(matcher.valueTexts()),
                         qPrintable(QStringLiteral("window ending at %1: %2")
                                        .arg(end)
                                        .arg(matcher.valueTexts().join(QLatin1Char(' ')))));
            }
        }
    }
    QVERIFY(tornByBarePattern > 0);
    QVERIFY(accepted > 0);
}

QTEST_GUILESS_MAIN(TestWorkerFrames)
#include "tst_workerframes.moc"
