// The overflow notice on the panel (offscreen), and the UART receive-interrupt mask on a
// memory-backed register.
#include "driverhushcncreaderthread.h"
#include "screencontroller.h"
#include "uartregister.h"

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QTimer>
#include <QtTest>

class DriverHushCNCReaderWriterTestAccess
{
public:
    static void setUartRegister(DriverHushCNCReaderWriter &w, UartRegister *reg)
    {
        w.m_uartRegister.reset(reg);
    }
};

class TestOverflowNotice : public QObject
{
    Q_OBJECT

private slots:
    void noticeOnThePanel_data()
    {
        QTest::addColumn<QSize>("panel");
        QTest::addColumn<bool>("endByExit");
        QTest::addColumn<QString>("position");
        QTest::newRow("800x480, Close") << QSize(800, 480) << false << "150,165";
        QTest::newRow("1024x600, isExit") << QSize(1024, 600) << true << "262,225";
    }

    // A second report while a notice is up is dropped; once it has ended, the next report gets
    // a notice of its own.
    void noticeOnThePanel()
    {
        QFETCH(QSize, panel);
        QFETCH(bool, endByExit);
        QFETCH(QString, position);
        qApp->setProperty("isExit", QVariant());
        ScreenController screen(panel.width(), panel.height());
        screen.publish(qApp);
        DriverHushCNCReaderWriter link;

        // Each notice as it comes up (it waits for its end in a loop of its own), then ended.
        QList<QPointer<QWidget>> dialogs;
        QStringList seen;
        QTimer watch;
        connect(&watch, &QTimer::timeout, [&] {
            for (const ScreenController::Placement &p : screen.shown()) {
                if (dialogs.contains(p.widget))
                    continue;
                dialogs << p.widget;
                seen << QStringLiteral("%1,%2 %3 %4")
                            .arg(p.position.x())
                            .arg(p.position.y())
                            .arg(p.modal ? "modal" : "modeless")
                            .arg(p.widget->findChild<QLabel *>()->text());
                if (endByExit)
                    qApp->setProperty("isExit", true);
                else
                    QTest::mouseClick(p.widget->findChild<QPushButton *>(), Qt::LeftButton);
            }
        });
        watch.start(5);

        link.showOverflowMsg(120);
        link.showOverflowMsg(121);
        QTRY_COMPARE(seen.size(), 1);
        QTRY_VERIFY(!dialogs.first()); // destroyed once the notice ended
        qApp->setProperty("isExit", QVariant());
        link.showOverflowMsg(130);
        QTRY_COMPARE(seen.size(), 2);
        QTRY_VERIFY(screen.shown().isEmpty());
        QCOMPARE(screen.addedCount(), 2);
        const QString notice
            = position + " modal There are %1 registers to read. It is overflow, Please check it.";
        QCOMPARE(seen, QStringList({notice.arg(120), notice.arg(130)}));
    }

    // Enabling a port's receive interrupt clears its mask bit, disabling sets it.
    void uartInterruptBits_data()
    {
        QTest::addColumn<int>("port");
        QTest::addColumn<bool>("enable");
        QTest::addColumn<uint>("before");
        QTest::addColumn<uint>("after");
        QTest::newRow("enable 1 on all") << 1 << true << 0xFFFFFFFFu << 0xFF7FFFFFu;
        QTest::newRow("disable 2 on none") << 2 << false << 0x00000000u << 0x00008000u;
        QTest::newRow("enable -1 on all") << -1 << true << 0xFFFFFFFFu << 0xEFFFFFFFu;
        QTest::newRow("port 3 is left alone") << 3 << true << 0xFFFFFFFFu << 0xFFFFFFFFu;
    }

    void uartInterruptBits()
    {
        QFETCH(int, port);
        QFETCH(bool, enable);
        QFETCH(uint, before);
        QFETCH(uint, after);
        DriverHushCNCReaderWriter link;
        auto *reg = new MemoryUartRegister(before);
        DriverHushCNCReaderWriterTestAccess::setUartRegister(link, reg);
        QVERIFY(QMetaObject::invokeMethod(&link, "toggleUartInterrupt", Qt::DirectConnection,
                                          Q_ARG(int, port), Q_ARG(bool, enable)));
        QCOMPARE(reg->value(), after);
        QCOMPARE(reg->opens(), port > 2 ? 0 : 1);
    }
};

QTEST_MAIN(TestOverflowNotice)
#include "tst_overflownotice.moc"
