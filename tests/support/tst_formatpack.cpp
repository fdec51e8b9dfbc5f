#include "packcall.h"

#include <QRandomGenerator>
#include <QtTest>

namespace {

int widthOf(char kind)
{
    return QByteArray("Cc").contains(kind) ? 1 : QByteArray("Ssvn").contains(kind) ? 2 : 4;
}

} // namespace

class TestFormatPack : public QObject
{
    Q_OBJECT

private slots:
    void packs_data()
    {
        static const unsigned int dwords[] = {0x01020304, 0xA0B0C0D0};
        QTest::addColumn<QByteArray>("format");
        QTest::addColumn<std::vector<PackArg>>("args");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("CnN") << QByteArray("CnN")
                             << std::vector<PackArg> {PackArg::number(0x01),
                                                      PackArg::number(0x0203),
                                                      PackArg::number(0x04050607)}
                             << QByteArray::fromHex("01020304050607");
        QTest::newRow("low bits only")
            << QByteArray("cs")
            << std::vector<PackArg> {PackArg::number(0x1FF), PackArg::number(0xABCDEF)}
            << QByteArray::fromHex("ffefcd");
        const std::vector<PackArg> twice {PackArg::dwords(dwords), PackArg::dwords(dwords)};
        QTest::newRow("2N 2V") << QByteArray("2N2V") << twice
                               << QByteArray::fromHex("01020304a0b0c0d004030201d0c0b0a0");
        QTest::newRow("count of 12")
            << QByteArray("12c") << std::vector<PackArg> {PackArg::bytes("abcdefghijklmnop")}
            << QByteArray("abcdefghijkl");
    }

    void packs()
    {
        QFETCH(QByteArray, format);
        QFETCH(std::vector<PackArg>, args);
        QFETCH(QByteArray, expected);
        QCOMPARE(callByteArrayPack(format.constData(), args).toHex(), expected.toHex());
        QByteArray buffer(expected.size() + 4, '\x55');
        const int written = callDataPack(reinterpret_cast<unsigned char *>(buffer.data()),
                                         format.constData(), args);
        QCOMPARE(written, expected.size());
        QCOMPARE(buffer.left(written).toHex(), expected.toHex());
        QCOMPARE(buffer.mid(written), QByteArray(4, '\x55'));
    }

    void skipsAndZeros()
    {
        unsigned char buffer[4] = {0x11, 0x22, 0x33, 0x44};
        QCOMPARE(DataPack(buffer, "2xC", 0xAA), 3);
        QCOMPARE(QByteArray(reinterpret_cast<char *>(buffer), 4).toHex(), QByteArray("0000aa44"));
        QCOMPARE(DataPack(buffer, "C2XC", 1, 2), 4);
        QCOMPARE(QByteArray(reinterpret_cast<char *>(buffer), 4).toHex(), QByteArray("0100aa02"));
        QCOMPARE(ByteArrayPack("xXC", 5), QByteArray::fromHex("000005"));

        const unsigned char data[] = {0x12, 0x34, 0x56, 0x78};
        unsigned char two[2] = {};
        QCOMPARE(DataUnpack(data, "2X2C", two), 4);
        QCOMPARE(QByteArray(reinterpret_cast<char *>(two), 2).toHex(), QByteArray("5678"));
        unsigned short word = 0;
        QCOMPARE(DataUnpack(data, "x1Xn", &word), 4);
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
        unsigned char target[8] = {};
        const std::vector<PackArg> packArgs {nullArgument ? PackArg::bytes(nullptr)
                                                          : PackArg::number(0xAB)};
        unsigned char buffer[8] = {};
        QCOMPARE(callDataPack(buffer, format.constData(), packArgs), packed);
        QVERIFY(callByteArrayPack(format.constData(), packArgs).isEmpty());
        QCOMPARE(callDataUnpack(source, format.constData(),
                                {UnpackArg {1, nullArgument ? nullptr : target}}),
                 unpacked);
        if (format.startsWith('C')) {
            // Items before the failing one have been written and stored.
            QCOMPARE(buffer[0], (unsigned char)0xAB);
            QCOMPARE(target[0], (unsigned char)1);
        }
    }

    void nullPointers()
    {
        QCOMPARE(DataPack(nullptr, "C", 1), -1);
        QCOMPARE(DataPack(nullptr, ""), 0);
        QCOMPARE(DataUnpack(nullptr, "C", nullptr), -1);
        QCOMPARE(DataUnpack(reinterpret_cast<const unsigned char *>("a"), nullptr), 0);
        QVERIFY(ByteArrayPack(nullptr).isEmpty());
    }

    // Random formats of up to four items pack the same bytes through both packers, and unpacking
    // those bytes gives back every value cut to its item's width.
    void roundTrip()
    {
        QRandomGenerator random(20240611);
        for (int round = 0; round < 300; ++round) {
            const int items = 1 + int(random.bounded(packcall::MaxPackArgs));
            QByteArray format;
            int size = 0;
            // The values of each item, with 8- and 16-bit copies for the arrays that take them.
            std::vector<std::vector<quint32>> values(items), got(items);
            std::vector<std::vector<quint16>> words(items);
            std::vector<std::vector<quint8>> bytes(items);
            std::vector<PackArg> packArgs;
            std::vector<UnpackArg> unpackArgs;
            for (int i = 0; i < items; ++i) {
                const bool array = random.bounded(2) == 1;
                const char kind
                    = array ? "CcvnVN"[random.bounded(6)] : "CcSsvnIiLlVN"[random.bounded(12)];
                const int width = widthOf(kind);
                const int count = array ? 1 + int(random.bounded(5)) : 1;
                for (int e = 0; e < count; ++e)
                    values[i].push_back(random.generate() & (0xFFFFFFFFu >> (32 - 8 * width)));
                words[i].assign(values[i].begin(), values[i].end());
                bytes[i].assign(values[i].begin(), values[i].end());
                got[i].assign(count, 0);
                const int skip = int(random.bounded(3));
                format += (array ? QByteArray::number(count) : QByteArray()) + kind
                    + QByteArray(skip, 'x');
                size += width * count + skip;
                packArgs.push_back(!array           ? PackArg::number(values[i][0])
                                       : width == 1 ? PackArg::bytes(bytes[i].data())
                                       : width == 2 ? PackArg::words(words[i].data())
                                                    : PackArg::dwords(values[i].data()));
                unpackArgs.push_back({width, got[i].data()});
            }

            const QByteArray packed = callByteArrayPack(format.constData(), packArgs);
            QCOMPARE(packed.size(), size);
            QByteArray buffer(size, '\0');
            QCOMPARE(callDataPack(reinterpret_cast<unsigned char *>(buffer.data()),
                                  format.constData(), packArgs),
                     size);
            QCOMPARE(buffer, packed);
            QCOMPARE(callDataUnpack(reinterpret_cast<const unsigned char *>(packed.constData()),
                                    format.constData(), unpackArgs),
                     size);
            for (int i = 0; i < items; ++i) {
                const int width = unpackArgs[i].width;
                for (size_t e = 0; e < values[i].size(); ++e) {
                    quint32 v = 0;
                    memcpy(&v, reinterpret_cast<const char *>(got[i].data()) + e * width, width);
                    QVERIFY2(v == values[i][e], format.constData());
                }
            }
        }
    }
};

QTEST_APPLESS_MAIN(TestFormatPack)
#include "tst_formatpack.moc"
