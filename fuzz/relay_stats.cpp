// SPDX-License-Identifier: Apache-2.0
// Published changes into the route that counts them, against a model.
// Input: operations of one byte, with a sender's number and its path behind it.

#include <map>
#include <memory>
#include <string>

#include "fuzz/input.h"
#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "tarn/proto/message.pb.h"
#include "tarn/proto/stats.pb.h"
#include "tarn/relay_stats.h"
#include "tarn/tarn.h"

namespace {
using tarn::Format;
using tarn_fuzz::require;

constexpr const char* counted_path = "/relay";
constexpr std::size_t max_senders = 1000;
constexpr std::size_t max_tag_bytes = 64;

struct Sender {
    std::int32_t pid = 0;
    std::int32_t packets = 0;
    int heard = 0; // the time of its last change
};

class Model {
public:
    void note(const std::string& tag, std::int32_t pid)
    {
        if (tag.empty() || tag.size() > max_tag_bytes)
            return;
        Sender& sender = by_tag_[tag];
        if (sender.packets++ == 0)
            sender.pid = pid;
        else
            heard_.erase(sender.heard);
        sender.heard = ++time_;
        heard_[sender.heard] = tag;
        if (heard_.size() > max_senders) {
            by_tag_.erase(heard_.begin()->second);
            heard_.erase(heard_.begin());
        }
    }

    void compare(const tarn::Stats& stats) const
    {
        require(stats.stat_size() == static_cast<int>(heard_.size()), "as many senders");
        int i = 0;
        for (auto last = heard_.rbegin(); last != heard_.rend(); ++last) { // most recently heard first
            const Sender& sender = by_tag_.at(last->second);
            const tarn::Stat& stat = stats.stat(i++);
            require(stat.id().tag() == last->second && stat.id().pid() == sender.pid &&
                        stat.total_packets() == sender.packets,
                    "the same sender", stat.ShortDebugString());
            const auto age = slate::Duration::parse(stat.age());
            require(age && *age < slate::Minutes(15), "an age that is no silence", stat.age());
        }
    }

private:
    std::map<std::string, Sender> by_tag_;
    std::map<int, std::string> heard_; // tags by time
    int time_ = 0;
};

void publish(tarn::Route& route, bool deletes, const std::string& path, const std::string& tag,
             std::int32_t pid)
{
    tarn::Context context;
    context.request.message = std::make_shared<tarn::Message>();
    tarn::Head* head = deletes ? context.request.message->mutable_del()->mutable_head()
                               : context.request.message->mutable_put()->mutable_head();
    head->set_path(path);
    head->mutable_from()->set_tag(tag);
    head->mutable_from()->set_pid(pid);
    if (!route.accept(context))
        return;
    if (deletes)
        route.del(context);
    else
        route.put(context);
}

/// More senders than there is place for, if it is done twice. Shorter than so many calls of publish.
void publish_crowd(tarn::Route& route, Model& model, int first)
{
    tarn::Context context;
    context.request.message = std::make_shared<tarn::Message>();
    tarn::Head* head = context.request.message->mutable_put()->mutable_head();
    head->set_path(counted_path);
    for (int tag = first; tag < first + 600; ++tag) {
        head->mutable_from()->set_tag(std::to_string(tag));
        head->mutable_from()->set_pid(tag);
        route.put(context);
        model.note(std::to_string(tag), tag);
    }
}

void ask(const tarn::Route& route, const Model& model, const std::string& accept)
{
    tarn::Context context;
    context.request.message = std::make_shared<tarn::Message>();
    context.request.message->mutable_get()->mutable_head()->set_path("/relay/stats");
    context.request.set_header("Accept", accept);
    context.reply.message = std::make_shared<tarn::Message>();
    context.reply.message->mutable_response();
    require(route.accept(context), "the statistics have a route");
    route.get(context);
    require(context.reply.status() == tarn::Status::Ok, "they are always there");
    if (!context.reply.is(Format::Text)) // for people
        model.compare(context.reply.into<tarn::Stats>());
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tarn_fuzz::quiet_log();
    const auto route = tarn::make_relay_stats_route();
    Model model;
    tarn_fuzz::Input input(data, size);
    int crowds = 0;
    int questions = 0;

    for (int i = 0; i < 200 && !input.empty(); ++i) {
        const std::uint8_t operation = input.byte();
        const std::string path = operation & 16 ? "/stats" : operation & 32 ? "/other" : counted_path;
        const bool counts = path == counted_path;
        // Crowds, and questions about them, are limited, since they take long.
        if (operation % 64 == 1 && ++crowds <= 2) {
            publish_crowd(*route, model, input.byte() * 100);
            continue;
        }
        switch (operation % 8) {
        case 0:
            if (++questions > 8)
                break;
            ask(*route, model, operation & 64 ? "application/json" : operation & 128 ? "text/plain" : "");
            break;
        case 2: {
            const std::string tag(input.byte(), 't');
            publish(*route, true, path, tag, 2);
            if (counts)
                model.note(tag, 2);
            break;
        }
        default: {
            const std::string tag = std::to_string(input.byte());
            publish(*route, operation % 8 == 3, path, tag, operation);
            if (counts)
                model.note(tag, operation);
        }
        }
    }
    ask(*route, model, "");
    return 0;
}
