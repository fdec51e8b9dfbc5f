// Linked into cross-built tests, which run under qemu-user, so that QProcess can start children.
//
// Qt decides how to start a child by asking the kernel whether it can wait on a process
// descriptor (waitid with P_PIDFD on an invalid descriptor: EBADF means yes) and then starts it
// with clone(CLONE_PIDFD). qemu-user passes the question to the build machine's kernel, which
// says yes, but refuses the clone flag, so every start fails. Answering the question as a kernel
// without process descriptors does (EINVAL) makes Qt fall back to a plain fork, which qemu runs.
// Defined in the test program, this syscall() takes the place of the C library's for Qt too.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

long syscall(long number, ...)
{
    // Every Linux system call takes at most six word-sized arguments.
    long arg[6];
    va_list list;
    va_start(list, number);
    for (int i = 0; i < 6; ++i)
        arg[i] = va_arg(list, long);
    va_end(list);

    if (number == SYS_waitid && arg[0] == P_PIDFD) {
        errno = EINVAL;
        return -1;
    }
    // Qt's mutexes come through here from any thread; the look-up gives the same answer to all.
    static long (*next)(long, ...);
    long (*call)(long, ...) = __atomic_load_n(&next, __ATOMIC_RELAXED);
    if (!call) {
        call = (long (*)(long, ...))dlsym(RTLD_NEXT, "syscall");
        __atomic_store_n(&next, call, __ATOMIC_RELAXED);
    }
    return call(number, arg[0], arg[1], arg[2], arg[3], arg[4], arg[5]);
}
