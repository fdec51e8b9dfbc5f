#include "addressing.h"
#include "freshness.h"
#include "options.h"
#include "output.h"

#include <QtTest>

// Address rules, output cases and the staleness rule of watch, which the process tests of hustctl
// do not reach row by row.
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
        // The driver reads the word's double word and the next one.
        QTest::newRow("word in the upper half") << "A16"
                                                << "word" << 1 << "A16/2/1; A16; 10832 10833";
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

    // The command line as hustctl reads it: what it takes in, or the reason it refuses.
    void commandLine_data()
    {
        QTest::addColumn<QString>("args");
        QTest::addColumn<QString>("taken"); // command, arguments, count, type; or the reason

        QTest::newRow("attached value, options around the command") << "-c3 read --json DW5 -tint"
                                                                    << "read DW5 3 int";
        QTest::newRow("long value with =") << "read --count=2 DW5"
                                           << "read DW5 2 dword";
        QTest::newRow("negative value") << "write DW5 -t int -8"
                                        << "write DW5 -8 int";
        QTest::newRow("everything after -- is an argument")
            << "write DW5 -- -8 --json"
            << "reason: \"--json\" is not a 32-bit number";
        QTest::newRow("grouped letters, value last") << "read -hc2"
                                                     << "help read";
        QTest::newRow("help COMMAND") << "help watch"
                                      << "help watch";
        QTest::newRow("option of another command") << "watch DW1 -c2"
                                                   << "reason: -c does not apply to watch";
        QTest::newRow("value missing at the end") << "read DW1 -c"
                                                  << "reason: -c needs a value (N)";
        QTest::newRow("placeholder in a refused value")
            << "read DW1 -c %3"
            << "reason: --count: \"%3\" is not a number from 1 to 100000";
        QTest::newRow("flag given a value") << "--json=1 read DW1"
                                            << "reason: --json takes no value";
        QTest::newRow("unknown command") << "reed DW1"
                                         << "reason: unknown command \"reed\"";
        QTest::newRow("too few arguments") << "write DW1"
                                           << "reason: write needs ADDRESS VALUE...";
    }

    void commandLine()
    {
        QFETCH(QString, args);
        QFETCH(QString, taken);
        CtlOptions o;
        QString reason;
        QString got;
        if (!parseOptions(args.split(' '), &o, &reason))
            got = "reason: " + reason;
        else if (o.help)
            got = "help " + o.command;
        else
            got = QStringList {o.command, o.keys.join(','),
                               o.values.isEmpty() ? QString::number(o.targets.first().count())
                                                  : QString::number(qint32(o.values.first())),
                               o.targets.first().typeText()}
                      .join(' ');
        QCOMPARE(got, taken);
    }

    // An answer cut inside a value, and a watched value the driver had no data for.
    void incompleteData()
    {
        QCOMPARE(decodeValues(QByteArray::fromHex("01000000ff"), ValueType::DWord),
                 QVector<quint32> {1});
        QCOMPARE(jsonLine(watchJson(1.5, {{"DW100", 7u}, {"I5", std::nullopt}}, QString())),
                 QStringLiteral("{\"t\":1.5,\"values\":{\"DW100\":7,\"I5\":null}}"));
    }

    // Refreshes 100 ms apart: the driver's block count, and "e" when a call saw an error.
    void freshness_data()
    {
        QTest::addColumn<QString>("refreshes");
        QTest::addColumn<QString>("stale");
        QTest::addColumn<int>("longestGapMs");

        QTest::newRow("an error latches until the count moves") << "1 1e 1 1 2 2"
                                                                << ".SSS.." << 400;
        QTest::newRow("error and fresh block in one refresh") << "1 2e 2 3"
                                                              << "...." << 200;
        QTest::newRow("an error after the recovery") << "1 1e 2 2e 2"
                                                     << ".S.SS" << 200;
        QTest::newRow("outage to the end") << "0e 0 0"
                                           << "SSS" << 300;
    }

    void freshness()
    {
        QFETCH(QString, refreshes);
        QFETCH(QString, stale);
        QFETCH(int, longestGapMs);
        Freshness freshness(0, 0);
        QString marks;
        qint64 ms = 0;
        for (QString step : refreshes.split(' ')) {
            ms += 100;
            const bool error = step.endsWith('e');
            if (error)
                step.chop(1);
            marks += freshness.refresh(ms, step.toULongLong(), error ? "Read Time Out" : "") ? 'S'
                                                                                             : '.';
        }
        QCOMPARE(marks, stale);
        QCOMPARE(freshness.staleRefreshes(), int(stale.count('S')));
        QCOMPARE(freshness.longestGapMs(ms), qint64(longestGapMs));
    }
};

QTEST_GUILESS_MAIN(TestHustctlAddressing)
#include "tst_hustctl_addressing.moc"
