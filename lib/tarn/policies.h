// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace tarn {
/// What a write does about a value that is there already, or is not. The library hands it through; each
/// resource says which ones it heeds.
enum class WritePolicy : std::uint32_t {
    /// Make the value or replace it.
    Replace = 0,
    /// Make it; fail if there is one.
    CreateOnly = 1,
    /// Replace it; fail if there is none.
    UpdateOnly = 2,
};

/// What an erase does about former revisions of a value, where they are kept. The stores of this library keep
/// none and heed none.
enum class PurgePolicy : std::uint32_t {
    /// The value goes; its former revisions can still be read.
    KeepHistory = 0,
    /// All revisions go, as for secrets and a return to factory settings.
    PurgeHistory = 1,
};
} // namespace tarn
