// The overflow notice in a process without widgets: the count is logged and nothing is shown.
#include "driverhushcncreaderthread.h"

#include <QCoreApplication>
#include <QtTest>

namespace {

QStringList notices;

void collect(QtMsgType, const QMessageLogContext &context, const QString &message)
{
    if (qstrcmp(context.category, "hust.driver") == 0 && message.contains("registers to read"))
        notices.append(message);
}

} // namespace

class TestOverflowHeadless : public QObject
{
    Q_OBJECT

private slots:
    // A second report before the first is handled is dropped; once handled, the next is not.
    void reportsAreLoggedOneAtATime()
    {
        QLoggingCategory::setFilterRules(QStringLiteral("hust.driver.debug=true"));
        const QtMessageHandler previous = qInstallMessageHandler(collect);
        DriverHushCNCReaderWriter link;
        link.showOverflowMsg(120);
        link.showOverflowMsg(121);
        QCoreApplication::processEvents();
        link.showOverflowMsg(130);
        QCoreApplication::processEvents();
        qInstallMessageHandler(previous);
        QCOMPARE(notices,
                 QStringList({"There are 120 registers to read. It is overflow",
                              "There are 130 registers to read. It is overflow"}));
    }
};

QTEST_GUILESS_MAIN(TestOverflowHeadless)
#include "tst_overflowheadless.moc"
