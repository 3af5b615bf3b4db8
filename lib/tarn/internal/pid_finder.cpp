// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/pid_finder.h"

#include <unistd.h>

namespace tarn_internal {
int PidFinderLinux::my_pid() const
{
    return getpid();
}

std::shared_ptr<PidFinder> make_pid_finder()
{
    return std::make_shared<PidFinderLinux>();
}
} // namespace tarn_internal
