// SPDX-License-Identifier: Apache-2.0
// Keeps a process alive that has run out of file descriptors while peers connect.
//
// libzmq aborts the process when accept4 fails with EMFILE or ENOMEM (4.3.4: ipc_listener.cpp, line 325, and
// likewise for tcp): any peer that may connect could end a service by opening connections. Nothing in
// libzmq's interface prevents that: a monitor hears of connections too late in a burst, and only the socket's
// own thread, which may be in a handler, could stop listening. So this file stands in for accept4, as this
// process and what it links see it. For libzmq, and only there, a connection without a descriptor is taken by
// means of one kept in reserve, and closed at once; its peer tries again later. All other callers get exactly
// what the system gives.
//
// It works where the dynamic linker finds this definition before that of the C library: in programs that link
// this library, and not where a program loads it later by dlopen.
#include <cerrno>
#include <chrono>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zmq.h>

#include "slate/log.h"

namespace tarn_internal {
namespace {
using Accept = int (*)(int, sockaddr*, socklen_t*, int);

/// Where the code at an address was loaded from.
const void* object_of(const void* address)
{
    Dl_info info;
    return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

/// The descriptor in reserve, and the report of its use.
class Reserve {
public:
    Reserve() { fill(); }

    /// Takes one connection and closes it. False if there is none, or no descriptor for it.
    bool drop_connection(Accept accept, int listener)
    {
        const std::lock_guard lock(mutex_);
        give_up();
        const int connection = accept(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection >= 0)
            close(connection);
        fill();
        return connection >= 0;
    }

    /// Counts a dropped connection; the number of those to report, once a second at most.
    std::optional<unsigned long> count()
    {
        const std::lock_guard lock(mutex_);
        ++dropped_;
        const auto now = std::chrono::steady_clock::now();
        if (now < next_report_)
            return std::nullopt;
        next_report_ = now + std::chrono::seconds(1);
        return std::exchange(dropped_, 0);
    }

private:
    void fill()
    {
        descriptor_ = memfd_create("tarn-reserve", MFD_CLOEXEC);
        if (descriptor_ >= 0)
            (void)fstat(descriptor_, &identity_);
    }

    /// A program may have closed all descriptors since, and the number may be another file's by now.
    void give_up()
    {
        struct stat now {};
        if (descriptor_ >= 0 && fstat(descriptor_, &now) == 0 && now.st_dev == identity_.st_dev &&
            now.st_ino == identity_.st_ino)
            close(descriptor_);
        descriptor_ = -1;
    }

    std::mutex mutex_; // guards what follows
    int descriptor_ = -1;
    struct stat identity_ {};
    unsigned long dropped_ = 0;
    std::chrono::steady_clock::time_point next_report_;
};

Reserve& reserve()
{
    static Reserve instance;
    return instance;
}

/// Fills the reserve when the library is loaded, while there are descriptors.
[[maybe_unused]] const bool filled = (reserve(), true);

/// libzmq asks again at once, and would use up the processor.
int try_later()
{
    const timespec pause = {0, 1000000};
    nanosleep(&pause, nullptr);
    errno = EAGAIN;
    return -1;
}

/// What accept4 gives to libzmq instead of EMFILE.
int accept_without_descriptor(Accept accept, int listener)
{
    if (!reserve().drop_connection(accept, listener)) // another thread took the reserve
        return try_later();
    if (const auto dropped = reserve().count())
        slate::log_warn(SLATE_HERE,
                        "no file descriptor left; dropped connections: ", std::to_string(*dropped));
    errno = ECONNABORTED;
    return -1;
}
} // namespace
} // namespace tarn_internal

// The C library names its parameters with reserved names.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int accept4(int listener, sockaddr* address, socklen_t* length, int flags)
{
    using namespace tarn_internal;

    static const auto next = reinterpret_cast<Accept>(dlsym(RTLD_NEXT, "accept4"));
    const int connection = next(listener, address, length, flags);
    if (connection >= 0 || (errno != EMFILE && errno != ENOMEM && errno != ENOBUFS))
        return connection;
    const int error = errno;
    static const void* const libzmq = object_of(reinterpret_cast<const void*>(&zmq_version));
    if (object_of(__builtin_return_address(0)) != libzmq) {
        errno = error;
        return -1;
    }
    if (error != EMFILE) // the kernel is out of memory
        return try_later();
    return accept_without_descriptor(next, listener);
}
