#ifndef PACKCALL_H
#define PACKCALL_H

// Calls the variadic packing functions with an argument list chosen at run time: every argument
// is passed with its own C++ type, so the functions read each one with the type they expect.

#include "tools.h"

#include <QByteArray>
#include <QMetaType>

#include <vector>

struct PackArg
{
    enum Kind { Value, Bytes, Words, DWords };
    Kind kind = Value;
    unsigned int value = 0;
    const void *ptr = nullptr;

    static PackArg number(unsigned int v) { return {Value, v, nullptr}; }
    static PackArg bytes(const void *p) { return {Bytes, 0, p}; }
    static PackArg words(const void *p) { return {Words, 0, p}; }
    static PackArg dwords(const void *p) { return {DWords, 0, p}; }

    template<typename G> auto visit(G g) const
    {
        switch (kind) {
        case Bytes:
            return g(static_cast<const unsigned char *>(ptr));
        case Words:
            return g(static_cast<const unsigned short *>(ptr));
        case DWords:
            return g(static_cast<const unsigned int *>(ptr));
        default:
            return g(value);
        }
    }
};
Q_DECLARE_METATYPE(PackArg)
Q_DECLARE_METATYPE(std::vector<PackArg>)

// Storage for one unpacked item, by element width.
struct UnpackArg
{
    int width = 1;
    void *ptr = nullptr;

    template<typename G> auto visit(G g) const
    {
        if (width == 2)
            return g(static_cast<unsigned short *>(ptr));
        if (width == 4)
            return g(static_cast<unsigned int *>(ptr));
        return g(static_cast<unsigned char *>(ptr));
    }
};

namespace packcall {

constexpr int MaxPackArgs = 4;
constexpr int MaxUnpackArgs = 5;

template<int Left, typename F, typename Arg, typename... A>
auto expand(F f, const Arg *args, int n, A... a)
{
    if constexpr (Left == 0) {
        return f(a...);
    } else {
        if (n == 0)
            return f(a...);
        return args->visit(
            [&](auto next) { return expand<Left - 1>(f, args + 1, n - 1, a..., next); });
    }
}

} // namespace packcall

// Each returns the function's result; more arguments than the Max* counts are not passed.
inline QByteArray callByteArrayPack(const char *format, const std::vector<PackArg> &args)
{
    return packcall::expand<packcall::MaxPackArgs>(
        [format](auto... a) { return ByteArrayPack(format, a...); }, args.data(), int(args.size()));
}

inline int callDataPack(unsigned char *buffer, const char *format, const std::vector<PackArg> &args)
{
    return packcall::expand<packcall::MaxPackArgs>(
        [buffer, format](auto... a) { return DataPack(buffer, format, a...); }, args.data(),
        int(args.size()));
}

inline int callDataUnpack(const unsigned char *data, const char *format,
                          const std::vector<UnpackArg> &args)
{
    return packcall::expand<packcall::MaxUnpackArgs>(
        [data, format](auto... a) { return DataUnpack(data, format, a...); }, args.data(),
        int(args.size()));
}

#endif // PACKCALL_H
