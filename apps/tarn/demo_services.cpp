// SPDX-License-Identifier: Apache-2.0
#include "demo_services.h"

#include <cstdio>
#include <ctime>
#include <fstream>
#include <optional>
#include <utility>

#include <sys/sysinfo.h>
#include <unistd.h>

#include <slate/strings.h>
#include <tarn/publisher.h>
#include <tarn/routes/basic_route.h>

namespace tarn_command {
namespace {
/// The seconds east of UTC that a text such as "+02:00" means.
std::optional<long> offset_of(const std::string& zone)
{
    unsigned int hours = 0;
    unsigned int minutes = 0;
    if (zone.size() != 6 || (zone[0] != '+' && zone[0] != '-') || zone[3] != ':' ||
        !slate::try_parse(zone.substr(1, 2), &hours) || !slate::try_parse(zone.substr(4, 2), &minutes) ||
        hours > 14 || minutes > 59)
        return std::nullopt;
    const long seconds = static_cast<long>(hours) * 3600 + static_cast<long>(minutes) * 60;
    return zone[0] == '-' ? -seconds : seconds;
}

std::string time_in(const std::string& zone)
{
    std::time_t now = std::time(nullptr);
    std::tm parts{};
    if (zone == "local") {
        localtime_r(&now, &parts);
    }
    else {
        now += static_cast<std::time_t>(offset_of(zone).value_or(0));
        gmtime_r(&now, &parts);
    }
    char text[64];
    text[std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S ", &parts)] = '\0';
    return std::string(text) + zone;
}

/// Memory in kibibytes, as text or as JSON, whichever the request prefers.
class MemoryRoute : public tarn::Route {
public:
    MemoryRoute() : Route("memory", "get", "/memory", tarn::Access::Public) {}

    void get(tarn::Context& context) const override
    {
        struct sysinfo info {};
        if (sysinfo(&info) != 0)
            throw std::runtime_error("the system doesn't tell");
        const auto kibibytes = [&](unsigned long units) {
            return std::to_string(static_cast<unsigned long long>(units) * info.mem_unit / 1024);
        };
        for (const tarn::Format format : context.request.formats()) {
            if (format == tarn::Format::Text)
                break;
            if (format == tarn::Format::Json) {
                context.reply.set_reply_json("{\"total_kib\": " + kibibytes(info.totalram) +
                                             ", \"free_kib\": " + kibibytes(info.freeram) + "}");
                return;
            }
        }
        context.reply.set_reply_text(kibibytes(info.freeram) + " of " + kibibytes(info.totalram) +
                                     " KiB free");
    }
};

double load(tarn::Context& context)
{
    const std::string minutes = context.variable("minutes");
    double loads[3] = {};
    if (getloadavg(loads, 3) != 3)
        throw std::runtime_error("the system doesn't tell");
    for (const auto& [name, position] : {std::pair("1", 0), std::pair("5", 1), std::pair("15", 2)}) {
        if (minutes == name)
            return loads[position];
    }
    throw tarn::MessageException(tarn::Status::NotFound,
                                 "no load average over " + minutes + " minutes; there are 1, 5 and 15");
}
} // namespace

void DemoClock::set_publisher(const std::shared_ptr<tarn::Publisher>& publisher)
{
    const std::lock_guard lock(mutex_);
    publisher_ = publisher;
}

void DemoClock::publish_time()
{
    const std::string now = time();
    const std::lock_guard lock(mutex_);
    if (publisher_)
        (void)publisher_->put("/clock/time?format=txt", now);
}

std::string DemoClock::time() const
{
    const std::lock_guard lock(mutex_);
    return time_in(zone_);
}

void DemoClock::set_zone(const std::string& zone)
{
    if (zone != "UTC" && zone != "local" && !offset_of(zone))
        throw tarn::MessageException(tarn::Status::BadRequest,
                                     "a zone is UTC, local, or an offset such as +02:00");
    const std::lock_guard lock(mutex_);
    zone_ = zone;
    if (publisher_)
        (void)publisher_->put("/clock/zone?format=txt", zone);
}

std::vector<std::shared_ptr<tarn::Route>> DemoClock::make_routes()
{
    return {tarn::make_string_route("time", "get", "/time", [this](tarn::Context&) { return time(); }),
            tarn::make_string_route(
                "zone", "get,put,del", "/zone",
                [this](tarn::Context&) {
                    const std::lock_guard lock(mutex_);
                    return zone_;
                },
                [this](tarn::Context&, std::string zone) { set_zone(zone); },
                [this](tarn::Context&) { set_zone("local"); })};
}

std::vector<std::shared_ptr<tarn::Route>> make_machine_routes()
{
    return {tarn::make_double_route("load", "get", "/load/(:minutes=1)", load),
            tarn::make_int64_route("uptime", "get", "/uptime",
                                   [](tarn::Context&) {
                                       struct sysinfo info {};
                                       (void)sysinfo(&info);
                                       return static_cast<std::int64_t>(info.uptime);
                                   }),
            std::make_shared<MemoryRoute>()};
}
} // namespace tarn_command
