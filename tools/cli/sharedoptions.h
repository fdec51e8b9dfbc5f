#ifndef HUST_SHAREDOPTIONS_H
#define HUST_SHAREDOPTIONS_H

#include "commandline.h"

#include <QList>
#include <QPair>

// The options hustctl and hust-sim share, so that the same thing has the same name in both: the
// serial line and the simulated controller's seeds.
namespace cli {

// -p/--port DEVICE (what the device is for: portHelp), -b/--baud, -d/--databits, -s/--stopbits,
// -P/--parity.
QList<Option> lineOptions(const QString &portHelp);
// --sim-set N=VALUE (repeatable), --sim-programs DIR, --no-pace.
QList<Option> simulatorOptions();

// Reads the line options into the values, which keep their defaults when an option is not given.
bool readLineOptions(const Parsed &parsed, QString *device, int *baud, int *dataBits, int *stopBits,
                     QString *parity, QString *reason);
bool readSimulatorOptions(const Parsed &parsed, QList<QPair<int, quint32>> *seeds,
                          QString *programs, bool *pace, QString *reason);

// A 32-bit value in decimal (a negative one as two's complement) or 0x hexadecimal.
bool parseValue32(const QString &text, quint32 *value);
// "N=V": a double-word index 0..99999 and a 32-bit value, decimal or 0x hexadecimal.
bool parseRegisterSeed(const QString &text, QPair<int, quint32> *seed, QString *reason);

} // namespace cli

#endif // HUST_SHAREDOPTIONS_H
