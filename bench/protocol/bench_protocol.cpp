// Cost of matching and decoding one controller response, per response byte, the way a read cycle
// does it: forward search on a buffer that holds one clean response (steady loop reading) and
// backward search on a buffer that carries the stale tail of an older response ahead of it
// (right after a request).
#include "hustframes.h"

#include <benchmark/benchmark.h>

#include <QByteArray>

namespace {

QByteArray responseFrame(int n, bool shortValues)
{
    QByteArray f;
    f.append(HustFrames::DC2).append("H00001:3?\r");
    f.append('v').append(QByteArray::number(n).rightJustified(2, '0')).append('\r');
    for (int i = 0; i < n; ++i) {
        QByteArray value = QByteArray::number(i * 1000 + 7, 16).rightJustified(8, '0');
        for (char &c : value) {
            if (c >= 'a' && c <= 'f')
                c = char(':' + (c - 'a'));
        }
        f.append('d').append(shortValues && i % 3 == 0 ? value.right(6) : value).append('\r');
    }
    return f.append("%\x14        ");
}

void matchAndDecode(benchmark::State &state, bool lenient, bool backward)
{
    const int n = int(state.range(0));
    const int size = HustFrames::responseSize(n);
    const QByteArray frame = responseFrame(n, lenient);
    // A clean buffer: the end ("%" DC4) of an older response, then the new one up to its end, so
    // that the window has to be turned. A stale buffer: the tail of an older response, then the
    // new one.
    const QByteArray received
        = backward ? frame.right(size / 2) + frame : frame.right(2) + frame.left(frame.size() - 2);
    HustFrames::ResponseMatcher matcher(n, lenient);
    qint64 bytes = 0;
    for (auto _ : state) {
        QByteArray rxBuf = received;
        int position;
        if (backward) {
            position = matcher.searchBackward(rxBuf);
        } else {
            position = matcher.searchForward(rxBuf, size);
        }
        if (position <= 0) {
            state.SkipWithError("no match");
            break;
        }
        quint32 sum = 0;
        for (int i = 0; i < n; ++i)
            sum += HustFrames::valueOf(matcher.valueText(i), matcher.valueSize(i));
        benchmark::DoNotOptimize(sum);
        bytes += received.size();
    }
    state.SetBytesProcessed(bytes);
    // Seconds per 1e-9 bytes: nanoseconds per received byte.
    state.counters["ns_per_byte"] = benchmark::Counter(
        double(bytes) * 1e-9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_StrictForward(benchmark::State &state)
{
    matchAndDecode(state, false, false);
}
void BM_LenientForward(benchmark::State &state)
{
    matchAndDecode(state, true, false);
}
void BM_StrictBackward(benchmark::State &state)
{
    matchAndDecode(state, false, true);
}
void BM_LenientBackward(benchmark::State &state)
{
    matchAndDecode(state, true, true);
}

} // namespace

BENCHMARK(BM_StrictForward)->Arg(2)->Arg(30)->Arg(99);
BENCHMARK(BM_LenientForward)->Arg(2)->Arg(30)->Arg(99);
BENCHMARK(BM_StrictBackward)->Arg(2)->Arg(30)->Arg(99);
BENCHMARK(BM_LenientBackward)->Arg(2)->Arg(30)->Arg(99);

BENCHMARK_MAIN();
