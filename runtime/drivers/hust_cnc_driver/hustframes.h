#ifndef HUSTFRAMES_H
#define HUSTFRAMES_H

#include <QByteArray>
#include <QRegExp>
#include <QString>
#include <QStringList>

// Register frames of the controller link and the grammar of its read responses. Request frames
// are DC2 "%" CR, CR-terminated text lines, "%" DC4; values travel as hexadecimal digits written
// with the characters '0' + n, so 10 to 15 appear as ':' to '?'.
namespace HustFrames {

constexpr char DC2 = 0x12;
constexpr char DC4 = 0x14;
constexpr char CR = 0x0D;

// Field limits of the frames: a two-digit address count, five-digit double-word numbers and
// two-digit bit positions.
constexpr int MaxAddressCount = 99;
constexpr int MaxDWordNumber = 99999;
constexpr int MaxBitPosition = 99;

// The read request for a list of double-word names; empty when the list has more than
// MaxAddressCount entries.
QByteArray readRequest(const QStringList &addrList);
// Ends the controller's stream of responses.
QByteArray stopFrame();
// Writes one double word; empty when addr is outside 0 to MaxDWordNumber.
QByteArray writeDWordFrame(int addr, quint32 value);
// Sets (value true) or clears one bit of a double word; empty when addr or bit does not fit.
QByteArray writeBitFrame(int addr, int bit, bool value);

// Size of one response for n addresses.
inline int responseSize(int n)
{
    return 10 * n + 25;
}

// The response grammar for n addresses. The lenient form accepts H and d values of 5 to 8
// characters, as the controller sometimes sends them when it is busy.
QString responsePattern(int n, bool lenient);

// Value characters of one received value text turned into a double word; 0 when the text is
// not eight hexadecimal digits.
quint32 valueOf(const QString &valueText);

// Matches one response pattern against received bytes and decodes the match.
class ResponseMatcher
{
public:
    explicit ResponseMatcher(const QString &pattern);

    // Searches the received bytes as Latin-1 text. The forward search looks only at the last
    // responseSize bytes, turned to begin at the newest frame's DC2, and refuses matches that
    // join two frames unsafely; the backward search looks for the last position where the
    // pattern matches. Returns the match position (in the turned window for the forward search)
    // or -1.
    int searchForward(const QByteArray &received, int responseSize);
    int searchBackward(const QByteArray &rxBuf);

    // Of the last successful search: the H record with its CR, and the value texts of the d
    // records in record order (with ':' to '?' written as 'A' to 'F').
    QString hRecord() const;
    // Whether the v record of the last successful search counts n records.
    bool countIs(int n) const;
    QStringList valueTexts() const;

private:
    QRegExp m_regExp;
};

} // namespace HustFrames

#endif // HUSTFRAMES_H
