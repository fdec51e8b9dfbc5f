#ifndef UARTREGISTER_H
#define UARTREGISTER_H

#include <QtGlobal>

// Access to the 32-bit register that masks the receive interrupts of the panel's UARTs. The
// worker reaches the register only through this interface, so it builds and runs on hardware
// without it (and tests use a memory-backed register).
class UartRegister
{
public:
    virtual ~UartRegister() = default;

    // Makes the register reachable; false when it cannot be.
    virtual bool open() = 0;
    virtual quint32 read() const = 0;
    virtual void write(quint32 value) = 0;
    // Releases what open() took.
    virtual void close() = 0;

    // The register bit of a port's receive interrupt: 23 for port 1, 15 for port 2, 28 for 0 and
    // below; -1 for ports above 2, which have no bit.
    static int interruptBit(int port);
};

// The register in the processor's physical memory, reached through "/dev/mem". Nothing is opened
// or mapped until open() is called, and close() releases both.
class DevMemUartRegister : public UartRegister
{
public:
    ~DevMemUartRegister() override;

    bool open() override;
    quint32 read() const override;
    void write(quint32 value) override;
    void close() override;

private:
    int m_fd = -1;
    void *m_map = nullptr;
};

// A register held in memory, for tests and for hosts without the hardware.
class MemoryUartRegister : public UartRegister
{
public:
    explicit MemoryUartRegister(quint32 value = 0)
        : m_value(value)
    { }

    bool open() override
    {
        ++m_opens;
        return true;
    }
    quint32 read() const override { return m_value; }
    void write(quint32 value) override { m_value = value; }
    void close() override { }

    quint32 value() const { return m_value; }
    int opens() const { return m_opens; }

private:
    quint32 m_value;
    int m_opens = 0;
};

#endif // UARTREGISTER_H
