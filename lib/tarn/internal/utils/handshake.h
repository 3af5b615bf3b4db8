// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "slate/duration.h"

namespace tarn_internal {
/// The milliseconds that a publisher waits before each of its eleven attempts to be heard: 0, then ms/1024 to
/// ms/2, each twice the one before. A negative time counts as 0, and infinity as the longest one of 32 bits.
std::vector<std::uint32_t> handshake_delays(const slate::Duration& timeout);

/// One attempt of a publisher to be heard by its relay.
struct Attempt {
    slate::Duration pause;    ///< before it
    slate::Duration patience; ///< with the statistics' answer, for each of the client's waits
};

/// When a publisher tries to be heard. Threads: for one thread.
class Schedule {
public:
    virtual ~Schedule() = default;
    /// None when it is time to give up.
    virtual std::optional<Attempt> next() = 0;
};

/// Eleven attempts by handshake_delays(), each with the whole time for its answer.
class ElevenAttempts : public Schedule {
public:
    explicit ElevenAttempts(const slate::Duration& timeout);
    std::optional<Attempt> next() override;

private:
    const slate::Duration timeout_;
    const std::vector<std::uint32_t> delays_;
    std::size_t done_ = 0;
};

/// As many attempts as fit into a time that counts from the construction, the first one however short that
/// is. Pauses double from 1 ms to 250 ms. An answer may take half of what is left, so that what gets lost
/// with a relay that restarts doesn't cost all of it.
class AttemptsWithin : public Schedule {
public:
    explicit AttemptsWithin(const slate::Duration& time);
    std::optional<Attempt> next() override;

private:
    const slate::Duration time_;
    const slate::StopWatch watch_{true};
    slate::Duration pause_ = slate::Seconds(0);
    bool is_first_ = true;
};
} // namespace tarn_internal
