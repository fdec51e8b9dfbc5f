#ifndef HUSTSIM_CODEC_H
#define HUSTSIM_CODEC_H

#include "simulator.h"

#include <QByteArray>
#include <QVector>

#include <functional>

namespace hustsim {

constexpr char kDC2 = 0x12;
constexpr char kDC4 = 0x14;
constexpr char kCR = 0x0D;

// Largest register request: 99 address lines of 7 bytes plus the envelope, with room to spare.
constexpr int kMaxRequestFrame = 2048;
// Largest program text accepted after a send header.
constexpr int kMaxProgramFrame = 8 * 1024 * 1024;

// One request frame as the controller understands it. Fields not used by a kind stay empty.
struct Request
{
    FrameKind kind = FrameKind::Unknown;
    QByteArray raw;
    QVector<int> addresses;
    QVector<quint32> values;
    int bit = -1;
    QByteArray text;
};

// Splits the byte stream from the panel into request frames. Bytes outside a DC2 "%" ... "%" DC4
// envelope are skipped; an envelope that grows beyond its bound or is broken off by a new DC2 is
// reported as malformed. After a send header the next envelope is taken as program text.
class RequestParser
{
public:
    using Sink = std::function<void(Request &&)>;

    void feed(const char *data, int size, const Sink &sink);
    void reset();

    qint64 skippedBytes() const { return m_skipped; }

private:
    enum class State { Hunting, SawDC2, InFrame };

    void finishFrame(const Sink &sink);
    void abandonFrame(const Sink &sink);

    State m_state = State::Hunting;
    QByteArray m_frame;
    bool m_expectProgram = false;
    qint64 m_skipped = 0;
};

// Interprets the bytes of one complete envelope (DC2 "%" ... "%" DC4) as a register or program
// request.
Request decodeRequest(const QByteArray &frame);

// The last `digits` hexadecimal digits of `value` in value characters ("0".."9", ":".."?").
QByteArray valueCharacters(quint32 value, int digits = 8);
// Decodes value characters; false when a character lies outside "0".."?".
bool parseValueCharacters(const QByteArray &text, quint32 *value);

// One register response frame: DC2 "%" CR "O9000" CR, the H record, the v record and one d record
// per value. `digits` gives each d record's number of value characters (8 when empty).
QByteArray buildRegisterResponse(quint32 hCode, const QVector<quint32> &values,
                                 const QVector<int> &digits = {});
// A program answer: DC2 "%" CR, the text, "%" DC4.
QByteArray buildProgramAnswer(const QByteArray &text);

} // namespace hustsim

#endif // HUSTSIM_CODEC_H
