// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>

#include <slate/dictionary.h>

/// What a program that serves takes of others, where the library itself has no limits.
struct ProgramLimits {
    std::uint64_t max_frame_bytes = 134217728; // frames of 64 MiB are common where bodies travel in one piece
    std::uint64_t max_transfer_bytes = 1073741824; // fits on most devices' disks
    unsigned int high_water_mark =
        10000; // as many wait for a subscriber that is busy for a tenth of a second

    /// As settings of the library.
    std::shared_ptr<slate::Dictionary> to_settings() const;
};
