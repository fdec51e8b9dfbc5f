#include "rawclient.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

// The hust-sim program as a process: its first line, its options and its exit.
class TestHustSimProgram : public QObject
{
    Q_OBJECT

private slots:
    void servesAndLogsUntilTerminated()
    {
        QTemporaryDir dir;
        const QString link = dir.filePath("cnc");
        const QString log = dir.filePath("frames.jsonl");
        QProcess sim;
        sim.start(HUST_SIM_PATH,
                  {"--no-pace", "--no-counter", "--link", link, "--log", log, "--set", "10=0x1A",
                   "--set", "0=7"});
        QVERIFY(sim.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(sim.canReadLine(), 10000);
        const QByteArray first = sim.readLine().trimmed();
        QVERIFY2(first.startsWith("PTY /dev/"), first.constData());
        QCOMPARE(QFileInfo(link).symLinkTarget(), QString::fromLatin1(first.mid(4)));

        RawClient client;
        QVERIFY(client.open(link));
        QVERIFY(client.send(readRequest({10, 0})));
        QVERIFY(isResponse(client.readFrame(), {26, 7}));
        QVERIFY(client.send(QByteArray("\x12%\rO9000\rN1\r%\x14")));
        QVERIFY(client.drainUntilQuiet());
        client.close();

        sim.terminate();
        QVERIFY(sim.waitForFinished(10000));
        QCOMPARE(sim.exitStatus(), QProcess::NormalExit);
        QCOMPARE(sim.exitCode(), 0);
        QVERIFY(!QFileInfo(link).isSymLink());

        QFile lines(log);
        QVERIFY(lines.open(QIODevice::ReadOnly));
        QList<QJsonObject> objects;
        while (!lines.atEnd())
            objects.append(QJsonDocument::fromJson(lines.readLine()).object());
        QCOMPARE(objects.size(), 2);
        QCOMPARE(objects.at(0).value("kind").toString(), QStringLiteral("read_request"));
        QCOMPARE(objects.at(0).value("addresses").toArray(), (QJsonArray {10, 0}));
        QCOMPARE(objects.at(1).value("kind").toString(), QStringLiteral("stop"));
    }

    void usageErrors_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("unknown option") << QStringList {"--frobnicate"};
        QTest::newRow("missing value") << QStringList {"--baud"};
        QTest::newRow("value out of range") << QStringList {"--set", "100000=1"};
        QTest::newRow("speed and no pace") << QStringList {"--speed", "2", "--no-pace"};
        QTest::newRow("no such program") << QStringList {"--current", "nothing"};
    }
    void usageErrors()
    {
        QFETCH(QStringList, arguments);
        QProcess sim;
        sim.start(HUST_SIM_PATH, arguments);
        QVERIFY(sim.waitForFinished(10000));
        QCOMPARE(sim.exitCode(), 2);
        const QByteArray error = sim.readAllStandardError();
        QVERIFY2(error.startsWith("hust-sim: ") && error.count('\n') == 1, error.constData());
        QVERIFY(sim.readAllStandardOutput().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestHustSimProgram)
#include "tst_hustsim_program.moc"
