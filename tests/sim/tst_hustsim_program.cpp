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
    void servesSeedsProgramsAndLog()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        QFile registers(dir.filePath("registers.json"));
        QVERIFY(registers.open(QIODevice::WriteOnly));
        registers.write(R"({"11": "0x3E9", "12": 4294967295})");
        registers.close();
        QVERIFY(QDir(dir.path()).mkdir("programs"));
        for (const auto &[name, text] :
             {std::pair {"A", "G00 X1\n"}, std::pair {"B", "G01 Y2\n"}}) {
            QFile file(dir.filePath(QStringLiteral("programs/") + name));
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(text);
        }
        const QString link = dir.filePath("cnc");
        const QString log = dir.filePath("frames.jsonl");

        QProcess sim;
        sim.start(HUST_SIM_PATH,
                  {"--no-pace", "--link", link, "--log", log, "--set", "10=26", "--registers",
                   registers.fileName(), "--programs", dir.filePath("programs"), "--current", "B",
                   "--no-counter"});
        QVERIFY(sim.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(sim.canReadLine(), 10000);
        const QByteArray first = sim.readLine().trimmed();
        QVERIFY2(first.startsWith("PTY /dev/"), first.constData());
        const QString slave = QString::fromLatin1(first.mid(4));
        QCOMPARE(QFileInfo(link).symLinkTarget(), slave);

        RawClient client;
        QVERIFY(client.open(link));
        QVERIFY(client.send(readRequest({10, 11, 12, 0})));
        const QByteArray expected = expectedResponse("00000000", {26, 1001, 0xFFFFFFFF, 0});
        const QList<QByteArray> frames = client.readFrames(1, 5000);
        QCOMPARE(frames.size(), 1);
        QCOMPARE(frames.at(0).mid(18), expected.mid(18));

        QVERIFY(client.send(QByteArray("\x12%\rO9012\rN10768\rD000003>:\r%\x14")));
        const QByteArray answer = client.readFrameUntil(
            [](const QByteArray &f) { return !f.startsWith("\x12%\rO9000"); }, 5000);
        QCOMPARE(answer, QByteArray("\x12%\rG01 Y2\n%\x14"));
        client.close();

        sim.terminate();
        QVERIFY(sim.waitForFinished(10000));
        QCOMPARE(sim.exitStatus(), QProcess::NormalExit);
        QCOMPARE(sim.exitCode(), 0);
        QVERIFY(!QFileInfo::exists(link) && !QFileInfo(link).isSymLink());

        QFile lines(log);
        QVERIFY(lines.open(QIODevice::ReadOnly));
        QStringList kinds;
        while (!lines.atEnd()) {
            const QJsonObject object = QJsonDocument::fromJson(lines.readLine()).object();
            kinds.append(object.value("kind").toString());
            if (object.value("kind") == QLatin1String("read_request"))
                QCOMPARE(object.value("addresses").toArray().size(), 4);
        }
        QCOMPARE(kinds, (QStringList {"read_request", "program_request_current"}));
    }

    void usageErrors_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("unknown option") << QStringList {"--frobnicate"};
        QTest::newRow("speed zero") << QStringList {"--speed", "0"};
        QTest::newRow("speed and no pace") << QStringList {"--speed", "2", "--no-pace"};
        QTest::newRow("nine data bits") << QStringList {"--databits", "9"};
        QTest::newRow("register beyond memory") << QStringList {"--set", "100000=1"};
        QTest::newRow("probability above 1") << QStringList {"--cut", "1.5"};
        QTest::newRow("missing value") << QStringList {"--baud"};
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
