#include "hustctlprocess.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

// Arguments that put hustctl on the unpaced built-in simulator.
QStringList onSimulator(const QStringList &args)
{
    return QStringList {QStringLiteral("--no-pace")} + args;
}

} // namespace

class TestHustctl : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        const Run probe = hustctl({"read", "DW0", "--no-pace", "--timeout", "3000"});
        m_haveSimulator = !probe.err.contains("no built-in controller simulator");
    }

    void refusals_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("reason");

        const QString regularFile = QFINDTESTDATA("tst_hustctl.cpp");
        QTest::newRow("no command") << QStringList {} << 2 << "no command";
        QTest::newRow("unknown command") << QStringList {"peek", "DW1"} << 2 << "unknown command";
        QTest::newRow("unknown option")
            << QStringList {"read", "DW1", "--frob"} << 2 << "unknown option \"--frob\"";
        QTest::newRow("option without value")
            << QStringList {"read", "DW1", "-c"} << 2 << "-c needs a value";
        QTest::newRow("option of another command")
            << QStringList {"read", "DW1", "-n", "2"} << 2 << "-n does not apply to read";
        QTest::newRow("bad baud") << QStringList {"-b", "fast", "read", "DW1"} << 2 << "-b";
        QTest::newRow("bad parity")
            << QStringList {"read", "DW1", "-P", "mark"} << 2 << "not even, odd or none";
        QTest::newRow("unknown prefix")
            << QStringList {"read", "X100"} << 2 << "unknown address kind \"X\"";
        QTest::newRow("lower-case prefix")
            << QStringList {"read", "dw100"} << 2 << "unknown address kind";
        QTest::newRow("no number") << QStringList {"read", "DW"} << 2 << "has no number";
        QTest::newRow("register beyond range")
            << QStringList {"read", "DW100000"} << 2 << "beyond the controller's range";
        QTest::newRow("count beyond range")
            << QStringList {"read", "DW99999", "-c", "2"} << 2 << "run beyond";
        QTest::newRow("bit device beyond range")
            << QStringList {"read", "I256"} << 2 << "beyond the controller's range";
        QTest::newRow("bit number beyond 31") << QStringList {"read", "B10.32"} << 2 << "0 to 31";
        QTest::newRow("point on a DW") << QStringList {"read", "DW10.3"} << 2 << "only B addresses";
        QTest::newRow("overflowing request")
            << QStringList {"read", "DW0", "-c", "100"} << 2 << "more than the 99";
        QTest::newRow("unknown type")
            << QStringList {"read", "DW1", "-t", "qword"} << 2 << "\"qword\" is not a type";
        QTest::newRow("bit type on a register")
            << QStringList {"read", "DW1", "-t", "bit"} << 2 << "B1.<bit>";
        QTest::newRow("word of bits unaligned")
            << QStringList {"read", "I5", "-t", "word"} << 2 << "multiple of 16";
        QTest::newRow("value not a number")
            << QStringList {"write", "DW1", "12x"} << 2 << "\"12x\" is not a number";
        QTest::newRow("value beyond 32 bits")
            << QStringList {"write", "DW1", "4294967296"} << 2 << "out of the 32-bit range";
        QTest::newRow("negative beyond 32 bits")
            << QStringList {"write", "DW1", "-2147483649"} << 2 << "out of the 32-bit range";
        QTest::newRow("bit value 2")
            << QStringList {"write", "B10.3", "2"} << 2 << "a bit is 0 or 1";
        QTest::newRow("write to inputs")
            << QStringList {"write", "I5", "1"} << 2 << "cannot be written";
        QTest::newRow("write of words")
            << QStringList {"write", "DW1", "5", "-t", "word"} << 2 << "words cannot be written";
        QTest::newRow("write without value")
            << QStringList {"write", "DW1"} << 2 << "at least one value";
        QTest::newRow("watch type missing")
            << QStringList {"watch", "DW1:"} << 2 << "no type after the colon";
        QTest::newRow("simulator seed with a port")
            << QStringList {"-p", "/dev/ttyS0", "--sim-set", "1=2", "read", "DW1"} << 2
            << "apply to the built-in simulator";
        QTest::newRow("gcode without action") << QStringList {"gcode"} << 2 << "get or put";
        QTest::newRow("gcode unknown action")
            << QStringList {"gcode", "list"} << 2 << "\"list\" is neither get nor put";
        QTest::newRow("gcode put without file")
            << QStringList {"gcode", "put"} << 2 << "one program file";
        QTest::newRow("gcode get with a file")
            << QStringList {"gcode", "get", "x.nc"} << 2 << "use -o FILE";
        QTest::newRow("burn on get")
            << QStringList {"gcode", "get", "--burn"} << 2 << "--burn applies to gcode put";
        QTest::newRow("all on put")
            << QStringList {"gcode", "put", "x.nc", "--all"} << 2 << "--all applies to gcode get";
        QTest::newRow("gcode option on read")
            << QStringList {"read", "DW1", "-o", "x"} << 2 << "-o does not apply to read";
        QTest::newRow("simulator programs with a port")
            << QStringList {"-p", "/dev/ttyS0", "--sim-programs", "/tmp", "gcode", "get"} << 2
            << "apply to the built-in simulator";
        QTest::newRow("missing port") << QStringList {"-p", "/dev/does-not-exist", "read", "DW1"}
                                      << 1 << "/dev/does-not-exist: No such file or directory";
        QTest::newRow("regular file as port")
            << QStringList {"read", "DW1", "--port", regularFile} << 1 << "not a terminal";
        QTest::newRow("missing plug-in")
            << QStringList {"--plugin", "/nonexistent/libx.so", "info"} << 1 << "no such file";
    }

    void refusals()
    {
        QFETCH(QStringList, args);
        QFETCH(int, status);
        QFETCH(QString, reason);
        const Run run = hustctl(args);
        QVERIFY2(run.status == status, qPrintable(describe(run)));
        QVERIFY2(run.out.isEmpty(), qPrintable(describe(run)));
        QCOMPARE(run.err.count('\n'), 1);
        QVERIFY2(run.err.startsWith("hustctl: "), qPrintable(describe(run)));
        QVERIFY2(QString::fromUtf8(run.err).contains(reason), qPrintable(describe(run)));
    }

    void read_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QByteArray>("out");

        QTest::newRow("dwords")
            << QStringList {"--sim-set", "100=1", "--sim-set", "101=2", "--json", "read",
                            "DW100",     "-t",    "dword",     "-c",    "2"}
            << QByteArray("{\"address\": \"DW100\", \"type\": \"dword\", \"values\": [1, 2]}\n");
        QTest::newRow("options after the command word")
            << QStringList {"read", "DW100", "--json", "--sim-set=100=0xffffffff"}
            << QByteArray(
                   "{\"address\": \"DW100\", \"type\": \"dword\", \"values\": [4294967295]}\n");
        QTest::newRow("words are halves of double words")
            << QStringList {"--sim-set", "100=0x56781234", "read", "DW100", "-t", "word", "-c",
                            "2",         "--json"}
            << QByteArray(
                   "{\"address\": \"DW100\", \"type\": \"word\", \"values\": [4660, 22136]}\n");
        QTest::newRow("input bits")
            << QStringList {"--sim-set", "10800=0x20", "--json", "read", "I4", "-c", "3"}
            << QByteArray("{\"address\": \"I4\", \"type\": \"bit\", \"values\": [0, 1, 0]}\n");
        QTest::newRow("top bit of a register")
            << QStringList {"--sim-set", "10=0x80000000", "--json", "read", "B10.31"}
            << QByteArray("{\"address\": \"B10.31\", \"type\": \"bit\", \"values\": [1]}\n");
        QTest::newRow("human-readable")
            << QStringList {"--sim-set", "7=26", "read", "DW7", "-c", "2"}
            << QByteArray("DW7  26 (0x0000001a)\nDW8  0 (0x00000000)\n");
    }

    void read()
    {
        QFETCH(QStringList, args);
        QFETCH(QByteArray, out);
        if (!m_haveSimulator)
            QSKIP("this build has no built-in simulator");
        const Run run = hustctl(onSimulator(args));
        QVERIFY2(run.status == 0, qPrintable(describe(run)));
        QCOMPARE(run.out, out);
    }

    void write_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QByteArray>("out");

        QTest::newRow("one double word")
            << QStringList {"write", "DW200", "77", "--json"}
            << QByteArray("{\"address\": \"DW200\", \"type\": \"dword\", \"values\": [77]}\n");
        QTest::newRow("consecutive double words")
            << QStringList {"--json", "write", "B300", "1", "0x10", "-1"}
            << QByteArray("{\"address\": \"B300\", \"type\": \"dword\", \"values\": [1, 16, "
                          "4294967295]}\n");
        QTest::newRow("set a bit")
            << QStringList {"--sim-set", "10=0x1", "write", "B10.3", "1", "--json"}
            << QByteArray("{\"address\": \"B10.3\", \"type\": \"bit\", \"values\": [1]}\n");
        QTest::newRow("clear a bit")
            << QStringList {"--sim-set", "10=0xffffffff", "write", "B10.0", "0", "--json"}
            << QByteArray("{\"address\": \"B10.0\", \"type\": \"bit\", \"values\": [0]}\n");
    }

    // A write is confirmed by reading the values back from the controller.
    void write()
    {
        QFETCH(QStringList, args);
        QFETCH(QByteArray, out);
        if (!m_haveSimulator)
            QSKIP("this build has no built-in simulator");
        const Run run = hustctl(onSimulator(args));
        QVERIFY2(run.status == 0, qPrintable(describe(run)));
        QCOMPARE(run.out, out);
    }

    void watchJson()
    {
        if (!m_haveSimulator)
            QSKIP("this build has no built-in simulator");
        const Run run
            = hustctl(onSimulator({"--sim-set", "100=5", "--sim-set", "10800=0x20", "--json",
                                   "watch", "DW100", "I5", "DW0:dword", "-n", "2", "-l", "100"}));
        QVERIFY2(run.status == 0, qPrintable(describe(run)));
        const QList<QByteArray> lines = run.out.trimmed().split('\n');
        QCOMPARE(lines.size(), 2);
        double previous = -1;
        for (const QByteArray &line : lines) {
            const QJsonObject refresh = QJsonDocument::fromJson(line).object();
            QVERIFY2(refresh.value("t").toDouble() > previous, line.constData());
            previous = refresh.value("t").toDouble();
            const QJsonObject values = refresh.value("values").toObject();
            QCOMPARE(values.keys(), (QStringList {"DW0:dword", "DW100", "I5"}));
            QCOMPARE(values.value("DW100").toInt(), 5);
            QCOMPARE(values.value("I5").toInt(), 1);
        }
        QVERIFY(line(lines.first()).indexOf("DW100") < line(lines.first()).indexOf("I5"));
    }

    // Without a terminal the refreshes are plain lines, one per refresh.
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
        QStringList screen {"watch"};
        for (int i = 0; i < 100; ++i)
            screen << QStringLiteral("DW%1").arg(i);
        const Run run = hustctl(onSimulator(screen), 30000, env);
        QVERIFY2(run.status == 1, qPrintable(describe(run)));
        QVERIFY2(run.err.contains("needs 100 double words") && run.err.contains(where.toUtf8()),
                 qPrintable(describe(run)));
        QVERIFY(run.out.isEmpty());
    }

    void watchPlain()
    {
        if (!m_haveSimulator)
            QSKIP("this build has no built-in simulator");
        const Run run = hustctl(onSimulator({"watch", "DW100", "I5", "B10.3", "-n", "2", "-l", "50",
                                             "--sim-set", "100=5", "--sim-set", "10800=0x20"}));
        QVERIFY2(run.status == 0, qPrintable(describe(run)));
        const QList<QByteArray> lines = run.out.trimmed().split('\n');
        QCOMPARE(lines.size(), 2);
        const QRegularExpression refresh(
            QStringLiteral("^[0-9]+\\.[0-9]{3}  DW100=5  I5=1  B10\\.3=0$"));
        for (const QByteArray &l : lines)
            QVERIFY2(refresh.match(line(l)).hasMatch(), l.constData());
    }

    // The controller's frame counter moves on by itself, so a value written there never shows.
    void writeNotConfirmed()
    {
        if (!m_haveSimulator)
            QSKIP("this build has no built-in simulator");
        const Run run = hustctl(onSimulator({"write", "DW0", "0", "--timeout", "500"}));
        QVERIFY2(run.status == 1, qPrintable(describe(run)));
        QCOMPARE(run.err,
                 QByteArray("hustctl: DW0: the controller does not show the written value\n"));
    }

    void demo()
    {
        if (!m_haveSimulator)
            QSKIP("this build has no built-in simulator");
        const Run run = hustctl({"demo"}, 60000);
        QVERIFY2(run.status == 0, qPrintable(describe(run)));
        QVERIFY2(run.out.contains("changed"), run.out.constData());
    }

    // A line on which the controller never answers.
    void silentLine()
    {
        const int master = posix_openpt(O_RDWR | O_NOCTTY);
        QVERIFY(master >= 0);
        QVERIFY(grantpt(master) == 0 && unlockpt(master) == 0);
        const QString slave = QString::fromLocal8Bit(ptsname(master));
        const Run run = hustctl({"read", "DW1", "-p", slave, "--timeout", "300"});
        close(master);
        QVERIFY2(run.status == 1, qPrintable(describe(run)));
        // Either the driver gives up first ("Read Time Out") or hustctl's own time-out ends it.
        QCOMPARE(run.err.count('\n'), 1);
        QVERIFY2(run.err.startsWith("hustctl: DW1: "), qPrintable(describe(run)));
    }

    void info()
    {
        const Run run = hustctl({"info"});
        QVERIFY2(run.status == 0, qPrintable(describe(run)));
        QVERIFY(run.out.contains("Hust CNC Controller (Hust)"));
        QVERIFY(run.out.contains("RS232,38400,EVEN,7,2"));
    }

    void help()
    {
        const Run run = hustctl({"read", "--help"});
        QVERIFY2(run.status == 0, qPrintable(describe(run)));
        QVERIFY(run.out.startsWith("usage: hustctl"));
    }

private:
    static QString line(const QByteArray &bytes) { return QString::fromUtf8(bytes); }

    bool m_haveSimulator = false;
};

QTEST_GUILESS_MAIN(TestHustctl)
#include "tst_hustctl.moc"
