#ifndef HUSTFRAMES_H
#define HUSTFRAMES_H

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

class AbstractDeviceInterface;

// The wire format of the controller link: every frame the driver sends, the grammar of the read
// responses and the decoding of their values. Request frames are DC2 "%" CR, CR-terminated text
// lines, "%" DC4; values travel as hexadecimal digits written with the characters '0' + n, so 10
// to 15 appear as ':' to '?'.
namespace HustFrames {

constexpr char DC2 = 0x12;
constexpr char DC4 = 0x14;
constexpr char CR = 0x0D;

// Field limits of the frames: a two-digit address count, five-digit double-word numbers and
// two-digit bit positions.
constexpr int MaxAddressCount = 99;
constexpr int MaxDWordNumber = 99999;
constexpr int MaxBitPosition = 99;
// Read requests go to the port in pieces of at most this many bytes.
constexpr int MaxTxPieceSize = 230;

// The read request for a list of double-word names; empty when the list has more than
// MaxAddressCount entries.
QByteArray readRequest(const QStringList &addrList);
// The same frame for a list of any length, its count written with at least two digits; only
// the diagnostic entry points send such frames.
QByteArray readRequestOfAnyLength(const QStringList &addrList);
// Ends the controller's stream of responses.
QByteArray stopFrame();
// Writes one double word; empty when addr is outside 0 to MaxDWordNumber.
QByteArray writeDWordFrame(int addr, quint32 value);
// Sets (value true) or clears one bit of a double word; empty when addr or bit does not fit.
QByteArray writeBitFrame(int addr, int bit, bool value);

// Part programs: the request for the current program or for all of them (the template holds
// "%*%" where the request's parameter goes), the header that announces a program, the frame that
// carries one, and the order to store it for good.
QByteArray programRequestTemplate();
QByteArray programRequest(bool all);
QByteArray programSendHeader();
QByteArray programDataFrame(const QByteArray &text);
QByteArray burnFrame();

// Writes a frame in consecutive pieces of at most MaxTxPieceSize bytes, without a pause; the
// last piece may be a full one. Every piece is written whatever the port reports; the result
// says whether it took them all whole.
bool writeInPieces(AbstractDeviceInterface *port, const QByteArray &frame);

// Size of one response for n addresses.
inline int responseSize(int n)
{
    return 10 * n + 25;
}

// The response grammar for n addresses as a regular expression. The lenient form accepts H and d
// values of 5 to 8 characters, as the controller sometimes sends them when it is busy.
// ResponseMatcher accepts exactly what this expression accepts.
QString responsePattern(int n, bool lenient);

// The double word that a value text of eight value characters stands for; 0 when the text is
// not eight value characters (',' is admitted by the grammar but is no digit).
quint32 valueOf(const char *text, int size);
// The number that 1 to 8 hexadecimal digits stand for, written as value characters or as the
// letters A to F in either case; 0 for anything else.
quint32 hexValue(const char *text, int size);

// Finds responses for n addresses in received bytes, as the regular expression of
// responsePattern(n, lenient) would on the bytes taken as Latin-1 text, with the same match
// positions, lengths and captures. Records have a fixed shape and the value class excludes CR,
// so each record matches in exactly one way and a search needs no backtracking: it tries the
// positions of 'H' only.
class ResponseMatcher
{
public:
    ResponseMatcher(int n, bool lenient);

    int count() const { return m_count; }

    // The first match at or after from, or -1 (QRegExp::indexIn).
    int indexIn(const char *data, int size, int from = 0);
    // The last match starting at or before from, -1 meaning the last byte, or -1
    // (QRegExp::lastIndexIn).
    int lastIndexIn(const char *data, int size, int from = -1);

    // Searches the received bytes for the read cycle. The forward search looks only at the last
    // responseSize bytes, turned to begin at the newest frame's DC2, and refuses matches that
    // join two frames unsafely; the backward search looks for the last position where the
    // pattern matches. Returns the match position (in the turned window for the forward search)
    // or -1. In the received bytes, the match's earliest byte is at beginInReceived() and its
    // last byte just before endInReceived().
    int searchForward(const QByteArray &received, int responseSize);
    int searchBackward(const QByteArray &received);
    int beginInReceived() const { return m_beginInReceived; }
    int endInReceived() const { return m_endInReceived; }

    // Of the last successful search; the searched bytes must still be alive.
    int matchedLength() const { return m_length; }
    // Capture nth as text: 0 the whole match, 1 the H record with its CR, 2 the v record with its
    // CR, 3 the last d record with its CR (empty for n = 0).
    QByteArray cap(int nth) const;
    // Whether the v record counts n records.
    bool countIs(int n) const;
    // Whether the H record equals record (H, value characters and CR).
    bool hRecordIs(const QByteArray &record) const;
    // Value characters of d record i, 5 to 8 of them, and their number.
    const char *valueText(int i) const { return m_subject + m_valueAt[i]; }
    int valueSize(int i) const { return m_valueSize[i]; }

private:
    // Length of the match at position at, or 0.
    int matchAt(const char *data, int size, int at);
    // Length of a record of letter, minDigits to 8 value characters and CR at at, or 0.
    int recordAt(const char *data, int size, int at, char letter) const;

    int m_count;
    int m_minDigits;
    const char *m_subject = nullptr;
    int m_position = -1;
    int m_length = 0;
    int m_hSize = 0;
    int m_beginInReceived = -1;
    int m_endInReceived = -1;
    QVector<int> m_valueAt;
    QVector<int> m_valueSize;
    // The forward search's turned window, kept for the captures.
    QByteArray m_window;
};

} // namespace HustFrames

#endif // HUSTFRAMES_H
