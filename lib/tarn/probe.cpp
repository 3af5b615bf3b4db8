// SPDX-License-Identifier: Apache-2.0
#include "tarn/probe.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <string_view>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "slate/descriptor.h"
#include "slate/uri.h"
#include "tarn/internal/transport/look_at.h"

namespace tarn {
namespace {
using slate::Descriptor;
using namespace std::string_literals;
using namespace std::string_view_literals;

constexpr std::size_t greeting_bytes = 64;
/// Far more than what libzmq says of a socket, a routing id of 255 bytes included.
constexpr std::size_t max_heard_bytes = 1024;

/// The opening of a ZeroMQ connection by its protocol's version 3.0, without a security mechanism.
std::string make_greeting()
{
    std::string greeting = "\xFF\0\0\0\0\0\0\0\x01\x7F\x03\0NULL"s;
    greeting.resize(greeting_bytes, '\0');
    return greeting;
}

/// Takes as many bytes off the front; false if there are fewer.
bool take(std::string_view& text, std::size_t bytes, std::string_view& taken)
{
    if (text.size() < bytes)
        return false;
    taken = text.substr(0, bytes);
    text.remove_prefix(bytes);
    return true;
}

/// A number of so many bytes, the first one the highest.
bool take_number(std::string_view& text, std::size_t bytes, std::uint64_t& number)
{
    std::string_view taken;
    if (!take(text, bytes, taken))
        return false;
    number = 0;
    for (const char byte : taken)
        number = number << 8 | static_cast<unsigned char>(byte);
    return true;
}

bool is_printable_name(std::string_view name)
{
    return name.size() <= 32 && std::all_of(name.begin(), name.end(), [](char c) {
               return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
           });
}

/// The socket's type in what a peer has said so far; empty if it isn't there, whatever the peer has sent.
std::string find_socket_type(std::string_view heard)
{
    std::string_view greeting;
    std::string_view name;
    if (!take(heard, greeting_bytes, greeting) || !greeting.starts_with('\xFF'))
        return {};
    std::uint64_t flags = 0;
    std::uint64_t size = 0;
    if (!take_number(heard, 1, flags) || !take_number(heard, (flags & 2) != 0 ? 8 : 1, size) ||
        heard.size() < size || !take(heard, 6, name) || name != "\x05READY"sv)
        return {};
    for (;;) {
        std::uint64_t name_size = 0;
        std::uint64_t value_size = 0;
        std::string_view value;
        if (!take_number(heard, 1, name_size) || !take(heard, name_size, name) ||
            !take_number(heard, 4, value_size) || !take(heard, value_size, value))
            return {};
        if (name == "Socket-Type")
            return is_printable_name(value) ? std::string(value) : std::string();
    }
}

/// Greets the peer and reads what it says of its socket, for `time` at most.
std::string ask_for_socket_type(const Descriptor& connection, const slate::Duration& time)
{
    const std::string greeting = make_greeting();
    if (send(connection.get(), greeting.data(), greeting.size(), MSG_NOSIGNAL | MSG_DONTWAIT) !=
        static_cast<ssize_t>(greeting.size()))
        return {};
    const slate::StopWatch watch(true);
    std::string heard;
    for (;;) {
        std::array<char, max_heard_bytes> part{};
        if (!tarn_internal::wait_for(connection, POLLIN, time - slate::Microseconds(watch.elapsed())))
            return {};
        const auto bytes = recv(connection.get(), part.data(), max_heard_bytes - heard.size(), MSG_DONTWAIT);
        if (bytes <= 0)
            return {};
        heard.append(part.data(), static_cast<std::size_t>(bytes));
        if (auto type = find_socket_type(heard); !type.empty())
            return type;
        if (heard.size() == max_heard_bytes || !heard.starts_with('\xFF'))
            return {};
    }
}

/// When a socket's file was made: nothing changes this time afterwards, unlike that of mode and group.
std::optional<std::chrono::system_clock::time_point> time_of_bind(const slate::Uri& endpoint)
{
    struct stat status {};
    if (endpoint.scheme() != "ipc" || endpoint.address().starts_with('@') || // which is no file
        stat(endpoint.address().c_str(), &status) != 0)
        return std::nullopt;
    const auto since_epoch =
        std::chrono::seconds(status.st_mtim.tv_sec) + std::chrono::nanoseconds(status.st_mtim.tv_nsec);
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(since_epoch));
}

std::string name_of_process(int pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(file, name);
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c < 0x20 || c > 0x7e; }, '?');
    return name.substr(0, 15);
}

std::string to_local_time(std::chrono::system_clock::time_point time)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    std::array<char, 32> text{};
    if (!localtime_r(&seconds, &parts))
        return {};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts)};
}
} // namespace

Probe probe(const Endpoint& endpoint, const slate::Duration& timeout)
{
    const slate::StopWatch watch(true);
    Descriptor connection;
    Probe found = tarn_internal::look_at(endpoint, timeout, &connection);
    if (!found.served)
        return found;
    found.since = time_of_bind(*endpoint);
    if (found.pid)
        found.process_name = name_of_process(*found.pid);
    const auto rest = timeout - slate::Microseconds(watch.elapsed());
    if (connection.is_open() && rest > slate::Duration(slate::Seconds(0)))
        found.socket_type = ask_for_socket_type(connection, rest);
    return found;
}

std::string describe_server(const Probe& found)
{
    std::string text = found.pid ? "process " + std::to_string(*found.pid) : "somebody";
    if (!found.process_name.empty())
        text += ", which is " + found.process_name;
    if (found.since)
        text += ", since " + to_local_time(*found.since);
    return text;
}
} // namespace tarn
