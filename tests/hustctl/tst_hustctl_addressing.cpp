#include "addressing.h"
#include "output.h"

#include <QtTest>

// Address rules and output cases that the process tests of hustctl do not reach.
class TestHustctlAddressing : public QObject
{
    Q_OBJECT

private slots:
    void requests_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("type");
        QTest::addColumn<int>("count");
        // Requests (address/dataType/length), item labels and double words, "; "-separated.
        QTest::addColumn<QString>("made");

        QTest::newRow("B bits carry into the next word")
            << "B10.31"
            << "" << 2 << "B10.31/0/1 B11.0/0/1; B10.31 B11.0; 10 11";
        QTest::newRow("output words") << "O16"
                                      << "word" << 2 << "O16/2/2; O16 O32; 10808 10809";
        QTest::newRow("C dwords one request each")
            << "C0"
            << "dword" << 2 << "C0/3/1 C32/3/1; C0 C32; 10816 10817";
    }

    void requests()
    {
        QFETCH(QString, address);
        QFETCH(QString, type);
        QFETCH(int, count);
        QFETCH(QString, made);

        Target target;
        QString reason;
        QVERIFY2(Target::parse(address, type, count, &target, &reason), qPrintable(reason));
        QStringList requests, labels, doubleWords;
        int values = 0;
        for (const DriverRequest &r : target.readRequests()) {
            requests << QStringLiteral("%1/%2/%3")
                            .arg(r.command.address)
                            .arg(int(r.command.dataType))
                            .arg(r.command.length);
            values += r.values;
        }
        for (int i = 0; i < count; ++i)
            labels << target.itemLabel(i);
        for (int dw : target.doubleWords())
            doubleWords << QString::number(dw);
        QCOMPARE(
            QStringList({requests.join(' '), labels.join(' '), doubleWords.join(' ')}).join("; "),
            made);
        QCOMPARE(values, count);
    }

    // An answer cut inside a value, and a watched value the driver had no data for.
    void incompleteData()
    {
        QCOMPARE(decodeValues(QByteArray::fromHex("01000000ff"), ValueType::DWord),
                 QVector<quint32> {1});
        QCOMPARE(watchJson(1.5, {{"DW100", 7u}, {"I5", std::nullopt}}),
                 QStringLiteral("{\"t\": 1.500, \"values\": {\"DW100\": 7, \"I5\": null}}"));
    }
};

QTEST_GUILESS_MAIN(TestHustctlAddressing)
#include "tst_hustctl_addressing.moc"
