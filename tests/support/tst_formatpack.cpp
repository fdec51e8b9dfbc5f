#include "packcall.h"

#include <QRandomGenerator>
#include <QtTest>

namespace {

// One item of a generated format, with the values it packs.
struct Item
{
    char kind;
    int count; // -1 for a single item
    std::vector<quint32> values;
};

int widthOf(char kind)
{
    return QByteArray("Cc").contains(kind) ? 1 : QByteArray("Ssvn").contains(kind) ? 2 : 4;
}

quint32 maskFor(int width)
{
    return width == 4 ? 0xFFFFFFFFu : (1u << (8 * width)) - 1u;
}

} // namespace

class TestFormatPack : public QObject
{
    Q_OBJECT

private slots:
    void packs_data()
    {
        static const unsigned short words[] = {0x1234, 0x5678};
        static const unsigned int dwords[] = {0x01020304, 0xA0B0C0D0};
        static const unsigned char bytes[] = {0xDE, 0xAD, 0xBE};
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
        QTest::newRow("2v") << QByteArray("2v") << std::vector<PackArg> {PackArg::words(words)}
                            << QByteArray::fromHex("34127856");
        QTest::newRow("2N 2V") << QByteArray(
            "2N2V") << std::vector<PackArg> {PackArg::dwords(dwords), PackArg::dwords(dwords)}
                               << QByteArray::fromHex("01020304a0b0c0d004030201d0c0b0a0");
        QTest::newRow("3C x") << QByteArray("3Cx") << std::vector<PackArg> {PackArg::bytes(bytes)}
                              << QByteArray::fromHex("deadbe00");
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
        QCOMPARE(two[0], (unsigned char)0x56);
        QCOMPARE(two[1], (unsigned char)0x78);
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
        QTest::addColumn<bool>("arrayEmpty");
        QTest::addColumn<int>("unpacked");
        QTest::newRow("empty format") << QByteArray("") << false << 0 << true << 0;
        QTest::newRow("unknown character") << QByteArray("Q") << false << 0 << true << -1;
        QTest::newRow("unknown after an item") << QByteArray("CQ") << false << 0 << true << -1;
        QTest::newRow("count 0 before C") << QByteArray("0C") << false << -1 << true << -1;
        QTest::newRow("count before S") << QByteArray("2S") << false << -1 << true << -1;
        QTest::newRow("count at the end") << QByteArray("4") << false << -1 << true << -1;
        QTest::newRow("counted x") << QByteArray("3x") << false << 3 << true << 3;
        QTest::newRow("count too large") << QByteArray("99999999999C") << false << -1 << true << -1;
        QTest::newRow("null array pointer") << QByteArray("2C") << true << -1 << true << -1;
    }

    void failures()
    {
        QFETCH(QByteArray, format);
        QFETCH(bool, nullArgument);
        QFETCH(int, packed);
        QFETCH(bool, arrayEmpty);
        QFETCH(int, unpacked);
        unsigned char source[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        unsigned char target[8] = {};
        const unsigned char *in = nullArgument ? nullptr : source;
        unsigned char *out = nullArgument ? nullptr : target;
        const std::vector<PackArg> packArgs {nullArgument ? PackArg::bytes(nullptr)
                                                          : PackArg::number(0xAB)};
        unsigned char buffer[8] = {};
        QCOMPARE(callDataPack(buffer, format.constData(), packArgs), packed);
        QCOMPARE(callByteArrayPack(format.constData(), packArgs).isEmpty(), arrayEmpty);
        QCOMPARE(callDataUnpack(in ? in : source, format.constData(), {UnpackArg {1, out}}),
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
        static const char singles[] = "CcSsvnIiLlVN";
        static const char arrays[] = "CcvnVN";
        QRandomGenerator random(20240611);
        for (int round = 0; round < 300; ++round) {
            std::vector<Item> items;
            QByteArray format;
            const int itemCount = 1 + int(random.bounded(packcall::MaxPackArgs));
            int expectedSize = 0;
            for (int i = 0; i < itemCount; ++i) {
                Item item;
                const bool array = random.bounded(2) == 1;
                item.kind = array ? arrays[random.bounded(6)] : singles[random.bounded(12)];
                item.count = array ? 1 + int(random.bounded(5)) : -1;
                for (int e = 0; e < qMax(item.count, 1); ++e)
                    item.values.push_back(random.generate() & maskFor(widthOf(item.kind)));
                if (array)
                    format += QByteArray::number(item.count);
                format += item.kind;
                expectedSize += widthOf(item.kind) * qMax(item.count, 1);
                const int skip = int(random.bounded(3));
                format += QByteArray(skip, 'x');
                expectedSize += skip;
                items.push_back(item);
            }

            std::vector<std::vector<quint16>> wordStore(items.size());
            std::vector<std::vector<quint8>> byteStore(items.size());
            std::vector<PackArg> packArgs;
            for (size_t i = 0; i < items.size(); ++i) {
                const Item &item = items[i];
                if (item.count < 0) {
                    packArgs.push_back(PackArg::number(item.values[0]));
                } else if (widthOf(item.kind) == 1) {
                    byteStore[i].assign(item.values.begin(), item.values.end());
                    packArgs.push_back(PackArg::bytes(byteStore[i].data()));
                } else if (widthOf(item.kind) == 2) {
                    wordStore[i].assign(item.values.begin(), item.values.end());
                    packArgs.push_back(PackArg::words(wordStore[i].data()));
                } else {
                    packArgs.push_back(PackArg::dwords(item.values.data()));
                }
            }

            const QByteArray packed = callByteArrayPack(format.constData(), packArgs);
            QCOMPARE(packed.size(), expectedSize);
            QByteArray buffer(expectedSize, '\0');
            QCOMPARE(callDataPack(reinterpret_cast<unsigned char *>(buffer.data()),
                                  format.constData(), packArgs),
                     expectedSize);
            QCOMPARE(buffer, packed);

            std::vector<std::vector<quint32>> out(items.size());
            std::vector<UnpackArg> unpackArgs;
            for (size_t i = 0; i < items.size(); ++i) {
                out[i].assign(items[i].values.size(), 0);
                unpackArgs.push_back({widthOf(items[i].kind), out[i].data()});
            }
            QCOMPARE(callDataUnpack(reinterpret_cast<const unsigned char *>(packed.constData()),
                                    format.constData(), unpackArgs),
                     expectedSize);
            for (size_t i = 0; i < items.size(); ++i) {
                const int width = widthOf(items[i].kind);
                for (size_t e = 0; e < items[i].values.size(); ++e) {
                    quint32 got = 0;
                    memcpy(&got, reinterpret_cast<const char *>(out[i].data()) + e * width, width);
                    QVERIFY2(got == items[i].values[e], format.constData());
                }
            }
        }
    }
};

QTEST_APPLESS_MAIN(TestFormatPack)
#include "tst_formatpack.moc"
