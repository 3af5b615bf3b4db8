// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

namespace tarn_internal {
/// Says which process a message factory speaks for; put in another to report another identity.
class PidFinder {
public:
    virtual ~PidFinder() = default;
    virtual int my_pid() const = 0;
};

/// The process that asks.
class PidFinderLinux : public PidFinder {
public:
    int my_pid() const override;
};

/// A new PidFinderLinux.
std::shared_ptr<PidFinder> make_pid_finder();
} // namespace tarn_internal
