// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <utility>

#include "slate/duration.h"
#include "tarn/reply.h"
#include "tarn/types.h"

namespace tarn_internal {
/// Why a request got no answer.
struct Silence {
    LocalCause cause = LocalCause::NoAnswerInTime;
    /// For people: "no answer from ipc:///run/x.sock within 12 s: no such file".
    std::string text;
};

/// Why nobody answers at an endpoint, and what to say of it behind a colon, which may be nothing. It connects
/// to an ipc endpoint without waiting, or to a tcp endpoint for 100 ms at most, after the look-up of its
/// host's name; no other endpoint can be looked at.
std::pair<LocalCause, std::string> find_cause(const Endpoint& endpoint);

/// Looks at the endpoint after a wait for its answer has failed, and tells what find_cause() finds. Doesn't
/// throw but std::bad_alloc. Threads: any.
Silence explain_silence(const Endpoint& endpoint, const slate::Duration& waited);

/// The sentence for that: what find_cause() says stands at its end.
std::string describe_silence(const Endpoint& endpoint, const slate::Duration& waited,
                             const std::string& reason);

/// A time in the unit that suits it: "250 ms", "1.5 s", "12 s"; "any time" for an infinite one.
std::string to_readable_text(const slate::Duration& time);
} // namespace tarn_internal
