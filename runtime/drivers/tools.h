#ifndef TOOLS_H
#define TOOLS_H

#include <QByteArray>
#include <QDir>
#include <QList>
#include <QString>

#include <algorithm>
#include <cstdarg>

class CommunicatorCommand;

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

// ---- Byte order and arrangement ------------------------------------------------------------
// Copies count 16-bit (32-bit) big-endian values from data into a little-endian array.
QByteArray fromBigEndianUShortArray(const unsigned char *data, int count);
QByteArray fromBigEndianULongArray(const unsigned char *data, int count);
// In place: exchanges the bytes of every whole pair (reverses every whole group of four); a last
// partial pair or group is left as it is.
void toLittleEndianUShortArray(QByteArray &a);
void toLittleEndianULongArray(QByteArray &a);
// Copies padded with zero bytes to whole pairs (groups of four), then byte-swapped.
QByteArray toBigEndianUShortArray(const QByteArray &a);
QByteArray toBigEndianULongArray(const QByteArray &a);
// Appends the high byte of v, then the low byte.
void appendBigEndianUShort(QByteArray &a, unsigned short v);
QByteArray reverseArray(const QByteArray &a);

// Rotates the m + n elements at data left by m: the first m move behind the other n, each group
// keeping its order. Negative counts leave the data alone.
template<typename T> void RotateArray(T *data, int m, int n)
{
    if (!data || m < 0 || n < 0)
        return;
    std::reverse(data, data + m);
    std::reverse(data + m, data + m + n);
    std::reverse(data, data + m + n);
}

// ---- Padding to register widths ------------------------------------------------------------
// a padded with zero bytes to a multiple of 2, 4 or 8 bytes.
QByteArray To16bitsData(const QByteArray &a);
QByteArray To32bitsData(const QByteArray &a);
QByteArray To64bitsData(const QByteArray &a);
// Number of bytes that the data of cmd must have: bits (types 0 and 6) rounded up to bytes, bytes
// (1, 5), 2 x words, 4 x double words, 8 x quad words, 0 for other types. A size that does not fit
// an int gives -1.
int GetSafeDataLen(const CommunicatorCommand &cmd);
// data cut or zero-padded to GetSafeDataLen(cmd) bytes (empty when that is -1).
QByteArray ToSafeData(const CommunicatorCommand &cmd, const QByteArray &data);
// Resizes a to bits / 8 bytes, rounded up (no bytes for a negative count).
void FitBitArray(QByteArray &a, int bits);
// Clears the bits of byte bits / 8 from position bits % 8 upward; nothing when bits is a multiple
// of 8 or that byte does not exist.
void clearUnnecessaryBits(QByteArray &a, int bits);

// ---- Bit strings ---------------------------------------------------------------------------
// count bytes of 0 or 1: bits first .. first + count - 1 of bits (bits past the end read as 0).
QByteArray ExpandBitsToBytes(const QByteArray &bits, unsigned short first, int count);
// Bit dstFirst + i of dst takes bit i of src for i < count; dst grows byte by byte as setBit
// allows. Bits past the end of src are not copied.
void CopyBits(QByteArray &dst, QByteArray &src, int dstFirst, int count);
// In place: a read as a little-endian number (byte 0 least significant) is shifted right by n
// bits; the vacated high bits become 0, so n >= 8 * size clears the array. A negative n changes
// nothing.
void RightShiftNBits(QByteArray &a, int n);

// ---- Unit counts (rounding up) --------------------------------------------------------------
unsigned int NumOfBitsToNumOfBytes(unsigned int offset, unsigned int bits);
unsigned int NumOfBitsToNumOfWords(unsigned int offset, unsigned int bits);
unsigned int NumOfBitsToNumOfDWords(unsigned int offset, unsigned int bits);
unsigned int NumOfBytesToNumOfWords(unsigned int bytes);
unsigned int NumOfBytesToNumOfDWords(unsigned int bytes);
unsigned int NumOfBytesToNumOfQuadWords(unsigned int bytes);

// ---- Command data types --------------------------------------------------------------------
bool isBitCommand(const CommunicatorCommand &cmd);
bool isByteCommand(const CommunicatorCommand &cmd);
bool isWordCommand(const CommunicatorCommand &cmd);
bool isDoubleWordCommand(const CommunicatorCommand &cmd);
bool isBlockCommand(const CommunicatorCommand &cmd);

