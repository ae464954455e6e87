// The calls that fail on demand, under the names by which the library asks for them.
#define _FILE_OFFSET_BITS 64 // as the library: ftruncate is ftruncate64 then
#include "tests/support/faults.h"

#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace
{

struct countdown {
    int left = -1; // calls that still succeed; -1: no fault armed
    int error = 0;
    bool all = false;
    bool happened = false;

    bool fails()
    {
        if (left < 0) return false;
        if (left > 0) {
            --left;
            return false;
        }
        if (!all) left = -1;
        happened = true;
        errno = error;
        return true;
    }
};

thread_local countdown memory;
thread_local faults::allocations counted;

template <class Allocate> void *allocate(void *before, Allocate allocate)
{
    if (memory.fails()) return nullptr;
    void *block = allocate();
    ++counted.made;
    counted.left += block != nullptr && before == nullptr;
    return block;
}
countdown calls[static_cast<size_t>(faults::call::count_)];

countdown &fault(faults::call which) { return calls[static_cast<size_t>(which)]; }

// 32-bit programs with 64-bit times have these by another name.
constexpr bool is_narrow = sizeof(long) == 4;

template <class Function> Function *real(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

namespace faults
{

refuse_memory::refuse_memory(int n, bool all) { memory = {n, ENOMEM, all, false}; }
refuse_memory::~refuse_memory() { memory = {}; }
bool refuse_memory::happened() const { return memory.happened; }

refuse::refuse(call which, int error, int n, bool all) : which_{which} { fault(which) = {n, error, all, false}; }
refuse::~refuse() { fault(which_) = {}; }

allocations count_allocations(const std::function<void()> &body)
{
    counted = {};
    body();
    return counted;
}

void for_each_allocation(const std::function<void()> &body)
{
    for (int n = 0; n < 1000; ++n) {
        memory = {n, ENOMEM, false, false};
        body();
        const bool happened = memory.happened;
        memory = {};
        if (!happened) return;
    }
    ADD_FAILURE() << "more than 1000 allocations";
}

} // namespace faults

extern "C" {

#if !defined(__SANITIZE_ADDRESS__)
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);

void __libc_free(void *);

void *malloc(size_t size)
{
    return allocate(nullptr, [=] { return __libc_malloc(size); });
}
void *calloc(size_t count, size_t size)
{
    return allocate(nullptr, [=] { return __libc_calloc(count, size); });
}
void *realloc(void *block, size_t size)
{
    return allocate(block, [=] { return __libc_realloc(block, size); });
}
void free(void *block)
{
    counted.left -= block != nullptr;
    __libc_free(block);
}
#endif

pid_t fork(void)
{
    static auto *const next = real<pid_t()>("fork");
    return fault(faults::call::fork).fails() ? -1 : next();
}
int socket(int domain, int type, int protocol)
{
    static auto *const next = real<int(int, int, int)>("socket");
    return fault(faults::call::socket).fails() ? -1 : next(domain, type, protocol);
}
int bind(int fd, const sockaddr *address, socklen_t length)
{
    static auto *const next = real<int(int, const sockaddr *, socklen_t)>("bind");
    return fault(faults::call::bind).fails() ? -1 : next(fd, address, length);
}
int setsockopt(int fd, int level, int option, const void *value, socklen_t length)
{
    static auto *const next =
        real<int(int, int, int, const void *, socklen_t)>(is_narrow ? "__setsockopt64" : "setsockopt");
    return fault(faults::call::setsockopt).fails() ? -1 : next(fd, level, option, value, length);
}
int flock(int fd, int operation)
{
    static auto *const next = real<int(int, int)>("flock");
    return fault(faults::call::flock).fails() ? -1 : next(fd, operation);
}
int ftruncate(int fd, off_t length)
{
    static auto *const next = real<int(int, off_t)>("ftruncate64");
    return fault(faults::call::ftruncate).fails() ? -1 : next(fd, length);
}
int uname(utsname *name)
{
    static auto *const next = real<int(utsname *)>("uname");
    return fault(faults::call::uname).fails() ? -1 : next(name);
}
int clock_gettime(clockid_t clock, timespec *time)
{
    static auto *const next = real<int(clockid_t, timespec *)>(is_narrow ? "__clock_gettime64" : "clock_gettime");
    return fault(faults::call::clock_gettime).fails() ? -1 : next(clock, time);
}
ssize_t write(int fd, const void *data, size_t size)
{
    static auto *const next = real<ssize_t(int, const void *, size_t)>("write");
    return fault(faults::call::write).fails() ? -1 : next(fd, data, size);
}
ssize_t send(int fd, const void *data, size_t size, int flags)
{
    static auto *const next = real<ssize_t(int, const void *, size_t, int)>("send");
    return fault(faults::call::send).fails() ? -1 : next(fd, data, size, flags);
}
}
