// hustctl gcode get and put as processes: on the built-in simulator, and over --port against a
// simulator that this test keeps running between the runs, so that a put can be read back.
#include "hustctlprocess.h"
#include "simulator.h"

#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>

namespace {

const QByteArray kFirst = "O0001\n(FIRST)\nG00 X1\n%\nM30\n";
const QByteArray kSecond = "O0002\nG01 Y2 F50\nM30\n";

// The final progress line on a stream that is no terminal.
const QRegularExpression kReceivedLine(QStringLiteral("^received ([0-9]+) bytes in [0-9.]+ s\n$"));

QByteArray withoutPercent(QByteArray text)
{
    return text.replace('%', QByteArray());
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
}

} // namespace

class TestHustctlGCode : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void getFromBuiltInSimulator_data();
    void getFromBuiltInSimulator();
    void failures_data();
    void failures();
    void putThenGet_data();
    void putThenGet();
    void silentController_data();
    void silentController();

private:
    QTemporaryDir m_dir;
    QString m_programs; // a program directory for --sim-programs
};

void TestHustctlGCode::initTestCase()
{
    QVERIFY(m_dir.isValid());
    m_programs = m_dir.filePath(QStringLiteral("programs"));
    QVERIFY(QDir().mkpath(m_programs));
    QVERIFY(writeFile(m_programs + QStringLiteral("/O0001"), kFirst));
    QVERIFY(writeFile(m_programs + QStringLiteral("/O0002"), kSecond));
    QVERIFY(writeFile(m_dir.filePath(QStringLiteral("blank.nc")), "\n\n\n"));
}

void TestHustctlGCode::getFromBuiltInSimulator_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<bool>("toFile");
    QTest::addColumn<QByteArray>("text"); // empty: any program starting with "O0001"

    QTest::newRow("sample program") << QStringList {"gcode", "get"} << false << QByteArray();
    QTest::newRow("current program to a file")
        << QStringList {"gcode", "get", "--sim-programs", m_programs} << true
        << withoutPercent(kFirst);
    QTest::newRow("all programs") << QStringList {"--sim-programs", m_programs, "gcode", "get",
                                                  "--all"}
                                  << false << withoutPercent(kFirst + kSecond);
}

void TestHustctlGCode::getFromBuiltInSimulator()
{
    QFETCH(QStringList, args);
    QFETCH(bool, toFile);
    QFETCH(QByteArray, text);

    const QString output = m_dir.filePath(QStringLiteral("got.nc"));
    QFile::remove(output);
    if (toFile)
        args << QStringLiteral("-o") << output;
    const Run run = hustctl(QStringList {QStringLiteral("--no-pace")} + args);
    QVERIFY2(run.status == 0, qPrintable(describe(run)));
    const QByteArray got = toFile ? readFile(output) : run.out;
    if (toFile)
        QVERIFY(run.out.isEmpty());
    if (text.isEmpty())
        QVERIFY2(got.startsWith("O0001\n") && got.count('\n') > 3, got.constData());
    else
        QCOMPARE(got, text);
    const QRegularExpressionMatch progress = kReceivedLine.match(QString::fromUtf8(run.err));
    QVERIFY2(progress.hasMatch(), run.err.constData());
    QCOMPARE(progress.captured(1).toInt(), got.size());
}

void TestHustctlGCode::failures_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("reason");

    QTest::newRow("missing program directory")
        << QStringList {"--sim-programs", "/nonexistent/programs", "gcode", "get"}
        << "no such program directory";
    QTest::newRow("missing program file")
        << QStringList {"gcode", "put", "/nonexistent/x.nc"} << "/nonexistent/x.nc";
    QTest::newRow("program file of blank lines")
        << QStringList {"gcode", "put", m_dir.filePath(QStringLiteral("blank.nc"))}
        << "no program text to send";
}

