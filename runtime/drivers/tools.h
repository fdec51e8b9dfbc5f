#ifndef TOOLS_H
#define TOOLS_H

#include <QByteArray>
#include <QString>

// ---- Device addresses ----------------------------------------------------------------------
// The leading run of letters and underscores of an address ("d100" -> "d", "_X12" -> "_X").
QByteArray ExtractPrefixSymbol(const QString &address);
QByteArray ExtractPrefixSymbol(const QByteArray &address);
// The address's number in base 10, 16 or 8: everything before the first digit of the base is
// skipped and the rest must be a number as a whole. Returns 0 when it is not, -1 for another base.
int ExtractPLCDeviceAddress(const QString &address, int base);
int ExtractPLCDeviceAddress(const QByteArray &address, int base);

// ---- Bits of integers (bit 0 is the least significant; a bit beyond the width changes nothing
// and reads as false) --------------------------------------------------------------------------
unsigned char setBit(unsigned char value, unsigned short bit);
unsigned char clearBit(unsigned char value, unsigned short bit);
bool getBit(unsigned char value, unsigned short bit);
unsigned short setBit(unsigned short value, unsigned short bit);
unsigned short clearBit(unsigned short value, unsigned short bit);
bool getBit(unsigned short value, unsigned short bit);
unsigned int setBit(unsigned int value, unsigned short bit);
unsigned int clearBit(unsigned int value, unsigned short bit);
bool getBit(unsigned int value, unsigned short bit);

// ---- Bits of byte arrays: bit n is bit n % 8 of byte n / 8 -------------------------------------
// Out-of-range and negative bit numbers read as false and change nothing; setBit on a QByteArray
// may address the byte just past the end, which appends one zero byte first.
bool getBit(const QByteArray &bits, int n);
// The caller's buffer must hold byte n / 8.
bool getBit(const unsigned char *bits, int n);
void setBit(QByteArray &bits, int n, bool on);
void setBit(unsigned char *bits, int n, bool on);
// Bit 0 of the first byte: the value of a one-bit read or write (false for empty data).
bool getBitData(const QByteArray &data);

// ---- Little-endian integers from and to byte arrays ----------------------------------------
int QByteArrayToInt(const QByteArray &bytes);
unsigned short QByteArrayToWord(const QByteArray &bytes);
short QByteArrayToShort(const QByteArray &bytes);
QByteArray intToByteArray(int value);
QByteArray wordToByteArray(unsigned short value);
QByteArray shortToByteArray(short value);

#endif // TOOLS_H
