// Runs the built hustctl as a process: on its built-in controller simulator, over --port against a
// simulator this test keeps running (so that a put can be read back), and on a silent line.
#include "simulator.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

struct Run
{
    int status = -1;
    QByteArray out;
    QByteArray err;
};

// Runs hustctl to its end; every run is bounded.
Run hustctl(const QStringList &args, int timeoutMs = 30000,
            const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(HUSTCTL_PATH), args);
    Run run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        run.err = "did not finish";
        return run;
    }
    run.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

QByteArray describe(const Run &run)
{
    return "status " + QByteArray::number(run.status) + ", stdout \"" + run.out + "\", stderr \""
        + run.err + '"';
}

QStringList words(const char *line)
{
    return QString::fromLatin1(line).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

// hustctl on the unpaced built-in simulator.
Run simulated(const QStringList &args)
{
    return hustctl(QStringList {QStringLiteral("--no-pace")} + args);
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

const QByteArray kSecond = "O0002\nG01 Y2 F50\nM30\n";

} // namespace

class TestHustctl : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(QDir().mkpath(m_dir.filePath("programs")));
        QVERIFY(writeFile(m_dir.filePath("programs/O0001"), "O0001\n(FIRST)\nG00 X1\n%\nM30\n"));
        QVERIFY(writeFile(m_dir.filePath("programs/O0002"), kSecond));
        QVERIFY(writeFile(m_dir.filePath("blank.nc"), "\n\n\n"));
    }

    void refusals_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("reason");

        QTest::newRow("no command") << QStringList {} << 2 << "no command";
        QTest::newRow("unknown option")
            << words("read DW1 --frob") << 2 << "unknown option \"--frob\"";
        QTest::newRow("option without value") << words("read DW1 -c") << 2 << "-c needs a value";
        QTest::newRow("option of another command")
            << words("read DW1 -n 2") << 2 << "-n does not apply to read";
        QTest::newRow("bad parity") << words("read DW1 -P mark") << 2 << "not even, odd or none";
        QTest::newRow("unknown prefix") << words("read X100") << 2 << "unknown address kind \"X\"";
        QTest::newRow("no number") << words("read DW") << 2 << "has no number";
        QTest::newRow("register beyond range")
            << words("read DW100000") << 2 << "beyond the controller's range";
        QTest::newRow("count beyond range") << words("read DW99999 -c 2") << 2 << "run beyond";
        QTest::newRow("bit number beyond 31") << words("read B10.32") << 2 << "0 to 31";
        QTest::newRow("point on a DW") << words("read DW10.3") << 2 << "only B addresses";
        QTest::newRow("overflowing request") << words("read DW0 -c 100") << 2 << "more than the 99";
        QTest::newRow("unknown type")
            << words("read DW1 -t qword") << 2 << "\"qword\" is not a type";
        QTest::newRow("word of bits unaligned")
            << words("read I5 -t word") << 2 << "multiple of 16";
        QTest::newRow("value not a number")
            << words("write DW1 12x") << 2 << "\"12x\" is not a number";
        QTest::newRow("value beyond 32 bits")
            << words("write DW1 4294967296") << 2 << "out of the 32-bit range";
        QTest::newRow("bit value 2") << words("write B10.3 2") << 2 << "a bit is 0 or 1";
        QTest::newRow("write to inputs") << words("write I5 1") << 2 << "cannot be written";
        QTest::newRow("write without value") << words("write DW1") << 2 << "at least one value";
        QTest::newRow("watch type missing")
            << words("watch DW1:") << 2 << "no type after the colon";
        QTest::newRow("simulator seed with a port") << words("-p /dev/ttyS0 --sim-set 1=2 read DW1")
                                                    << 2 << "apply to the built-in simulator";
        QTest::newRow("burn on get")
            << words("gcode get --burn") << 2 << "--burn applies to gcode put";
        QTest::newRow("missing port") << words("-p /dev/does-not-exist read DW1") << 1
                                      << "/dev/does-not-exist: No such file or directory";
        QTest::newRow("regular file as port")
            << (words("read DW1 --port") << QFINDTESTDATA("tst_hustctl.cpp")) << 1
            << "not a terminal";
        QTest::newRow("missing plug-in")
            << words("--plugin /nonexistent/libx.so info") << 1 << "no such file";
        QTest::newRow("missing program directory")
            << words("--no-pace --sim-programs /nonexistent/programs gcode get") << 1
            << "no such program directory";
        QTest::newRow("missing program file")
            << words("--no-pace gcode put /nonexistent/x.nc") << 1 << "/nonexistent/x.nc";
        QTest::newRow("program file of blank lines")
            << (words("--no-pace gcode put") << m_dir.filePath("blank.nc")) << 1
            << "no program text to send";
    }

    void refusals()
    {
        QFETCH(QStringList, args);
        QFETCH(int, status);
        QFETCH(QString, reason);
        const Run run = hustctl(args);
        QVERIFY2(run.status == status && run.out.isEmpty(), describe(run));
        QCOMPARE(run.err.count('\n'), 1);
        QVERIFY2(run.err.startsWith("hustctl: ") && QString::fromUtf8(run.err).contains(reason),
                 describe(run));
    }

    // A write is confirmed by reading the values back from the controller.
    void readAndWrite_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QByteArray>("out");

        QTest::newRow("dwords")
            << words("--sim-set 100=1 --sim-set 101=2 --json read DW100 -t dword -c 2")
            << QByteArray("{\"address\": \"DW100\", \"type\": \"dword\", \"values\": [1, 2]}\n");
        QTest::newRow("words are halves of double words")
            << words("--sim-set 100=0x56781234 read DW100 -t word -c 2 --json")
            << QByteArray(
                   "{\"address\": \"DW100\", \"type\": \"word\", \"values\": [4660, 22136]}\n");
        QTest::newRow("input bits")
            << words("--sim-set 10800=0x20 --json read I4 -c 3")
            << QByteArray("{\"address\": \"I4\", \"type\": \"bit\", \"values\": [0, 1, 0]}\n");
        QTest::newRow("top bit of a register, options after the command word")
            << words("read B10.31 --json --sim-set=10=0x80000000")
            << QByteArray("{\"address\": \"B10.31\", \"type\": \"bit\", \"values\": [1]}\n");
        QTest::newRow("human-readable")
            << words("--sim-set 7=26 read DW7 -c 2")
            << QByteArray("DW7  26 (0x0000001a)\nDW8  0 (0x00000000)\n");
        QTest::newRow("consecutive double words")
            << words("--json write B300 1 0x10 -1")
            << QByteArray("{\"address\": \"B300\", \"type\": \"dword\", \"values\": [1, 16, "
                          "4294967295]}\n");
        QTest::newRow("set a bit")
            << words("--sim-set 10=0x1 write B10.3 1 --json")
            << QByteArray("{\"address\": \"B10.3\", \"type\": \"bit\", \"values\": [1]}\n");
    }

    void readAndWrite()
    {
        QFETCH(QStringList, args);
        QFETCH(QByteArray, out);
        const Run run = simulated(args);
        QVERIFY2(run.status == 0, describe(run));
        QCOMPARE(run.out, out);
    }

    // The controller's frame counter moves on by itself, so a value written there never shows.
    void writeNotConfirmed()
    {
        const Run run = simulated(words("write DW0 0 --timeout 500"));
        QVERIFY2(run.status == 1, describe(run));
        QCOMPARE(run.err,
                 QByteArray("hustctl: DW0: the controller does not show the written value\n"));
    }

    // Without a terminal the refreshes are plain lines, one per refresh.
    void watch()
    {
        const Run run = simulated(
            words("watch DW100 I5 B10.3 -n 2 -l 50 --sim-set 100=5 --sim-set 10800=0x20"));
        QVERIFY2(run.status == 0, describe(run));
        const QList<QByteArray> lines = run.out.trimmed().split('\n');
        QCOMPARE(lines.size(), 2);
        const QRegularExpression refresh(
            QStringLiteral("^[0-9]+\\.[0-9]{3}  DW100=5  I5=1  B10\\.3=0$"));
        for (const QByteArray &l : lines)
            QVERIFY2(refresh.match(QString::fromUtf8(l)).hasMatch(), l.constData());
    }

    // A screen beyond one read request: the driver reads nothing and reports the count, on a
    // panel through its notice.
    void watchOverflow_data()
    {
        QTest::addColumn<bool>("display");
        QTest::addColumn<QString>("where");
        QTest::newRow("no display") << false << "no display for the driver's notice";
        QTest::newRow("offscreen panel") << true << "the driver's notice was shown";
    }

    void watchOverflow()
    {
        QFETCH(bool, display);
        QFETCH(QString, where);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const char *name : {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY"})
            env.remove(QLatin1String(name));
        if (display)
            env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        QStringList screen {"--no-pace", "watch"};
        for (int i = 0; i < 100; ++i)
            screen << QStringLiteral("DW%1").arg(i);
        const Run run = hustctl(screen, 30000, env);
        QVERIFY2(run.status == 1 && run.out.isEmpty(), describe(run));
        QVERIFY2(run.err.contains("needs 100 double words") && run.err.contains(where.toUtf8()),
                 describe(run));
    }

    void demo()
    {
        const Run run = hustctl({"demo"}, 60000);
        QVERIFY2(run.status == 0, describe(run));
        QVERIFY2(run.out.contains("changed"), run.out.constData());
    }

    void info()
    {
        const Run run = hustctl({"info"});
        QVERIFY2(run.status == 0, describe(run));
        QVERIFY(run.out.contains("Hust CNC Controller (Hust)"));
        QVERIFY(run.out.contains("RS232,38400,EVEN,7,2"));
    }

    // The percent sign is not part of the program text; the final progress line counts the bytes.
    void gcodeGet_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<bool>("toFile");
        QTest::addColumn<QByteArray>("text");
        const QString programs = m_dir.filePath("programs");
        QTest::newRow("current program to a file")
            << (words("gcode get --sim-programs") << programs) << true
            << QByteArray("O0001\n(FIRST)\nG00 X1\n\nM30\n");
        QTest::newRow("all programs")
            << (words("gcode get --all --sim-programs") << programs) << false
            << QByteArray("O0001\n(FIRST)\nG00 X1\n\nM30\n") + kSecond;
    }

    void gcodeGet()
    {
        QFETCH(QStringList, args);
        QFETCH(bool, toFile);
        QFETCH(QByteArray, text);
        QFile file(m_dir.filePath("got.nc"));
        file.remove();
        if (toFile)
            args << QStringLiteral("-o") << file.fileName();
        const Run run = simulated(args);
        QVERIFY2(run.status == 0, describe(run));
        QCOMPARE(toFile && file.open(QIODevice::ReadOnly) ? file.readAll() : run.out, text);
        QCOMPARE(run.out.isEmpty(), toFile);
        const QRegularExpressionMatch progress
            = QRegularExpression(QStringLiteral("^received ([0-9]+) bytes in [0-9.]+ s\n$"))
                  .match(QString::fromUtf8(run.err));
        QVERIFY2(progress.hasMatch(), run.err.constData());
        QCOMPARE(progress.captured(1).toInt(), text.size());
    }

    void gcodePutThenGet_data()
    {
        QTest::addColumn<bool>("burn");
        QTest::newRow("burn") << true;
        QTest::newRow("no burn") << false;
    }

    // Without burning the controller keeps the program only as received; its current program stays.
    void gcodePutThenGet()
    {
        QFETCH(bool, burn);
        hustsim::SimulatorConfig config;
        config.paced = false;
        hustsim::Simulator sim(config);
        sim.setProgram(QStringLiteral("O0100"), "O0100\nM30\n");
        QVERIFY2(sim.start(), qPrintable(sim.errorString()));

        const QString file = m_dir.filePath("put.nc");
        const QByteArray text = "O0200\r\n\r\n(PUT)\r\nG00 X5\r\n\n\nM30\r\n";
        QVERIFY(writeFile(file, text));
        const QByteArray sent = "O0200\r\n\r\n(PUT)\r\nG00 X5\r\nM30\r";
        QStringList putArgs {"-p", sim.devicePath(), "gcode", "put", file};
        if (burn)
            putArgs << QStringLiteral("--burn");
        const Run put = hustctl(putArgs);
        QVERIFY2(put.status == 0 && put.out.isEmpty(), describe(put));
        QCOMPARE(put.err.count('\n'), 1);
        QVERIFY2(put.err.startsWith("sent " + QByteArray::number(text.size()) + " bytes in "),
                 put.err.constData());
        QCOMPARE(put.err.contains("burn requested"), burn);

        QCOMPARE(sim.currentProgramName(), QStringLiteral("O0100"));
        QCOMPARE(sim.program(QStringLiteral("O0100")), burn ? sent : QByteArray("O0100\nM30\n"));
        QCOMPARE(sim.pendingProgram(), burn ? QByteArray() : sent);

        const Run get = hustctl({"-p", sim.devicePath(), "gcode", "get"});
        QVERIFY2(get.status == 0, describe(get));
        QCOMPARE(get.out, burn ? sent : QByteArray("O0100\nM30\n"));
    }

    void silentController_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("message");
        // Either the driver gives up first ("Read Time Out") or hustctl's own time-out ends it.
        QTest::newRow("read") << words("read DW1 --timeout 300") << "^hustctl: DW1: ";
        QTest::newRow("gcode get")
            << words("gcode get") << "^hustctl: gcode .*the controller did not answer";
        QTest::newRow("gcode put")
            << (words("gcode put") << m_dir.filePath("programs/O0002"))
            << "^hustctl: gcode .*the controller did not answer after the send";
    }

    // Nobody answers on the line: hustctl ends with a message and status 1 instead of waiting.
    void silentController()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, message);
        const int master = posix_openpt(O_RDWR | O_NOCTTY);
        QVERIFY(master >= 0);
        QVERIFY(grantpt(master) == 0 && unlockpt(master) == 0);
        const QString slave = QString::fromLocal8Bit(ptsname(master));
        const Run run = hustctl(QStringList {QStringLiteral("-p"), slave} + args, 60000);
        close(master);
        QVERIFY2(run.status == 1 && run.out.isEmpty(), describe(run));
        QCOMPARE(run.err.count('\n'), 1);
        QVERIFY2(QRegularExpression(message).match(QString::fromUtf8(run.err)).hasMatch(),
                 describe(run));
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TestHustctl)
#include "tst_hustctl.moc"
