#include "codec.h"

namespace hustsim {

namespace {

const QByteArray kBurnLine("G10 P600 L01");
constexpr int kProgramRegister = 10768;

bool isDecimal(const QByteArray &text, int from, int count)
{
    if (text.size() != from + count)
        return false;
    for (int i = from; i < text.size(); ++i) {
        if (text.at(i) < '0' || text.at(i) > '9')
            return false;
    }
    return true;
}

// "N" and five digits: the double-word index of write, bit and program frames.
bool parseIndexLine(const QByteArray &line, int *index)
{
    if (!line.startsWith('N') || !isDecimal(line, 1, 5))
        return false;
    *index = line.mid(1).toInt();
    return true;
}

Request decodeReadOrControl(const QList<QByteArray> &lines, bool endsWithCR, Request request)
{
    const QByteArray &selector = lines.at(1);
    if (selector == "N0") {
        if (!endsWithCR || lines.size() < 3 || !lines.at(2).startsWith('v')
            || !isDecimal(lines.at(2), 1, 2))
            return request;
        const int count = lines.at(2).mid(1).toInt();
        if (lines.size() != 3 + count)
            return request;
        for (int i = 0; i < count; ++i) {
            const QByteArray &line = lines.at(3 + i);
            if (!line.startsWith('d') || !isDecimal(line, 1, 5))
                return request;
            request.addresses.append(line.mid(1).toInt());
        }
        request.kind = FrameKind::ReadRequest;
    } else if (selector == "N1") {
        if (endsWithCR && lines.size() == 2)
            request.kind = FrameKind::Stop;
    } else if (selector == "N100011") {
        // The burn line is the one line without a CR before the closing "%".
        if (!endsWithCR && lines.size() == 3 && lines.at(2) == kBurnLine)
            request.kind = FrameKind::Burn;
    } else {
        request.kind = FrameKind::Unknown;
    }
    return request;
}

Request decodeWordWrite(const QList<QByteArray> &lines, bool endsWithCR, Request request)
{
    int index = 0;
    if (!endsWithCR || lines.size() != 3 || !parseIndexLine(lines.at(1), &index))
        return request;
    const QByteArray &record = lines.at(2);
    if (record.size() != 9)
        return request;
    if (record.at(0) == 'D') {
        // The program requests share the write frame's layout with an uppercase record letter.
        request.kind = FrameKind::Unknown;
        if (index != kProgramRegister)
            return request;
        if (record == "D000003>:")
            request.kind = FrameKind::ProgramRequestCurrent;
        else if (record == "D000003?1")
            request.kind = FrameKind::ProgramRequestAll;
        else if (record == "D000003>9")
            request.kind = FrameKind::SendHeader;
        return request;
    }
    quint32 value = 0;
    if (record.at(0) != 'd' || !parseValueCharacters(record.mid(1), &value))
        return request;
    request.kind = FrameKind::WriteDWord;
    request.addresses.append(index);
    request.values.append(value);
    return request;
}

Request decodeBitWrite(const QList<QByteArray> &lines, bool endsWithCR, bool set, Request request)
{
    int index = 0;
    if (!endsWithCR || lines.size() != 3 || !parseIndexLine(lines.at(1), &index))
        return request;
    const QByteArray &record = lines.at(2);
    if (!record.startsWith('d') || !isDecimal(record, 1, 2))
        return request;
    const int bit = record.mid(1).toInt();
    // The field holds 0..99, but a double word has only 32 bits.
    if (bit > 31)
        return request;
    request.kind = set ? FrameKind::BitSet : FrameKind::BitClear;
    request.addresses.append(index);
    request.bit = bit;
    return request;
}

} // namespace

QByteArray valueCharacters(quint32 value, int digits)
{
    QByteArray out(digits, '0');
    for (int i = digits - 1; i >= 0; --i) {
        out[i] = char(0x30 + (value & 0xF));
        value >>= 4;
    }
    return out;
}

bool parseValueCharacters(const QByteArray &text, quint32 *value)
{
    if (text.isEmpty() || text.size() > 8)
        return false;
    quint32 result = 0;
    for (char c : text) {
        if (c < 0x30 || c > 0x3F)
            return false;
        result = (result << 4) | quint32(c - 0x30);
    }
    *value = result;
    return true;
}

Request decodeRequest(const QByteArray &frame)
{
    Request request;
    request.raw = frame;
    request.kind = FrameKind::Malformed;
    if (frame.size() < 4 || frame.at(0) != kDC2 || frame.at(1) != '%'
        || !frame.endsWith(QByteArray("%\x14", 2)))
        return request;
    const QByteArray content = frame.mid(2, frame.size() - 4);
    if (!content.startsWith(kCR))
        return request;
    const QByteArray body = content.mid(1);
    const bool endsWithCR = body.endsWith(kCR);
    QList<QByteArray> lines = body.split(kCR);
    if (endsWithCR)
        lines.removeLast();
    if (lines.isEmpty())
        return request;

    const QByteArray &command = lines.at(0);
    const bool known
        = command == "O9000" || command == "O9012" || command == "O9013" || command == "O9014";
    if (!known) {
        request.kind = FrameKind::Unknown;
        return request;
    }
    if (lines.size() < 2)
        return request;
    if (command == "O9000")
        return decodeReadOrControl(lines, endsWithCR, request);
    if (command == "O9012")
        return decodeWordWrite(lines, endsWithCR, request);
    return decodeBitWrite(lines, endsWithCR, command == "O9013", request);
}

void RequestParser::reset()
{
    m_state = State::Hunting;
    m_frame.clear();
    m_expectProgram = false;
}

void RequestParser::feed(const char *data, int size, const Sink &sink)
{
    for (int i = 0; i < size; ++i) {
        const char c = data[i];
        switch (m_state) {
        case State::Hunting:
            if (c == kDC2) {
                m_frame = QByteArray(1, c);
                m_state = State::SawDC2;
            } else {
                ++m_skipped;
            }
            break;
        case State::SawDC2:
            if (c == '%') {
                m_frame.append(c);
                m_state = State::InFrame;
            } else if (c == kDC2) {
                ++m_skipped;
            } else {
                m_skipped += 2;
                m_state = State::Hunting;
            }
            break;
        case State::InFrame:
            if (c == kDC2 && !m_expectProgram) {
                // A new frame starts before the last one ended: the last one is broken.
                abandonFrame(sink);
                m_frame = QByteArray(1, c);
                m_state = State::SawDC2;
                break;
            }
            m_frame.append(c);
            if (c == kDC4 && m_frame.size() >= 4 && m_frame.at(m_frame.size() - 2) == '%') {
                finishFrame(sink);
            } else if (m_frame.size() > (m_expectProgram ? kMaxProgramFrame : kMaxRequestFrame)) {
                abandonFrame(sink);
                m_state = State::Hunting;
            }
            break;
        }
    }
}

void RequestParser::finishFrame(const Sink &sink)
{
    Request request;
    if (m_expectProgram) {
        request.kind = FrameKind::ProgramData;
        request.raw = m_frame;
        request.text = m_frame.mid(2, m_frame.size() - 4);
        m_expectProgram = false;
    } else {
        request = decodeRequest(m_frame);
        m_expectProgram = request.kind == FrameKind::SendHeader;
    }
    m_frame.clear();
    m_state = State::Hunting;
    sink(std::move(request));
}

void RequestParser::abandonFrame(const Sink &sink)
{
    Request request;
    request.kind = FrameKind::Malformed;
    request.raw = m_frame;
    m_frame.clear();
    m_expectProgram = false;
    sink(std::move(request));
}

QByteArray buildRegisterResponse(quint32 hCode, const QVector<quint32> &values,
                                 const QVector<int> &digits)
{
    QByteArray out;
    out.reserve(25 + 10 * values.size());
    out.append(kDC2).append('%').append(kCR).append("O9000").append(kCR);
    out.append('H').append(valueCharacters(hCode)).append(kCR);
    const int count = values.size();
    out.append('v').append(char('0' + (count / 10) % 10)).append(char('0' + count % 10));
    out.append(kCR);
    for (int i = 0; i < count; ++i) {
        const int width = i < digits.size() ? digits.at(i) : 8;
        out.append('d').append(valueCharacters(values.at(i), width)).append(kCR);
    }
    out.append('%').append(kDC4);
    return out;
}

QByteArray buildProgramAnswer(const QByteArray &text)
{
    QByteArray out;
    out.reserve(text.size() + 5);
    out.append(kDC2).append('%').append(kCR).append(text).append('%').append(kDC4);
    return out;
}

} // namespace hustsim
