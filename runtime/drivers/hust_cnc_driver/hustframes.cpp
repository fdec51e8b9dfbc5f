#include "hustframes.h"

#include "abstractdeviceinterface.h"
#include "hustlog.h"

#include <QtEndian>

#include <cstring>

namespace HustFrames {

namespace {

// The double word through which part programs are requested and announced, and the parameters
// written to it: 1002 asks for the current program, 1009 for all programs, 1001 announces one.
constexpr char ProgramCommand[] = "O9012";
constexpr char ProgramRegister[] = "N10768";
constexpr char ProgramSlot[] = "%*%";
constexpr char ReadCurrentParameter[] = "D000003>:";
constexpr char ReadAllParameter[] = "D000003?1";
constexpr char SendParameter[] = "D000003>9";

QByteArray frameHead(const char *command)
{
    QByteArray frame;
    frame.append(DC2).append('%').append(CR).append(command).append(CR);
    return frame;
}

QByteArray &frameTail(QByteArray &frame)
{
    return frame.append('%').append(DC4);
}

// Decimal digits of value, zero-padded to width.
QByteArray digits(int value, int width)
{
    return QByteArray::number(value).rightJustified(width, '0');
}

// Eight hexadecimal digits, most significant first, with 10 to 15 written as ':' to '?'.
QByteArray valueChars(quint32 value)
{
    QByteArray text(8, '0');
    for (int i = 7; i >= 0; --i) {
        text[i] = char('0' + (value & 0xF));
        value >>= 4;
    }
    return text;
}

QByteArray programFrame(const char *parameter)
{
    QByteArray frame = frameHead(ProgramCommand);
    frame.append(ProgramRegister).append(CR).append(parameter).append(CR);
    return frameTail(frame);
}

// What each byte is to the grammar and to the decoder. A value character of the grammar is ','
// or '0' to '?'; the decoder reads value characters '0' to '?' and letters 'A' to 'F' in either
// case as digits and anything else (',' included) as no digit. Tables keep the per-byte work of
// a search small.
struct CharTable
{
    bool isValue[256];
    signed char digit[256]; // -1: no digit

