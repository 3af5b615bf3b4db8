// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

namespace tarn_internal {
/// Gives the process id that a message factory writes into messages; another finder reports another identity.
class PidFinder {
public:
    virtual ~PidFinder() = default;
    virtual int my_pid() const = 0;
};

/// The id of the calling process.
class PidFinderLinux : public PidFinder {
public:
    int my_pid() const override;
};

/// A new PidFinderLinux.
std::shared_ptr<PidFinder> make_pid_finder();
} // namespace tarn_internal
