// SPDX-License-Identifier: Apache-2.0
#include "network_settings.h"

#include <google/protobuf/util/json_util.h>

namespace example {
namespace {
using tarn::Format;
using tarn::MessageException;
using tarn::Status;
using Params = std::shared_ptr<slate::Dictionary>;

constexpr long current_revision = 0;

bool from_json(const std::string& text, Network* network)
{
    return google::protobuf::util::JsonStringToMessage(text, network).ok();
}

std::string to_json(const Network& network)
{
    std::string text;
    tarn::to_json(network, &text, slate::ErrorLevel);
    return text;
}

MessageException unsupported(Format format)
{
    return {Status::UnsupportedMediaType,
            "unsupported format for network settings: " + tarn::to_mime_type(format)};
}

Network parse(const std::string& data, Format format)
{
    if (format != Format::Json && format != Format::Proto)
        throw unsupported(format);
    Network network;
    if (!(format == Format::Json ? from_json(data, &network) : network.ParseFromString(data)))
        throw MessageException(Status::BadRequest, "not network settings");
    if (network.hostname().empty())
        throw MessageException(Status::BadRequest, "network settings without a hostname");
    return network;
}
} // namespace

NetworkSettings::NetworkSettings(const std::filesystem::path& file, std::function<void(const Network&)> apply)
    : ResourceBase(slate::add_provider("network_settings", "", true)),
      store_(file, provider()),
      apply_(std::move(apply))
{
    set_behavior(Behavior::Persistent);
}

void NetworkSettings::apply_stored()
{
    if (!exists(nullptr))
        return;
    try {
        apply_later(current());
    }
    catch (const std::exception& error) {
        slate::log_error(provider(), SLATE_HERE, "stored network settings not applied: ", error.what());
    }
}

std::vector<Format> NetworkSettings::formats() const
{
    return {Format::Json, Format::Text, Format::Proto};
}

std::string NetworkSettings::name() const
{
    return "network settings";
}

std::pair<std::string, Format> NetworkSettings::read(const Params&, Format format) const
{
    switch (format) {
    case Format::Any:
    case Format::Json:
        return {to_json(current()), Format::Json};
    case Format::Text:
        return {current().DebugString(), Format::Text};
    case Format::Proto:
        return {tarn::to_binary(current(), slate::ErrorLevel), Format::Proto};
    default:
        throw unsupported(format);
    }
}

void NetworkSettings::write(const Params&, const Format& format, const std::string& data,
                            const tarn::WritePolicy&)
{
    const Network network = parse(data, format);
    store_.write(to_json(network));
    apply_later(network);
}

void NetworkSettings::erase(const Params& params)
{
    if (!exists(params))
        throw MessageException(Status::NotFound, "no network settings");
    store_.erase(tarn::PurgePolicy::PurgeHistory);
}

bool NetworkSettings::exists(const Params&) const
{
    return store_.exists(current_revision);
}

Network NetworkSettings::current() const
{
    const auto json = store_.read(current_revision);
    if (!json)
        throw MessageException(Status::NotFound, "no network settings");
    Network network;
    if (!from_json(*json, &network))
        throw tarn::Exception(slate::trace_error(provider(), SLATE_HERE, name(), ": the file is corrupt"));
    return network;
}

/// Applying takes time and must not hold up the route. The task holds everything that it uses, since this
/// object may be gone when it runs. It handles its own failures: the reply to the writer doesn't wait for
/// them.
void NetworkSettings::apply_later(const Network& network)
{
    const auto task = tarn::make_work([=, apply = apply_, log = provider()] {
        try {
            apply(network);
        }
        catch (const std::exception& error) {
            slate::log_error(log, SLATE_HERE, "network settings not applied: ", error.what());
        }
    });
    try {
        if (!submit_work(task))
            throw MessageException(Status::ServiceUnavailable, "saved, but not applied: shutting down");
    }
    catch (const tarn::OverloadedException& error) {
        throw MessageException(Status::TooManyRequests,
                               std::string("saved, but not applied: ") + error.what());
    }
}
} // namespace example
