// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/server/route_warnings.h"

#include <algorithm>
#include <type_traits>

#include "slate/strings.h"
#include "tarn/routes/basic_route.h"

namespace tarn_internal {
namespace {
/// The verbs that a value route takes although it has no function for them.
template <class T>
void add_verbs_without_function(const Route& route, std::vector<std::string>& verbs)
{
    const auto* values = dynamic_cast<const BasicRoute<T>*>(&route);
    if (!values)
        return;
    if ((route.accepts_get || route.accepts_head) && !values->getter)
        verbs.emplace_back("GET has no getter");
    if (route.accepts_put && !values->setter)
        verbs.emplace_back("PUT has no setter");
    if (route.accepts_post && !values->setter)
        verbs.emplace_back("POST has no setter");
    if (route.accepts_del && !values->deleter)
        verbs.emplace_back("DELETE has no deleter");
}

template <class... T>
std::vector<std::string> verbs_without_function(const Route& route)
{
    std::vector<std::string> verbs;
    (add_verbs_without_function<T>(route, verbs), ...);
    return verbs;
}

bool lacks_slash(const std::string& pattern)
{
    return !pattern.empty() && pattern.front() != '/';
}
} // namespace

std::vector<std::string> patterns_without_slash(const Route& route)
{
    std::vector<std::string> found;
    for (const RoutePattern& each : route.patterns) {
        if (lacks_slash(each.pattern))
            found.push_back(each.pattern);
    }
    return found;
}

std::vector<std::string> find_oversights(const Route& route, const std::vector<std::string>& without_slash)
{
    std::vector<std::string> sentences;
    const std::vector<std::string> still =
        patterns_without_slash(route); // of a route with a prime() of its own
    for (const std::string& pattern : without_slash) {
        const bool is_still = std::find(still.begin(), still.end(), pattern) != still.end();
        sentences.push_back("the pattern \"" + pattern + "\" doesn't begin with \"/\", as every path does; " +
                            (is_still ? "it never matches" : "it is taken as if it did"));
    }
    for (const std::string& verb :
         verbs_without_function<bool, int, long, long long, unsigned int, unsigned long, unsigned long long,
                                float, double, std::string>(route))
        sentences.push_back(verb + "; such requests get status 500");
    return sentences;
}
} // namespace tarn_internal
