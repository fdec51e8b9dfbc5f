#ifndef PACKCALL_H
#define PACKCALL_H

// Calls the variadic packing functions with an argument list chosen at run time: every argument
// is passed with the C++ type the functions read it as.

#include "tools.h"

#include <QByteArray>

#include <vector>

// One argument of a packing call: a number, or an array of 1-, 2- or 4-byte elements.
struct Arg
{
    unsigned int value = 0;
    int width = 0; // 0 for a number
    void *ptr = nullptr;
};
using Args = std::vector<Arg>;

// Arguments past this count are not passed.
constexpr int MaxPackArgs = 4;

namespace packcall {

template<typename U8, typename U16, typename U32, int Left = MaxPackArgs, typename F, typename... A>
auto call(F f, const Arg *args, int n, A... a)
{
    if constexpr (Left == 0) {
        return f(a...);
    } else {
        if (n == 0)
            return f(a...);
        auto next
            = [&](auto v) { return call<U8, U16, U32, Left - 1>(f, args + 1, n - 1, a..., v); };
        switch (args->width) {
        case 1:
            return next(static_cast<U8 *>(args->ptr));
        case 2:
            return next(static_cast<U16 *>(args->ptr));
        case 4:
            return next(static_cast<U32 *>(args->ptr));
        default:
            return next(args->value);
        }
    }
}

} // namespace packcall

inline QByteArray byteArrayPack(const QByteArray &format, const Args &args)
{
    return packcall::call<const quint8, const quint16, const quint32>(
        [&](auto... a) { return ByteArrayPack(format.constData(), a...); }, args.data(),
        int(args.size()));
}

inline int dataPack(void *buffer, const QByteArray &format, const Args &args)
{
    return packcall::call<const quint8, const quint16, const quint32>(
        [&](auto... a) {
            return DataPack(static_cast<unsigned char *>(buffer), format.constData(), a...);
        },
        args.data(), int(args.size()));
}

inline int dataUnpack(const void *data, const QByteArray &format, const Args &args)
{
    return packcall::call<quint8, quint16, quint32>(
        [&](auto... a) {
            return DataUnpack(static_cast<const unsigned char *>(data), format.constData(), a...);
        },
        args.data(), int(args.size()));
}

#endif // PACKCALL_H
