// SPDX-License-Identifier: Apache-2.0
#include "program_limits.h"

#include <string>

std::shared_ptr<slate::Dictionary> ProgramLimits::to_settings() const
{
    return slate::make_dictionary({{"max_frame_bytes", std::to_string(max_frame_bytes)},
                                   {"max_transfer_bytes", std::to_string(max_transfer_bytes)},
                                   {"high_water_mark", std::to_string(high_water_mark)}});
}
