#include "drv_dev_setting.h"

#include <QtTest>

namespace {

template<typename Setting> QByteArray streamed(const Setting &s)
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
    void deviceSetting()
    {
        DeviceSetting s(DEVICE_SERIAL, QStringLiteral("COM1"), 38400, 7, 2, 2, 5,
                        QStringLiteral("x"));
        s.setSocketData({{QStringLiteral("10.0.0.1"), QStringLiteral("502")},
                         {QStringLiteral("b"), QStringLiteral("2")}});
        s.setCurrentIPIndex(1);
        const QByteArray expected = be32(16) + qstr(QStringLiteral("COM1")) + be32(38400) + be32(7)
            + be32(2) + be32(2) + be32(5) + be32(quint32(-1)) + be32(1) + be32(2)
            + qstr(QStringLiteral("10.0.0.1")) + be16(502) + qstr(QStringLiteral("b")) + be16(2);
        QCOMPARE(streamed(s), expected);

        DeviceSetting r(DEVICE_NONE, QString(), 0, 0, 0, 0);
        readInto(expected, r); // index checked against the old, empty list: stays 0
        QCOMPARE(r.currentIPIndex, 0);
        readInto(expected, r); // now the list has two entries
        QCOMPARE(streamed(r), expected);
    }

    void damagedStreams_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("sockets");
        const QByteArray head = be32(16) + qstr(QStringLiteral("COM1")) + be32(38400) + be32(7)
            + be32(2) + be32(2) + be32(0) + be32(quint32(-1)) + be32(0);
        QTest::newRow("cut in the name") << head.left(7) << 0;
        QTest::newRow("no socket count") << head << 0;
        QTest::newRow("huge count, one entry")
            << head + be32(0xFFFFFFFFu) + qstr("h") + be16(7) << 1;
        QTest::newRow("huge count, cut entry")
            << head + be32(0xFFFFFFFFu) + qstr("h") + be16(7) + be32(100) << 1;
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

    // Indices outside the list read as nothing and change nothing; a port that is no number is 0.
    void socketIndices()
    {
        DeviceSetting s(DEVICE_SERIAL, QStringLiteral("COM1"), 38400, 7, 2, 2);
        QCOMPARE(s.socketIP(-1), QString());
        s.setSocketData({{QStringLiteral("a"), QStringLiteral("http")}});
        s.setSocketIP(QStringLiteral("z"), 1);
        QCOMPARE(s.socketIP(-1), QStringLiteral("a"));
        QCOMPARE(s.port(0), quint16(0));
    }

    void driverSetting()
    {
        const DriverSetting four(100, 3, 7, 20);
        const DriverSetting six(100, 3, 7, 20, QStringLiteral("10.1.1.1"), 502);
        QCOMPARE(streamed(six), streamed(four));
        QCOMPARE(streamed(four), be32(100) + be32(3) + be32(7) + be32(20));

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
