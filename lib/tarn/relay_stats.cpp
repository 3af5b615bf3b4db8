// SPDX-License-Identifier: Apache-2.0
#include "tarn/relay_stats.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "slate/clock.h"
#include "tarn/internal/utils/running_time.h"
#include "tarn/proto/stats.pb.h"

namespace tarn {
namespace {
// Every publisher has a new tag, so the list needs a limit. A process that holds more than half of it
// displaces its own: one that makes up tags without end must not have the others forgotten.
constexpr std::size_t max_senders = 1000;
// A publisher asks for the statistics only when it starts, so the entry of a silent one is useless.
const slate::Duration max_silence = slate::Minutes(15);
constexpr std::size_t max_tag_bytes = 64; // a uuid has 36

class RelayStatsRoute : public Route {
public:
    explicit RelayStatsRoute(std::shared_ptr<const slate::Clock> clock)
        : Route("relay/stats", "get", {"/relay", "/relay/stats", "/stats"}, Access::Public),
          time_(std::move(clock))
    {
    }

    void get(Context& context) const override
    {
        // A router removes the first segment if the relay's process is its service "relay".
        const std::string path = context.request.path();
        if (path != "/relay/stats" && path != "/stats")
            throw MessageException(Status::NotFound, "");

        const Stats stats = collect();
        for (const Format format : context.request.formats()) {
            if (format == Format::Json) {
                context.reply.set_reply_json(stats);
                return;
            }
            if (format == Format::Text) {
                context.reply.set_reply_text(stats);
                return;
            }
        }
        context.reply.set_reply_proto(stats, Format::Proto);
    }

    /// A published message.
    void put(Context& context) override { note_sender(context.request.head()); }
    void del(Context& context) override { note_sender(context.request.head()); }

private:
    struct Sender {
        std::int32_t pid = 0;
        std::string tag;
        std::int32_t packets = 0;
        slate::Duration last_seen;
    };

    void note_sender(const Head& head)
    {
        // A change published below "/stats" is not a probe: that pattern is for requests through a router.
        if (head.path() != "/stats")
            count(head.from());
    }

    void count(const Identity& from)
    {
        if (from.tag().empty() || from.tag().size() > max_tag_bytes)
            return;
        const std::lock_guard lock(mutex_);
        auto found = by_tag_.find(from.tag());
        if (found == by_tag_.end()) {
            senders_.push_front({from.pid(), from.tag(), 0, {}});
            found = by_tag_.emplace(from.tag(), senders_.begin()).first;
            ++tags_of_[from.pid()];
        }
        else {
            senders_.splice(senders_.begin(), senders_, found->second);
        }
        // Publishers only look whether the number changes; it wraps around instead of overflowing.
        found->second->packets =
            static_cast<std::int32_t>(static_cast<std::uint32_t>(found->second->packets) + 1);
        found->second->last_seen = now();
        while (is_silent(senders_.back()))
            forget(std::prev(senders_.end()));
        if (senders_.size() > max_senders)
            forget_one();
    }

    Stats collect() const
    {
        Stats stats;
        const std::lock_guard lock(mutex_);
        for (const Sender& sender : senders_) {
            if (is_silent(sender)) // and so are all behind it
                break;
            Stat* stat = stats.add_stat();
            stat->mutable_id()->set_pid(sender.pid);
            stat->mutable_id()->set_tag(sender.tag);
            stat->set_total_packets(sender.packets);
            stat->set_age((now() - sender.last_seen).to_string(0));
        }
        return stats;
    }

    bool is_silent(const Sender& sender) const { return now() - sender.last_seen > max_silence; }

    using Entry = std::list<Sender>::iterator;

    /// The one of a process that was silent longest; it has one.
    Entry last_of(std::int32_t pid)
    {
        auto entry = std::prev(senders_.end());
        while (entry->pid != pid)
            --entry;
        return entry;
    }

    void forget_one()
    {
        const auto most = std::max_element(tags_of_.begin(), tags_of_.end(),
                                           [](const auto& a, const auto& b) { return a.second < b.second; });
        forget(most->second > max_senders / 2 ? last_of(most->first) : std::prev(senders_.end()));
    }

    void forget(Entry entry)
    {
        const auto tags = tags_of_.find(entry->pid);
        if (--tags->second == 0)
            tags_of_.erase(tags);
        by_tag_.erase(entry->tag);
        senders_.erase(entry);
    }

    slate::Duration now() const { return time_.now(); }

    const tarn_internal::RunningTime time_;
    mutable std::mutex mutex_;  // guards the three below: a route may be added to several servers
    std::list<Sender> senders_; // most recently heard first
    std::unordered_map<std::string, Entry> by_tag_;
    std::unordered_map<std::int32_t, std::size_t> tags_of_; // how many, by pid
};
} // namespace

std::shared_ptr<Route> make_relay_stats_route()
{
    return make_relay_stats_route(slate::make_clock_factory()->make_clock());
}

std::shared_ptr<Route> make_relay_stats_route(const std::shared_ptr<const slate::Clock>& clock)
{
    return std::make_shared<RelayStatsRoute>(clock);
}
} // namespace tarn
