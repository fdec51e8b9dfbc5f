// The overflow notice on the panel (offscreen), through the link worker and through the driver,
// and the UART receive-interrupt mask on a memory-backed register.
#include "driverhushcncreaderthread.h"
#include "hush_cnc.h"
#include "screencontroller.h"
#include "scriptedport.h"
#include "uartregister.h"

#include <QApplication>
#include <QDialog>
#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <functional>

class DriverHushCNCReaderWriterTestAccess
{
public:
    explicit DriverHushCNCReaderWriterTestAccess(DriverHushCNCReaderWriter &worker)
        : w(worker)
    { }
    Worker *overflowWorker() const { return w.m_overflowWorker; }
    bool hasUartRegister() const { return w.m_uartRegister != nullptr; }
    void setUartRegister(UartRegister *reg) { w.m_uartRegister.reset(reg); }

private:
    DriverHushCNCReaderWriter &w;
};

class DriverHushCNCTestAccess
{
public:
    static DriverHushCNCReaderWriter *worker(DriverHushCNC &driver)
    {
        return driver.m_readerWriter;
    }
};

namespace {

// What a notice looked like when it came up.
struct Seen
{
    QPointer<QWidget> dialog;
    QRect geometry;
    QString title;
    QString message;
    QSize buttonMinimum;
    QString fontFamily;
    Qt::WindowFlags flags;
};

// Looks at the panel while a notice waits for its end, and hands each new notice to `onShown`,
// which runs inside that wait.
class NoticeWatch : public QObject
{
public:
    NoticeWatch(ScreenController &screen, std::function<void(QWidget *)> onShown)
        : m_screen(screen)
        , m_onShown(std::move(onShown))
    {
        connect(&m_timer, &QTimer::timeout, this, &NoticeWatch::look);
        m_timer.start(5);
    }

    QList<Seen> seen;

private:
    void look()
    {
        for (const ScreenController::Placement &p : m_screen.shown()) {
            const bool known = std::any_of(seen.cbegin(), seen.cend(),
                                           [&p](const Seen &s) { return s.dialog == p.widget; });
            if (known)
                continue;
            QWidget *dialog = p.widget;
            seen.append({dialog, dialog->geometry(), dialog->windowTitle(),
                         dialog->findChild<QLabel *>()->text(),
                         dialog->findChild<QPushButton *>()->minimumSize(), dialog->font().family(),
                         dialog->windowFlags()});
            m_onShown(dialog);
        }
    }

    ScreenController &m_screen;
    std::function<void(QWidget *)> m_onShown;
    QTimer m_timer;
};

// The widget address a signal carried, read without touching the widget, which may be gone.
const void *widgetAddress(const QVariant &argument)
{
    return *static_cast<QWidget *const *>(argument.constData());
}

const Qt::WindowFlags NoticeFlags = Qt::Tool | Qt::WindowStaysOnTopHint | Qt::CustomizeWindowHint;

} // namespace

class TestOverflowNotice : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void noticeOnThePanel_data();
    void noticeOnThePanel();
    void noScreenControllerShowsNothing();
    void driverOverflowGetsOneNotice();
    void uartInterruptBits_data();
    void uartInterruptBits();
};

void TestOverflowNotice::initTestCase()
{
    qRegisterMetaType<QWidget *>();
    QLoggingCategory::setFilterRules(QStringLiteral("hust.driver.debug=false"));
}

void TestOverflowNotice::init()
{
    qApp->setProperty("isExit", QVariant());
    qApp->setProperty("ScreenController", QVariant());
}

void TestOverflowNotice::noticeOnThePanel_data()
{
    QTest::addColumn<QSize>("panel");
    QTest::addColumn<int>("num");
    QTest::addColumn<bool>("endByExit");
    QTest::addColumn<QPoint>("position");

    QTest::newRow("800x480, Close") << QSize(800, 480) << 120 << false << QPoint(150, 165);
    QTest::newRow("1024x600, isExit") << QSize(1024, 600) << 100 << true << QPoint(262, 225);
    QTest::newRow("panel smaller than notice")
        << QSize(401, 99) << 250 << false << QPoint(-49, -25);
}

