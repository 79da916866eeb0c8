// Preloaded into a program under test, makes the N-th call of one function fail: FAIL_CALL names the
// function, FAIL_AT is N, and FAIL_ERRNO is the errno, 0 for a short count, or -1 for a count of 0 in this
// call and all later ones. The file FAIL_MARK appears at that call.

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

extern "C" void* __libc_malloc(std::size_t size);

namespace {

std::atomic<long> g_Calls = 0;
/// Set by the first open() of main(). Allocations of libraries before that cannot be handled by anybody.
std::atomic<bool> g_IsInMain = false;

long readNumber(const char* variable) {
    const char* text = std::getenv(variable);
    return text == nullptr ? 0 : std::strtol(text, nullptr, 10);
}

bool isDue(const char* call) {
    const char* wanted = std::getenv("FAIL_CALL");
    if (wanted == nullptr || std::strcmp(wanted, call) != 0) {
        return false;
    }
    const long later = ++g_Calls - readNumber("FAIL_AT");
    if (later < 0 || (later > 0 && readNumber("FAIL_ERRNO") >= 0)) {
        return false;
    }
    // Past the functions below, which this must not count.
    ::syscall(SYS_close, ::syscall(SYS_openat, AT_FDCWD, std::getenv("FAIL_MARK"), O_WRONLY | O_CREAT, 0600));
    errno = static_cast<int>(readNumber("FAIL_ERRNO"));
    return true;
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

/// The result of a transfer that fails, or transfers nothing; none for one that goes on with `count`.
std::optional<ssize_t> transfer(const char* call, std::size_t& count) {
    if (!isDue(call)) {
        return std::nullopt;
    }
    const long error = readNumber("FAIL_ERRNO");
    count = count > 1 ? count / 2 : count;
    return error == 0 ? std::nullopt : std::optional<ssize_t>(error > 0 ? -1 : 0);
}

}  // namespace

extern "C" {

// open() takes more arguments than this, but never more than the mode.
int openFile(const char* path, int flags, mode_t mode) asm("open64");
int openFile(const char* path, int flags, mode_t mode) {
    g_IsInMain = true;
    return isDue("open") ? -1 : next<int(const char*, int, mode_t)>("open64")(path, flags, mode);
}

int fstat(int fd, struct stat* status) noexcept {
    return isDue("fstat") ? -1 : next<int(int, struct stat*)>("fstat64")(fd, status);
}

void* mmap(void* address, std::size_t length, int protection, int flags, int fd, off_t offset) noexcept {
    using Mmap = void*(void*, std::size_t, int, int, int, off_t);
    return isDue("mmap") ? MAP_FAILED : next<Mmap>("mmap64")(address, length, protection, flags, fd, offset);
}

ssize_t read(int fd, void* buffer, std::size_t count) {
    const auto result = transfer("read", count);
    return result ? *result : next<ssize_t(int, void*, std::size_t)>("read")(fd, buffer, count);
}

ssize_t write(int fd, const void* data, std::size_t count) {
    const auto result = transfer("write", count);
    return result ? *result : next<ssize_t(int, const void*, std::size_t)>("write")(fd, data, count);
}

int flock(int fd, int operation) noexcept {
    return isDue("flock") ? -1 : next<int(int, int)>("flock")(fd, operation);
}

int ftruncate(int fd, off_t length) noexcept {
    return isDue("ftruncate") ? -1 : next<int(int, off_t)>("ftruncate64")(fd, length);
}

int mkfifo(const char* path, mode_t mode) noexcept {
    return isDue("mkfifo") ? -1 : next<int(const char*, mode_t)>("mkfifo")(path, mode);
}

int close(int fd) {
    const int result = next<int(int)>("close")(fd);
    return isDue("close") ? -1 : result;
}

int poll(pollfd* entries, nfds_t count, int patience) {
    return isDue("poll") ? -1 : next<int(pollfd*, nfds_t, int)>("poll")(entries, count, patience);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                   void* argument) noexcept {
    using Create = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    return isDue("pthread_create") ? errno
                                   : next<Create>("pthread_create")(thread, attributes, run, argument);
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* duration, timespec* rest) {
    using Sleep = int(clockid_t, int, const timespec*, timespec*);
    return isDue("clock_nanosleep") ? errno : next<Sleep>("clock_nanosleep")(clock, flags, duration, rest);
}

int nanosleep(const timespec* duration, timespec* rest) {
    return isDue("clock_nanosleep") ? -1 : next<int(const timespec*, timespec*)>("nanosleep")(duration, rest);
}

void* malloc(std::size_t size) noexcept {
    return g_IsInMain && isDue("malloc") ? nullptr : __libc_malloc(size);
}

}  // extern "C"
