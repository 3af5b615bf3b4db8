// SPDX-License-Identifier: Apache-2.0
#include "start.h"

#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tarn/tarn.h>

namespace start {
namespace {
bool is_free_path(const tarn::Endpoint& endpoint)
{
    struct stat status {};
    return endpoint->scheme() != "ipc" || endpoint->address().starts_with('@') || // which is no file
           lstat(endpoint->address().c_str(), &status) != 0 || S_ISSOCK(status.st_mode);
}

/// Whether the process was started without that stream. A library may have taken its number already, for what
/// it closes on exec; nothing inherited does that.
bool is_closed(int descriptor)
{
    const int flags = fcntl(descriptor, F_GETFD);
    return flags < 0 || (static_cast<unsigned int>(flags) & FD_CLOEXEC) != 0;
}
} // namespace

void occupy_standard_streams()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (!is_closed(descriptor))
            continue;
        const int placeholder = open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        if (placeholder < 0 || placeholder == descriptor)
            continue;
        (void)dup2(placeholder, descriptor);
        (void)close(placeholder);
    }
}

void raise_descriptor_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit); // else the limit stays, and the library bears that
}

void refuse_if_served(const std::vector<tarn::Endpoint>& endpoints)
{
    for (const auto& endpoint : endpoints) {
        if (!is_free_path(endpoint))
            throw std::runtime_error("something that is no socket is at " + endpoint->to_string() +
                                     ", and serving there would replace it; remove it, or serve elsewhere");
        const tarn::Probe found = tarn::probe(endpoint);
        if (found.error == "permission denied") // somebody else's socket, which binding would replace
            throw std::runtime_error("cannot look whether somebody serves at " + endpoint->to_string() +
                                     ": permission denied; run this as the user who serves there, or serve "
                                     "elsewhere");
        if (!found.served)
            continue;
        std::string text = endpoint->to_string() + " is served already";
        if (found.pid)
            text += ", by " + tarn::describe_server(found);
        throw std::runtime_error(text + "; end that process first, or serve elsewhere");
    }
}
} // namespace start
