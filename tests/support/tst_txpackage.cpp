#include "txpackage.h"

#include <QtTest>

class TestTxPackage : public QObject
{
    Q_OBJECT

private slots:
    void sections()
    {
        TxPackage package;
        QVERIFY(package.appendByte(0x01));
        QVERIFY(package.appendWord(0x0302));
        QVERIFY(package.appendLRCByte());
        QCOMPARE(package.byteArrayData(), QByteArray::fromHex("01020306"));
        QCOMPARE(package.numberOfSections(), 3);
        QCOMPARE(package.sectionSize(1), 2);
        QCOMPARE(package.sectionStartIndex(2), 3);
        QCOMPARE(package.sectionStartIndex(3), -1);
        QCOMPARE(package.sectionSize(-2), 0);

        package.appendDWord(0x0A0B0C0D);
        package.appendString(QStringLiteral("AB"));
        package.appendSection(QByteArray("xyz"));
        QCOMPARE(package.dataAt(3), QByteArray::fromHex("0d0c0b0a"));
        QCOMPARE(package.dataAt(4), QByteArray("AB"));
        QCOMPARE(package.totalSize(), 13);
    }

    void checkCharacters_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QByteArray>("lrcAscii");
        QTest::addColumn<QByteArray>("fcsAscii");
        QTest::newRow("sum wraps")
            << QByteArray::fromHex("FF02") << QByteArray("01") << QByteArray("FD");
        QTest::newRow("xor") << QByteArray::fromHex("0FF0") << QByteArray("FF") << QByteArray("FF");
        QTest::newRow("empty") << QByteArray() << QByteArray("00") << QByteArray("00");
    }

    void checkCharacters()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QByteArray, lrcAscii);
        QFETCH(QByteArray, fcsAscii);
        TxPackage lrc;
        lrc.appendSection(bytes);
        lrc.appendLRCAscii();
        QCOMPARE(lrc.dataAt(1), lrcAscii);
        TxPackage fcs;
        fcs.appendSection(bytes);
        fcs.appendFCSAscii(5);
        QCOMPARE(fcs.dataAt(1), fcsAscii);
        QCOMPARE(fcs.sectionSize(1), 2);
    }

    void fcsLeavesOutTrailingBytes()
    {
        TxPackage package;
        package.appendSection(QByteArray::fromHex("0102040810"));
        QCOMPARE(TxPackage::calculateFCS(&package, 0), (unsigned char)0x1F);
        QCOMPARE(TxPackage::calculateFCS(&package, 2), (unsigned char)0x07);
        QCOMPARE(TxPackage::calculateFCS(&package, 9), (unsigned char)0);
        QCOMPARE(TxPackage::calculateFCS(nullptr, 0), (unsigned char)0);
    }

    // A received frame read field by field: a one-byte header, a length field and a payload of
    // that length. The section list goes on before the bytes arrive, or after.
    void imposedSections_data()
    {
        QTest::addColumn<QList<int>>("sizes");
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("sizesLast");
        QTest::addColumn<int>("section");
        QTest::addColumn<int>("start");
        QTest::addColumn<int>("size");
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<int>("total");
        const QList<int> frame = {1, 4, -1, 1};
        const QByteArray abc = QByteArray::fromHex("A5030000004142439F");
        QTest::newRow("payload") << frame << abc << false << 2 << 5 << 3 << QByteArray("ABC") << 9;
        QTest::newRow("after the payload")
            << frame << abc << false << 3 << 8 << 1 << QByteArray::fromHex("9F") << 9;
        QTest::newRow("on an empty package")
            << frame << QByteArray() << true << 3 << 5 << 1 << QByteArray(1, 0) << 6;
        // References count the length their field holds, so the received bytes stay whole.
        QTest::newRow("imposed on received bytes")
            << frame << abc << true << 3 << 8 << 1 << QByteArray::fromHex("9F") << 9;
        // A length field past the received bytes does not make the package grow.
        QTest::newRow("length past the bytes")
            << QList<int>({1, 4, -1}) << QByteArray::fromHex("A5FFFFFF7F41") << true << 2 << 5
            << 0x7FFFFFFF << QByteArray("A") << 6;
        QTest::newRow("negative length") << frame << QByteArray::fromHex("00FFFFFFFF41") << false
                                         << 2 << 5 << 0 << QByteArray() << 6;
        const QList<int> odd = {1, 2, -1, -3, -3};
        const QByteArray shortField = QByteArray::fromHex("A50200414243");
        QTest::newRow("two-byte length field")
            << odd << shortField << false << 2 << 3 << 2 << QByteArray("AB") << 6;
        QTest::newRow("forward reference")
            << odd << shortField << false << 3 << 5 << 0 << QByteArray() << 6;
        QTest::newRow("reference to a reference")
            << odd << shortField << false << 4 << 5 << 0 << QByteArray() << 6;
        QTest::newRow("lowest entry") << QList<int>({1, INT_MIN}) << QByteArray(1, 0) << false << 1
                                      << 1 << 0 << QByteArray() << 1;
    }

    void imposedSections()
    {
        QFETCH(QList<int>, sizes);
        QFETCH(QByteArray, bytes);
        QFETCH(bool, sizesLast);
        QFETCH(int, section);
        TxPackage package;
        if (!sizesLast)
            package.setSectionSize(sizes);
        package.setData(bytes);
        if (sizesLast)
            package.setSectionSize(sizes);
        QTEST(package.sectionStartIndex(section), "start");
        QTEST(package.sectionSize(section), "size");
        QTEST(package.dataAt(section), "data");
        QTEST(package.totalSize(), "total");
    }
};

QTEST_APPLESS_MAIN(TestTxPackage)
#include "tst_txpackage.moc"
