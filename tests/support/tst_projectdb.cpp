#include "tools.h"

#include <QCoreApplication>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

Q_DECLARE_METATYPE(QList<LinkIdStationId>)

namespace {

QStringList sqlWarnings;

void recordSqlWarnings(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type != QtDebugMsg && type != QtInfoMsg && message.contains(QLatin1String("QSql")))
        sqlWarnings << message;
}

LinkIdStationId ids(int link, int station)
{
    LinkIdStationId pair;
    pair.linkId = link;
    pair.stationId = station;
    return pair;
}

} // namespace

class TestProjectDb : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_tmp;
    QString m_project; // connection to the full project database
    QString m_noNodes; // connection to a database without a NODE table
    QString m_missing; // connection whose file cannot be opened

    QString addConnection(const QString &suffix, const QString &file)
    {
        const QString name = QStringLiteral("tst_projectdb_%1_%2")
                                 .arg(QCoreApplication::applicationPid())
                                 .arg(suffix);
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
        db.setDatabaseName(file);
        return name;
    }

private slots:
    void initTestCase()
    {
        qInstallMessageHandler(recordSqlWarnings);
        QVERIFY(m_tmp.isValid());
        m_project = addConnection("project", m_tmp.filePath("database"));
        {
            QSqlDatabase db = QSqlDatabase::database(m_project);
            QVERIFY(db.isOpen());
            QSqlQuery q(db);
            const char *statements[] = {
                "CREATE TABLE LINK (LINKID INTEGER, HMIPORT INTEGER)",
                "CREATE TABLE NODE (LINKID INTEGER, STATIONID INTEGER, IP TEXT, PORT INTEGER, "
                "ISDEFAULT INTEGER)",
                "INSERT INTO LINK VALUES (1, 1000), (2, 1001), (3, 2000), (4, 1002)",
                // Rows of one link go in ascending station order, so that the order in which
                // SQLite returns them does not depend on its query plan.
                "INSERT INTO NODE VALUES (1, 6, '', 0, 0), (1, 5, '', 0, 1), (2, 7, '', 0, 1), "
                "(2, 8, '', 0, 1), (3, 9, '10.0.0.3', 502, 1), (3, 20, '10.0.0.2', 502, 1), "
                "(3, 21, '10.0.0.2', 502, 0), (3, 'x', '10.0.0.2', 502, 1), (4, 300, '', 0, 1)",
            };
            for (const char *statement : statements)
                QVERIFY2(q.exec(QLatin1String(statement)), statement);
        }
        m_noNodes = addConnection("nonodes", m_tmp.filePath("empty"));
        m_missing = addConnection("missing", m_tmp.filePath("no/such/dir/database"));
    }

    void cleanupTestCase()
    {
        for (const QString &name : {m_project, m_noNodes, m_missing}) {
            QSqlDatabase::database(name, false).close();
            QSqlDatabase::removeDatabase(name);
        }
        qInstallMessageHandler(nullptr);
        QVERIFY2(sqlWarnings.isEmpty(), qPrintable(sqlWarnings.join('\n')));
    }

    void hmiPort_data()
    {
        QTest::addColumn<QString>("device");
        QTest::addColumn<int>("port");
        QTest::newRow("ethernet") << "Ethernet0" << 2000;
        QTest::newRow("COM1") << "COM1" << 1000;
        QTest::newRow("COM12") << "COM12" << 1011;
        QTest::newRow("digits inside") << "COM2A10" << 1009;
        QTest::newRow("empty") << "" << InvalidHmiPort;
        QTest::newRow("no number") << "COM" << InvalidHmiPort;
        QTest::newRow("number too large") << "COM2147483647" << InvalidHmiPort;
    }

    void hmiPort()
    {
        QFETCH(QString, device);
        QFETCH(int, port);
        QCOMPARE(DevStrToHmiPort(device), port);
    }

    void defaultStation_data()
    {
        QTest::addColumn<QString>("connection");
        QTest::addColumn<int>("hmiPort");
        QTest::addColumn<bool>("found");
        QTest::addColumn<int>("linkId");
        QTest::addColumn<int>("stationId");
        QTest::newRow("default node") << m_project << 1000 << true << 1 << 5;
        // Two default nodes on the link: the first row that the query returns wins.
        QTest::newRow("first of two") << m_project << 1001 << true << 2 << 7;
        QTest::newRow("station cut to 8 bits") << m_project << 1002 << true << 4 << 300 % 256;
        QTest::newRow("no link") << m_project << 1005 << false << -7 << 99;
        QTest::newRow("statement fails") << m_noNodes << 1000 << false << -7 << 99;
        QTest::newRow("cannot open") << m_missing << 1000 << false << -7 << 99;
    }

    void defaultStation()
    {
        QFETCH(QString, connection);
        QFETCH(int, hmiPort);
        QFETCH(bool, found);
        QFETCH(int, linkId);
        QFETCH(int, stationId);
        int link = -7;
        unsigned char station = 99;
        QCOMPARE(GetLinkIdAndDefaultStationId(connection, hmiPort, link, station), found);
        QCOMPARE(link, linkId);
        QCOMPARE(int(station), stationId);
    }

    void stationLists_data()
    {
        QTest::addColumn<QString>("connection");
        QTest::addColumn<QString>("ip"); // empty: look up by link id (hmiPort holds it)
        QTest::addColumn<int>("hmiPort");
        QTest::addColumn<QList<LinkIdStationId>>("before");
        QTest::addColumn<bool>("found");
        QTest::addColumn<QList<LinkIdStationId>>("after");
        const QList<LinkIdStationId> none;
        const QList<LinkIdStationId> earlier {ids(9, 9)};
        QTest::newRow("endpoint") << m_project << "10.0.0.2" << 2000 << none << true
                                  << QList<LinkIdStationId> {ids(3, 20), ids(3, 0)};
        QTest::newRow("endpoint appends") << m_project << "10.0.0.3" << 2000 << earlier << true
                                          << QList<LinkIdStationId> {ids(9, 9), ids(3, 9)};
        QTest::newRow("no endpoint, earlier entries count")
            << m_project << "10.0.0.4" << 2000 << earlier << true << earlier;
        QTest::newRow("placeholder in ip text")
            << m_project << "10.0.0.%3" << 2000 << none << false << none;
        QTest::newRow("link") << m_project << "" << 2 << none << true
                              << QList<LinkIdStationId> {ids(2, 7), ids(2, 8)};
        QTest::newRow("link without default") << m_project << "" << 5 << none << false << none;
        QTest::newRow("link, statement fails")
            << m_noNodes << "" << 2 << earlier << true << earlier;
        QTest::newRow("endpoint, cannot open")
            << m_missing << "10.0.0.2" << 2000 << none << false << none;
    }

    void stationLists()
    {
        QFETCH(QString, connection);
        QFETCH(QString, ip);
        QFETCH(int, hmiPort);
        QFETCH(QList<LinkIdStationId>, before);
        QFETCH(bool, found);
        QFETCH(QList<LinkIdStationId>, after);
        QList<LinkIdStationId> result = before;
        const bool ok = ip.isEmpty()
            ? GetLinkIdAndDefaultStationId(connection, hmiPort, result)
            : GetLinkIdAndDefaultStationId(connection, hmiPort, ip, 502, result);
        QCOMPARE(ok, found);
        QCOMPARE(result.size(), after.size());
        for (int i = 0; i < result.size(); ++i) {
            QCOMPARE(result.at(i).linkId, after.at(i).linkId);
            QCOMPARE(result.at(i).stationId, after.at(i).stationId);
        }
    }
};

QTEST_GUILESS_MAIN(TestProjectDb)
#include "tst_projectdb.moc"
