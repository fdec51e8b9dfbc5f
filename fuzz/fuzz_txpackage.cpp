// TxPackage under any sequence of appends, received bytes and section lists (plain sizes and
// references to length fields): sections lie end to end from offset 0, each section's bytes are
// the package's bytes at its offset, plain sections keep their size, and a section list imposed
// on received bytes never grows the package beyond its plain sizes and the bytes it held.
#include "txpackage.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <climits>
#include <cstdlib>

namespace {

void check(bool condition)
{
    if (!condition)
        std::abort();
}

// Sizes as a caller hands them in: small plain sizes and references to any section, now and then
// an arbitrary 32-bit entry (only its negative values are kept: a large plain size is the
// caller's own request for memory).
QList<int> sectionList(FuzzedDataProvider &in)
{
    QList<int> sizes;
    const int count = in.ConsumeIntegralInRange(0, 24);
    for (int i = 0; i < count; ++i) {
        int size = in.ConsumeIntegralInRange(-12, 40);
        if (in.ConsumeBool()) {
            const int wide = in.ConsumeIntegral<int>();
            size = wide < 0 ? wide : size;
        }
        sizes.append(size);
    }
    return sizes;
}

void checkLayout(const TxPackage &package, const QList<int> &sizes)
{
    const QByteArray bytes = package.byteArrayData();
    const int n = package.numberOfSections();
    check(n == sizes.size());
    check(package.sectionStartIndex(-1) == -1 && package.sectionStartIndex(n) == -1);
    check(package.dataAt(n).isEmpty() && !package.validSectionNumber(n));
    qint64 expectedStart = 0;
    for (int i = 0; i < n; ++i) {
        const int start = package.sectionStartIndex(i);
        const int size = package.sectionSize(i);
        check(size >= 0 && (sizes.at(i) < 0 || size == sizes.at(i)));
        check(start == int(qMin<qint64>(expectedStart, INT_MAX)));
        const QByteArray data = package.dataAt(i);
        check(start >= bytes.size() ? data.isEmpty() : data == bytes.mid(start, size));
        expectedStart += size;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size > 4096)
        return 0;
    FuzzedDataProvider in(input, size);
    TxPackage package;
    QList<int> sizes; // the section list the package should hold
    while (in.remaining_bytes() > 0 && sizes.size() <= 64) {
        switch (in.ConsumeIntegralInRange(0, 9)) {
        case 0:
            package.appendByte(in.ConsumeIntegral<unsigned char>());
            sizes.append(1);
            break;
        case 1:
            package.appendDWord(in.ConsumeIntegral<unsigned int>());
            sizes.append(4);
            break;
        case 2: {
            const QByteArray bytes = QByteArray::fromStdString(in.ConsumeRandomLengthString(64));
            package.appendSection(bytes);
            sizes.append(bytes.size());
            break;
        }
        case 3:
            package.appendLRCAscii();
            sizes.append(2);
            break;
        case 4:
            package.appendFCSAscii(0);
            sizes.append(2);
            break;
        case 5: {
            const QByteArray received
                = QByteArray::fromStdString(in.ConsumeRandomLengthString(256));
            package.setData(received);
            check(package.byteArrayData() == received);
            break;
        }
        case 6:
        case 7: {
            qint64 plain = 0;
            sizes = sectionList(in);
            for (int s : sizes)
                plain += qMax(s, 0);
            const int held = package.totalSize();
            package.setSectionSize(sizes);
            check(package.totalSize() >= plain && package.totalSize() <= plain + held);
            break;
        }
        case 8:
            package.clearAll();
            sizes.clear();
            check(package.totalSize() == 0);
            break;
        default: {
            const int excluded = in.ConsumeIntegralInRange(-4, 300);
            const unsigned char fcs = TxPackage::calculateFCS(&package, excluded);
            const QByteArray bytes = package.byteArrayData();
            unsigned char expected = 0;
            for (int i = 0; i < bytes.size() - qMax(excluded, 0); ++i)
                expected ^= static_cast<unsigned char>(bytes.at(i));
            check(fcs == expected);
            break;
        }
        }
        checkLayout(package, sizes);
    }
    return 0;
}
