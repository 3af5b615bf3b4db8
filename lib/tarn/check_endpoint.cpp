// SPDX-License-Identifier: Apache-2.0
#include "tarn/check_endpoint.h"

#include <algorithm>
#include <cstdint>

#include <sys/un.h>
#include <zmq.hpp>

#include "slate/strings.h"
#include "slate/uri.h"

namespace tarn {
namespace {
constexpr std::size_t max_path_bytes = sizeof(sockaddr_un::sun_path) - 1;
constexpr std::string_view example = "; write ipc:///run/x.sock or tcp://127.0.0.1:5555";

bool is_control_character(char c)
{
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

/// A text for a sentence, which nobody wants to read the whole of if it is long.
std::string quote(std::string_view text)
{
    constexpr std::size_t max_shown = 256;
    std::string shown(text.substr(0, max_shown));
    std::replace_if(shown.begin(), shown.end(), is_control_character, '?');
    return '"' + slate::to_utf8(shown) + (shown.size() < text.size() ? "...\"" : "\"");
}

/// Transports of libzmq for requests and replies that we have no rules for.
bool is_known_to_zeromq(const std::string& scheme)
{
    return (scheme == "tipc" || scheme == "vmci") && zmq_has(scheme.c_str()) != 0;
}

/// For a text that slate::make_uri refuses.
std::string why_no_uri(std::string_view text)
{
    std::string sentence = text.empty() ? "the endpoint is empty" : quote(text) + " is not an endpoint";
    if (text.ends_with("://"))
        sentence += ": nothing follows the \"://\"";
    else if (std::any_of(text.begin(), text.end(), is_control_character))
        sentence += ": it has a control character";
    return sentence.append(example);
}

std::optional<std::string> check_ipc(std::string_view text, const std::string& path)
{
    if (path.size() > max_path_bytes)
        return quote(text) + " is too long: a socket's path has " + std::to_string(max_path_bytes) +
               " bytes at most, and this one has " + std::to_string(path.size()) + "; choose a shorter one";
    if (path == "@")
        return quote(text) + " has no name behind the \"@\"; write it there, as in ipc://@x";
    return std::nullopt;
}

std::optional<std::string> check_tcp(std::string_view text, std::string_view address)
{
    const auto colon = address.rfind(':');
    if (colon == std::string_view::npos || colon + 1 == address.size())
        return quote(text) + " has no port number; write it behind a colon, as in tcp://127.0.0.1:5555";
    const std::string_view port = address.substr(colon + 1);
    std::uint16_t number = 0;
    if (port != "*" && (!slate::try_parse(port, &number) || number == 0))
        return quote(text) + " has the port " + quote(port) +
               ", which is not a whole number from 1 to 65535; write it as in tcp://127.0.0.1:5555";
    if (colon == 0)
        return quote(text) + " has no host; write an address before the colon, as in tcp://127.0.0.1:5555";
    return std::nullopt;
}
} // namespace

std::optional<std::string> check_endpoint(std::string_view text)
{
    const auto endpoint = slate::make_uri(std::string(text));
    if (!endpoint)
        return why_no_uri(text);
    const std::string scheme = endpoint->scheme();
    const std::string address = endpoint->address();
    if (scheme == "ipc")
        return check_ipc(text, address);
    if (scheme == "tcp")
        return check_tcp(text, address);
    if (scheme == "inproc" || is_known_to_zeromq(scheme))
        return std::nullopt;
    return (quote(text) + " has none of the schemes ipc, tcp and inproc").append(example);
}
} // namespace tarn
