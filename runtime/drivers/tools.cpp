#include "tools.h"

#include <cctype>

namespace {

bool isDigitOfBase(char c, int base)
{
    switch (base) {
    case 8:
        return c >= '0' && c <= '7';
    case 10:
        return c >= '0' && c <= '9';
    default:
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    }
}

template<typename T> T setBitOf(T value, unsigned short bit)
{
    if (bit >= sizeof(T) * 8)
        return value;
    return T(value | (T(1) << bit));
}

template<typename T> T clearBitOf(T value, unsigned short bit)
{
    if (bit >= sizeof(T) * 8)
        return value;
    return T(value & ~(T(1) << bit));
}

template<typename T> bool getBitOf(T value, unsigned short bit)
{
    return bit < sizeof(T) * 8 && ((value >> bit) & 1u);
}

// Unsigned little-endian value of the first `width` bytes; missing bytes count as zero.
quint32 littleEndian(const QByteArray &bytes, int width)
{
    quint32 value = 0;
    const int n = qMin(width, bytes.size());
    for (int i = 0; i < n; ++i)
        value |= quint32(quint8(bytes.at(i))) << (8 * i);
    return value;
}

QByteArray toLittleEndian(quint32 value, int width)
{
    QByteArray bytes(width, '\0');
    for (int i = 0; i < width; ++i)
        bytes[i] = char((value >> (8 * i)) & 0xFF);
    return bytes;
}

} // namespace

QByteArray ExtractPrefixSymbol(const QString &address)
{
    return ExtractPrefixSymbol(address.toLatin1());
}

QByteArray ExtractPrefixSymbol(const QByteArray &address)
{
    int end = 0;
    while (end < address.size()) {
        const unsigned char c = static_cast<unsigned char>(address.at(end));
        if (c >= 0x80 || !(std::isalpha(c) || c == '_'))
            break;
        ++end;
    }
    return address.left(end);
}

int ExtractPLCDeviceAddress(const QString &address, int base)
{
    return ExtractPLCDeviceAddress(address.toLatin1(), base);
}

int ExtractPLCDeviceAddress(const QByteArray &address, int base)
{
    if (base != 10 && base != 16 && base != 8)
        return -1;
    int start = 0;
    while (start < address.size() && !isDigitOfBase(address.at(start), base))
        ++start;
    return address.mid(start).toInt(nullptr, base);
}

unsigned char setBit(unsigned char value, unsigned short bit)
{
    return setBitOf(value, bit);
}
unsigned char clearBit(unsigned char value, unsigned short bit)
{
    return clearBitOf(value, bit);
}
bool getBit(unsigned char value, unsigned short bit)
{
    return getBitOf(value, bit);
}
unsigned short setBit(unsigned short value, unsigned short bit)
{
    return setBitOf(value, bit);
}
unsigned short clearBit(unsigned short value, unsigned short bit)
{
    return clearBitOf(value, bit);
}
bool getBit(unsigned short value, unsigned short bit)
{
    return getBitOf(value, bit);
}
unsigned int setBit(unsigned int value, unsigned short bit)
{
    return setBitOf(value, bit);
}
unsigned int clearBit(unsigned int value, unsigned short bit)
{
    return clearBitOf(value, bit);
}
bool getBit(unsigned int value, unsigned short bit)
{
    return getBitOf(value, bit);
}

bool getBit(const QByteArray &bits, int n)
{
    if (n < 0 || n / 8 >= bits.size())
        return false;
    return getBit(reinterpret_cast<const unsigned char *>(bits.constData()), n);
}

bool getBit(const unsigned char *bits, int n)
{
    if (!bits || n < 0)
        return false;
    return (bits[n / 8] >> (n % 8)) & 1u;
}

void setBit(QByteArray &bits, int n, bool on)
{
    if (n < 0 || n / 8 > bits.size())
        return;
    if (n / 8 == bits.size())
        bits.append('\0');
    setBit(reinterpret_cast<unsigned char *>(bits.data()), n, on);
}

void setBit(unsigned char *bits, int n, bool on)
{
    if (!bits || n < 0)
        return;
    const unsigned char mask = static_cast<unsigned char>(1u << (n % 8));
    if (on)
        bits[n / 8] |= mask;
    else
        bits[n / 8] &= static_cast<unsigned char>(~mask);
}

bool getBitData(const QByteArray &data)
{
    return getBit(data, 0);
}

int QByteArrayToInt(const QByteArray &bytes)
{
    return static_cast<int>(littleEndian(bytes, 4));
}

unsigned short QByteArrayToWord(const QByteArray &bytes)
{
    return static_cast<unsigned short>(littleEndian(bytes, 2));
}

short QByteArrayToShort(const QByteArray &bytes)
{
    return static_cast<short>(littleEndian(bytes, 2));
}

QByteArray intToByteArray(int value)
{
    return toLittleEndian(static_cast<quint32>(value), 4);
}

QByteArray wordToByteArray(unsigned short value)
{
    return toLittleEndian(value, 2);
}

QByteArray shortToByteArray(short value)
{
    return toLittleEndian(static_cast<quint16>(value), 2);
}
