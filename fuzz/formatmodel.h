#ifndef FORMATMODEL_H
#define FORMATMODEL_H

// A second, deliberately plain reading of the packing format language, used by the fuzz targets
// to know which arguments a format takes, how many bytes it covers and how it must fail.

#include "tools.h"

#include <cstdint>
#include <cstring>
#include <vector>

struct ModelItem
{
    char kind;
    int width; // bytes per element
    int64_t elements; // 1 for a single item
    bool array;
    bool takesArgument;
};

enum class Op { Pack, ByteArrayPack, Unpack };

struct FormatModel
{
    bool failed = false;
    bool unknownCharacter = false; // failure by a character outside the language
    int64_t bytes = 0; // bytes covered by the items before the end or the failure
    std::vector<ModelItem> items; // the items before the end or the failure
};

inline int modelWidth(char c)
{
    if (std::strchr("Ssvn", c))
        return 2;
    if (std::strchr("IiLlVN", c))
        return 4;
    return 1;
}

inline FormatModel modelFormat(const char *format, Op op)
{
    FormatModel m;
    for (const char *p = format; *p;) {
        if (*p >= '0' && *p <= '9') {
            int64_t count = 0;
            while (*p >= '0' && *p <= '9' && count <= MaxPackCount)
                count = count * 10 + (*p++ - '0');
            const char c = *p;
            const bool skip = c == 'x' || c == 'X';
            const bool data = c != '\0' && std::strchr("CcvnVN", c) != nullptr;
            if (count > MaxPackCount || !(data || skip) || (skip && op == Op::ByteArrayPack)
                || (data && count == 0)) {
                m.failed = true;
                return m;
            }
            m.items.push_back({c, modelWidth(c), count, true, data});
            m.bytes += modelWidth(c) * count;
            ++p;
            continue;
        }
        const char c = *p++;
        if (!std::strchr("CcSsvnIiLlVNxX", c)) {
            m.failed = true;
            m.unknownCharacter = true;
            return m;
        }
        const bool skip = c == 'x' || c == 'X';
        m.items.push_back({c, modelWidth(c), 1, false, !skip});
        m.bytes += modelWidth(c);
    }
    return m;
}

inline int argumentCount(const FormatModel &m)
{
    int n = 0;
    for (const ModelItem &item : m.items)
        n += item.takesArgument ? 1 : 0;
    return n;
}

#endif // FORMATMODEL_H
