// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "slate/descriptor.h"
#include "slate/duration.h"
#include "tarn/probe.h"
#include "tarn/types.h"

namespace tarn_internal {
/// Connects to an "ipc" endpoint without waiting, or to a "tcp" endpoint for `timeout` at most, and tells
/// whether that was possible; without the fields that take more than that. `connection`, if given, gets the
/// connection of a served endpoint, if there is one.
tarn::Probe look_at(const Endpoint& endpoint, const slate::Duration& timeout,
                    slate::Descriptor* connection = nullptr);

/// Waits until a connection is ready for `event` of poll(), for `time` at most. Whether it is.
bool wait_for(const slate::Descriptor& connection, short event, const slate::Duration& time);
} // namespace tarn_internal
