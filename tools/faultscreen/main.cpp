// A panel screen under line faults: it loads the driver plug-in as hustctl does, opens the host
// serial port on a controller's path and plays the run-time for a while. Every refresh reads the
// screen on show and asks hasError(), writes go out on their own schedule, and with --switch the
// screen changes as an operator paging between two screens would. Each event is one line of
// text, times in milliseconds since the epoch so that a script can set them against the faults
// it caused:
//
//   start T
//   refresh T STALE BLOCKS SCREEN COMPLETE CORRUPT SHIFTED
//   switch T SCREEN
//   write T SEQUENCE ACCEPTED
//   end T LONGEST_GAP_MS
//
// STALE is 1 from the first refresh that saw the driver's error until fresh blocks flow again,
// as hustctl watch marks it; BLOCKS is the driver's count of blocks taken into its cache;
// COMPLETE is 1 when the whole screen had values. The controller is expected to hold
// expectedValue() in every register of both screens (--sim-values prints the hust-sim options
// that seed them): a value that belongs to another register of the screens counts as SHIFTED
// (whole records out of place, as a cut frame or one of the old screen's frames would give),
// any other wrong value as CORRUPT. Writes store 1, 2, 3, ... in double word WriteRegister.
#include "driverplugin.h"
#include "freshness.h"
#include "serialport.h"

#include "communicatorcommand.h"
#include "driverinterface.h"
#include "drv_dev_setting.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QLoggingCategory>
#include <QScopedPointer>
#include <QTimer>
#include <QVariant>

#include <cstdio>
#include <memory>

