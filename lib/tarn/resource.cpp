// SPDX-License-Identifier: Apache-2.0
#include "tarn/resource.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <future>
#include <thread>

#include "slate/dictionary.h"
#include "slate/log.h"
#include "slate/md5.h"
#include "slate/provider.h"
#include "slate/queue.h"
#include "tarn/exception.h"
#include "tarn/formats.h"
#include "tarn/internal/async.h"

namespace tarn {
namespace {
using slate::DeferredWork;

// How long the destructor sleeps after each look at its tasks: 5 s halved again and again, so that a task
// that is nearly done hardly delays it, and one that hangs delays it by five seconds.
constexpr int wait_milliseconds[] = {0, 4, 9, 19, 39, 78, 156, 312, 625, 1250, 2500};

bool contains(const std::vector<Format>& formats, Format format)
{
    return std::find(formats.begin(), formats.end(), format) != formats.end();
}

bool is_finished(const DeferredWork& work)
{
    if (!work.future.valid())
        throw std::future_error(std::future_errc::no_state);
    return work.future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

/// The result of a finished task. It is put back, so that the task still counts as finished and its submitter
/// can still read the result.
DeferredWork::Result result_of(DeferredWork& work)
{
    std::promise<DeferredWork::Result> same;
    auto taken = std::exchange(work.future, same.get_future());
    try {
        const auto result = taken.get();
        same.set_value(result);
        return result;
    }
    catch (...) {
        same.set_exception(std::current_exception());
        throw;
    }
}

[[noreturn]] void throw_not_implemented(const std::shared_ptr<slate::Provider>& provider,
                                        slate::SourceLine line, std::string_view operation)
{
    throw MessageException(Status::NotImplemented,
                           slate::trace_error(provider, line, "; ", operation, ", not implemented"));
}
} // namespace

ResourceBase::ResourceBase(std::shared_ptr<slate::Provider> provider) : provider_(std::move(provider)) {}

ResourceBase::~ResourceBase()
{
    try {
        if (queue_)
            end_work();
    }
    catch (const std::exception& error) {
        slate::log_warn(provider_, SLATE_HERE, "failed to clean up work; ", error.what());
    }
    catch (...) {
        slate::log_warn(provider_, SLATE_HERE, "failed to clean up work; unknown error");
    }
    try {
        if (provider_)
            slate::remove_provider(provider_->name());
    }
    catch (...) {
        slate::log_warn(provider_, SLATE_HERE, "failed to remove provider");
    }
}

void ResourceBase::end_work()
{
    for (const auto& work : work_)
        work->cancelled.store(true, std::memory_order_release);

    for (const int milliseconds : wait_milliseconds) {
        clean_work();
        if (work_.empty())
            return;
        if (milliseconds > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); // resumes after signals
    }
    slate::log_warn(provider_, SLATE_HERE, "failed to clean up work");
}

bool ResourceBase::has_behavior(const Behavior& behavior) const
{
    return (behavior_.load() & static_cast<std::uint32_t>(behavior)) != 0;
}

void ResourceBase::set_behavior(const Behavior& behavior)
{
    behavior_.fetch_or(static_cast<std::uint32_t>(behavior));
}

void ResourceBase::clear_behavior(const Behavior& behavior)
{
    behavior_.fetch_and(~static_cast<std::uint32_t>(behavior));
}

void ResourceBase::set_ttl(const slate::Duration& /*ttl*/) {}

std::shared_ptr<slate::Provider> ResourceBase::provider() const
{
    return provider_;
}

bool ResourceBase::supports_chunked_transfer() const
{
    return false;
}

bool ResourceBase::read_provides_etag() const
{
    return false;
}

std::pair<std::string, Format> ResourceBase::read(const std::shared_ptr<slate::Dictionary>& /*params*/,
                                                  Format /*format*/) const
{
    throw_not_implemented(provider_, SLATE_HERE, "read");
}

void ResourceBase::write(const std::shared_ptr<slate::Dictionary>& /*params*/, const Format& /*format*/,
                         const std::string& /*data*/, const WritePolicy& /*policy*/)
{
    throw_not_implemented(provider_, SLATE_HERE, "write");
}

void ResourceBase::erase(const std::shared_ptr<slate::Dictionary>& /*params*/)
{
    throw_not_implemented(provider_, SLATE_HERE, "erase");
}

void ResourceBase::save_into(std::function<void(Content)> sink, std::string_view accept,
                             const std::shared_ptr<slate::Dictionary>& params) const
{
    std::vector<Format> accepted;
    parse_accept(accept, accepted);
    const auto match = std::find_if(accepted.begin(), accepted.end(),
                                    [&](Format format) { return contains(formats(), format); });
    const Format chosen = match != accepted.end() ? *match : formats().at(0);

    auto [data, format] = read(params, chosen);
    std::string tag = etag(params, format).first;
    sink({std::move(data), to_mime_type(format), std::move(tag), params});
}

void ResourceBase::load_from(std::function<std::string()> source, std::string_view content_type,
                             const std::shared_ptr<slate::Dictionary>& params, const WritePolicy& policy)
{
    std::vector<Format> declared;
    parse_content_type(content_type, declared);
    if (declared.empty())
        throw MessageException(
            Status::UnsupportedMediaType,
            slate::trace_error(provider_, SLATE_HERE, "; load_from, unknown content type: ", content_type));
    write(params, declared.front(), source(), policy);
}

std::pair<std::string, Format> ResourceBase::etag(const std::shared_ptr<slate::Dictionary>& params,
                                                  Format format) const
{
    const auto supported = formats();
    const bool any = format == Format::Any && !supported.empty();
    if (!any && !contains(supported, format))
        throw MessageException(
            Status::UnsupportedMediaType,
            slate::trace_error(provider_, SLATE_HERE, "; etag, unsupported format: ", Format_Name(format)));
    const auto [data, read_format] = read(params, format);
    return {slate::md5_hash_string(data), read_format};
}

bool ResourceBase::exists(long revision) const
{
    const auto params = slate::make_dictionary();
    params->set("rev", revision);
    return exists(params);
}

std::size_t ResourceBase::size(const std::shared_ptr<slate::Dictionary>& params, const Format& format) const
{
    return read(params, format).first.size();
}

bool ResourceBase::submit_work(const std::shared_ptr<slate::DeferredWork>& work)
{
    if (!queue_)
        queue_ = tarn_internal::resolve_queue();
    if (!queue_)
        return false;

    clean_work();
    work_.push_back(work);
    try {
        (void)queue_->get()->submit(work); // returns the same task
    }
    catch (...) {
        std::erase(work_, work); // nobody will ever finish it
        throw;
    }
    if (!is_finished(*work))
        return true;
    if (result_of(*work) == DeferredWork::Refused)
        throw OverloadedException("too many requests");
    return true;
}

void ResourceBase::clean_work()
{
    // One by one: std::remove_if would leave moved-from elements behind if is_finished throws.
    for (auto work = work_.begin(); work != work_.end();)
        work = is_finished(**work) ? work_.erase(work) : work + 1;
}
} // namespace tarn
