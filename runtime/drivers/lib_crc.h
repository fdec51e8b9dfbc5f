#ifndef LIB_CRC_H
#define LIB_CRC_H

// One-byte update steps of common CRCs. The start value and any final exclusive or are the
// caller's: CRC-16/ARC starts at 0, CRC-32 starts at 0xFFFFFFFF and is inverted at the end,
// CRC-16/CCITT-FALSE starts at 0xFFFF, XMODEM and KERMIT at 0, DNP at 0 and is inverted at the end.

// Reflected (least significant bit first), table driven.
unsigned short update_crc_16(unsigned short crc, unsigned char c); // poly 0x8005
unsigned short update_crc_kermit(unsigned short crc, unsigned char c); // poly 0x1021
unsigned short update_crc_dnp(unsigned short crc, unsigned char c); // poly 0x3D65
unsigned int update_crc_32(unsigned int crc, unsigned char c); // poly 0x04C11DB7

// Most significant bit first, poly 0x1021, table driven.
unsigned short update_crc_ccitt(unsigned short crc, unsigned char c);

// SICK sensors: poly 0x8005 shifted one bit per byte, then mixed with this and the previous byte.
unsigned short update_crc_sick(unsigned short crc, unsigned char c, unsigned char previousByte);

#endif // LIB_CRC_H
