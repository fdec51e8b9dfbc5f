// hust-sim's request parser fed any byte stream in any pieces: the requests do not depend on where
// the stream is cut, no frame outgrows its bound, the bytes it skips and the frames it reports
// never add up to more than it was fed, and a decoded request is exactly the frame the driver
// builds for the same fields.
#include "codec.h"
#include "hustframes.h"

#include <cstdlib>

namespace {

using hustsim::FrameKind;
using hustsim::Request;

void check(bool condition)
{
    if (!condition)
        std::abort();
}

struct Parsed
{
    QList<Request> requests;
    qint64 skipped = 0;
};

// Feeds the stream in pieces whose lengths cycle through `cuts` (all at once when empty).
Parsed parse(const QByteArray &stream, const QByteArray &cuts)
{
    Parsed result;
    hustsim::RequestParser parser;
    const auto sink = [&result](Request &&r) { result.requests.append(std::move(r)); };
    for (int at = 0, i = 0; at < stream.size(); ++i) {
        const int piece = cuts.isEmpty() ? stream.size() : 1 + quint8(cuts.at(i % cuts.size()));
        const int n = qMin(piece, stream.size() - at);
        parser.feed(stream.constData() + at, n, sink);
        at += n;
    }
    result.skipped = parser.skippedBytes();
    return result;
}

bool same(const Request &a, const Request &b)
{
    return a.kind == b.kind && a.raw == b.raw && a.addresses == b.addresses && a.values == b.values
        && a.bit == b.bit && a.text == b.text;
}

QByteArray frame(const QByteArray &lines)
{
    return QByteArray("\x12%\r", 3) + lines + QByteArray("%\x14", 2);
}

// The frame the driver sends for a request's fields; empty for kinds it never sends.
QByteArray rebuilt(const Request &r)
{
    switch (r.kind) {
    case FrameKind::ReadRequest: {
        QStringList names;
        for (int address : r.addresses)
            names.append(QString::asprintf("d%05d", address));
        return HustFrames::readRequest(names);
    }
    case FrameKind::Stop:
        return HustFrames::stopFrame();
    case FrameKind::WriteDWord:
        return HustFrames::writeDWordFrame(r.addresses.value(0, -1), r.values.value(0));
    case FrameKind::BitSet:
    case FrameKind::BitClear:
        return HustFrames::writeBitFrame(r.addresses.value(0, -1), r.bit,
                                         r.kind == FrameKind::BitSet);
    case FrameKind::ProgramRequestCurrent:
        return frame("O9012\rN10768\rD000003>:\r");
    case FrameKind::ProgramRequestAll:
        return frame("O9012\rN10768\rD000003?1\r");
    case FrameKind::SendHeader:
        return frame("O9012\rN10768\rD000003>9\r");
    case FrameKind::Burn:
        return frame("O9000\rN100011\rG10 P600 L01");
    case FrameKind::ProgramData: // no CR after the opening "%"
        return QByteArray("\x12%", 2) + r.text + QByteArray("%\x14", 2);
    default:
        return QByteArray();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size < 1)
        return 0;
    // The first byte says how many of the following bytes give the piece lengths.
    const int cutCount = qMin<int>(input[0] % 8, int(size) - 1);
    const QByteArray cuts(reinterpret_cast<const char *>(input + 1), cutCount);
    const QByteArray stream(reinterpret_cast<const char *>(input + 1 + cutCount),
                            int(size) - 1 - cutCount);

    const Parsed whole = parse(stream, QByteArray());
    const Parsed pieces = parse(stream, cuts.isEmpty() ? QByteArray(1, 0) : cuts);
    check(whole.requests.size() == pieces.requests.size() && whole.skipped == pieces.skipped);
    qint64 reported = 0;
    for (int i = 0; i < whole.requests.size(); ++i) {
        const Request &r = whole.requests.at(i);
        check(same(r, pieces.requests.at(i)));
        check(r.raw.startsWith(hustsim::kDC2));
        const int bound = r.kind == FrameKind::ProgramData ? hustsim::kMaxProgramFrame
                                                           : hustsim::kMaxRequestFrame;
        check(r.raw.size() <= bound + 1);
        reported += r.raw.size();
        if (r.kind != FrameKind::Malformed && r.kind != FrameKind::Unknown)
            check(rebuilt(r) == r.raw);
    }
    check(whole.skipped + reported <= stream.size());
    return 0;
}
