#include "tools.h"

#include "communicatorcommand.h"
#include "lib_crc.h"
#include "supportlog.h"

#include <QCoreApplication>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>

#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <limits>
#include <sys/types.h>

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

// ---- Byte order and arrangement ------------------------------------------------------------

namespace {

// Reverses every whole group of `width` bytes of a in place.
void reverseGroups(QByteArray &a, int width)
{
    char *p = a.data();
    const int whole = a.size() - a.size() % width;
    for (int i = 0; i < whole; i += width)
        std::reverse(p + i, p + i + width);
}

QByteArray paddedTo(const QByteArray &a, int width)
{
    QByteArray padded = a;
    const int rest = a.size() % width;
    if (rest)
        padded.append(width - rest, '\0');
    return padded;
}

QByteArray fromBigEndianGroups(const unsigned char *data, int count, int width)
{
    if (!data || count <= 0 || count > INT_MAX / width)
        return QByteArray();
    QByteArray a(reinterpret_cast<const char *>(data), count * width);
    reverseGroups(a, width);
    return a;
}

} // namespace

QByteArray fromBigEndianUShortArray(const unsigned char *data, int count)
{
    return fromBigEndianGroups(data, count, 2);
}

QByteArray fromBigEndianULongArray(const unsigned char *data, int count)
{
    return fromBigEndianGroups(data, count, 4);
}

void toLittleEndianUShortArray(QByteArray &a)
{
    reverseGroups(a, 2);
}

void toLittleEndianULongArray(QByteArray &a)
{
    reverseGroups(a, 4);
}

QByteArray toBigEndianUShortArray(const QByteArray &a)
{
    QByteArray b = paddedTo(a, 2);
    reverseGroups(b, 2);
    return b;
}

QByteArray toBigEndianULongArray(const QByteArray &a)
{
    QByteArray b = paddedTo(a, 4);
    reverseGroups(b, 4);
    return b;
}

void appendBigEndianUShort(QByteArray &a, unsigned short v)
{
    a.append(char(v >> 8));
    a.append(char(v & 0xFF));
}

QByteArray reverseArray(const QByteArray &a)
{
    QByteArray r = a;
    std::reverse(r.begin(), r.end());
    return r;
}

// ---- Padding to register widths ------------------------------------------------------------

QByteArray To16bitsData(const QByteArray &a)
{
    return paddedTo(a, 2);
}

QByteArray To32bitsData(const QByteArray &a)
{
    return paddedTo(a, 4);
}

QByteArray To64bitsData(const QByteArray &a)
{
    return paddedTo(a, 8);
}

int GetSafeDataLen(const CommunicatorCommand &cmd)
{
    const qint64 length = cmd.length;
    qint64 bytes = 0;
    switch (static_cast<quint32>(cmd.dataType)) {
    case 0:
    case 6:
        bytes = (length + 7) / 8;
        break;
    case 1:
    case 5:
        bytes = length;
        break;
    case 2:
        bytes = 2 * length;
        break;
    case 3:
        bytes = 4 * length;
        break;
    case 4:
        bytes = 8 * length;
        break;
    default:
        break;
    }
    return bytes > INT_MAX ? -1 : int(bytes);
}

QByteArray ToSafeData(const CommunicatorCommand &cmd, const QByteArray &data)
{
    const int size = GetSafeDataLen(cmd);
    if (size < 0)
        return QByteArray();
    QByteArray safe = data.left(size);
    if (safe.size() < size)
        safe.append(size - safe.size(), '\0');
    return safe;
}

// A grown array gets zero bytes, so that no bit reads what the allocator left behind.
void FitBitArray(QByteArray &a, int bits)
{
    const int size = bits <= 0 ? 0 : bits / 8 + (bits % 8 ? 1 : 0);
    if (size < a.size())
        a.truncate(size);
    else
        a.append(size - a.size(), '\0');
}

void clearUnnecessaryBits(QByteArray &a, int bits)
{
    if (bits < 0 || bits % 8 == 0 || bits / 8 >= a.size())
        return;
    a[bits / 8] = char(quint8(a.at(bits / 8)) & ((1u << (bits % 8)) - 1u));
}

// ---- Bit strings ---------------------------------------------------------------------------

QByteArray ExpandBitsToBytes(const QByteArray &bits, unsigned short first, int count)
{
    if (count <= 0)
        return QByteArray();
    QByteArray bytes(count, '\0');
    for (int i = 0; i < count; ++i) {
        const qint64 n = qint64(first) + i;
        if (n / 8 >= bits.size())
            break;
        bytes[i] = getBit(bits, int(n)) ? 1 : 0;
    }
    return bytes;
}

