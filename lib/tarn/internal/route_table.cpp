// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/route_table.h"

#include "tarn/internal/utils/parse.h"

namespace tarn_internal {
void apply_change(Route& route, Context& context)
{
    if (context.request.message->has_put())
        route.put(context);
    else if (context.request.message->has_del())
        route.del(context);
}

void add_topics(const Route& route, std::set<std::string>& topics)
{
    for (const RoutePattern& pattern : route.patterns)
        topics.insert(to_topic(pattern.pattern));
}
} // namespace tarn_internal
