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
    QByteArray window = received.right(responseSize);
    const int p = window.indexOf(DC2);
    int join = 0;
    if (p > 0) {
        join = window.size() - p;
        window = window.mid(p) + window.left(p);
    }
    const int position = m_regExp.indexIn(QString::fromLatin1(window), 0);
    if (position < 0)
        return -1;
    const int end = position + m_regExp.matchedLength();
    const bool endsFrame
        = end + 1 < window.size() && window.at(end) == '%' && window.at(end + 1) == DC4;
    const bool joinInsideRecord = join > position && join < end && window.at(join - 1) != CR;
    return endsFrame && !joinInsideRecord ? position : -1;
}

int ResponseMatcher::searchBackward(const QByteArray &rxBuf)
{
    return m_regExp.lastIndexIn(QString::fromLatin1(rxBuf), -1);
}

QString ResponseMatcher::hRecord() const
{
    return m_regExp.cap(1);
}

bool ResponseMatcher::countIs(int n) const
{
    return m_regExp.cap(2) == QString::asprintf("v%02d\r", n);
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

} // namespace HustFrames
