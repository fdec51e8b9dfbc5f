// The overflow notice on the panel (offscreen), through the link worker, and the UART
// receive-interrupt mask on a memory-backed register.
#include "driverhushcncreaderthread.h"
#include "screencontroller.h"
#include "uartregister.h"

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QTimer>
#include <QtTest>

#include <functional>

class DriverHushCNCReaderWriterTestAccess
{
public:
    explicit DriverHushCNCReaderWriterTestAccess(DriverHushCNCReaderWriter &worker)
        : w(worker)
    { }
    void setUartRegister(UartRegister *reg) { w.m_uartRegister.reset(reg); }

private:
    DriverHushCNCReaderWriter &w;
};

namespace {

// What a notice looked like when it came up.
struct Seen
{
    QPointer<QWidget> dialog;
    QPoint position;
    bool modal;
    QSize size;
    QString message;
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
            if (std::any_of(seen.cbegin(), seen.cend(),
                            [&p](const Seen &s) { return s.dialog == p.widget; }))
                continue;
            seen.append({p.widget, p.position, p.modal, p.widget->size(),
                         p.widget->findChild<QLabel *>()->text()});
            m_onShown(p.widget);
        }
    }

    ScreenController &m_screen;
    std::function<void(QWidget *)> m_onShown;
    QTimer m_timer;
};

} // namespace

class TestOverflowNotice : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QLoggingCategory::setFilterRules(QStringLiteral("hust.*.debug=false")); }

    void init()
    {
        qApp->setProperty("isExit", QVariant());
        qApp->setProperty("ScreenController", QVariant());
    }

    void noticeOnThePanel_data()
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

    void noticeOnThePanel()
    {
        QFETCH(QSize, panel);
        QFETCH(int, num);
        QFETCH(bool, endByExit);
        QFETCH(QPoint, position);

        ScreenController screen(panel.width(), panel.height());
        screen.publish(qApp);
        DriverHushCNCReaderWriter link;
        NoticeWatch watch(screen, [&](QWidget *dialog) {
            if (endByExit)
                qApp->setProperty("isExit", true);
            else
                QTest::mouseClick(dialog->findChild<QPushButton *>(), Qt::LeftButton);
        });

        // A second report while the first is pending is dropped.
        link.showOverflowMsg(num);
        link.showOverflowMsg(num + 1);
        QTRY_COMPARE(watch.seen.size(), 1);
        QTRY_VERIFY(!watch.seen.first().dialog); // destroyed once the notice ended
        QVERIFY(screen.shown().isEmpty());
        QCOMPARE(screen.addedCount(), 1);
        const Seen notice = watch.seen.first();
        QCOMPARE(notice.position, position);
        QVERIFY(notice.modal);
        QCOMPARE(notice.size, QSize(500, 150));
        QCOMPARE(notice.message,
                 QStringLiteral("There are %1 registers to read. It is overflow, Please check it.")
                     .arg(num));

        // With the first notice gone, the next report gets a notice of its own.
        qApp->setProperty("isExit", QVariant());
        link.showOverflowMsg(num + 2);
        QTRY_COMPARE(watch.seen.size(), 2);
        QTRY_VERIFY(screen.shown().isEmpty());
        QCOMPARE(screen.addedCount(), 2);
        QVERIFY(watch.seen.at(1).message.startsWith(QStringLiteral("There are %1 ").arg(num + 2)));
    }

    void noScreenControllerShowsNothing()
    {
        DriverHushCNCReaderWriter link;
        link.showOverflowMsg(120);
        QCoreApplication::processEvents();
        QVERIFY(QApplication::topLevelWidgets().isEmpty());

        // The flag was cleared, so a panel published later gets the next report.
        ScreenController screen;
        screen.publish(qApp);
        NoticeWatch watch(screen, [](QWidget *) { qApp->setProperty("isExit", true); });
        link.showOverflowMsg(121);
        QTRY_COMPARE(screen.addedCount(), 1);
    }

    void uartInterruptBits_data()
    {
        QTest::addColumn<int>("port");
        QTest::addColumn<bool>("enable");
        QTest::addColumn<uint>("before");
        QTest::addColumn<uint>("after");

        QTest::newRow("enable 1 on all") << 1 << true << 0xFFFFFFFFu << 0xFF7FFFFFu;
        QTest::newRow("disable 1 on none") << 1 << false << 0x00000000u << 0x00800000u;
        QTest::newRow("disable 2 on none") << 2 << false << 0x00000000u << 0x00008000u;
        QTest::newRow("enable -1 on all") << -1 << true << 0xFFFFFFFFu << 0xEFFFFFFFu;
        QTest::newRow("port 3 enable") << 3 << true << 0xFFFFFFFFu << 0xFFFFFFFFu;
    }

    void uartInterruptBits()
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
    }
};

QTEST_MAIN(TestOverflowNotice)
#include "tst_overflownotice.moc"
