#include "uartregister.h"

#include "hustlog.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// The interrupt mask word lies at physical address 0x4A000008; the mapping covers the 12 bytes
// from 0x4A000000 and the word is read at offset 8.
const off_t REGISTER_BLOCK = 0x4A000000;
const size_t REGISTER_BLOCK_SIZE = 12;
const size_t MASK_OFFSET = 8;

} // namespace

int UartRegister::interruptBit(int port)
{
    if (port > 2)
        return -1;
    if (port == 1)
        return 23;
    if (port == 2)
        return 15;
    return 28;
}

DevMemUartRegister::~DevMemUartRegister()
{
    close();
}

bool DevMemUartRegister::open()
{
    close();
    m_fd = ::open("/dev/mem", O_RDWR | O_SYNC);
    if (m_fd <= 0) {
        qCDebug(lcHustDriver) << "open mem_fd fail";
        close();
        return false;
    }
    void *map = ::mmap(nullptr, REGISTER_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd,
                       REGISTER_BLOCK);
    if (map == MAP_FAILED) {
        close();
        return false;
    }
    m_map = map;
    return true;
}

quint32 DevMemUartRegister::read() const
{
    if (!m_map)
        return 0;
    return *reinterpret_cast<volatile const quint32 *>(static_cast<const char *>(m_map)
                                                       + MASK_OFFSET);
}

void DevMemUartRegister::write(quint32 value)
{
    if (m_map)
        *reinterpret_cast<volatile quint32 *>(static_cast<char *>(m_map) + MASK_OFFSET) = value;
}

void DevMemUartRegister::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
    if (m_map)
        ::munmap(m_map, REGISTER_BLOCK_SIZE);
    m_map = nullptr;
}
