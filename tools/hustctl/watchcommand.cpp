#include "commands.h"

#include "driverhost.h"
#include "freshness.h"
#include "output.h"
#include "overflowwatch.h"
#include "screencontroller.h"
#include "targetreader.h"

#include "driverinterface.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QJsonObject>
#include <QTimer>

#include <atomic>
#include <csignal>

#include <unistd.h>

namespace {

// How long a notice stays on a platform without a screen before hustctl ends it.
constexpr int kUnattendedNoticeMs = 500;

std::atomic<bool> interrupted {false};
static_assert(std::atomic<bool>::is_always_lock_free, "the flag is set from a signal handler");

void onInterrupt(int)
{
    interrupted = true;
}

// Redraws a block of lines in place on a terminal.
class InPlaceBlock
{
public:
    void draw(QTextStream &out, const QStringList &lines)
    {
        if (m_height > 0)
            out << "\x1b[" << m_height << 'A';
        for (const QString &line : lines)
            out << "\r\x1b[2K" << line << '\n';
        m_height = lines.size();
        out.flush();
    }

private:
    int m_height = 0;
};

// The closing line, in the habit of serial pollers: refreshes, those that showed stale values,
// the rate of fresh blocks and the longest time without one.
void printStatistics(CommandEnv &env, const Freshness &freshness, qint64 endMs)
{
    const double rate = freshness.blocksPerSecond(endMs);
    const double gap = freshness.longestGapMs(endMs) / 1000.0;
    if (env.options.json) {
        const QJsonObject summary {
            {QStringLiteral("refreshes"), freshness.refreshes()},
            {QStringLiteral("errorRefreshes"), freshness.staleRefreshes()},
            {QStringLiteral("freshBlocksPerSecond"), qRound(rate * 10) / 10.0},
            {QStringLiteral("longestGapSeconds"), qRound(gap * 1000) / 1000.0}};
        env.out << jsonLine(QJsonObject {{QStringLiteral("summary"), summary}}) << '\n';
    } else {
        env.out << QStringLiteral("%1 refreshes, %2 with an error, %3 fresh blocks/s, longest gap "
                                  "without fresh data %4 s")
                       .arg(freshness.refreshes())
                       .arg(freshness.staleRefreshes())
                       .arg(rate, 0, 'f', 1)
                       .arg(gap, 0, 'f', 2)
                << '\n';
    }
    env.out.flush();
}

} // namespace

bool WatchCommand::prepare(CtlOptions &options, QString *)
{
    m_keys = options.keys;
    m_targets = options.targets;
    m_doubleWords = screenDoubleWords(m_targets);
    return true;
}

int WatchCommand::reportOverflow(CommandEnv &env)
{
    // The driver's notice runs its own wait in this thread until the operator closes it. A
    // platform without a screen (offscreen, minimal) has nobody to close it: there hustctl ends
    // the wait after a moment, as the run-time does when it shuts down.
    const auto *screen = qobject_cast<ScreenController *>(reinterpret_cast<QObject *>(
        QCoreApplication::instance()->property("ScreenController").toULongLong()));
    const QString platform = QGuiApplication::platformName();
    if (screen
        && (platform == QLatin1String("offscreen") || platform == QLatin1String("minimal"))) {
        QTimer::singleShot(kUnattendedNoticeMs,
                           [] { QCoreApplication::instance()->setProperty("isExit", true); });
    }

    const OverflowWatch overflow(env.driver->getThisObject());
    env.host->setSession(sessionCommands(m_targets));
    QElapsedTimer clock;
    clock.start();
    while (overflow.count() == 0 && clock.elapsed() < env.options.timeoutMs) {
        env.host->readOnce(m_targets.first().readRequests().first().command);
        DriverHost::pause(DriverHost::kPollIntervalMs);
    }
    if (overflow.count() == 0)
        return fail(env.err, QStringLiteral("the driver did not report the overflow"));
    QString where = QStringLiteral("no display for the driver's notice");
    if (screen) {
        while (screen->addedCount() == 0 && clock.elapsed() < env.options.timeoutMs)
            DriverHost::pause(DriverHost::kPollIntervalMs);
        where = screen->addedCount() > 0 ? QStringLiteral("the driver's notice was shown")
                                         : QStringLiteral("the driver's notice did not appear");
    }
    return fail(env.err,
                QStringLiteral("overflow: the screen needs %1 double words, one read "
                               "request carries at most %2 (%3)")
                    .arg(overflow.count())
                    .arg(kMaxDoubleWordsPerRequest)
                    .arg(where));
}