void TestOverflowNotice::noticeOnThePanel()
{
    QFETCH(QSize, panel);
    QFETCH(int, num);
    QFETCH(bool, endByExit);
    QFETCH(QPoint, position);

    ScreenController screen(panel.width(), panel.height());
    screen.publish(qApp);
    DriverHushCNCReaderWriter link;
    QImage grabbed;
    NoticeWatch watch(screen, [&](QWidget *dialog) {
        grabbed = dialog->grab().toImage();
        if (endByExit)
            qApp->setProperty("isExit", true);
        else
            QTest::mouseClick(dialog->findChild<QPushButton *>(), Qt::LeftButton);
    });

    // A second report while the first is pending is dropped.
    link.showOverflowMsg(num);
    link.showOverflowMsg(num + 1);
    Worker *worker = DriverHushCNCReaderWriterTestAccess(link).overflowWorker();
    QVERIFY(worker);
    QSignalSpy added(worker, SIGNAL(addGlobalsWidget(QWidget *, QPoint, bool)));
    QSignalSpy removed(worker, SIGNAL(removeGlobalWidget(QWidget *)));
    QTRY_COMPARE(removed.count(), 1);
    QCOMPARE(added.count(), 1);
    QCOMPARE(screen.addedCount(), 1);
    QVERIFY(screen.shown().isEmpty());
    QCOMPARE(widgetAddress(removed.at(0).at(0)), widgetAddress(added.at(0).at(0)));
    QCOMPARE(added.at(0).at(1).toPoint(), position);
    QCOMPARE(added.at(0).at(2).toBool(), true);

    QCOMPARE(watch.seen.size(), 1);
    const Seen notice = watch.seen.first();
    QTRY_VERIFY(!notice.dialog); // destroyed once the notice ended
    QCOMPARE(notice.geometry.size(), QSize(500, 150));
    // The offscreen platform pulls windows back onto its screen, so only the host's position
    // above can be off the panel.
    if (position.x() >= 0 && position.y() >= 0)
        QCOMPARE(notice.geometry.topLeft(), position);
    QCOMPARE(notice.title, QStringLiteral("Overflow"));
    QCOMPARE(notice.message,
             QStringLiteral("There are %1 registers to read. It is overflow, Please check it.")
                 .arg(num));
    QCOMPARE(notice.buttonMinimum, QSize(75, 41));
    QCOMPARE(notice.fontFamily, QStringLiteral("unifont"));
    QCOMPARE(notice.flags & NoticeFlags, NoticeFlags);
    QCOMPARE(grabbed.size(), QSize(500, 150));
    if (position == QPoint(150, 165))
        QVERIFY(grabbed.save(QCoreApplication::applicationDirPath() + "/overflow-notice.png"));

    // With the first notice gone, the next report gets a notice of its own.
    qApp->setProperty("isExit", QVariant());
    link.showOverflowMsg(num + 2);
    QTRY_COMPARE(removed.count(), 2);
    QCOMPARE(screen.addedCount(), 2);
    QCOMPARE(watch.seen.size(), 2);
    QVERIFY(watch.seen.at(1).message.startsWith(QStringLiteral("There are %1 ").arg(num + 2)));
}

void TestOverflowNotice::noScreenControllerShowsNothing()
{
    DriverHushCNCReaderWriter link;
    link.showOverflowMsg(120);
    Worker *worker = DriverHushCNCReaderWriterTestAccess(link).overflowWorker();
    QSignalSpy added(worker, SIGNAL(addGlobalsWidget(QWidget *, QPoint, bool)));
    QCoreApplication::processEvents();
    QVERIFY(added.isEmpty());
    QVERIFY(QApplication::topLevelWidgets().isEmpty());

    // The flag was cleared, so a panel published later gets the next report.
    ScreenController screen;
    screen.publish(qApp);
    NoticeWatch watch(screen, [](QWidget *) { qApp->setProperty("isExit", true); });
    link.showOverflowMsg(121);
    QTRY_COMPARE(screen.addedCount(), 1);
}

