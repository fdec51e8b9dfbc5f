// The response matcher against the regular expression it stands for, on any bytes taken as
// Latin-1 text, for any count 0 to 99, strict and lenient, searching forward and backward from
// any position: the same match position, length and captures.
#include "hustframes.h"

#include <QRegExp>

#include <cstdlib>
#include <map>
#include <memory>

namespace {

void check(bool condition)
{
    if (!condition)
        std::abort();
}

struct Pair
{
    QRegExp expression;
    HustFrames::ResponseMatcher matcher;
};

// Compiled once per count and form: a pattern of 99 records takes QRegExp a while to compile.
Pair &pairFor(int n, bool lenient)
{
    static std::map<int, std::unique_ptr<Pair>> pairs;
    std::unique_ptr<Pair> &pair = pairs[2 * n + (lenient ? 1 : 0)];
    if (!pair) {
        pair.reset(new Pair {
            QRegExp(HustFrames::responsePattern(n, lenient), Qt::CaseSensitive, QRegExp::RegExp),
            HustFrames::ResponseMatcher(n, lenient)});
    }
    return *pair;
}

void compare(Pair &pair, int position, int expected)
{
    check(position == expected);
    if (position < 0)
        return;
    check(pair.matcher.matchedLength() == pair.expression.matchedLength());
    for (int nth = 0; nth <= 3; ++nth)
        check(pair.matcher.cap(nth) == pair.expression.cap(nth).toLatin1());
}

} // namespace

// The first byte gives the count (its value modulo 100), the second the form (its lowest bit)
// and where the searches start; the rest are the received bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size < 2 || size > 4096)
        return 0;
    const int n = input[0] % 100;
    const bool lenient = input[1] & 1;
    const QByteArray bytes(reinterpret_cast<const char *>(input + 2), int(size - 2));
    const QString text = QString::fromLatin1(bytes.constData(), bytes.size());
    Pair &pair = pairFor(n, lenient);

    // From the start, from the end, and from a position the input picks (negative ones count
    // from the end).
    const int picked = int(input[1] >> 1) - 64;
    for (int from : {0, picked}) {
        const int expected = pair.expression.indexIn(text, from);
        compare(pair, pair.matcher.indexIn(bytes.constData(), bytes.size(), from), expected);
    }
    for (int from : {-1, picked}) {
        const int expected = pair.expression.lastIndexIn(text, from);
        compare(pair, pair.matcher.lastIndexIn(bytes.constData(), bytes.size(), from), expected);
    }
    return 0;
}
