// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/defaults.h"

#include "slate/duration.h"

namespace tarn {
slate::Duration default_session_ttl()
{
    return slate::Minutes(15);
}

slate::Duration default_timeout()
{
    return slate::Seconds(4);
}

unsigned int default_retries()
{
    return 2;
}

std::string relay_url()
{
    return "relay_url";
}

std::string relay_pub()
{
    return "relay_pub";
}

std::string relay_sub()
{
    return "relay_sub";
}

std::string session_ttl()
{
    return "session_ttl";
}
} // namespace tarn