void TestOverflowNotice::driverOverflowGetsOneNotice()
{
    qApp->setProperty("zel_env", true);
    ScreenController screen;
    screen.publish(qApp);
    ScriptedPort port;
    DriverHushCNC driver;
    CommunicatorCommand cmd;
    cmd.dataType = CommunicatorCommand::DWordType;
    cmd.length = 120;
    cmd.address = QStringLiteral("DW0");
    QSignalSpy reports(&driver, SIGNAL(showOverflowMsg(int)));
    QSignalSpy started(&driver, SIGNAL(startLoopRead(QStringList)));

    QList<QByteArray> results;
    bool error = false;
    NoticeWatch watch(screen, [&](QWidget *) {
        // More reads while the notice is up are refused again; their reports are dropped.
        for (int i = 0; i < 3; ++i) {
            results.append(driver.read(&port, cmd));
            error = error || driver.hasError();
        }
        QMetaObject::invokeMethod(
            DriverHushCNCTestAccess::worker(driver), [] {}, Qt::BlockingQueuedConnection);
        qApp->setProperty("isExit", true);
    });

    results.append(driver.read(&port, cmd));
    QVERIFY(!driver.hasError());
    QTRY_COMPARE(watch.seen.size(), 1);
    QTRY_VERIFY(screen.shown().isEmpty());
    QCOMPARE(screen.addedCount(), 1);
    QVERIFY(watch.seen.first().message.startsWith(QStringLiteral("There are 120 ")));
    QCOMPARE(results, QList<QByteArray>({{}, {}, {}, {}}));
    QVERIFY(!error);
    QCOMPARE(reports.count(), 4);
    for (const QList<QVariant> &report : reports)
        QCOMPARE(report.at(0).toInt(), 120);
    QCOMPARE(started.count(), 0); // no loop reading for a list that would overflow
}

void TestOverflowNotice::uartInterruptBits_data()
{
    QTest::addColumn<int>("port");
    QTest::addColumn<bool>("enable");
    QTest::addColumn<uint>("before");
    QTest::addColumn<uint>("after");

    QTest::newRow("enable 1 on its bit") << 1 << true << 0x00800000u << 0x00000000u;
    QTest::newRow("enable 1 on all") << 1 << true << 0xFFFFFFFFu << 0xFF7FFFFFu;
    QTest::newRow("disable 1 on none") << 1 << false << 0x00000000u << 0x00800000u;
    QTest::newRow("disable 2 on none") << 2 << false << 0x00000000u << 0x00008000u;
    QTest::newRow("enable 2 on all") << 2 << true << 0xFFFFFFFFu << 0xFFFF7FFFu;
    QTest::newRow("disable 0 on none") << 0 << false << 0x00000000u << 0x10000000u;
    QTest::newRow("disable -1 on none") << -1 << false << 0x00000000u << 0x10000000u;
    QTest::newRow("enable -1 on all") << -1 << true << 0xFFFFFFFFu << 0xEFFFFFFFu;
    QTest::newRow("disable 1 already set") << 1 << false << 0xFFFFFFFFu << 0xFFFFFFFFu;
    QTest::newRow("port 3 disable") << 3 << false << 0x00000000u << 0x00000000u;
    QTest::newRow("port 3 enable") << 3 << true << 0xFFFFFFFFu << 0xFFFFFFFFu;
}

void TestOverflowNotice::uartInterruptBits()
{
    QFETCH(int, port);
    QFETCH(bool, enable);
    QFETCH(uint, before);
    QFETCH(uint, after);

    DriverHushCNCReaderWriter link;
    auto *reg = new MemoryUartRegister(before);
    DriverHushCNCReaderWriterTestAccess(link).setUartRegister(reg);
    QVERIFY(QMetaObject::invokeMethod(&link, "toggleUartInterrupt", Qt::DirectConnection,
                                      Q_ARG(int, port), Q_ARG(bool, enable)));
    QCOMPARE(reg->value(), after);
    QCOMPARE(reg->opens(), port > 2 ? 0 : 1);

    // A port without a bit does not even make the register.
    if (port > 2) {
        DriverHushCNCReaderWriter fresh;
        QMetaObject::invokeMethod(&fresh, "toggleUartInterrupt", Qt::DirectConnection,
                                  Q_ARG(int, port), Q_ARG(bool, enable));
        QVERIFY(!DriverHushCNCReaderWriterTestAccess(fresh).hasUartRegister());
    }
}

QTEST_MAIN(TestOverflowNotice)
#include "tst_overflownotice.moc"
