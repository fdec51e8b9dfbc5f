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
        QTest::addColumn<QString>("requests"); // address/dataType/length, space-separated
        QTest::addColumn<QString>("labels");
        QTest::addColumn<QString>("doubleWords");

        QTest::newRow("leading zeros") << "DW0007"
                                       << "" << 1 << "DW7/3/1"
                                       << "DW7"
                                       << "7";
        QTest::newRow("register words, high half first") << "DW20"
                                                         << "word" << 2 << "DW20/2/2"
                                                         << "DW20(hi) DW21(lo)"
                                                         << "20 21";
        QTest::newRow("B bits carry into the next word") << "B10.31"
                                                         << "" << 2 << "B10.31/0/1 B11.0/0/1"
                                                         << "B10.31 B11.0"
                                                         << "10 11";
        QTest::newRow("input bits carry into the next double word") << "I31"
                                                                    << "" << 2 << "I31/0/1 I32/0/1"
                                                                    << "I31 I32"
                                                                    << "10800 10801";
        QTest::newRow("output words") << "O16"
                                      << "word" << 2 << "O16/2/2"
                                      << "O16 O32"
                                      << "10808 10809";
        QTest::newRow("last alarm double word") << "A224"
                                                << "dword" << 1 << "A224/3/1"
                                                << "A224"
                                                << "10839";
        QTest::newRow("C dwords one request each") << "C0"
                                                   << "dword" << 2 << "C0/3/1 C32/3/1"
                                                   << "C0 C32"
                                                   << "10816 10817";
    }

    void requests()
    {
        QFETCH(QString, address);
        QFETCH(QString, type);
        QFETCH(int, count);
        QFETCH(QString, requests);
        QFETCH(QString, labels);
        QFETCH(QString, doubleWords);

        Target target;
        QString reason;
        QVERIFY2(Target::parse(address, type, count, &target, &reason), qPrintable(reason));
        QStringList made;
        int values = 0;
        for (const DriverRequest &r : target.readRequests()) {
            made << QStringLiteral("%1/%2/%3")
                        .arg(r.command.address)
                        .arg(int(r.command.dataType))
                        .arg(r.command.length);
            values += r.values;
        }
        QCOMPARE(made.join(' '), requests);
        QCOMPARE(values, count);
        QStringList madeLabels, madeDoubleWords;
        for (int i = 0; i < count; ++i)
            madeLabels << target.itemLabel(i);
        for (int dw : target.doubleWords())
            madeDoubleWords << QString::number(dw);
        QCOMPARE(madeLabels.join(' '), labels);
        QCOMPARE(madeDoubleWords.join(' '), doubleWords);
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
