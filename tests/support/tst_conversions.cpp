#include "communicatorcommand.h"
#include "lib_crc.h"
#include "tools.h"

#include <QRandomGenerator>
#include <QtTest>

namespace {

using Crc = quint32 (*)(const QByteArray &);

// Bitwise CRC of a reflected (least significant bit first) register.
quint32 reflected(const QByteArray &data, quint32 poly, quint32 crc)
{
    for (char c : data) {
        crc ^= quint8(c);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1u) ? (crc >> 1) ^ poly : crc >> 1;
    }
    return crc;
}

// Bitwise CRC-16 with the most significant bit first.
quint32 msbFirst(const QByteArray &data, quint16 crc)
{
    for (char c : data) {
        for (int bit = 7; bit >= 0; --bit) {
            const bool top = ((crc >> 15) & 1u) != ((quint8(c) >> bit) & 1u);
            crc = quint16(crc << 1) ^ (top ? 0x1021 : 0);
        }
    }
    return crc;
}

// The SICK checksum as the sensors describe it: shift the register once per byte, adding the
// polynomial when a one falls out, then mix in the byte and its predecessor as one 16-bit word.
quint32 sick(const QByteArray &data)
{
    quint32 reg = 0;
    quint8 previous = 0;
    for (char c : data) {
        reg <<= 1;
        if (reg & 0x10000u)
            reg ^= 0x18005u;
        reg ^= quint32(previous) * 256u + quint8(c);
        previous = quint8(c);
    }
    return quint16(reg);
}

// Runs a table-driven update function over the data.
template<typename Update> quint32 fold(const QByteArray &data, quint32 crc, Update update)
{
    for (char c : data)
        crc = update(crc, quint8(c));
    return crc;
}

} // namespace

Q_DECLARE_METATYPE(Crc)

class TestConversions : public QObject
{
    Q_OBJECT

private slots:
    // Each row: the library's table-driven CRC, an independent bitwise one, the check value.
    void crc_data()
    {
        QTest::addColumn<Crc>("byTable");
        QTest::addColumn<Crc>("bitwise");
        QTest::addColumn<quint32>("check");
        QTest::newRow("CRC-16/ARC") << Crc([](const QByteArray &d) {
            return quint32(
                CRC16Calculate(reinterpret_cast<const unsigned char *>(d.data()), d.size()));
        }) << Crc([](const QByteArray &d) { return reflected(d, 0xA001, 0); })
                                    << 0xBB3Du;
        QTest::newRow("CRC-32") << Crc([](const QByteArray &d) {
            return ~fold(d, ~0u, update_crc_32);
        }) << Crc([](const QByteArray &d) { return ~reflected(d, 0xEDB88320u, ~0u); })
                                << 0xCBF43926u;
        QTest::newRow("CRC-16/CCITT-FALSE")
            << Crc([](const QByteArray &d) { return fold(d, 0xFFFF, update_crc_ccitt); })
            << Crc([](const QByteArray &d) { return msbFirst(d, 0xFFFF); }) << 0x29B1u;
        QTest::newRow("CRC-16/KERMIT")
            << Crc([](const QByteArray &d) { return fold(d, 0, update_crc_kermit); })
            << Crc([](const QByteArray &d) { return reflected(d, 0x8408, 0); }) << 0x2189u;
        QTest::newRow("CRC-16/DNP")
            << Crc([](const QByteArray &d) { return fold(d, 0, update_crc_dnp) ^ 0xFFFFu; })
            << Crc([](const QByteArray &d) { return reflected(d, 0xA6BC, 0) ^ 0xFFFFu; })
            << 0xEA82u;
        QTest::newRow("SICK") << Crc([](const QByteArray &d) {
            unsigned short crc = 0;
            for (int i = 0; i < d.size(); ++i)
                crc = update_crc_sick(crc, quint8(d[i]), i ? quint8(d[i - 1]) : 0);
            return quint32(crc);
        }) << Crc(sick) << 0xA656u;
    }

    void crc()
    {
        QFETCH(Crc, byTable);
        QFETCH(Crc, bitwise);
        QFETCH(quint32, check);
        QCOMPARE(byTable("123456789"), check);
        QCOMPARE(bitwise("123456789"), check);
        QRandomGenerator random(0xC0FFEE);
        for (int round = 0; round < 200; ++round) {
            QByteArray data(int(random.bounded(64)), '\0');
            for (char &c : data)
                c = char(random.bounded(256));
            QCOMPARE(byTable(data), bitwise(data));
        }
    }

