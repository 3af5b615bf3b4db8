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
/// to an ipc or tcp endpoint, which takes no longer than 100 ms; no other endpoint can be looked at.
std::pair<LocalCause, std::string> find_cause(const Endpoint& endpoint);

/// Looks at the endpoint after a wait for its answer has failed, and tells what find_cause() finds.
/// Doesn't throw but std::bad_alloc. Threads: any.
Silence explain_silence(const Endpoint& endpoint, const slate::Duration& waited);

/// A time in the unit that suits it: "250 ms", "1.5 s", "12 s"; "any time" for an infinite one.
std::string to_readable_text(const slate::Duration& time);
} // namespace tarn_internal
