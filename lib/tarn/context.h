// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "slate/dictionary.h"
#include "slate/strings.h"
#include "tarn/reply.h"
#include "tarn/request.h"

namespace tarn {
/// What a route handler sees of one request. Lives on the stack of the thread that handles it.
struct Context {
    Request request;
    /// Status 204 with no body until the handler fills it. Has no message when a published change is handled.
    Reply reply;
    /// Path variables, headers and query parameters by name; null until a route has accepted the request. A
    /// header hides a path variable of its name here: ask variable() for what the path says.
    std::shared_ptr<slate::Dictionary> params;
    /// The process id of the server.
    int pid = 0;
    /// The variables of the path alone, by name, in the order of the pattern; variable() finds one. If
    /// several routes accept a published change, all their handlers see those of the last one; so do they in
    /// `params`.
    std::vector<std::pair<std::string, std::string>> variables;
    /// When the server took the request off its socket; not set where there is no request, as for a published
    /// change.
    std::optional<std::chrono::steady_clock::time_point> arrival;
    /// Who has connected to the server, as the system tells libzmq: over ipc it ends in ":uid:gid:pid" of
    /// that process, over tcp it is a numeric address; empty over inproc, and where there is no request.
    /// Behind a router it is the router.
    std::string peer_address;

    /// Until when the caller waits, as far as the server can know: the time that the request allows ("ttl"),
    /// counted from its arrival. Long work may stop then, since nobody hears its result. Nothing if the
    /// caller waits for ever or doesn't tell, or if there is no request. Time that the request spent on its
    /// way, or in front of a busy server, isn't counted. A router takes its own share off before.
    std::optional<std::chrono::steady_clock::time_point> deadline() const;

    /// The text of a variable of the route's pattern, undecoded: from the path, or else the pattern's
    /// default, or else `dflt`. Headers and parameters of that name don't matter.
    std::string variable(std::string_view name, std::string_view dflt = {}) const;

    /// The same, converted to T, read by slate::try_parse: `context.variable<int>("id")`. Throws
    /// MessageException, status 400, for a text that isn't such a value, and for a missing variable without
    /// `dflt`.
    template <class T>
    T variable(std::string_view name) const
    {
        const std::string* text = find_variable(name);
        T value{};
        if (!text || !slate::try_parse<T>(*text, &value))
            throw_bad_variable(name, text);
        return value;
    }
    template <class T>
    requires std::is_arithmetic_v<T> T variable(std::string_view name, T dflt)
    const { return find_variable(name) ? variable<T>(name) : dflt; }

private:
    const std::string* find_variable(std::string_view name) const;
    [[noreturn]] static void throw_bad_variable(std::string_view name, const std::string* text);
};
} // namespace tarn
