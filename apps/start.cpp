// SPDX-License-Identifier: Apache-2.0
#include "start.h"

#include <stdexcept>
#include <string>

#include <sys/resource.h>

#include <tarn/tarn.h>

namespace start {
void raise_descriptor_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit); // else the limit stays, and the library bears that
}

std::shared_ptr<slate::Dictionary> make_settings()
{
    // Frames of 64 MiB are common where bodies don't travel in chunks; an upload of 1 GiB fits on most
    // devices' disks. 10,000 changes wait for a subscriber that is busy for a tenth of a second.
    return slate::make_dictionary({{"max_frame_bytes", "134217728"},
                                   {"max_transfer_bytes", "1073741824"},
                                   {"high_water_mark", "10000"}});
}

void refuse_if_served(const std::vector<tarn::Endpoint>& endpoints)
{
    for (const auto& endpoint : endpoints) {
        const tarn::Probe found = tarn::probe(endpoint);
        if (found.error == "permission denied") // somebody else's socket, which binding would replace
            throw std::runtime_error("cannot look whether somebody serves at " + endpoint->to_string() +
                                     ": permission denied");
        if (!found.served)
            continue;
        std::string text = endpoint->to_string() + " is served already";
        if (found.pid)
            text += ", by process " + std::to_string(*found.pid);
        throw std::runtime_error(text);
    }
}
} // namespace start
