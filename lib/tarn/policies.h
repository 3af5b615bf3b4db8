// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace tarn {
/// What a write does if the value exists already, or doesn't. The library passes it on; each resource
/// documents which policies it supports.
enum class WritePolicy : std::uint32_t {
    /// Create the value or replace it.
    Replace = 0,
    /// Create it; fail if it exists.
    CreateOnly = 1,
    /// Replace it; fail if it doesn't exist.
    UpdateOnly = 2,
};

/// What an erase does to former revisions of a value. The stores of this library keep no revisions and ignore
/// the policy.
enum class PurgePolicy : std::uint32_t {
    /// Erase the value; its former revisions stay readable.
    KeepHistory = 0,
    /// Erase all revisions, as for secrets and a return to factory settings.
    PurgeHistory = 1,
};
} // namespace tarn
