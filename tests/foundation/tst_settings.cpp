#include "drv_dev_setting.h"

#include <QBuffer>
#include <QtTest>

namespace {

QByteArray streamed(const DeviceSetting &s)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out.setVersion(QDataStream::Qt_4_8);
    out << s;
    return bytes;
}

QByteArray streamed(const DriverSetting &s)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out.setVersion(QDataStream::Qt_4_8);
    out << s;
    return bytes;
}

// Big-endian helpers to spell out the persisted layout independently of the stream operators.
QByteArray be32(quint32 v)
{
    return QByteArray::fromHex(QByteArray::number(v, 16).rightJustified(8, '0'));
}

QByteArray be16(quint16 v)
{
    return QByteArray::fromHex(QByteArray::number(v, 16).rightJustified(4, '0'));
}

QByteArray qstr(const QString &s)
{
    QByteArray utf16;
    for (QChar c : s)
        utf16 += be16(c.unicode());
    return be32(quint32(utf16.size())) + utf16;
}

QStringList messages;
void captureMessage(QtMsgType, const QMessageLogContext &, const QString &text)
{
    messages << text;
}

void readInto(const QByteArray &bytes, DeviceSetting &s)
{
    QDataStream in(bytes);
    in.setVersion(QDataStream::Qt_4_8);
    in >> s;
}

} // namespace

class TestSettings : public QObject
{
    Q_OBJECT

private slots:
    void deviceSettingGolden()
    {
        DeviceSetting s(DEVICE_SERIAL, QStringLiteral("COM1"), 38400, 7, 2, 2, 5, QStringLiteral("x"));
        s.setSocketData({{QStringLiteral("10.0.0.1"), QStringLiteral("502")}});
        const QByteArray expected = be32(16) + qstr(QStringLiteral("COM1")) + be32(38400) + be32(7)
                                    + be32(2) + be32(2) + be32(5) + be32(quint32(-1)) + be32(0)
                                    + be32(1) + qstr(QStringLiteral("10.0.0.1")) + be16(502);
        QCOMPARE(streamed(s), expected);
    }

    void deviceSettingRoundTrip()
    {
        DeviceSetting s(DEVICE_SERIAL, QStringLiteral("/dev/ttyS1"), 9600, 8, 1, 0);
        s.linkID = 4;
        s.setSocketData({{QStringLiteral("a"), QStringLiteral("1")}, {QStringLiteral("b"), QStringLiteral("2")}});
        s.setCurrentIPIndex(1);

        DeviceSetting r(DEVICE_NONE, QString(), 0, 0, 0, 0);
        readInto(streamed(s), r); // index checked against the old, empty list: stays 0
        QCOMPARE(r.currentIPIndex, 0);
        readInto(streamed(s), r); // now the list has two entries
        QCOMPARE(r.currentIPIndex, 1);
        QCOMPARE(streamed(r), streamed(s));
        QCOMPARE(r.string, s.string);
        QCOMPARE(r.socketIP(-1), QStringLiteral("b"));
        QCOMPARE(r.port(-1), quint16(2));
    }

    void damagedStreams_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("sockets");
        const QByteArray head = be32(16) + qstr(QStringLiteral("COM1")) + be32(38400) + be32(7)
                                + be32(2) + be32(2) + be32(0) + be32(quint32(-1)) + be32(0);
        QTest::newRow("empty") << QByteArray() << 0;
        QTest::newRow("cut in the name") << head.left(7) << 0;
        QTest::newRow("no socket count") << head << 0;
        QTest::newRow("huge count, one entry") << head + be32(0xFFFFFFFFu) + qstr("h") + be16(7) << 1;
        QTest::newRow("huge count, cut entry") << head + be32(0xFFFFFFFFu) + qstr("h") + be16(7) + be32(100) << 1;
        QTest::newRow("huge string length") << be32(16) + be32(0x7FFFFFF0u) + "abc" << 0;
    }

    void damagedStreams()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(int, sockets);
        DeviceSetting s(DEVICE_NONE, QString(), 1, 2, 3, 4);
        readInto(bytes, s);
        QCOMPARE(s.sockets.size(), sockets);
    }

    void socketAccessors()
    {
        DeviceSetting s(DEVICE_SERIAL, QStringLiteral("COM1"), 38400, 7, 2, 2);
        QCOMPARE(s.socketIP(-1), QString());
        QCOMPARE(s.port(-1), quint16(0));
        s.setSocketData({{QStringLiteral("a"), QStringLiteral("65535")}, {QStringLiteral("b"), QStringLiteral("http")}});
        QCOMPARE(s.port(0), quint16(65535));
        QCOMPARE(s.port(1), quint16(0));
        s.setSocketIP(QStringLiteral("z"), 5);
        s.setPort(9, 2);
        s.setCurrentIPIndex(2);
        QCOMPARE(s.socketIP(0), QStringLiteral("a"));
        QCOMPARE(s.socketIP(1), QStringLiteral("b"));
        QCOMPARE(s.currentIPIndex, 0);
        s.setPort(9, -1);
        QCOMPARE(s.port(0), quint16(9));
    }

    void dumpText()
    {
        messages.clear();
        QLoggingCategory::setFilterRules(QStringLiteral("hust.support.debug=true"));
        const QtMessageHandler previous = qInstallMessageHandler(captureMessage);
        DeviceSetting(DEVICE_SERIAL, QStringLiteral("COM1"), 38400, 7, 2, 2).dump();
        DriverSetting(1, 2, 3, 4).dump();
        qInstallMessageHandler(previous);
        QCOMPARE(messages,
                 QStringList({QStringLiteral("type: 16 string: \"COM1\" baudrate: 38400 databits: 7 "
                                             "stopbits: 2 parity: 2 linkID: -1 current ip: \"\" current port: 0"),
                              QStringLiteral("timeout: 1 retry: 2 stationid: 3 delay: 4")}));
    }

    void driverSetting()
    {
        const DriverSetting four(100, 3, 7, 20);
        const DriverSetting six(100, 3, 7, 20, QStringLiteral("10.1.1.1"), 502);
        QCOMPARE(streamed(six), streamed(four));
        QCOMPARE(streamed(four), be32(100) + be32(3) + be32(7) + be32(20));

        DriverSetting target(0, 0, 0, 0, QString(), 0, QString(), false);
        target.copy(DriverSetting(1, 2, 3, 4, QString(), 0, QStringLiteral("t"), true));
        QCOMPARE(target.extraFlag, false);
        QCOMPARE(target.extraText, QStringLiteral("t"));
        QCOMPARE(streamed(target), be32(1) + be32(2) + be32(3) + be32(4));

        DriverSetting r(9, 9, 9, 9);
        QDataStream in(be32(5) + be32(6));
        in >> r;
        QCOMPARE(in.status(), QDataStream::ReadPastEnd);
        QCOMPARE(r.timeout, 5);
        QCOMPARE(r.stationid, 0);
    }
};

QTEST_GUILESS_MAIN(TestSettings)
#include "tst_settings.moc"