void CopyBits(QByteArray &dst, QByteArray &src, int dstFirst, int count)
{
    if (dstFirst < 0 || count < 1)
        return;
    const qint64 available = qint64(src.size()) * 8;
    const qint64 last = qMin<qint64>(count, available);
    for (qint64 i = 0; i < last && dstFirst + i <= INT_MAX; ++i)
        setBit(dst, int(dstFirst + i), getBit(src, int(i)));
}

void RightShiftNBits(QByteArray &a, int n)
{
    if (n <= 0 || a.isEmpty())
        return;
    const int size = a.size();
    if (n / 8 >= size) {
        a.fill('\0');
        return;
    }
    const int k = n / 8;
    const int r = n % 8;
    unsigned char *p = reinterpret_cast<unsigned char *>(a.data());
    for (int i = 0; i < size - k; ++i) {
        const unsigned high = (i + k + 1 < size) ? p[i + k + 1] : 0u;
        p[i] = static_cast<unsigned char>(((p[i + k] >> r) | (high << (8 - r))) & 0xFFu);
    }
    std::fill(p + size - k, p + size, 0);
}

// ---- Unit counts ---------------------------------------------------------------------------

namespace {

unsigned int divideRoundingUp(unsigned long long value, unsigned int unit)
{
    return static_cast<unsigned int>((value + unit - 1) / unit);
}

} // namespace

unsigned int NumOfBitsToNumOfBytes(unsigned int offset, unsigned int bits)
{
    return divideRoundingUp(0ull + offset + bits, 8);
}

unsigned int NumOfBitsToNumOfWords(unsigned int offset, unsigned int bits)
{
    return divideRoundingUp(0ull + offset + bits, 16);
}

unsigned int NumOfBitsToNumOfDWords(unsigned int offset, unsigned int bits)
{
    return divideRoundingUp(0ull + offset + bits, 32);
}

unsigned int NumOfBytesToNumOfWords(unsigned int bytes)
{
    return divideRoundingUp(bytes, 2);
}

unsigned int NumOfBytesToNumOfDWords(unsigned int bytes)
{
    return divideRoundingUp(bytes, 4);
}

unsigned int NumOfBytesToNumOfQuadWords(unsigned int bytes)
{
    return divideRoundingUp(bytes, 8);
}

// ---- Command data types --------------------------------------------------------------------

bool isBitCommand(const CommunicatorCommand &cmd)
{
    return cmd.dataType == CommunicatorCommand::BitType;
}

bool isByteCommand(const CommunicatorCommand &cmd)
{
    return cmd.dataType == CommunicatorCommand::ByteType;
}

bool isWordCommand(const CommunicatorCommand &cmd)
{
    return cmd.dataType == CommunicatorCommand::WordType;
}

bool isDoubleWordCommand(const CommunicatorCommand &cmd)
{
    return cmd.dataType == CommunicatorCommand::DWordType;
}

bool isBlockCommand(const CommunicatorCommand &cmd)
{
    return cmd.dataType == CommunicatorCommand::BlockType;
}

// ---- Checksums -----------------------------------------------------------------------------

unsigned char UInt8CheckSum(const unsigned char *data, int len)
{
    return static_cast<unsigned char>(UShortCheckSum(data, len) & 0xFFu);
}

unsigned short UShortCheckSum(const unsigned char *data, int len)
{
    unsigned int sum = 0;
    for (int i = 0; data && i < len; ++i)
        sum += data[i];
    return static_cast<unsigned short>(sum & 0xFFFFu);
}

unsigned char XorUInt8CheckSum(const unsigned char *data, int len)
{
    unsigned char x = 0;
    for (int i = 0; data && i < len; ++i)
        x ^= data[i];
    return x;
}

unsigned short CRC16Calculate(const unsigned char *data, int len)
{
    unsigned short crc = 0;
    for (int i = 0; data && i < len; ++i)
        crc = update_crc_16(crc, data[i]);
    return crc;
}

// ---- Parsing, time, processes, debugging ----------------------------------------------------

