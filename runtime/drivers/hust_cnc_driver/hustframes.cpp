#include "hustframes.h"

#include "hustlog.h"

namespace HustFrames {

namespace {

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

QByteArray line(const QString &text)
{
    return text.toLatin1().append(CR);
}

// Eight hexadecimal digits, most significant first, with 10 to 15 written as ':' to '?'.
QByteArray valueChars(quint32 value)
{
    QByteArray digits(8, '0');
    for (int i = 7; i >= 0; --i) {
        digits[i] = char('0' + (value & 0xF));
        value >>= 4;
    }
    return digits;
}

} // namespace

QByteArray readRequest(const QStringList &addrList)
{
    if (addrList.size() > MaxAddressCount) {
        qCDebug(lcHustDriver) << "read request refused:" << addrList.size()
                              << "addresses do not fit the count field";
        return QByteArray();
    }
    QByteArray frame = frameHead("O9000");
    frame.append("N0").append(CR);
    frame.append(line(QString::asprintf("v%02d", int(addrList.size()))));
    for (const QString &addr : addrList)
        frame.append(line(addr));
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
    frame.append(line(QString::asprintf("N%05d", addr)));
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
    frame.append(line(QString::asprintf("N%05d", addr)));
    frame.append(line(QString::asprintf("d%02d", bit)));
    return frameTail(frame);
}

QString responsePattern(int n, bool lenient)
{
    const QString hPart = lenient ? QStringLiteral("((?:H)[0-9,:-?]{5,8}(?:\r))")
                                  : QStringLiteral("(H[0-9,:-?]{8}\r)");
    const QString dPart = lenient ? QStringLiteral("(d[0-9,:-?]{5,8}(?:\r)){%1}")
                                  : QStringLiteral("(d[0-9,:-?]{8}\r){%1}");
    return hPart + QStringLiteral("(v[0-9]{2}\r)") + dPart.arg(n);
}

quint32 valueOf(const QString &valueText)
{
    if (valueText.size() != 8)
        return 0;
    bool ok = false;
    const quint32 value = valueText.toUInt(&ok, 16);
    return ok ? value : 0;
}

ResponseMatcher::ResponseMatcher(const QString &pattern)
    : m_regExp(pattern, Qt::CaseSensitive, QRegExp::RegExp)
{ }

// In a stream of whole frames every frame is exactly one response long, so after trimAndRotate()
// the records of a match are always followed by a frame's end ("%" DC4): either the newest
// frame's own, or, when its head was joined to the older frame's tail, the older frame's, which
// then sits at the same offsets. A match followed by anything else joined frames of different
// lengths (a frame cut short, values sent short), whose records would land on the wrong
// addresses; it is refused, and the cycle's next attempt searches backward instead.
int ResponseMatcher::searchForward(const QByteArray &rxBuf)
{
    const int position = m_regExp.indexIn(QString::fromLatin1(rxBuf), 0);
    if (position < 0)
        return -1;
    const int end = position + m_regExp.matchedLength();
    const bool endsFrame
        = end + 1 < rxBuf.size() && rxBuf.at(end) == '%' && rxBuf.at(end + 1) == DC4;
    return endsFrame ? position : -1;
}

int ResponseMatcher::searchBackward(const QByteArray &rxBuf)
{
    return m_regExp.lastIndexIn(QString::fromLatin1(rxBuf), -1);
}

QString ResponseMatcher::hRecord() const
{
    return m_regExp.cap(1);
}

QStringList ResponseMatcher::valueTexts() const
{
    QString records = m_regExp.cap(0);
    records.remove(m_regExp.cap(1));
    records.remove(m_regExp.cap(2));
    records.remove(QLatin1Char(CR));
    static const char valueChars[] = ":;<=>?";
    for (int i = 0; i < 6; ++i)
        records.replace(QLatin1Char(valueChars[i]), QLatin1Char(char('A' + i)));
    return records.split(QLatin1Char('d'), Qt::SkipEmptyParts);
}

void trimAndRotate(QByteArray &rxBuf, int rxBufSize)
{
    if (rxBuf.size() > rxBufSize)
        rxBuf = rxBuf.right(rxBufSize);
    const int p = rxBuf.indexOf(DC2);
    if (p > 0)
        rxBuf = rxBuf.mid(p) + rxBuf.left(p);
}

} // namespace HustFrames
