// VDataUnpack with fuzzed formats and records: every item lands in storage of exactly its size,
// and the result matches the format model.
#include "formatmodel.h"
#include "packcall.h"

#include <cstdlib>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size < 1)
        return 0;
    const size_t formatLength = std::min<size_t>(input[0] % 48, size - 1);
    const std::string format(reinterpret_cast<const char *>(input + 1), formatLength);
    const size_t dataSize = size - 1 - formatLength;

    const FormatModel model = modelFormat(format.c_str(), Op::Unpack);
    if (argumentCount(model) > MaxPackArgs || model.bytes > int64_t(dataSize))
        return 0;

    // Exact-size heap copies, so that the sanitizer sees any access past the record or an item.
    std::unique_ptr<unsigned char[]> data(new unsigned char[dataSize ? dataSize : 1]);
    std::copy(input + 1 + formatLength, input + size, data.get());
    std::vector<std::unique_ptr<unsigned char[]>> storage;
    Args args;
    for (const ModelItem &item : model.items) {
        if (!item.takesArgument)
            continue;
        storage.emplace_back(new unsigned char[size_t(item.width * item.elements)]);
        args.push_back({0, item.width, storage.back().get()});
    }

    const int result = dataUnpack(data.get(), QByteArray::fromStdString(format), args);
    const int expected = model.failed ? -1 : int(model.bytes);
    if (result != expected)
        std::abort();
    return 0;
}