    constexpr CharTable()
        : isValue()
        , digit()
    {
        for (int c = 0; c < 256; ++c)
            digit[c] = -1;
        for (int c = '0'; c <= '?'; ++c) {
            isValue[c] = true;
            digit[c] = static_cast<signed char>(c - '0');
        }
        isValue[int(',')] = true;
        for (int c = 0; c < 6; ++c) {
            digit['A' + c] = static_cast<signed char>(10 + c);
            digit['a' + c] = static_cast<signed char>(10 + c);
        }
    }
};
constexpr CharTable Chars;

// Eight bytes, the first in the lowest byte.
quint64 load8(const char *bytes)
{
    quint64 word;
    std::memcpy(&word, bytes, 8);
    return qFromLittleEndian(word);
}

// Whether all eight bytes lie in '0' to '?', the value characters a well-formed value is made of.
bool allValueDigits(quint64 word)
{
    return (word & 0xF0F0F0F0F0F0F0F0ull) == 0x3030303030303030ull;
}

// The eight digits '0' + n of word, the first the most significant, as one number.
quint32 packDigits(quint64 word)
{
    quint64 n = qbswap(word & 0x0F0F0F0F0F0F0F0Full);
    n = (n | n >> 4) & 0x00FF00FF00FF00FFull;
    n = (n | n >> 8) & 0x0000FFFF0000FFFFull;
    return quint32(n | n >> 16);
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

} // namespace

QByteArray readRequest(const QStringList &addrList)
{
    if (addrList.size() > MaxAddressCount) {
        qCDebug(lcHustDriver) << "read request refused:" << addrList.size()
                              << "addresses do not fit the count field";
        return QByteArray();
    }
    return readRequestOfAnyLength(addrList);
}

QByteArray readRequestOfAnyLength(const QStringList &addrList)
{
    QByteArray frame = frameHead("O9000");
    frame.append("N0").append(CR);
    frame.append('v').append(digits(int(addrList.size()), 2)).append(CR);
    for (const QString &addr : addrList)
        frame.append(addr.toLatin1()).append(CR);
    return frameTail(frame);
}

QByteArray stopFrame()
{
    QByteArray frame = frameHead("O9000");
    frame.append("N1").append(CR);
    return frameTail(frame);
}

QByteArray writeDWordFrame(int addr, quint32 value)
{
    if (addr < 0 || addr > MaxDWordNumber) {
        qCDebug(lcHustDriver) << "double-word write refused: address" << addr << "out of range";
        return QByteArray();
    }
    QByteArray frame = frameHead("O9012");
    frame.append('N').append(digits(addr, 5)).append(CR);
    frame.append('d').append(valueChars(value)).append(CR);
    return frameTail(frame);
}

QByteArray writeBitFrame(int addr, int bit, bool value)
{
    if (addr < 0 || addr > MaxDWordNumber || bit < 0 || bit > MaxBitPosition) {
        qCDebug(lcHustDriver) << "bit write refused: address" << addr << "bit" << bit
                              << "out of range";
        return QByteArray();
    }
    QByteArray frame = frameHead(value ? "O9013" : "O9014");
    frame.append('N').append(digits(addr, 5)).append(CR);
    frame.append('d').append(digits(bit, 2)).append(CR);
    return frameTail(frame);
}

QByteArray programRequestTemplate()
{
    return programFrame(ProgramSlot);
}

QByteArray programRequest(bool all)
{
    return programFrame(all ? ReadAllParameter : ReadCurrentParameter);
}

QByteArray programSendHeader()
{
    return programFrame(SendParameter);
}

QByteArray programDataFrame(const QByteArray &text)
{
    QByteArray frame;
    frame.reserve(text.size() + 4);
    frame.append(DC2).append('%').append(text);
    return frameTail(frame);
}

QByteArray burnFrame()
{
    QByteArray frame = frameHead("O9000");
    // No CR between the G10 line and the closing "%".
    frame.append("N100011").append(CR).append("G10 P600 L01");
    return frameTail(frame);
}

bool writeInPieces(AbstractDeviceInterface *port, const QByteArray &frame)
{
    bool whole = true;
    int offset = 0;
    while (offset + MaxTxPieceSize < frame.size()) {
        whole &= port->writeData(frame.constData() + offset, MaxTxPieceSize) == MaxTxPieceSize;
        offset += MaxTxPieceSize;
    }
    const int last = frame.size() - offset;
    whole &= port->writeData(frame.constData() + offset, last) == last;
    return whole;
}

QString responsePattern(int n, bool lenient)
{
    const QString hPart = lenient ? QStringLiteral("((?:H)[0-9,:-?]{5,8}(?:\r))")
                                  : QStringLiteral("(H[0-9,:-?]{8}\r)");
    const QString dPart = lenient ? QStringLiteral("(d[0-9,:-?]{5,8}(?:\r)){%1}")
                                  : QStringLiteral("(d[0-9,:-?]{8}\r){%1}");
    return hPart + QStringLiteral("(v[0-9]{2}\r)") + dPart.arg(n);
}

quint32 valueOf(const char *text, int size)
{
    if (size != 8)
        return 0;
    const quint64 word = load8(text);
    if (allValueDigits(word))
        return packDigits(word);
    return hexValue(text, size);
}

quint32 hexValue(const char *text, int size)
{
    if (size < 1 || size > 8)
        return 0;
    quint32 value = 0;
    int invalid = 0;
    for (int i = 0; i < size; ++i) {
        const int digit = Chars.digit[quint8(text[i])];
        invalid |= digit;
        value = value << 4 | quint32(digit & 0xF);
    }
    return invalid < 0 ? 0 : value;
}

ResponseMatcher::ResponseMatcher(int n, bool lenient)
    : m_count(n)
    , m_minDigits(lenient ? 5 : 8)
    , m_valueAt(n)
    , m_valueSize(n)
{ }

int ResponseMatcher::recordAt(const char *data, int size, int at, char letter) const
{
    if (at >= size || data[at] != letter)
        return 0;
    // The value class excludes CR, so the record is the longest run of value characters (no
    // more than eight) followed by CR; no shorter run can be followed by CR. Most records are
    // eight digits and CR, which one word test settles.
    if (at + 9 < size && data[at + 9] == CR && allValueDigits(load8(data + at + 1)))
        return 10;
    const int most = qMin(9, size - at - 1);
    const char *value = data + at + 1;
    int run = 0;
    while (run < most && Chars.isValue[quint8(value[run])])
        ++run;
    const int cr = at + 1 + run;
    if (run < m_minDigits || run > 8 || cr >= size || data[cr] != CR)
        return 0;
    return run + 2;
}

int ResponseMatcher::matchAt(const char *data, int size, int at)
{
    const int hSize = recordAt(data, size, at, 'H');
    if (hSize == 0)
        return 0;
    int pos = at + hSize;
    if (pos + 4 > size || data[pos] != 'v' || !isDigit(data[pos + 1]) || !isDigit(data[pos + 2])
        || data[pos + 3] != CR)
        return 0;
    pos += 4;
    for (int i = 0; i < m_count; ++i) {
        const int dSize = recordAt(data, size, pos, 'd');
        if (dSize == 0)
            return 0;
        m_valueAt[i] = pos + 1;
        m_valueSize[i] = dSize - 2;
        pos += dSize;
    }
    m_subject = data;
    m_position = at;
    m_hSize = hSize;
    m_length = pos - at;
    return m_length;
}

int ResponseMatcher::indexIn(const char *data, int size, int from)
{
    m_position = -1;
    // As QRegExp: a negative start counts from the end, and one before the start finds nothing.
    if (from < 0)
        from += size;
    if (from < 0)
        return -1;
    for (int at = from; at < size; ++at) {
        const void *h = std::memchr(data + at, 'H', size_t(size - at));
        if (!h)
            return -1;
        at = int(static_cast<const char *>(h) - data);
        if (matchAt(data, size, at))
            return at;
    }
    return -1;
}

int ResponseMatcher::lastIndexIn(const char *data, int size, int from)
{
    m_position = -1;
    // As QRegExp: a negative start counts from the end, and one past the end finds nothing.
    if (from > size)
        return -1;
    int at = from < 0 ? size + from : qMin(from, size - 1);
    for (; at >= 0; --at) {
        const void *h = memrchr(data, 'H', size_t(at) + 1);
        if (!h)
            return -1;
        at = int(static_cast<const char *>(h) - data);
        if (matchAt(data, size, at))
            return at;
    }
    return -1;
}

// The window is the last responseSize bytes; when a frame starts inside it, it is rotated to
// begin there, which joins the newest frame's head to the older frame's tail. Such a join is
// only as good as the two frames' layouts agree, so a forward match counts only when
//  - a frame's end ("%" DC4) follows its records: otherwise frames of different lengths (one
//    cut short, values sent short) were joined and records would land on the wrong addresses;
//  - the join lies outside its records or right after a record's CR: a join inside a record
//    would make a value of the newer frame's leading digits and the older frame's trailing
//    ones, a value the controller never held.
// A refused match leaves the cycle's next attempt to search backward for a whole frame.
int ResponseMatcher::searchForward(const QByteArray &received, int responseSize)
{
    m_beginInReceived = m_endInReceived = -1;
    const int start = qMax(0, int(received.size()) - qMax(responseSize, 0));
    const int size = received.size() - start;
    const char *window = received.constData() + start;
    const void *dc2 = std::memchr(window, DC2, size_t(size));
    const int p = dc2 ? int(static_cast<const char *>(dc2) - window) : 0;
    const int join = p > 0 ? size - p : 0;
    if (p > 0) {
        m_window.resize(size);
        std::memcpy(m_window.data(), window + p, size_t(join));
        std::memcpy(m_window.data() + join, window, size_t(p));
        window = m_window.constData();
    }
    const int position = indexIn(window, size, 0);
    if (position < 0)
        return -1;
    const int end = position + m_length;
    const bool endsFrame = end + 1 < size && window[end] == '%' && window[end + 1] == DC4;
    const bool joinInsideRecord = join > position && join < end && window[join - 1] != CR;
    if (!endsFrame || joinInsideRecord)
        return -1;
    // In arrival order the turned window's head (the newest frame) comes after its tail.
    m_beginInReceived = start + (p == 0 ? position : end <= join ? p + position : 0);
    m_endInReceived = start + (p == 0 ? end : end <= join ? p + end : end - join);
    return position;
}

int ResponseMatcher::searchBackward(const QByteArray &received)
{
    const int position = lastIndexIn(received.constData(), received.size(), -1);
    m_beginInReceived = position;
    m_endInReceived = position < 0 ? -1 : position + m_length;
    return position;
}

QByteArray ResponseMatcher::cap(int nth) const
{
    if (m_position < 0)
        return QByteArray();
    switch (nth) {
    case 0:
        return QByteArray(m_subject + m_position, m_length);
    case 1:
        return QByteArray(m_subject + m_position, m_hSize);
    case 2:
        return QByteArray(m_subject + m_position + m_hSize, 4);
    case 3:
        if (m_count == 0)
            return QByteArray();
        return QByteArray(m_subject + m_valueAt[m_count - 1] - 1, m_valueSize[m_count - 1] + 2);
    default:
        return QByteArray();
    }
}

bool ResponseMatcher::countIs(int n) const
{
    if (m_position < 0)
        return false;
    const char *v = m_subject + m_position + m_hSize;
    return (v[1] - '0') * 10 + (v[2] - '0') == n;
}

bool ResponseMatcher::hRecordIs(const QByteArray &record) const
{
    return m_position >= 0 && record.size() == m_hSize
        && std::memcmp(record.constData(), m_subject + m_position, size_t(m_hSize)) == 0;
}

} // namespace HustFrames
