// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/explain_silence.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string_view>
#include <utility>

#include <arpa/inet.h>
#include <grp.h>
#include <sys/stat.h>

#include "slate/uri.h"
#include "tarn/internal/transport/look_at.h"

namespace tarn_internal {
namespace {
const slate::Duration look = slate::Milliseconds(100);

/// Who may connect to a socket file: "mode 0660, group corvane"; empty if that can't be found out.
std::string describe_access(const std::string& path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return "";
    std::array<char, 16> mode{};
    (void)std::snprintf(mode.data(), mode.size(), "%04o", static_cast<unsigned>(status.st_mode & 07777));
    std::array<char, 4096> memory{};
    group entry{};
    group* found = nullptr;
    (void)getgrgid_r(status.st_gid, &entry, memory.data(), memory.size(), &found);
    return std::string(" (mode ") + mode.data() + ", group " +
           (found ? found->gr_name : std::to_string(status.st_gid)) + ")";
}

/// False for a name: to look it up takes as long as the resolver wants, and the caller's time is over.
bool has_numeric_host(const std::string& address)
{
    const std::string host = address.substr(0, address.rfind(':'));
    in6_addr unused{};
    if (host.starts_with('[') && host.ends_with(']'))
        return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &unused) == 1;
    return inet_pton(AF_INET, host.c_str(), &unused) == 1;
}
} // namespace

std::pair<LocalCause, std::string> find_cause(const Endpoint& endpoint)
{
    const std::string scheme = endpoint->scheme();
    if (scheme != "ipc" && (scheme != "tcp" || !has_numeric_host(endpoint->address())))
        return {LocalCause::NoAnswerInTime, ""};
    const tarn::Probe found = look_at(endpoint, look);
    if (found.served)
        return {LocalCause::NoAnswerInTime, "somebody serves there, but doesn't answer"};
    if (found.error == "no such file" || found.error == "nobody listens")
        return {LocalCause::NoSuchEndpoint, found.error};
    if (found.error == "permission denied")
        return {LocalCause::NotAllowed, found.error + describe_access(endpoint->address())};
    return {LocalCause::NoAnswerInTime, found.error};
}

std::string describe_silence(const Endpoint& endpoint, const slate::Duration& waited,
                             const std::string& reason)
{
    return "no answer from " + endpoint->to_string() + " within " + to_readable_text(waited) +
           (reason.empty() ? "" : ": ") + reason;
}

Silence explain_silence(const Endpoint& endpoint, const slate::Duration& waited)
{
    const auto [cause, reason] = find_cause(endpoint);
    return {cause, describe_silence(endpoint, waited, reason)};
}

std::string to_readable_text(const slate::Duration& time)
{
    if (time.is_positive_infinity())
        return "any time";
    const std::int64_t milliseconds = time.to_milliseconds();
    if (milliseconds < 1000)
        return std::to_string(milliseconds) + " ms";
    std::string text = std::to_string(milliseconds / 1000);
    if (const auto rest = milliseconds % 1000; rest != 0) {
        text += "." + std::to_string(1000 + rest).substr(1);
        text.erase(text.find_last_not_of('0') + 1);
    }
    return text + " s";
}
} // namespace tarn_internal
