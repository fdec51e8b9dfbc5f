#include "tools.h"

#include <QtTest>

class TestAddressHelpers : public QObject
{
    Q_OBJECT

private slots:
    void prefix_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QByteArray>("prefix");
        QTest::newRow("underscore") << "_X12" << QByteArray("_X");
        QTest::newRow("digits only") << "100" << QByteArray();
        QTest::newRow("stops at point") << "B.3" << QByteArray("B");
        QTest::newRow("non-latin") << QString::fromUtf8("\xc3\xa9"
                                                        "5")
                                   << QByteArray();
    }

    void prefix()
    {
        QFETCH(QString, address);
        QFETCH(QByteArray, prefix);
        QCOMPARE(ExtractPrefixSymbol(address), prefix);
        QCOMPARE(ExtractPrefixSymbol(address.toLatin1()), prefix);
    }

    void number_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<int>("base");
        QTest::addColumn<int>("number");
        QTest::newRow("no digits") << "d" << 10 << 0;
        QTest::newRow("sign skipped") << "d-5" << 10 << 5;
        QTest::newRow("point spoils") << "d100.2" << 10 << 0;
        QTest::newRow("base 2 refused") << "d100" << 2 << -1;
        QTest::newRow("octal spoiled by 8") << "d18" << 8 << 0;
        QTest::newRow("hex letter is a digit") << "d1f" << 16 << 0xD1F;
        QTest::newRow("too large") << "d99999999999" << 10 << 0;
    }

    void number()
    {
        QFETCH(QString, address);
        QFETCH(int, base);
        QFETCH(int, number);
        QCOMPARE(ExtractPLCDeviceAddress(address, base), number);
        QCOMPARE(ExtractPLCDeviceAddress(address.toLatin1(), base), number);
    }

    // Bit 32 of a double word is past its width: the shift there is undefined and on x86 would
    // reach bit 0 instead.
    void bitPastWidth()
    {
        QCOMPARE(setBit(0u, (unsigned short)32), 0u);
        QCOMPARE(clearBit(1u, (unsigned short)32), 1u);
        QVERIFY(!getBit(1u, (unsigned short)32));
    }

    void arrayBits_data()
    {
        QTest::addColumn<QByteArray>("before");
        QTest::addColumn<int>("bit");
        QTest::addColumn<bool>("on");
        QTest::addColumn<QByteArray>("after");
        QTest::newRow("grows by one")
            << QByteArray(2, 0) << 16 << true << QByteArray::fromHex("000001");
        QTest::newRow("grows when clearing")
            << QByteArray(1, 0) << 8 << false << QByteArray::fromHex("0000");
        QTest::newRow("two past the end") << QByteArray(2, 0) << 24 << true << QByteArray(2, 0);
        QTest::newRow("negative") << QByteArray(2, 0) << -1 << true << QByteArray(2, 0);
        QTest::newRow("high bit of the last byte")
            << QByteArray(5, 0) << 39 << true << QByteArray::fromHex("0000000080");
        QTest::newRow("clear keeps others")
            << QByteArray::fromHex("ff") << 3 << false << QByteArray::fromHex("f7");
    }

    void arrayBits()
    {
        QFETCH(QByteArray, before);
        QFETCH(int, bit);
        QFETCH(bool, on);
        QFETCH(QByteArray, after);
        QByteArray bits = before;
        setBit(bits, bit, on);
        QCOMPARE(bits, after);
        QCOMPARE(getBit(bits, bit), on && bits != before);
    }

    void integers_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("asInt");
        QTest::addColumn<int>("asWord");
        QTest::addColumn<int>("asShort");
        QTest::newRow("empty") << QByteArray() << 0 << 0 << 0;
        QTest::newRow("negative short") << QByteArray::fromHex("ffff") << 65535 << 65535 << -1;
        QTest::newRow("minus one") << QByteArray::fromHex("ffffffff") << -1 << 65535 << -1;
        QTest::newRow("extra bytes ignored")
            << QByteArray::fromHex("7856341299") << 0x12345678 << 0x5678 << 0x5678;
    }

    void integers()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(int, asInt);
        QFETCH(int, asWord);
        QFETCH(int, asShort);
        QCOMPARE(QByteArrayToInt(bytes), asInt);
        QCOMPARE(int(QByteArrayToWord(bytes)), asWord);
        QCOMPARE(int(QByteArrayToShort(bytes)), asShort);
    }
};

QTEST_GUILESS_MAIN(TestAddressHelpers)
#include "tst_addresshelpers.moc"