namespace {

struct Screen
{
    int first;
    int count;
};

// Screen B is one register longer than screen A: a frame of B's list carries A's count of records
// and more, so a frame of the old list that reaches the driver after a switch from B to A shows.
const Screen Screens[] = {{100, 10}, {200, 11}};
constexpr int WriteRegister = 300;

// Distinct for every register (an odd multiplier is a bijection) and rich in every hexadecimal
// digit, so that a value character decoded wrongly always shows.
quint32 expectedValue(int index)
{
    return quint32(index) * 0x9E3779B1u;
}

bool belongsToScreens(quint32 value)
{
    for (const Screen &screen : Screens) {
        for (int i = 0; i < screen.count; ++i) {
            if (expectedValue(screen.first + i) == value)
                return true;
        }
    }
    return false;
}

CommunicatorCommand screenCommand(const Screen &screen)
{
    return CommunicatorCommand(CommunicatorCommand::DWordType, quint32(screen.count),
                               QStringLiteral("DW%1").arg(screen.first));
}

qint64 now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

void pause(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("hust.*.warning=false"));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("A panel screen under line faults; see the comment in main.cpp."));
    parser.addHelpOption();
    parser.addOptions({{"port", "the controller's serial device or link", "PATH"},
                       {"seconds", "how long to run", "S", "10"},
                       {"refresh", "ms between refreshes", "MS", "100"},
                       {"write", "ms between writes (0: none)", "MS", "500"},
                       {"switch", "ms between screen switches (0: none)", "MS", "0"},
                       {"same-length", "screen B only as long as screen A"},
                       {"plugin", "the driver plug-in", "PATH", DriverPlugin::defaultPath()},
                       {"sim-values", "print the hust-sim options that seed both screens"}});
    parser.process(app);
    if (parser.isSet("sim-values")) {
        QStringList options;
        for (const Screen &screen : Screens) {
            for (int i = 0; i < screen.count; ++i)
                options << QStringLiteral("--set %1=%2")
                               .arg(screen.first + i)
                               .arg(expectedValue(screen.first + i));
        }
        printf("%s\n", qPrintable(options.join(QLatin1Char(' '))));
        return 0;
    }
    const int seconds = parser.value("seconds").toInt();
    const int refreshMs = parser.value("refresh").toInt();
    const int writeMs = parser.value("write").toInt();
    const int switchMs = parser.value("switch").toInt();
    if (!parser.isSet("port") || seconds <= 0 || refreshMs <= 0 || writeMs < 0 || switchMs < 0) {
        fprintf(stderr, "hust-faultscreen: bad arguments (see --help)\n");
        return 2;
    }

    app.setProperty("zel_env", true);
    std::unique_ptr<SerialPort> port; // outlives the driver, whose worker uses it to the end
    DriverPlugin plugin;
    if (!plugin.load(parser.value("plugin"))) {
        fprintf(stderr, "hust-faultscreen: %s\n", qPrintable(plugin.errorString()));
        return 1;
    }
    DriverInterface *driver = plugin.driver();
    QScopedPointer<DriverSetting> timing(driver->getDefaultDriverSetting());
    port = std::make_unique<SerialPort>(
        DeviceSetting(DEVICE_SERIAL, parser.value("port"), 38400, 7, 2, 2), *timing);
    if (!port->open()) {
        fprintf(stderr, "hust-faultscreen: %s\n", qPrintable(port->errorString()));
        return 1;
    }
    const auto blocks
        = [driver] { return driver->getThisObject()->property("deliveredBlocks").toULongLong(); };

    // Cut to A's length, B's frames carry exactly the count of records A asks for.
    Screen screens[] = {Screens[0], Screens[1]};
    if (parser.isSet("same-length"))
        screens[1].count = Screens[0].count;
    int shown = 0;
    driver->setSessionCommand({screenCommand(screens[shown])});
    QElapsedTimer clock;
    clock.start();
    Freshness freshness(clock.elapsed(), blocks());
    printf("start %lld\n", now());
    qint64 nextRefresh = 0;
    qint64 nextWrite = writeMs;
    qint64 nextSwitch = switchMs > 0 ? switchMs : -1;
    quint32 sequence = 0;
    while (clock.elapsed() < seconds * 1000LL) {
        if (nextSwitch >= 0 && clock.elapsed() >= nextSwitch) {
            shown = 1 - shown;
            printf("switch %lld %d\n", now(), shown);
            driver->clearSessionCommand();
            driver->setSessionCommand({screenCommand(screens[shown])});
            // Each screen stays on show for the whole interval, however long the change took.
            nextSwitch = clock.elapsed() + switchMs;
        }
        if (writeMs > 0 && clock.elapsed() >= nextWrite) {
            nextWrite = clock.elapsed() + writeMs;
            ++sequence;
            const QByteArray data(reinterpret_cast<const char *>(&sequence), 4);
            const bool accepted
                = driver->write(port.get(),
                                CommunicatorCommand(CommunicatorCommand::DWordType, 1,
                                                    QStringLiteral("DW%1").arg(WriteRegister)),
                                data);
            printf("write %lld %u %d\n", now(), sequence, int(accepted));
        }
        if (clock.elapsed() >= nextRefresh) {
            // Refreshes missed while a call held the loop are not made up for in a burst, as a
            // run-time's refresh timer would not.
            nextRefresh += refreshMs;
            if (nextRefresh <= clock.elapsed())
                nextRefresh = clock.elapsed() + refreshMs;
            const Screen &screen = screens[shown];
            const QByteArray data = driver->read(port.get(), screenCommand(screen));
            // The worker's errors arrive through queued signals.
            QCoreApplication::processEvents();
            const QString error = driver->hasError() ? driver->getLastError() : QString();
            const bool stale = freshness.refresh(clock.elapsed(), blocks(), error);
            int corrupt = 0;
            int shifted = 0;
            for (int i = 0; i < data.size() / 4; ++i) {
                const quint32 value = quint32(quint8(data.at(4 * i)))
                    | quint32(quint8(data.at(4 * i + 1))) << 8
                    | quint32(quint8(data.at(4 * i + 2))) << 16
                    | quint32(quint8(data.at(4 * i + 3))) << 24;
                if (value == expectedValue(screen.first + i))
                    continue;
                if (belongsToScreens(value))
                    ++shifted;
                else
                    ++corrupt;
            }
            printf("refresh %lld %d %llu %d %d %d %d\n", now(), int(stale), blocks(), shown,
                   int(data.size() == 4 * screen.count), corrupt, shifted);
        }
        fflush(stdout);
        pause(5);
        freshness.observe(clock.elapsed(), blocks());
    }
    printf("end %lld %lld\n", now(), freshness.longestGapMs(clock.elapsed()));
    app.setProperty("isExit", true);
    driver->clearSessionCommand();
    return 0;
}
