// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace tarn_internal {
/// Sends what protobuf logs on its own (invalid UTF-8 in a text, for instance) where all other lines go,
/// instead of to standard error. Works once for the process; further calls do nothing. Any thread.
void redirect_protobuf_log();
} // namespace tarn_internal
