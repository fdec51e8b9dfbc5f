// VByteArrayPack with fuzzed formats and values: the size and the failures match the format
// model, and unpacking the bytes with the same format gives the values back.
#include "formatmodel.h"
#include "packcall.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr int64_t MaxRecord = 1 << 16;

// Takes the next `n` fuzz bytes (zeros once they run out).
void take(const uint8_t *&at, const uint8_t *end, unsigned char *out, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        out[i] = at < end ? *at++ : 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size < 1)
        return 0;
    const size_t formatLength = std::min<size_t>(input[0] % 48, size - 1);
    const std::string format(reinterpret_cast<const char *>(input + 1), formatLength);
    const uint8_t *values = input + 1 + formatLength;
    const uint8_t *end = input + size;

    const FormatModel model = modelFormat(format.c_str(), Op::ByteArrayPack);
    if (argumentCount(model) > MaxPackArgs || model.bytes > MaxRecord)
        return 0;

    std::vector<std::unique_ptr<unsigned char[]>> arrays;
    Args args;
    for (const ModelItem &item : model.items) {
        if (!item.takesArgument)
            continue;
        const size_t bytes = size_t(item.width * item.elements);
        arrays.emplace_back(new unsigned char[bytes]);
        take(values, end, arrays.back().get(), bytes);
        if (!item.array) {
            unsigned int v = 0;
            std::memcpy(&v, arrays.back().get(), size_t(item.width));
            args.push_back({v, 0, nullptr});
        } else {
            args.push_back({0, item.width, arrays.back().get()});
        }
    }

    const QByteArray packed = byteArrayPack(QByteArray::fromStdString(format), args);
    if (model.failed || format.empty()) {
        if (!packed.isEmpty())
            std::abort();
        return 0;
    }
    if (packed.size() != model.bytes)
        std::abort();

    // Unpack into fresh storage and compare with what was packed (zero bytes for x and X).
    std::vector<std::unique_ptr<unsigned char[]>> out;
    Args unpackArgs;
    for (const ModelItem &item : model.items) {
        if (!item.takesArgument)
            continue;
        out.emplace_back(new unsigned char[size_t(item.width * item.elements)]());
        unpackArgs.push_back({0, item.width, out.back().get()});
    }
    const int read = dataUnpack(packed.constData(), QByteArray::fromStdString(format), unpackArgs);
    if (read != packed.size())
        std::abort();
    size_t arg = 0;
    int64_t offset = 0;
    for (const ModelItem &item : model.items) {
        const size_t bytes = size_t(item.width * item.elements);
        if (!item.takesArgument) {
            for (size_t i = 0; i < bytes; ++i)
                if (packed.at(int(offset + i)) != 0)
                    std::abort();
        } else {
            if (std::memcmp(out[arg].get(), arrays[arg].get(), bytes) != 0)
                std::abort();
            ++arg;
        }
        offset += int64_t(bytes);
    }
    return 0;
}