    void hexToUInt_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<int>("len");
        QTest::addColumn<uint>("value");
        QTest::newRow("0x prefix") << QByteArray("0x1A") << 4 << 26u;
        QTest::newRow("bad digit") << QByteArray("1G") << 2 << 0u;
        QTest::newRow("len cuts") << QByteArray("123") << 2 << 0x12u;
        QTest::newRow("zero byte ends") << QByteArray("12\0"
                                                      "3",
                                                      4)
                                        << 4 << 0x12u;
        QTest::newRow("prefix cut by len") << QByteArray("0x12") << 2 << 0u;
        QTest::newRow("nine digits keep low 32 bits")
            << QByteArray("123456789") << 9 << 0x23456789u;
        QTest::newRow("negative len") << QByteArray("12") << -1 << 0u;
    }

    void hexToUInt()
    {
        QFETCH(QByteArray, text);
        QFETCH(int, len);
        QFETCH(uint, value);
        QCOMPARE(HexToUInt(text.constData(), len), value);
    }

    void rightShift_data()
    {
        QTest::addColumn<QByteArray>("before");
        QTest::addColumn<int>("n");
        QTest::addColumn<QByteArray>("after");
        QTest::newRow("carry across three bytes")
            << QByteArray::fromHex("0FF0A5") << 12 << QByteArray::fromHex("5F0A00");
        QTest::newRow("far out") << QByteArray::fromHex("FF") << 1000 << QByteArray::fromHex("00");
        QTest::newRow("negative") << QByteArray::fromHex("FF") << -3 << QByteArray::fromHex("FF");
        QTest::newRow("empty") << QByteArray() << 3 << QByteArray();
    }

    void rightShift()
    {
        QFETCH(QByteArray, before);
        QFETCH(int, n);
        QFETCH(QByteArray, after);
        RightShiftNBits(before, n);
        QCOMPARE(before.toHex(), after.toHex());
    }

    // Odd tails stay in place or are padded with zero bytes.
    void byteOrderAndPadding()
    {
        QByteArray abc("ABC");
        toLittleEndianUShortArray(abc);
        QCOMPARE(abc, QByteArray("BAC"));
        QByteArray six("ABCDEF");
        toLittleEndianULongArray(six);
        QCOMPARE(six, QByteArray("DCBAEF"));
        QCOMPARE(toBigEndianULongArray("ABCDE"), QByteArray("DCBA\0\0\0E", 8));
        const unsigned char raw[] = {1, 2, 3, 4};
        QCOMPARE(fromBigEndianUShortArray(raw, 2), QByteArray::fromHex("02010403"));
        QCOMPARE(To64bitsData(QByteArray(12, 'a')).size(), 16);
        QCOMPARE(To32bitsData("abcde"), QByteArray("abcde\0\0\0", 8));
        QCOMPARE(To16bitsData(QByteArray()), QByteArray());
    }

    void safeData_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<uint>("length");
        QTest::addColumn<int>("dataSize");
        QTest::addColumn<int>("safeSize");
        QTest::newRow("dwords padded") << 3 << 2u << 3 << 8;
        QTest::newRow("dwords cut") << 3 << 2u << 10 << 8;
        QTest::newRow("unknown type") << 7 << 4u << 4 << 0;
        QTest::newRow("too large") << 4 << 0xFFFFFFFFu << 4 << -1;
    }

    void safeData()
    {
        QFETCH(int, type);
        QFETCH(uint, length);
        QFETCH(int, dataSize);
        QFETCH(int, safeSize);
        const CommunicatorCommand cmd(CommunicatorCommand::DataType(type), length, "d0");
        QCOMPARE(GetSafeDataLen(cmd), safeSize);
        const QByteArray data = QByteArray("123456789abcdef").left(dataSize);
        QCOMPARE(ToSafeData(cmd, data), (data + QByteArray(8, '\0')).left(qMax(safeSize, 0)));
    }
};

QTEST_APPLESS_MAIN(TestConversions)
#include "tst_conversions.moc"