void TestHustctlGCode::failures()
{
    QFETCH(QStringList, args);
    QFETCH(QString, reason);
    const Run run = hustctl(QStringList {QStringLiteral("--no-pace")} + args);
    QVERIFY2(run.status == 1, qPrintable(describe(run)));
    QVERIFY(run.out.isEmpty());
    QCOMPARE(run.err.count('\n'), 1);
    QVERIFY2(run.err.startsWith("hustctl: ") && QString::fromUtf8(run.err).contains(reason),
             qPrintable(describe(run)));
}

void TestHustctlGCode::putThenGet_data()
{
    QTest::addColumn<bool>("burn");
    QTest::newRow("burn") << true;
    QTest::newRow("no burn") << false;
}

// Without burning the controller keeps the program only as received; its current program stays.
void TestHustctlGCode::putThenGet()
{
    QFETCH(bool, burn);

    hustsim::SimulatorConfig config;
    config.paced = false;
    hustsim::Simulator sim(config);
    sim.setProgram(QStringLiteral("O0100"), "O0100\nM30\n");
    QVERIFY2(sim.start(), qPrintable(sim.errorString()));
    const QString port = sim.devicePath();

    const QString file = m_dir.filePath(QStringLiteral("put.nc"));
    const QByteArray text = "O0200\r\n\r\n(PUT)\r\nG00 X5\r\n\n\nM30\r\n";
    QVERIFY(writeFile(file, text));
    const QByteArray sent = "O0200\r\n\r\n(PUT)\r\nG00 X5\r\nM30\r";
    QStringList putArgs {"-p", port, "gcode", "put", file};
    if (burn)
        putArgs << QStringLiteral("--burn");
    const Run put = hustctl(putArgs);
    QVERIFY2(put.status == 0, qPrintable(describe(put)));
    QVERIFY(put.out.isEmpty());
    QCOMPARE(put.err.count('\n'), 1);
    QVERIFY2(put.err.startsWith(QStringLiteral("sent %1 bytes in ").arg(text.size()).toLatin1()),
             put.err.constData());
    QCOMPARE(put.err.contains("burn requested"), burn);

    QCOMPARE(sim.currentProgramName(), QStringLiteral("O0100"));
    QCOMPARE(sim.program(QStringLiteral("O0100")), burn ? sent : QByteArray("O0100\nM30\n"));
    QCOMPARE(sim.pendingProgram(), burn ? QByteArray() : sent);

    const Run get = hustctl({"-p", port, "gcode", "get"});
    QVERIFY2(get.status == 0, qPrintable(describe(get)));
    QCOMPARE(get.out, burn ? sent : QByteArray("O0100\nM30\n"));
}

void TestHustctlGCode::silentController_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("reason");

    QTest::newRow("get") << QStringList {"gcode", "get"} << "the controller did not answer";
    QTest::newRow("put") << QStringList {"gcode", "put", m_programs + QStringLiteral("/O0002")}
                         << "the controller did not answer after the send";
}

// Nobody answers on the line: hustctl ends with a message and status 1 instead of waiting.
void TestHustctlGCode::silentController()
{
    QFETCH(QStringList, args);
    QFETCH(QString, reason);

    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    QVERIFY(master >= 0);
    QVERIFY(grantpt(master) == 0 && unlockpt(master) == 0);
    const QString slave = QString::fromLocal8Bit(ptsname(master));
    const Run run = hustctl(QStringList {QStringLiteral("-p"), slave} + args, 60000);
    close(master);
    QVERIFY2(run.status == 1, qPrintable(describe(run)));
    QVERIFY(run.out.isEmpty());
    QCOMPARE(run.err.count('\n'), 1);
    QVERIFY2(run.err.startsWith("hustctl: gcode ") && QString::fromUtf8(run.err).contains(reason),
             qPrintable(describe(run)));
}

QTEST_GUILESS_MAIN(TestHustctlGCode)
#include "tst_hustctl_gcode.moc"