// ---- Checksums over len bytes at data (0 when len < 1 or data is null) ----------------------
unsigned char UInt8CheckSum(const unsigned char *data, int len);
unsigned short UShortCheckSum(const unsigned char *data, int len);
unsigned char XorUInt8CheckSum(const unsigned char *data, int len);
// CRC-16/ARC: start value 0, no final exclusive or.
unsigned short CRC16Calculate(const unsigned char *data, int len);

// ---- Parsing, time, processes, debugging ----------------------------------------------------
// Hexadecimal text, optionally with a leading "0" or "0x"/"0X", read up to len characters or the
// first zero byte; any other character makes the result 0. More than eight digits keep the low
// 32 bits.
unsigned int HexToUInt(const char *text, int len);
// Sleeps ms milliseconds, resuming after signal interruptions.
void HRSleep(unsigned long ms);
// Milliseconds of the monotonic clock.
qint64 CurrentMSecsSinceBoot();
// True when a process with that id exists (also when we may not signal it). Ids below 1 and ids
// out of the system's range are never running.
bool ProcessIsRunning(long long pid);
// "(0X12 0Xa ) : " followed by the bytes as text up to the first zero byte.
QString dumpByteArray(const QByteArray &a);

// ---- Format-string packing -----------------------------------------------------------------
// A format is a run of items: C/c (byte), S/s/v (16-bit LE), n (16-bit BE), I/i/L/l/V (32-bit LE),
// N (32-bit BE), x (zero byte / skip), X (skip). A decimal count before C, c, v, n, V, N, x or X
// makes an array item that takes one pointer argument (const unsigned char*, const unsigned
// short*, const unsigned int*). Single packing items take an unsigned int argument each; all
// unpacking items take a pointer to storage of their size.
//
// Failures: an unknown item character gives 0 (DataPack), an empty array (ByteArrayPack) or -1
// (DataUnpack); a count of 0 before C, c, v, n, V or N, a count before any other character or at
// the end of the format, a count above MaxPackCount or a null pointer argument give -1 (an empty
// array). ByteArrayPack also refuses counted x and X. A null buffer or data pointer gives -1, a
// null or empty format 0 (an empty array). Items before the failure have been written or stored.
constexpr int MaxPackCount = 0x1FFFFFFF;
int DataPack(unsigned char *buffer, const char *format, ...);
int VDataPack(unsigned char *buffer, const char *format, va_list args);
QByteArray ByteArrayPack(const char *format, ...);
QByteArray VByteArrayPack(const char *format, va_list args);
int DataUnpack(const unsigned char *data, const char *format, ...);
int VDataUnpack(const unsigned char *data, const char *format, va_list args);

// ---- Project database ----------------------------------------------------------------------
extern const QString COMPILE_PATH;
extern const QString DATABASE_PATH;

struct LinkIdStationId
{
    int linkId = 0;
    int stationId = 0;
};

// The executable's directory, entered into its "compile" subdirectory when that exists.
QDir GetCompilePath();
// Absolute path of the file "database" in GetCompilePath(), inside its "database" subdirectory
// when that exists.
QString GetDatabaseName();

// Returned by DevStrToHmiPort for a device text without a trailing number after a non-digit (and
// for numbers too large); real port numbers are 999 and up.
constexpr int InvalidHmiPort = -1;
// 2000 for "ETHERNET..." in any case, otherwise the trailing decimal number + 999 (COM1 -> 1000).
int DevStrToHmiPort(const QString &device);

// Default station of the link on hmiPort, from the first row found in the connection's LINK and
// NODE tables; linkId and stationId are left alone when nothing is found or the query fails.
bool GetLinkIdAndDefaultStationId(const QString &connection, int hmiPort, int &linkId,
                                  unsigned char &stationId);
// Appends the default nodes with that endpoint on hmiPort; true when result is non-empty after.
bool GetLinkIdAndDefaultStationId(const QString &connection, int hmiPort, const QString &ip,
                                  unsigned short port, QList<LinkIdStationId> &result);
// Appends the default nodes of linkId; true when result is non-empty after.
bool GetLinkIdAndDefaultStationId(const QString &connection, int linkId,
                                  QList<LinkIdStationId> &result);

#endif // TOOLS_H
