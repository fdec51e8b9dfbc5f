#include "tools.h"

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

// Qt's SQL warnings (a connection still in use, a query on a closed database) fail the test.
static QStringList sqlWarnings;

class TestProjectDb : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_tmp;
    QString m_project; // connection to the full project database
    QString m_noNodes; // connection to a database without a NODE table
    QString m_missing; // connection whose file cannot be opened

    QString addConnection(const QString &name, const QString &file)
    {
        QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name).setDatabaseName(file);
        return name;
    }

private slots:
    void initTestCase()
    {
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
            if (type != QtDebugMsg && type != QtInfoMsg && text.contains(QLatin1String("QSql")))
                sqlWarnings << text;
        });
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
                "(3, 21, '10.0.0.2', 502, 0), (3, 22, '10.0.0.%3', 502, 1), (3, 'x', '10.0.0.2', "
                "502, 1), (4, 300, '', 0, 1)",
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
        QTest::newRow("COM12") << "COM12" << 1011;
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

    // Every list starts as "9:9" when "earlier" is set: found entries are appended to it.
    void stationLists_data()
    {
        QTest::addColumn<QString>("connection");
        QTest::addColumn<QString>("ip"); // empty: look up by link id (hmiPort holds it)
        QTest::addColumn<int>("hmiPort");
        QTest::addColumn<bool>("earlier");
        QTest::addColumn<bool>("found");
        QTest::addColumn<QString>("after"); // link:station ...
        QTest::newRow("endpoint appends")
            << m_project << "10.0.0.2" << 2000 << true << true << "9:9 3:20 3:0";
        QTest::newRow("no endpoint, earlier entries count")
            << m_project << "10.0.0.4" << 2000 << true << true << "9:9";
        // Substituted again, the placeholder would become the port and miss the row.
        QTest::newRow("placeholder in ip text")
            << m_project << "10.0.0.%3" << 2000 << false << true << "3:22";
        QTest::newRow("link") << m_project << "" << 2 << false << true << "2:7 2:8";
    }

    void stationLists()
    {
        QFETCH(QString, connection);
        QFETCH(QString, ip);
        QFETCH(int, hmiPort);
        QFETCH(bool, earlier);
        QFETCH(bool, found);
        QFETCH(QString, after);
        QList<LinkIdStationId> result;
        if (earlier)
            result << LinkIdStationId {9, 9};
        const bool ok = ip.isEmpty()
            ? GetLinkIdAndDefaultStationId(connection, hmiPort, result)
            : GetLinkIdAndDefaultStationId(connection, hmiPort, ip, 502, result);
        QCOMPARE(ok, found);
        QStringList pairs;
        for (const LinkIdStationId &pair : result)
            pairs << QStringLiteral("%1:%2").arg(pair.linkId).arg(pair.stationId);
        QCOMPARE(pairs.join(' '), after);
    }
};

QTEST_GUILESS_MAIN(TestProjectDb)
#include "tst_projectdb.moc"
