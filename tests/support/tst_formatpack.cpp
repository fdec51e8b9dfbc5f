#include "packcall.h"

#include <QRandomGenerator>
#include <QtTest>

#include <vector>

Q_DECLARE_METATYPE(Args)

class TestFormatPack : public QObject
{
    Q_OBJECT

private slots:
    // Byte order and widths, which a pack-then-unpack round trip cannot see.
    void packs_data()
    {
        static unsigned int dwords[] = {0x01020304, 0xA0B0C0D0};
        static char letters[] = "abcdefghijklmnop";
        QTest::addColumn<QByteArray>("format");
        QTest::addColumn<Args>("args");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("CnN") << QByteArray("CnN") << Args {{1}, {0x0203}, {0x04050607}}
                             << QByteArray::fromHex("01020304050607");
        const Arg array {0, 4, dwords};
        QTest::newRow("2N 2V") << QByteArray("2N2V") << Args {array, array}
                               << QByteArray::fromHex("01020304a0b0c0d004030201d0c0b0a0");
        QTest::newRow("count of 12")
            << QByteArray("12c") << Args {{0, 1, letters}} << QByteArray("abcdefghijkl");
    }

    void packs()
    {
        QFETCH(QByteArray, format);
        QFETCH(Args, args);
        QFETCH(QByteArray, expected);
        QCOMPARE(byteArrayPack(format, args).toHex(), expected.toHex());
        QByteArray buffer(expected.size() + 4, '\x55');
        QCOMPARE(dataPack(buffer.data(), format, args), expected.size());
        QCOMPARE(buffer.toHex(), (expected + QByteArray(4, '\x55')).toHex());
    }

    // x writes zero bytes, X skips bytes without writing them.
    void skipsAndZeros()
    {
        unsigned char buffer[4] = {0x11, 0x22, 0x33, 0x44};
        QCOMPARE(DataPack(buffer, "2xC", 0xAA), 3);
        QCOMPARE(DataPack(buffer, "C2XC", 1, 2), 4);
        QCOMPARE(QByteArray(reinterpret_cast<char *>(buffer), 4).toHex(), QByteArray("0100aa02"));
        QCOMPARE(ByteArrayPack("xXC", 5), QByteArray::fromHex("000005"));
        unsigned short word = 0;
        QCOMPARE(
            DataUnpack(reinterpret_cast<const unsigned char *>("\x12\x34\x56\x78"), "x1Xn", &word),
            4);
        QCOMPARE(word, (unsigned short)0x5678);
    }

    // Every failure result of the three functions, one row per situation.
    void failures_data()
    {
        QTest::addColumn<QByteArray>("format");
        QTest::addColumn<bool>("nullArgument");
        QTest::addColumn<int>("packed");
        QTest::addColumn<int>("unpacked");
        QTest::newRow("empty format") << QByteArray("") << false << 0 << 0;
        QTest::newRow("unknown after an item") << QByteArray("CQ") << false << 0 << -1;
        QTest::newRow("count 0 before C") << QByteArray("0C") << false << -1 << -1;
        QTest::newRow("count before S") << QByteArray("2S") << false << -1 << -1;
        QTest::newRow("count at the end") << QByteArray("4") << false << -1 << -1;
        QTest::newRow("counted x") << QByteArray("3x") << false << 3 << 3;
        QTest::newRow("count too large") << QByteArray("99999999999C") << false << -1 << -1;
        QTest::newRow("null array pointer") << QByteArray("2C") << true << -1 << -1;
    }

    void failures()
    {
        QFETCH(QByteArray, format);
        QFETCH(bool, nullArgument);
        QFETCH(int, packed);
        QFETCH(int, unpacked);
        const unsigned char source[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        unsigned char buffer[8] = {}, target[8] = {};
        const Args packArgs {nullArgument ? Arg {0, 1} : Arg {0xAB}};
        QCOMPARE(dataPack(buffer, format, packArgs), packed);
        QVERIFY(byteArrayPack(format, packArgs).isEmpty());
        QCOMPARE(dataUnpack(source, format, {{0, 1, nullArgument ? nullptr : target}}), unpacked);
        if (format.startsWith('C')) {
            // Items before the failing one have been written and stored.
            QCOMPARE(buffer[0], (unsigned char)0xAB);
            QCOMPARE(target[0], (unsigned char)1);
        }
    }

    void nullPointers()
    {
        unsigned char byte = 0;
        QCOMPARE(DataPack(nullptr, "C", 1), -1);
        QCOMPARE(DataUnpack(nullptr, "C", &byte), -1);
        QCOMPARE(DataUnpack(&byte, nullptr), 0);
        QVERIFY(ByteArrayPack(nullptr).isEmpty());
    }

    // Random formats of up to four items pack the same bytes through both packers, each value cut
    // to its item's width, and unpacking those bytes gives back every element.
    void roundTrip()
    {
        QRandomGenerator random(20240611);
        for (int round = 0; round < 300; ++round) {
            const int items = 1 + int(random.bounded(4));
            QByteArray format;
            int size = 0;
            // Each item's elements in the machine's order (numbers cut to the item's width), and
            // the storage they are unpacked into.
            std::vector<QByteArray> in(items), out(items);
            Args packArgs, unpackArgs;
            for (int i = 0; i < items; ++i) {
                const bool array = random.bounded(2) == 1;
                const char kind
                    = array ? "CcvnVN"[random.bounded(6)] : "CcSsvnIiLlVN"[random.bounded(12)];
                const int width = QByteArray("Cc").contains(kind) ? 1
                    : QByteArray("Ssvn").contains(kind)           ? 2
                                                                  : 4;
                const int count = array ? 1 + int(random.bounded(5)) : 1;
                for (int e = 0; e < count; ++e) {
                    const quint32 value = random.generate();
                    in[i] += QByteArray(reinterpret_cast<const char *>(&value), width);
                    if (!array)
                        packArgs.push_back({value});
                }
                if (array)
                    packArgs.push_back({0, width, in[i].data()});
                out[i] = QByteArray(in[i].size(), '\0');
                unpackArgs.push_back({0, width, out[i].data()});
                const int skip = int(random.bounded(3));
                format += (array ? QByteArray::number(count) : QByteArray()) + kind
                    + QByteArray(skip, 'x');
                size += width * count + skip;
            }

            const QByteArray packed = byteArrayPack(format, packArgs);
            QCOMPARE(packed.size(), size);
            QByteArray buffer(size, '\x55');
            QCOMPARE(dataPack(buffer.data(), format, packArgs), size);
            QCOMPARE(buffer, packed);
            QCOMPARE(dataUnpack(packed.constData(), format, unpackArgs), size);
            for (int i = 0; i < items; ++i)
                QVERIFY2(out[i] == in[i], format.constData());
        }
    }
};

QTEST_APPLESS_MAIN(TestFormatPack)
#include "tst_formatpack.moc"
