#ifndef SERIALPORT_H
#define SERIALPORT_H

#include "abstractdeviceinterface.h"
#include "drv_dev_setting.h"

#include <QMutex>
#include <QString>

#include <atomic>
#include <chrono>

#include <sys/types.h>
#include <termios.h>

// The host's serial port: the run-time's port object over a POSIX terminal device.
//
// The line parameters come from a DeviceSetting:
//   string    the device: a path ("/dev/ttyS1", "/dev/pts/3"), a bare name looked up in /dev
//             ("ttyUSB0") or a run-time port name "COMn", which names /dev/ttyS(n-1);
//   baudrate  a standard rate from 50 to 4000000 bit/s;
//   databits  5 to 8;
//   stopbits  1 or 2;
//   parity    0 none, 1 odd, 2 even.
// The line runs in raw mode without flow control; with parity on, characters that arrive with a
// parity or framing error are dropped. The retry count and the delay come from a DriverSetting.
//
// Opening claims the device for this object alone (an advisory lock, and on real devices the
// terminal's exclusive mode), so a second open of the same device, from this process or another,
// is refused as busy. Opening succeeds whatever terminal state an earlier, killed process left
// behind; closing restores the settings found at open.
//
// Reads wait up to readTimeout() for the first byte, then collect what follows until the line
// stays quiet for interByteTimeout() or the buffer is full. A read of a closed port also waits the
// read time-out before it returns 0, so a caller that polls in a loop is paced. Writes send every
// byte, waiting up to writeTimeout() each time the line accepts nothing, and return how many bytes
// went out. Neither ever returns a negative count.
//
// Every operation is safe to call from several threads. Waiting happens outside the port's lock,
// so a read that waits does not hold up a write from another thread; writes are kept whole against
// each other. Each failed operation records one error with the system's reason (error(),
// errorString()); a successful one leaves an earlier error in place until the next open() or
// clearError().
//
// Link loss: when the line hangs up, a read or write fails with EIO, ENXIO or ENODEV, or the path
// no longer names the device that was opened (a pulled USB adapter, a simulator restarted behind
// a symbolic link), the port releases the device and enters LinkLost. Reads then return 0 at once
// and writes return 0. The next read or write, at most every ReopenIntervalMs and the first time
// ReopenIntervalMs after the loss, opens the same path again (following its symbolic links anew)
// with the same line settings and, once that succeeds, carries on as Open. The loss and the
// reopening are each logged once as warnings; the loss stays in error() until clearError() or
// open().
class SerialPort : public AbstractDeviceInterface
{
public:
    enum class State { Closed, Open, LinkLost };

    enum class Error {
        NoError,
        DeviceNotFound, // no such device
        PermissionDenied,
        Busy, // claimed by another port object or program
        NotATerminal, // the path is no terminal device
        UnsupportedSetting, // a line parameter outside the ranges above
        OpenFailed, // any other failure to open or configure the device
        NotOpen, // an operation on a port that is not open
        ReadFailed,
        WriteFailed,
        WriteStalled, // the line accepted nothing for writeTimeout()
        LinkLost // the other end went away
    };

    static constexpr int DefaultReadTimeout = 50;
    static constexpr int DefaultInterByteTimeout = 5;
    static constexpr int DefaultWriteTimeout = 1000;
    static constexpr int ReopenIntervalMs = 500;

    SerialPort(const DeviceSetting &device, const DriverSetting &driver);
    ~SerialPort() override;

    SerialPort(const SerialPort &) = delete;
    SerialPort &operator=(const SerialPort &) = delete;

    // Opens and configures the device that the device setting names. Refused when already open.
    bool open();
    // Releases the device; the line settings found at open() are restored first.
    void close();
    // close() and open(), e.g. to take a new device name.
    bool reopen();

    State state() const;
    bool isOpen() const;
    Error error() const;
    QString errorString() const;
    void clearError();
    // The path of the device that the device setting names.
    QString portName() const;
    // The terminal's file descriptor while open, otherwise -1.
    int handle() const;

    // Takes new line parameters; an open port applies them at once and keeps its old ones when
    // they are refused. A new device name takes effect at the next open(). The record that
    // getDeviceSetting() hands out changes with it, so call this while no driver uses the port.
    bool setDeviceSetting(const DeviceSetting &device);
    void setDriverSetting(const DriverSetting &driver);

    // Times in milliseconds; negative values count as 0.
    void setReadTimeout(int ms);
    int readTimeout() const;
    void setInterByteTimeout(int ms);
    int interByteTimeout() const;
    void setWriteTimeout(int ms);
    int writeTimeout() const;

    // The path a run-time port name stands for (see the class comment).
    static QString devicePath(const QString &name);
    // Turns settings into raw-mode terminal settings with the device setting's line parameters;
    // false with the reason when one of them is unsupported.
    static bool makeLineSettings(const DeviceSetting &device, termios *settings, QString *refusal);

    // ---- AbstractDeviceInterface ----
    int readData(char *data, int maxSize) override;
    int receiveData(char *data, int maxSize) override;
    int writeData(const char *data, int size) override;
    DeviceSetting *getDeviceSetting() override;
    // Option 13 gives the number of received bytes not yet read (-1 when the port cannot tell);
    // other options give an invalid QVariant.
    void getOption(int option, QVariant &value) override;
    // Option 12 with the value 0 discards received bytes not yet read; anything else is ignored.
    void setOption(int option, const QVariant &value) override;
    int getRetry() override;
    int getDelay() override;

private:
    // What went wrong while opening or configuring.
    struct Failure
    {
        Error error = Error::NoError;
        QString text;
    };

    int readBytes(char *data, int maxSize);
    // The callers of these hold m_mutex.
    bool claimDevice(const QString &path, Failure *failure);
    bool isUsable();
    bool reclaimLostLink();
    bool pathStillNamesDevice() const;
    void setError(Error error, const QString &text);
    void reportNotOpen();
    void releaseDevice();
    void loseLink(const QString &reason);
    static bool configure(int fd, const DeviceSetting &device, Failure *failure);

    mutable QMutex m_mutex; // guards everything below except the atomics
    QMutex m_writeMutex; // keeps one write whole against another; taken before m_mutex
    DeviceSetting m_device;
    int m_fd = -1;
    quint64 m_generation = 0; // advanced whenever m_fd is released
    State m_state = State::Closed;
    Error m_error = Error::NoError;
    QString m_errorString;
    QString m_openPath; // as named, symbolic links unresolved
    dev_t m_openDevice = 0; // the device that m_openPath named at open
    termios m_savedSettings {}; // as found at open(), restored by close()
    std::chrono::steady_clock::time_point m_nextReopen; // while LinkLost

    std::atomic<int> m_retry;
    std::atomic<int> m_delay;
    std::atomic<int> m_readTimeout {DefaultReadTimeout};
    std::atomic<int> m_interByteTimeout {DefaultInterByteTimeout};
    std::atomic<int> m_writeTimeout {DefaultWriteTimeout};
};

#endif // SERIALPORT_H
