// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include <tarn/types.h>

/// What the programs that serve have in common at their start.
namespace start {
/// Raises the limit of file descriptors as far as the system allows: each connection takes one.
void raise_descriptor_limit();

/// Throws std::runtime_error if somebody serves one of the endpoints, and names it and the process, or if
/// something other than a socket is at an ipc path: binding would take the path without notice.
void refuse_if_served(const std::vector<tarn::Endpoint>& endpoints);
} // namespace start
