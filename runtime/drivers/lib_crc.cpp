#include "lib_crc.h"

#include <array>

namespace {

// Table of a reflected CRC: entry i is the register after shifting the byte i through it.
template<typename T> std::array<T, 256> reflectedTable(T poly)
{
    std::array<T, 256> table {};
    for (unsigned i = 0; i < 256; ++i) {
        T crc = T(i);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1u) ? T((crc >> 1) ^ poly) : T(crc >> 1);
        table[i] = crc;
    }
    return table;
}

std::array<unsigned short, 256> msbFirstTable16(unsigned short poly)
{
    std::array<unsigned short, 256> table {};
    for (unsigned i = 0; i < 256; ++i) {
        unsigned short crc = static_cast<unsigned short>(i << 8);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000u) ? static_cast<unsigned short>((crc << 1) ^ poly)
                                  : static_cast<unsigned short>(crc << 1);
        table[i] = crc;
    }
    return table;
}

// The tables are built on first use; function-local statics make that safe across threads.
const std::array<unsigned short, 256> &crc16Table()
{
    static const auto table = reflectedTable<unsigned short>(0xA001);
    return table;
}

const std::array<unsigned short, 256> &kermitTable()
{
    static const auto table = reflectedTable<unsigned short>(0x8408);
    return table;
}

const std::array<unsigned short, 256> &dnpTable()
{
    static const auto table = reflectedTable<unsigned short>(0xA6BC);
    return table;
}

const std::array<unsigned int, 256> &crc32Table()
{
    static const auto table = reflectedTable<unsigned int>(0xEDB88320u);
    return table;
}

const std::array<unsigned short, 256> &ccittTable()
{
    static const auto table = msbFirstTable16(0x1021);
    return table;
}

unsigned short reflectedStep(const std::array<unsigned short, 256> &table, unsigned short crc,
                             unsigned char c)
{
    return static_cast<unsigned short>((crc >> 8) ^ table[(crc ^ c) & 0xFFu]);
}

} // namespace

unsigned short update_crc_16(unsigned short crc, unsigned char c)
{
    return reflectedStep(crc16Table(), crc, c);
}

unsigned short update_crc_kermit(unsigned short crc, unsigned char c)
{
    return reflectedStep(kermitTable(), crc, c);
}

unsigned short update_crc_dnp(unsigned short crc, unsigned char c)
{
    return reflectedStep(dnpTable(), crc, c);
}

unsigned int update_crc_32(unsigned int crc, unsigned char c)
{
    return (crc >> 8) ^ crc32Table()[(crc ^ c) & 0xFFu];
}

unsigned short update_crc_ccitt(unsigned short crc, unsigned char c)
{
    return static_cast<unsigned short>((crc << 8) ^ ccittTable()[((crc >> 8) ^ c) & 0xFFu]);
}

unsigned short update_crc_sick(unsigned short crc, unsigned char c, unsigned char previousByte)
{
    unsigned int next = (crc & 0x8000u) ? ((crc << 1) ^ 0x8005u) : (crc << 1u);
    next &= 0xFFFFu;
    next ^= (unsigned(previousByte) << 8) | c;
    return static_cast<unsigned short>(next);
}