namespace {

int hexDigitValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

unsigned int HexToUInt(const char *text, int len)
{
    if (!text || len < 1 || text[0] == '\0')
        return 0;
    int i = 0;
    if (text[0] == '0') {
        ++i;
        if (i < len && (text[i] == 'x' || text[i] == 'X'))
            ++i;
        if (i >= len || text[i] == '\0')
            return 0;
    }
    unsigned int value = 0;
    for (; i < len && text[i] != '\0'; ++i) {
        const int digit = hexDigitValue(text[i]);
        if (digit < 0)
            return 0;
        value = value * 16u + unsigned(digit);
    }
    return value;
}

void HRSleep(unsigned long ms)
{
    timespec request;
    request.tv_sec = static_cast<time_t>(ms / 1000);
    request.tv_nsec = static_cast<long>((ms % 1000) * 1000000L);
    timespec remaining;
    while (nanosleep(&request, &remaining) != 0 && errno == EINTR)
        request = remaining;
}

qint64 CurrentMSecsSinceBoot()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool ProcessIsRunning(long long pid)
{
    if (pid < 1 || pid > std::numeric_limits<pid_t>::max())
        return false;
    return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

QString dumpByteArray(const QByteArray &a)
{
    QString text = QStringLiteral("(");
    for (char c : a)
        text += QStringLiteral("0X") + QString::number(quint8(c), 16) + QLatin1Char(' ');
    const int end = a.indexOf('\0');
    text += QStringLiteral(") : ") + QString::fromLatin1(end < 0 ? a : a.left(end));
    return text;
}

// ---- Format-string packing -----------------------------------------------------------------

namespace {

enum class PackOp { Pack, ByteArray, Unpack };

// One item of a format: its character and its count (-1 for a single item).
struct FormatItem
{
    char kind = 0;
    int count = -1;
};

enum class ParseResult { Item, End, Unknown, BadCount };

// Reads the item at *format and advances past it.
ParseResult nextItem(const char *&format, PackOp op, FormatItem &item)
{
    if (*format == '\0')
        return ParseResult::End;
    item = FormatItem();
    if (*format >= '0' && *format <= '9') {
        qint64 count = 0;
        while (*format >= '0' && *format <= '9') {
            count = count * 10 + (*format - '0');
            if (count > MaxPackCount)
                return ParseResult::BadCount;
            ++format;
        }
        item.kind = *format;
        item.count = int(count);
        switch (item.kind) {
        case 'C':
        case 'c':
        case 'v':
        case 'n':
        case 'V':
        case 'N':
            break;
        case 'x':
        case 'X':
            if (op == PackOp::ByteArray)
                return ParseResult::BadCount;
            break;
        default:
            return ParseResult::BadCount;
        }
        ++format;
        if (item.count == 0 && item.kind != 'x' && item.kind != 'X')
            return ParseResult::BadCount;
        return ParseResult::Item;
    }
    item.kind = *format++;
    switch (item.kind) {
    case 'C':
    case 'c':
    case 'S':
    case 's':
    case 'v':
    case 'n':
    case 'I':
    case 'i':
    case 'L':
    case 'l':
    case 'V':
    case 'N':
    case 'x':
    case 'X':
        return ParseResult::Item;
    default:
        return ParseResult::Unknown;
    }
}

// Width in bytes of one element of an item.
int itemWidth(char kind)
{
    switch (kind) {
    case 'S':
    case 's':
    case 'v':
    case 'n':
        return 2;
    case 'I':
    case 'i':
    case 'L':
    case 'l':
    case 'V':
    case 'N':
        return 4;
    default:
        return 1;
    }
}

bool isBigEndian(char kind)
{
    return kind == 'n' || kind == 'N';
}

void storeValue(unsigned char *out, quint32 value, int width, bool bigEndian)
{
    for (int i = 0; i < width; ++i) {
        const int shift = 8 * (bigEndian ? width - 1 - i : i);
        out[i] = static_cast<unsigned char>((value >> shift) & 0xFFu);
    }
}

quint32 loadValue(const unsigned char *in, int width, bool bigEndian)
{
    quint32 value = 0;
    for (int i = 0; i < width; ++i) {
        const int shift = 8 * (bigEndian ? width - 1 - i : i);
        value |= quint32(in[i]) << shift;
    }
    return value;
}

// Element e of the array behind an array item's pointer, in the machine's own order.
quint32 arrayElement(const void *p, int width, int e)
{
    switch (width) {
    case 2:
        return static_cast<const unsigned short *>(p)[e];
    case 4:
        return static_cast<const unsigned int *>(p)[e];
    default:
        return static_cast<const unsigned char *>(p)[e];
    }
}

// Writes the bytes of one item through `out`, which appends them (or skips, for a null source
// of DataPack's "X"). Returns false when the item's pointer argument is null.
template<typename Out> bool packItem(const FormatItem &item, va_list &args, Out out)
{
    const int width = itemWidth(item.kind);
    const bool big = isBigEndian(item.kind);
    unsigned char bytes[4];
    if (item.kind == 'x' || item.kind == 'X') {
        out(nullptr, item.count < 0 ? 1 : item.count, item.kind == 'X');
        return true;
    }
    if (item.count < 0) {
        storeValue(bytes, va_arg(args, unsigned int), width, big);
        out(bytes, width, false);
        return true;
    }
    const void *source = nullptr;
    switch (width) {
    case 2:
        source = va_arg(args, const unsigned short *);
        break;
    case 4:
        source = va_arg(args, const unsigned int *);
        break;
    default:
        source = va_arg(args, const unsigned char *);
        break;
    }
    if (!source)
        return false;
    for (int e = 0; e < item.count; ++e) {
        storeValue(bytes, arrayElement(source, width, e), width, big);
        out(bytes, width, false);
    }
    return true;
}

} // namespace

int DataPack(unsigned char *buffer, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int written = VDataPack(buffer, format, args);
    va_end(args);
    return written;
}

int VDataPack(unsigned char *buffer, const char *format, va_list args)
{
    if (!format || *format == '\0')
        return 0;
    if (!buffer)
        return -1;
    va_list cursor;
    va_copy(cursor, args);
    unsigned char *at = buffer;
    auto out = [&at](const unsigned char *bytes, int n, bool skip) {
        if (bytes)
            std::copy(bytes, bytes + n, at);
        else if (!skip)
            std::fill(at, at + n, 0);
        at += n;
    };
    int result = -1;
    FormatItem item;
    for (;;) {
        const ParseResult parsed = nextItem(format, PackOp::Pack, item);
        if (parsed == ParseResult::End) {
            result = int(at - buffer);
            break;
        }
        if (parsed == ParseResult::Unknown) {
            result = 0;
            break;
        }
        if (parsed == ParseResult::BadCount || !packItem(item, cursor, out))
            break;
    }
    va_end(cursor);
    return result;
}

QByteArray ByteArrayPack(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const QByteArray packed = VByteArrayPack(format, args);
    va_end(args);
    return packed;
}

QByteArray VByteArrayPack(const char *format, va_list args)
{
    if (!format)
        return QByteArray();
    va_list cursor;
    va_copy(cursor, args);
    QByteArray packed;
    auto out = [&packed](const unsigned char *bytes, int n, bool) {
        if (bytes)
            packed.append(reinterpret_cast<const char *>(bytes), n);
        else
            packed.append(n, '\0');
    };
    bool ok = true;
    FormatItem item;
    for (;;) {
        const ParseResult parsed = nextItem(format, PackOp::ByteArray, item);
        if (parsed == ParseResult::End)
            break;
        if (parsed != ParseResult::Item || !packItem(item, cursor, out)) {
            ok = false;
            break;
        }
    }
    va_end(cursor);
    return ok ? packed : QByteArray();
}

int DataUnpack(const unsigned char *data, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int read = VDataUnpack(data, format, args);
    va_end(args);
    return read;
}

int VDataUnpack(const unsigned char *data, const char *format, va_list args)
{
    if (!format || *format == '\0')
        return 0;
    if (!data)
        return -1;
    va_list cursor;
    va_copy(cursor, args);
    const unsigned char *at = data;
    int result = -1;
    FormatItem item;
    for (;;) {
        const ParseResult parsed = nextItem(format, PackOp::Unpack, item);
        if (parsed == ParseResult::End) {
            result = int(at - data);
            break;
        }
        if (parsed != ParseResult::Item)
            break;
        const int elements = item.count < 0 ? 1 : item.count;
        const int width = itemWidth(item.kind);
        if (item.kind == 'x' || item.kind == 'X') {
            at += elements;
            continue;
        }
        void *target = nullptr;
        switch (width) {
        case 2:
            target = va_arg(cursor, unsigned short *);
            break;
        case 4:
            target = va_arg(cursor, unsigned int *);
            break;
        default:
            target = va_arg(cursor, unsigned char *);
            break;
        }
        if (!target)
            break;
        for (int e = 0; e < elements; ++e, at += width) {
            const quint32 value = loadValue(at, width, isBigEndian(item.kind));
            switch (width) {
            case 2:
                static_cast<unsigned short *>(target)[e] = static_cast<unsigned short>(value);
                break;
            case 4:
                static_cast<unsigned int *>(target)[e] = value;
                break;
            default:
                static_cast<unsigned char *>(target)[e] = static_cast<unsigned char>(value);
                break;
            }
        }
    }
    va_end(cursor);
    return result;
}

// ---- Project database ----------------------------------------------------------------------

const QString COMPILE_PATH = QStringLiteral("compile");
const QString DATABASE_PATH = QStringLiteral("database");

QDir GetCompilePath()
{
    QDir dir(QCoreApplication::applicationDirPath());
    dir.cd(COMPILE_PATH);
    return dir;
}

QString GetDatabaseName()
{
    QDir dir = GetCompilePath();
    dir.cd(DATABASE_PATH);
    return dir.absoluteFilePath(DATABASE_PATH);
}

int DevStrToHmiPort(const QString &device)
{
    if (device.startsWith(QLatin1String("ETHERNET"), Qt::CaseInsensitive))
        return 2000;
    int i = device.size() - 1;
    while (i >= 0 && device.at(i) >= QLatin1Char('0') && device.at(i) <= QLatin1Char('9'))
        --i;
    if (i < 0 || i + 1 >= device.size())
        return InvalidHmiPort;
    bool ok = false;
    const int number = device.midRef(i + 1).toInt(&ok, 10);
    if (!ok || number > INT_MAX - 999)
        return InvalidHmiPort;
    return number + 999;
}

namespace {

// Runs a lookup statement on the named connection and hands every row to `row`. A connection
// that cannot be opened or a failing statement gives no rows.
template<typename Row> void forEachRow(const QString &connection, const QString &statement, Row row)
{
    QSqlDatabase db = QSqlDatabase::database(connection, false);
    if (!db.isOpen() && !db.open()) {
        qCDebug(lcDriverSupport) << "project database" << connection
                                 << "not open:" << db.lastError().text();
        return;
    }
    QSqlQuery query(db);
    if (!query.exec(statement)) {
        qCDebug(lcDriverSupport) << "project database query failed:" << query.lastError().text();
        return;
    }
    while (query.next())
        row(query);
}

} // namespace

bool GetLinkIdAndDefaultStationId(const QString &connection, int hmiPort, int &linkId,
                                  unsigned char &stationId)
{
    const QString statement
        = QStringLiteral(
              "SELECT LINK.LINKID, NODE.STATIONID FROM LINK, NODE WHERE LINK.HMIPORT = %1 AND "
              "NODE.LINKID = LINK.LINKID AND NODE.ISDEFAULT = 1;")
              .arg(hmiPort);
    bool found = false;
    forEachRow(connection, statement, [&](const QSqlQuery &query) {
        if (found)
            return;
        found = true;
        linkId = query.value(0).toInt();
        stationId = static_cast<unsigned char>(query.value(1).toUInt() & 0xFFu);
    });
    return found;
}

bool GetLinkIdAndDefaultStationId(const QString &connection, int hmiPort, const QString &ip,
                                  unsigned short port, QList<LinkIdStationId> &result)
{
    // One multi-argument arg() so that a "%n" inside the IP text is not substituted again.
    const QString statement
        = QStringLiteral("SELECT LINK.LINKID, NODE.STATIONID FROM LINK, NODE WHERE "
                         "LINK.HMIPORT = %1 AND NODE.LINKID = LINK.LINKID AND NODE.IP = "
                         "'%2' AND NODE.PORT = %3 AND NODE.ISDEFAULT = 1;")
              .arg(QString::number(hmiPort), ip, QString::number(port));
    forEachRow(connection, statement, [&result](const QSqlQuery &query) {
        LinkIdStationId ids;
        ids.linkId = query.value(0).toInt();
        ids.stationId = int(query.value(1).toUInt());
        result.append(ids);
    });
    return !result.isEmpty();
}

bool GetLinkIdAndDefaultStationId(const QString &connection, int linkId,
                                  QList<LinkIdStationId> &result)
{
    const QString statement = QStringLiteral("SELECT NODE.STATIONID FROM NODE WHERE NODE.LINKID = "
                                             "%1 AND NODE.ISDEFAULT = 1")
                                  .arg(linkId);
    forEachRow(connection, statement, [&](const QSqlQuery &query) {
        LinkIdStationId ids;
        ids.linkId = linkId;
        ids.stationId = int(query.value(0).toUInt());
        result.append(ids);
    });
    return !result.isEmpty();
}
