// RightShiftNBits against a bit-by-bit reference: bit i of the result is bit i + n of the input,
// or 0 past its end; a negative n leaves the array alone.
#include "tools.h"

#include <QByteArray>

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size < 2 || size > 4096)
        return 0;
    const int n = int(int16_t(uint16_t(input[0]) | uint16_t(input[1]) << 8));
    const QByteArray before(reinterpret_cast<const char *>(input + 2), int(size - 2));
    QByteArray after = before;
    RightShiftNBits(after, n);

    if (after.size() != before.size())
        std::abort();
    const int64_t bits = int64_t(before.size()) * 8;
    for (int64_t i = 0; i < bits; ++i) {
        const int64_t from = i + n;
        const bool expected
            = n < 0 ? getBit(before, int(i)) : (from < bits && getBit(before, int(from)));
        if (getBit(after, int(i)) != expected)
            std::abort();
    }
    return 0;
}