int WatchCommand::run(CommandEnv &env)
{
    const CtlOptions &o = env.options;
    const int interval = o.intervalMs;
    if (m_doubleWords > kMaxDoubleWordsPerRequest)
        return reportOverflow(env);
    const bool inPlace = !o.json && isatty(STDOUT_FILENO);
    QElapsedTimer clock;
    clock.start();
    env.host->setSession(sessionCommands(m_targets));

    // The first refresh waits until the whole screen has data, as a panel does when it opens.
    QList<QVector<quint32>> values;
    for (const Target &target : qAsConst(m_targets)) {
        QVector<quint32> v;
        QString error;
        if (!readTarget(*env.host, target, o.timeoutMs, &v, &error))
            return fail(env.err, error);
        values << v;
    }

    // From here on Ctrl-C (or a polite kill) ends the watch after the refresh under way, with
    // the statistics line.
    interrupted = false;
    const auto previousInt = std::signal(SIGINT, onInterrupt);
    const auto previousTerm = std::signal(SIGTERM, onInterrupt);

    InPlaceBlock block;
    Freshness freshness(clock.elapsed(), env.host->deliveredBlocks());
    for (int refresh = 1; !interrupted; ++refresh) {
        QString error;
        if (refresh > 1) {
            env.host->beginWait(o.timeoutMs);
            for (int i = 0; i < m_targets.size(); ++i) {
                QString callError;
                if (!readTargetNow(*env.host, m_targets.at(i), &values[i], &callError))
                    values[i].clear();
                if (!callError.isEmpty())
                    error = callError;
            }
            env.host->endWait();
        }
        const qint64 ms = clock.elapsed();
        const bool stale = freshness.refresh(ms, env.host->deliveredBlocks(), error);
        const QString shownError = stale ? freshness.error() : QString();
        const double seconds = ms / 1000.0;

        QList<WatchValue> row;
        for (int i = 0; i < m_targets.size(); ++i) {
            WatchValue wv {m_keys.at(i), {}, m_targets.at(i).type(), m_targets.at(i).format()};
            if (!values.at(i).isEmpty())
                wv.value = values.at(i).first();
            row << wv;
        }
        const QString mark = stale ? QStringLiteral("stale: ") + shownError : QString();
        if (o.json) {
            env.out << jsonLine(watchJson(seconds, row, shownError)) << '\n';
            env.out.flush();
        } else {
            QList<QStringList> table;
            for (int i = 0; i < row.size(); ++i) {
                table << QStringList {row.at(i).key,
                                      row.at(i).value ? formatValue(
                                          *row.at(i).value, row.at(i).type, row.at(i).format)
                                                      : QStringLiteral("-")};
            }
            if (inPlace) {
                QString title
                    = QStringLiteral("t = %1 s, refresh %2").arg(seconds, 0, 'f', 1).arg(refresh);
                if (stale)
                    title += QStringLiteral("  ") + mark;
                block.draw(env.out, QStringList {title} + formatTable(table));
            } else {
                QStringList cells {QString::number(seconds, 'f', 3)};
                for (const WatchValue &wv : qAsConst(row))
                    cells << wv.key + QLatin1Char('=')
                            + (wv.value && wv.format != ValueFormat::Plain
                                   ? formatValue(*wv.value, wv.type, wv.format)
                                   : wv.value ? QString::number(*wv.value)
                                              : QStringLiteral("-"));
                if (stale)
                    cells << mark;
                env.out << cells.join(QStringLiteral("  ")) << '\n';
                env.out.flush();
            }
        }
        // A console that takes no more output ends the watch; main reports why.
        if (env.out.status() != QTextStream::Ok || (o.refreshes > 0 && refresh >= o.refreshes))
            break;
        QElapsedTimer wait;
        wait.start();
        while (!interrupted && wait.elapsed() < interval) {
            DriverHost::pause(int(qMin<qint64>(interval - wait.elapsed(), 50)));
            freshness.observe(clock.elapsed(), env.host->deliveredBlocks());
        }
    }
    std::signal(SIGINT, previousInt);
    std::signal(SIGTERM, previousTerm);

    const qint64 end = clock.elapsed();
    printStatistics(env, freshness, end);
    if (freshness.staleRefreshes() == 0)
        return 0;
    return fail(env.err,
                QStringLiteral("stale values on %1 of %2 refreshes (%3)")
                    .arg(freshness.staleRefreshes())
                    .arg(freshness.refreshes())
                    .arg(freshness.error()));
}
