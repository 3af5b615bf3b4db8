// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <vector>

#include <tarn/types.h>

namespace slate {
class Dictionary;
}

/// What the programs that serve have in common at their start.
namespace start {
/// Raises the limit of file descriptors as far as the system allows: each connection takes one.
void raise_descriptor_limit();

/// The limits that a program for strangers needs, and that the library leaves to applications.
std::shared_ptr<slate::Dictionary> make_settings();

/// Throws std::runtime_error if somebody serves one of the endpoints, and names it and the process: binding
/// would take an ipc path from that process without notice.
void refuse_if_served(const std::vector<tarn::Endpoint>& endpoints);
} // namespace start
