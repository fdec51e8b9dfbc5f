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

    void imposedSections()
    {
        // A received frame: a one-byte header, a length field and a payload of that length.
        TxPackage frame;
        frame.setSectionSize({1, 4, -1, 1});
        QCOMPARE(frame.totalSize(), 6);
        frame.setData(QByteArray::fromHex("A5030000004142439F"));
        QCOMPARE(frame.sectionSize(2), 3);
        QCOMPARE(frame.dataAt(2), QByteArray("ABC"));
        QCOMPARE(frame.sectionStartIndex(3), 8);
        QCOMPARE(frame.dataAt(3), QByteArray::fromHex("9F"));

        // Short length field, forward and self references, lengths past the end.
        frame.setSectionSize({1, 2, -1, -3, -3});
        frame.setData(QByteArray::fromHex("A50200414243"));
        QCOMPARE(frame.sectionSize(2), 2);
        QCOMPARE(frame.sectionSize(3), 0);
        QCOMPARE(frame.sectionSize(4), 0);
        frame.setSectionSize({1, 4, -1});
        frame.setData(QByteArray::fromHex("00FFFFFF7F41"));
        QCOMPARE(frame.dataAt(2), QByteArray("A"));
        frame.setData(QByteArray::fromHex("00FFFFFFFF41"));
        QCOMPARE(frame.sectionSize(2), 0);

        frame.setData(nullptr, 5);
        QCOMPARE(frame.totalSize(), 0);
    }
};

QTEST_APPLESS_MAIN(TestTxPackage)
#include "tst_txpackage.moc"
