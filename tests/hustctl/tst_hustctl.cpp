// Runs the built hustctl as a process: on its built-in controller simulator, over --port against a
// simulator this test keeps running (so that a put can be read back), and on a silent line.
#include "simulator.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Run
{
    int status = -1;
    QByteArray out;
    QByteArray err;
};

// Runs hustctl to its end; every run is bounded. A last argument ">FILE" sends its standard output
// to FILE.
Run hustctl(QStringList args)
{
    QProcess process;
    if (!args.isEmpty() && args.last().startsWith('>'))
        process.setStandardOutputFile(args.takeLast().mid(1));
    process.start(QStringLiteral(HUSTCTL_PATH), args);
    Run run;
    if (!process.waitForFinished(60000)) {
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

QStringList words(const QString &line)
{
    return line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// Stands for the path of a terminal that nobody answers on.
const QString kSilent = QStringLiteral("SILENT");

// The built-in simulator without pacing. The driver waits about 1.2 s for its first block, which a
// loaded machine can need for starting the worker; retries let the driver wait again, within
// --timeout.
const QString kStartUp = QStringLiteral("--no-pace --retry 3 ");

// A program as an editor on the panel's side writes it, with blank lines.
const QByteArray kProgram = "O0200\r\n\r\n(PUT)\r\nG00 X5\r\n\n\nM30\r\n";

} // namespace

class TestHustctl : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        // The driver's notice must not wait for an operator on a real screen.
        qputenv("QT_QPA_PLATFORM", "offscreen");
        QVERIFY(m_dir.isValid());
        QVERIFY(writeFile(m_dir.filePath("put.nc"), kProgram));
        QVERIFY(writeFile(m_dir.filePath("blank.nc"), "\n\n\n"));
        QVERIFY(writeFile(m_dir.filePath("nul.nc"), QByteArray("O1\nG0\0X\n", 9)));
        QVERIFY(writeFile(m_dir.filePath("dc4.nc"), "O1\n%\x14G0\n"));
        QVERIFY(mkfifo(QFile::encodeName(m_dir.filePath("fifo.nc")).constData(), 0600) == 0);
        QFile big(m_dir.filePath("big.nc"));
        QVERIFY(big.open(QIODevice::WriteOnly) && big.resize(4 * 1024 * 1024 + 1));
    }

    // Refusals, failing lines and controllers: no output and one line on stderr.
    void failures_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("message"); // a pattern for the text after "hustctl: "

        QTest::newRow("unknown option")
            << words("read DW1 --frob") << 2 << "unknown option \"--frob\"";
        QTest::newRow("option without value") << words("read DW1 -c") << 2 << ".*-c needs a value";
        QTest::newRow("unknown prefix")
            << words("read X100") << 2 << ".*unknown address kind \"X\"";
        QTest::newRow("line feed in an address")
            << (words("read") << "DW1\nX") << 2 << "DW1\\\\x0aX: not an address";
        QTest::newRow("count beyond range") << words("read DW99999 -c 2") << 2 << ".*run beyond";
        QTest::newRow("bit number beyond 31") << words("read B10.32") << 2 << ".*0 to 31";
        QTest::newRow("overflowing request")
            << words("read DW0 -c 100") << 2 << ".*more than the 99";
        QTest::newRow("unknown type")
            << words("read DW1 -t qword") << 2 << ".*\"qword\" is not a type";
        QTest::newRow("word of bits unaligned")
            << words("read I5 -t word") << 2 << ".*multiple of 16";
        QTest::newRow("value beyond 32 bits")
            << words("write DW1 4294967296") << 2 << ".*not a 32-bit number";
        QTest::newRow("bit value 2") << words("write B10.3 2") << 2 << ".*a bit is 0 or 1";
        QTest::newRow("write to inputs") << words("write I5 1") << 2 << ".*cannot be written";
        QTest::newRow("regular file as port")
            << (words("read DW1 --port") << QFINDTESTDATA("tst_hustctl.cpp")) << 1
            << ".*not a terminal";
        QTest::newRow("JSON error")
            << words("--json read DW1 -t qword") << 2 << ".*\"qword\" is not a type";
        QTest::newRow("option of another command")
            << words("read DW1 --burn") << 2 << "--burn does not apply to read";
        QTest::newRow("missing plug-in")
            << words("--plugin /nonexistent/libx.so read DW1") << 1 << ".*no such file";
        // Program files the controller would get only part of, or that never end.
        const auto put = [this](const char *file) {
            return words("--no-pace gcode put") << m_dir.filePath(file);
        };
        QTest::newRow("program of blank lines") << put("blank.nc") << 2 << ".*no program text";
        QTest::newRow("program with NUL") << put("nul.nc") << 2 << ".*a NUL byte at offset 5";
        QTest::newRow("program with %DC4") << put("dc4.nc") << 2 << ".*DC4 at offset 3";
        QTest::newRow("program from a FIFO") << put("fifo.nc") << 2 << ".*not a regular file";
        QTest::newRow("program beyond the bound") << put("big.nc") << 2 << ".*more than the";
        // Output targets are checked before anything is sent, and a lost write is an error.
        QTest::newRow("output directory missing")
            << words("-p SILENT gcode get -o /nonexistent/p.nc") << 1
            << "/nonexistent/p.nc: No such file or directory$";
        QTest::newRow("standard output full") << words(kStartUp + "read DW1 >/dev/full") << 1
                                              << "standard output: No space left on device$";
        QTest::newRow("retries bounded by --timeout")
            << words("-p SILENT --retry 100 --timeout 500 read DW1") << 1
            << "DW1: Read Time Out \\(--timeout ended the driver's retries";
        // Either the driver gives up first ("Read Time Out") or hustctl's own time-out ends it.
        QTest::newRow("silent read") << words("-p SILENT read DW1 --timeout 300") << 1 << "DW1: ";
        QTest::newRow("silent gcode get")
            << words("-p SILENT gcode get") << 1 << "gcode .*the controller did not answer";
        QTest::newRow("silent gcode put")
            << (words("-p SILENT gcode put") << m_dir.filePath("put.nc")) << 1
            << "gcode .*the controller did not answer after the send";
    }

    void failures()
    {
        QFETCH(QStringList, args);
        QFETCH(int, status);
        QFETCH(QString, message);
        int master = -1;
        if (args.contains(kSilent)) {
            master = posix_openpt(O_RDWR | O_NOCTTY);
            QVERIFY(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
            args.replaceInStrings(kSilent, QString::fromLocal8Bit(ptsname(master)));
        }
        const Run run = hustctl(args);
        if (master >= 0)
            close(master);
        // With --json the error is an object on standard output instead.
        const bool json = args.contains("--json");
        const QString error = json
            ? QJsonDocument::fromJson(run.out).object().value("error").toString()
            : QString::fromUtf8(run.err).remove(QRegularExpression("^hustctl: "));
        QVERIFY2(run.status == status && (json ? run.err : run.out).isEmpty(), describe(run));
        QCOMPARE((json ? run.out : run.err).count('\n'), 1);
        QVERIFY2(QRegularExpression("^" + message).match(error).hasMatch(), describe(run));
    }

    // The controller's frame counter moves on by itself, so a value written there never shows.
    void writeNotConfirmed()
    {
        // Longer than the driver's first wait, which a slow start may use up.
        const Run run = hustctl(words(kStartUp + "write DW0 0 --timeout 1500"));
        QVERIFY2(run.status == 1, describe(run));
        QCOMPARE(run.err,
                 QByteArray("hustctl: DW0: the controller does not show the written value\n"));
    }

    // A screen beyond one read request: the driver reads nothing, reports the count and shows its
    // notice; the platform's own warnings stay off the one line of output.
    void watchOverflow()
    {
        QStringList screen = words("--no-pace watch");
        for (int i = 0; i < 100; ++i)
            screen << QStringLiteral("DW%1").arg(i);
        const Run run = hustctl(screen);
        QVERIFY2(run.status == 1 && run.out.isEmpty() && run.err.count('\n') == 1, describe(run));
        QVERIFY2(run.err.contains("needs 100 double words")
                     && run.err.contains("the driver's notice was shown"),
                 describe(run));
    }

    // A write is confirmed by reading the values back from the controller.
    void readAndWrite_data()
    {
        QTest::addColumn<QString>("args");
        QTest::addColumn<QByteArray>("out");

        QTest::newRow("words are halves of double words")
            << "--sim-set 100=0x56781234 read DW100 -t word -c 2 --json"
            << QByteArray("{\"address\":\"DW100\",\"type\":\"word\",\"values\":[4660,22136]}\n");
        QTest::newRow("top bit of a register, options after the command word")
            << "read B10.31 --json --sim-set=10=0x80000000"
            << QByteArray("{\"address\":\"B10.31\",\"type\":\"bit\",\"values\":[1]}\n");
        QTest::newRow("human-readable")
            << "--sim-set 7=26 read DW7 -c 2"
            << QByteArray("DW7  26 (0x0000001a)\nDW8  0 (0x00000000)\n");
        QTest::newRow("consecutive double words")
            << "--json write B300 1 0x10 -1"
            << QByteArray(
                   "{\"address\":\"B300\",\"type\":\"dword\",\"values\":[1,16,4294967295]}\n");
        QTest::newRow("signed, float and hex, -c3 and --")
            << "--sim-set 101=-8 --sim-set 100=0x3fc00000 --json read DW101:int DW100:float "
               "DW102 -thex -c1 --"
            << QByteArray("{\"address\":\"DW101\",\"type\":\"int\",\"values\":[-8]}\n"
                          "{\"address\":\"DW100\",\"type\":\"float\",\"values\":[1.5]}\n"
                          "{\"address\":\"DW102\",\"type\":\"hex\",\"values\":[\"0x00000000\"]}\n");
        QTest::newRow("write a float")
            << "--json write DW5 -t float 0.1"
            << QByteArray("{\"address\":\"DW5\",\"type\":\"float\",\"values\":[0.1]}\n");
        QTest::newRow("negative value after --")
            << "--json write DW6 -t int -- -8"
            << QByteArray("{\"address\":\"DW6\",\"type\":\"int\",\"values\":[-8]}\n");
        // The frame counter moves by itself; without the read-back the write is taken at once.
        QTest::newRow("no read-back")
            << "--json write DW0 0 --no-verify"
            << QByteArray("{\"address\":\"DW0\",\"type\":\"dword\",\"values\":[0],"
                          "\"verified\":false}\n");
        QTest::newRow("set a bit")
            << "--sim-set 10=0x1 write B10.3 1 --json"
            << QByteArray("{\"address\":\"B10.3\",\"type\":\"bit\",\"values\":[1]}\n");
    }

    void readAndWrite()
    {
        QFETCH(QString, args);
        QFETCH(QByteArray, out);
        const Run run = hustctl(words(kStartUp + args));
        QVERIFY2(run.status == 0, describe(run));
        QCOMPARE(run.out, out);
    }

    // Without a terminal the refreshes are plain lines, one per refresh, then the statistics. A
    // time-out of a slow start stays pending for a while and marks refreshes stale, which then
    // end the watch with status 1.
    void watch()
    {
        const Run run = hustctl(
            words(kStartUp
                  + "watch DW100 I5 DW101:int -n 2 -l 50 --sim-set 100=5 --sim-set 10800=0x20 "
                    "--sim-set 101=-8"));
        const QList<QByteArray> lines = run.out.trimmed().split('\n');
        QCOMPARE(lines.size(), 3);
        const QRegularExpression refresh(QStringLiteral(
            "^[0-9]+\\.[0-9]{3}  DW100=5  I5=1  DW101:int=-8(  stale: Read Time Out)?$"));
        for (const QByteArray &l : lines.mid(0, 2))
            QVERIFY2(refresh.match(QString::fromUtf8(l)).hasMatch(), l.constData());
        const int stale = run.out.count("stale");
        QVERIFY2(lines.last().startsWith("2 refreshes, " + QByteArray::number(stale)
                                         + " with an error, "),
                 lines.last());
        QVERIFY2(run.status == (stale > 0 ? 1 : 0), describe(run));
    }

    // Through a pulled cable: the held values are marked with the driver's message from the
    // first error until fresh blocks flow again, and the statistics count those refreshes.
    void watchOutage()
    {
        hustsim::SimulatorConfig config;
        config.paced = false;
        hustsim::Simulator sim(config);
        QVERIFY2(sim.start(), qPrintable(sim.errorString()));
        QProcess process;
        process.start(QStringLiteral(HUSTCTL_PATH),
                      words("--retry 3 --json watch DW0 -l 100 -n 70 -p") << sim.devicePath());
        QTRY_VERIFY_WITH_TIMEOUT(process.canReadLine(), 10000);
        sim.pullCable(4000);
        QVERIFY(process.waitForFinished(30000));
        QCOMPARE(process.exitCode(), 1);

        // 70 refreshes, the statistics and the error that ends the watch.
        const QList<QByteArray> lines = process.readAllStandardOutput().trimmed().split('\n');
        QCOMPARE(lines.size(), 72);
        QVERIFY2(lines.last().startsWith("{\"error\":\"stale values on "), lines.last());
        QString marks;
        double previous = -1;
        for (const QByteArray &line : lines.mid(0, 70)) {
            const QJsonObject refresh = QJsonDocument::fromJson(line).object();
            const double value = refresh["values"].toObject()["DW0"].toDouble(-1);
            const bool stale = refresh.contains("error");
            // A stale refresh shows the cache the driver held, so the counter stands still.
            QVERIFY2(!stale || (refresh["error"] == "Read Time Out" && value == previous), line);
            marks += stale ? 'S' : '.';
            previous = value;
        }
        // (A slow start may mark the first refreshes too.)
        QVERIFY2(QRegularExpression("^S*\\.+S+\\.+$").match(marks).hasMatch(), qPrintable(marks));
        const QJsonObject summary
            = QJsonDocument::fromJson(lines.at(70)).object()["summary"].toObject();
        QCOMPARE(summary["refreshes"].toInt(), 70);
        QCOMPARE(summary["errorRefreshes"].toInt(), marks.count('S'));
        QVERIFY2(summary["longestGapSeconds"].toDouble() >= 3.5, lines.at(70));
    }

    // Each command answers --help with its own text, the same as "help COMMAND".
    void commandHelp()
    {
        const Run own = hustctl(words("read --help"));
        QVERIFY2(own.status == 0 && own.out.startsWith("usage: hustctl read ADDRESS"),
                 describe(own));
        QCOMPARE(hustctl(words("help read")).out, own.out);
        QVERIFY(hustctl(words("--help")).out != own.out);
    }

    void demo()
    {
        const Run run = hustctl({"--retry", "3", "demo"});
        QVERIFY2(run.status == 0, describe(run));
        QVERIFY2(run.out.contains("changed"), run.out.constData());
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

        const QByteArray sent = "O0200\r\n\r\n(PUT)\r\nG00 X5\r\nM30\r";
        QStringList putArgs = QStringList {"-p", sim.devicePath()} + words("--retry 3 gcode put")
            << m_dir.filePath("put.nc");
        if (burn)
            putArgs << QStringLiteral("--burn");
        const Run put = hustctl(putArgs);
        QVERIFY2(put.status == 0 && put.out.isEmpty(), describe(put));
        QCOMPARE(put.err.count('\n'), 1);
        QVERIFY2(put.err.startsWith("sent " + QByteArray::number(kProgram.size()) + " bytes in "),
                 put.err.constData());
        QCOMPARE(put.err.contains("burn requested"), burn);

        QCOMPARE(sim.currentProgramName(), QStringLiteral("O0100"));
        QCOMPARE(sim.program(QStringLiteral("O0100")), burn ? sent : QByteArray("O0100\nM30\n"));
        QCOMPARE(sim.pendingProgram(), burn ? QByteArray() : sent);

        // A target that is not a regular file is written in place, never replaced.
        const Run get = hustctl({"-p", sim.devicePath(), "gcode", "get", "-o", "/dev/stdout"});
        QVERIFY2(get.status == 0, describe(get));
        QCOMPARE(get.out, burn ? sent : QByteArray("O0100\nM30\n"));
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TestHustctl)
#include "tst_hustctl.moc"
