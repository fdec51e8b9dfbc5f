// HexToUInt reads no further than its length or the first zero byte; plain runs of up to eight
// hexadecimal digits agree with Qt's own conversion.
#include "tools.h"

#include <QByteArray>

#include <cctype>
#include <cstdlib>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size < 1 || size > 4096)
        return 0;
    const int len = int(input[0]) - 16; // lengths from -16 up
    const size_t textSize = size - 1;
    if (len > int(textSize))
        return 0;
    std::unique_ptr<char[]> text(new char[textSize ? textSize : 1]);
    std::copy(input + 1, input + size, text.get());
    const unsigned int value = HexToUInt(textSize ? text.get() : nullptr, len);

    if (len < 1 || textSize == 0) {
        if (value != 0)
            std::abort();
        return 0;
    }
    QByteArray digits(text.get(), len);
    const int zero = digits.indexOf('\0');
    if (zero >= 0)
        digits.truncate(zero);
    bool plain = !digits.isEmpty() && digits.size() <= 8;
    for (char c : digits)
        plain = plain && std::isxdigit(static_cast<unsigned char>(c));
    if (plain && value != digits.toUInt(nullptr, 16))
        std::abort();
    return 0;
}
