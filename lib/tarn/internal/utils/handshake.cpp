// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/handshake.h"

#include <algorithm>
#include <limits>

#include "tarn/internal/defaults.h"

namespace tarn_internal {
std::vector<std::uint32_t> handshake_delays(const slate::Duration& timeout)
{
    constexpr std::int64_t longest = std::numeric_limits<std::uint32_t>::max();
    auto milliseconds =
        static_cast<std::uint32_t>(std::clamp(timeout.to_milliseconds(), std::int64_t{0}, longest));
    std::vector<std::uint32_t> delays;
    for (int i = 0; i < 10; ++i)
        delays.insert(delays.begin(), milliseconds /= 2);
    delays.insert(delays.begin(), 0);
    return delays;
}

ElevenAttempts::ElevenAttempts(const slate::Duration& timeout)
    : timeout_(timeout),
      delays_(handshake_delays(timeout))
{
}

std::optional<Attempt> ElevenAttempts::next()
{
    if (done_ == delays_.size())
        return std::nullopt;
    return Attempt{slate::Milliseconds(delays_[done_++]), timeout_};
}

AttemptsWithin::AttemptsWithin(const slate::Duration& time) : time_(time) {}

std::optional<Attempt> AttemptsWithin::next()
{
    const slate::Duration none = slate::Seconds(0);
    const slate::Duration shortest =
        slate::Milliseconds(50); // of an answer's time, so that the last ones can come
    const slate::Duration longest_pause = slate::Milliseconds(250);
    const slate::Duration pause = pause_;
    pause_ = std::min(std::max(pause_ + pause_, slate::Duration(slate::Milliseconds(1))), longest_pause);
    if (time_.is_positive_infinity())
        return Attempt{pause, tarn::default_timeout()};

    const slate::Duration left = time_ - slate::Microseconds(watch_.elapsed()) - pause;
    if (left <= none && !is_first_)
        return std::nullopt;
    is_first_ = false;
    const slate::Duration half = slate::Nanoseconds(left.to_nanoseconds() / 2);
    return Attempt{pause, std::max(std::min(std::max(half, shortest), left), none)};
}
} // namespace tarn_internal
