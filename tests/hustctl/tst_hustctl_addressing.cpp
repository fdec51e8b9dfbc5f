#include "addressing.h"
#include "options.h"
#include "output.h"

#include <QtTest>

// The address rules decide which requests reach the driver and how answers are labelled.
class TestHustctlAddressing : public QObject
{
    Q_OBJECT

private slots:
    void requests_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("type");
        QTest::addColumn<int>("count");
        QTest::addColumn<QStringList>("requests"); // address/dataType/length
        QTest::addColumn<QStringList>("labels");
        QTest::addColumn<QList<int>>("doubleWords");

        QTest::newRow("dwords") << "DW100"
                                << "" << 2 << QStringList {"DW100/3/2"}
                                << QStringList {"DW100", "DW101"} << QList<int> {100, 101};
        QTest::newRow("leading zeros")
            << "DW0007"
            << "" << 1 << QStringList {"DW7/3/1"} << QStringList {"DW7"} << QList<int> {7};
        QTest::newRow("B without point")
            << "B5"
            << "" << 1 << QStringList {"B5/3/1"} << QStringList {"B5"} << QList<int> {5};
        QTest::newRow("register words, low half first")
            << "DW100"
            << "word" << 3 << QStringList {"DW100/2/3"}
            << QStringList {"DW100(lo)", "DW100(hi)", "DW101(lo)"} << QList<int> {100, 101, 102};
        QTest::newRow("register words, high half first")
            << "DW20"
            << "word" << 2 << QStringList {"DW20/2/2"} << QStringList {"DW20(hi)", "DW21(lo)"}
            << QList<int> {20, 21};
        QTest::newRow("B bits carry into the next word")
            << "B10.31"
            << "" << 2 << QStringList {"B10.31/0/1", "B11.0/0/1"} << QStringList {"B10.31", "B11.0"}
            << QList<int> {10, 11};
        QTest::newRow("input bits") << "I31"
                                    << "" << 2 << QStringList {"I31/0/1", "I32/0/1"}
                                    << QStringList {"I31", "I32"} << QList<int> {10800, 10801};
        QTest::newRow("output words") << "O16"
                                      << "word" << 2 << QStringList {"O16/2/2"}
                                      << QStringList {"O16", "O32"} << QList<int> {10808, 10809};
        QTest::newRow("alarm dwords") << "A224"
                                      << "dword" << 1 << QStringList {"A224/3/1"}
                                      << QStringList {"A224"} << QList<int> {10839};
        QTest::newRow("C dwords one request each")
            << "C0"
            << "dword" << 2 << QStringList {"C0/3/1", "C32/3/1"} << QStringList {"C0", "C32"}
            << QList<int> {10816, 10817};
    }

    void requests()
    {
        QFETCH(QString, address);
        QFETCH(QString, type);
        QFETCH(int, count);
        QFETCH(QStringList, requests);
        QFETCH(QStringList, labels);
        QFETCH(QList<int>, doubleWords);

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
        QCOMPARE(made, requests);
        QCOMPARE(values, count);
        QStringList madeLabels;
        for (int i = 0; i < count; ++i)
            madeLabels << target.itemLabel(i);
        QCOMPARE(madeLabels, labels);
        QCOMPARE(target.doubleWords(), doubleWords);
    }

    void writes_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QStringList>("values");
        QTest::addColumn<QString>("request");
        QTest::addColumn<QByteArray>("data");

        QTest::newRow("one dword") << "DW100" << QStringList {"0x01020304"} << "DW100/3/1"
                                   << QByteArray::fromHex("04030201");
        QTest::newRow("consecutive dwords") << "B7" << QStringList {"1", "4294967295"} << "B7/3/2"
                                            << QByteArray::fromHex("01000000ffffffff");
        QTest::newRow("negative as two's complement")
            << "DW1" << QStringList {"-2"} << "DW1/3/1" << QByteArray::fromHex("feffffff");
        QTest::newRow("bit") << "B10.3" << QStringList {"1"} << "B10.3/0/1"
                             << QByteArray::fromHex("01");
    }

    void writes()
    {
        QFETCH(QString, address);
        QFETCH(QStringList, values);
        QFETCH(QString, request);
        QFETCH(QByteArray, data);

        Target target;
        QString reason;
        QVERIFY2(Target::parse(address, QString(), values.size(), &target, &reason),
                 qPrintable(reason));
        QList<quint32> numbers;
        for (const QString &text : values) {
            quint32 v = 0;
            QVERIFY2(parseValue(text, target.type(), &v, &reason), qPrintable(reason));
            numbers << v;
        }
        DriverRequest r;
        QVERIFY2(target.writeRequest(numbers, &r, &reason), qPrintable(reason));
        QCOMPARE(QStringLiteral("%1/%2/%3")
                     .arg(r.command.address)
                     .arg(int(r.command.dataType))
                     .arg(r.command.length),
                 request);
        QCOMPARE(r.data, data);
    }

    void decode_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("type");
        QTest::addColumn<QVector<quint32>>("values");
        QTest::newRow("dwords") << QByteArray::fromHex("0100000002000080") << int(ValueType::DWord)
                                << QVector<quint32> {1, 0x80000002u};
        QTest::newRow("words") << QByteArray::fromHex("3412ffff") << int(ValueType::Word)
                               << QVector<quint32> {0x1234, 0xffff};
        QTest::newRow("bits") << QByteArray::fromHex("0001") << int(ValueType::Bit)
                              << QVector<quint32> {0, 1};
        QTest::newRow("short tail ignored")
            << QByteArray::fromHex("01000000ff") << int(ValueType::DWord) << QVector<quint32> {1};
    }

    void decode()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(int, type);
        QFETCH(QVector<quint32>, values);
        QCOMPARE(decodeValues(bytes, ValueType(type)), values);
    }

    void json()
    {
        QCOMPARE(readJson("DW100", ValueType::DWord, {1, 4294967295u}),
                 QStringLiteral("{\"address\": \"DW100\", \"type\": \"dword\", \"values\": [1, "
                                "4294967295]}"));
        QCOMPARE(watchJson(1.5, {{"DW100", 7u}, {"I5", std::nullopt}}),
                 QStringLiteral("{\"t\": 1.500, \"values\": {\"DW100\": 7, \"I5\": null}}"));
    }

    void optionsAroundTheCommandWord()
    {
        CtlOptions o;
        QString reason;
        QVERIFY2(parseOptions({"-p", "/dev/ttyS1", "--json", "read", "DW100", "-t", "dword", "-c",
                               "2", "--timeout=700"},
                              &o, &reason),
                 qPrintable(reason));
        QCOMPARE(o.link.device, QStringLiteral("/dev/ttyS1"));
        QVERIFY(o.json);
        QCOMPARE(o.command, QStringLiteral("read"));
        QCOMPARE(o.arguments, QStringList {"DW100"});
        QCOMPARE(o.type, QStringLiteral("dword"));
        QCOMPARE(o.count, 2);
        QCOMPARE(o.timeoutMs, 700);
        CtlOptions w;
        QVERIFY2(parseOptions({"write", "DW1", "-5", "--sim-set", "100=0x10"}, &w, &reason),
                 qPrintable(reason));
        QCOMPARE(w.arguments, (QStringList {"DW1", "-5"}));
        QCOMPARE(w.link.simRegisters.last(), qMakePair(100, quint32(16)));
    }
};

QTEST_GUILESS_MAIN(TestHustctlAddressing)
#include "tst_hustctl_addressing.moc"
