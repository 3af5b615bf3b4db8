// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "tarn/types.h"

namespace zmq {
class context_t;
}

namespace tarn_internal {
/// What a factory needs from the ZmqSubsystem of this process. Only factories look it up; everything below
/// them gets it as an argument.
struct Runtime {
    std::shared_ptr<zmq::context_t> context;
    std::shared_ptr<slate::Dictionary> settings;
};

/// The runtime of the present ZmqSubsystem. Without one nothing, and an error in the log that names
/// `function`.
std::optional<Runtime> find_runtime(std::string_view function);
} // namespace tarn_internal
