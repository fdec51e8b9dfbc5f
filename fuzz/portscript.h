#ifndef PORTSCRIPT_H
#define PORTSCRIPT_H

#include <QByteArray>
#include <QList>

#include <algorithm>
#include <cstddef>
#include <cstdint>

// What a port hands out, taken from fuzz input: per read a length byte and that many bytes; a
// length of 0 is a read that returns nothing, and 255 closes a group (the answer to one request).
// A length past the end of the input takes what is left.
inline QList<QList<QByteArray>> portScript(const uint8_t *data, size_t size)
{
    QList<QList<QByteArray>> groups {{}};
    size_t i = 0;
    while (i < size) {
        const unsigned length = data[i++];
        if (length == 255) {
            groups.append(QList<QByteArray>());
            continue;
        }
        const size_t n = std::min<size_t>(length, size - i);
        groups.last().append(QByteArray(reinterpret_cast<const char *>(data + i), int(n)));
        i += n;
    }
    return groups;
}

#endif // PORTSCRIPT_H
