// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include <tarn/types.h>

/// What programs have in common at their start.
namespace start {
/// Lets no socket or file get the number of a standard stream that is closed. What is put there can't be
/// used in its stream's direction, so that whoever tries notices.
void occupy_standard_streams();

/// Raises the limit of file descriptors as far as the system allows: each connection takes one.
void raise_descriptor_limit();

/// Throws std::runtime_error if somebody serves one of the endpoints, and names it and the process, or if
/// something other than a socket is at an ipc path: binding would take the path without notice.
void refuse_if_served(const std::vector<tarn::Endpoint>& endpoints);
} // namespace start
