// Address parsing of arbitrary bytes in every base: the 8-bit and the QString forms agree, other
// bases give -1, and the prefix is a leading run of letters and underscores.
#include "tools.h"

#include <QByteArray>
#include <QString>

#include <cctype>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size < 1 || size > 4096)
        return 0;
    static const int bases[] = {10, 16, 8, 2, 0, -10, 36, 17};
    const int base = bases[input[0] % 8];
    const QByteArray address(reinterpret_cast<const char *>(input + 1), int(size - 1));
    // With the size given, so that zero bytes inside the text are kept.
    const QString text = QString::fromLatin1(address.constData(), address.size());

    const int number = ExtractPLCDeviceAddress(address, base);
    if (number != ExtractPLCDeviceAddress(text, base))
        std::abort();
    if ((base == 10 || base == 16 || base == 8) ? number < 0 : number != -1)
        std::abort();

    const QByteArray prefix = ExtractPrefixSymbol(address);
    if (!address.startsWith(prefix) || prefix != ExtractPrefixSymbol(text))
        std::abort();
    for (char c : prefix)
        if (!(std::isalpha(static_cast<unsigned char>(c)) || c == '_'))
            std::abort();
    return 0;
}
