// SPDX-License-Identifier: Apache-2.0
#include "fuzz/routes.h"

#include <atomic>
#include <functional>
#include <stdexcept>
#include <utility>

#include "resource/resource_route.h"
#include "slate/provider.h"
#include "streaming/routes.h"
#include "tarn/proto/message.pb.h"
#include "tarn/proto/stats.pb.h"
#include "tarn/relay_stats.h"
#include "tarn/tarn.h"

namespace tarn_fuzz {
namespace {
using tarn::Access;
using tarn::Context;
using tarn::Format;
using tarn::MessageException;
using tarn::Status;

/// What PUT "/reset" does.
using Resets = std::shared_ptr<std::vector<std::function<void()>>>;

/// A value behind a value route, and its reset, which may run on another thread than its handlers.
template <class T>
class Value {
public:
    explicit Value(T first) : first_(first), value_(std::move(first)) {}

    T get() const
    {
        const std::lock_guard lock(mutex_);
        return value_;
    }
    void set(T value)
    {
        const std::lock_guard lock(mutex_);
        value_ = std::move(value);
    }
    void reset() { set(first_); }

private:
    mutable std::mutex mutex_; // guards value_
    const T first_;
    T value_;
};

template <class T, class Make>
std::shared_ptr<tarn::Route> make_value_route(Make make, const std::string& type, T first,
                                              const Resets& resets)
{
    const auto value = std::make_shared<Value<T>>(first);
    resets->push_back([value] { value->reset(); });
    return make(
        "value " + type, "get,put,post,del", "/value/" + type, [value](Context&) { return value->get(); },
        [value](Context&, T given) { value->set(given); }, [value](Context&) { value->reset(); },
        Access::Public);
}

/// A document in a store, as JSON or text, in whatever format it was written.
template <class Store>
class StoredResource : public tarn::ResourceBase {
public:
    StoredResource(std::string name, const std::filesystem::path& path,
                   std::shared_ptr<slate::Provider> provider)
        : ResourceBase(provider),
          name_(std::move(name)),
          store_(path, provider)
    {
    }

    std::vector<Format> formats() const override { return {Format::Json, Format::Text, Format::Bin}; }
    std::string name() const override { return name_; }

    std::pair<std::string, Format> read(const std::shared_ptr<slate::Dictionary>&,
                                        Format format) const override
    {
        const std::lock_guard lock(mutex_);
        auto data = store_.read(0);
        if (!data)
            throw MessageException(Status::NotFound, "nothing stored");
        return {std::move(*data), format == Format::Any ? Format::Json : format};
    }
    void write(const std::shared_ptr<slate::Dictionary>&, const Format&, const std::string& data,
               const tarn::WritePolicy&) override
    {
        const std::lock_guard lock(mutex_);
        store_.write(data);
    }
    void erase(const std::shared_ptr<slate::Dictionary>&) override
    {
        const std::lock_guard lock(mutex_);
        store_.erase(tarn::PurgePolicy::KeepHistory);
    }
    using ResourceBase::exists;
    bool exists(const std::shared_ptr<slate::Dictionary>&) const override
    {
        const std::lock_guard lock(mutex_);
        return store_.exists(0);
    }

private:
    const std::string name_;
    mutable std::mutex mutex_; // guards store_: "/reset" may erase while a handler reads
    Store store_;
};

template <class Store>
std::shared_ptr<tarn::Route> make_stored_route(const std::string& name, const std::filesystem::path& folder,
                                               const Resets& resets)
{
    const auto resource =
        std::make_shared<StoredResource<Store>>(name, folder / name, slate::add_provider("fuzz", name, true));
    resets->push_back([resource] { resource->erase(nullptr); });
    return std::make_shared<example::ResourceRoute>("/stored/" + name, resource);
}

/// All verbs by one function.
class HandlerRoute : public tarn::Route {
public:
    using Handler = std::function<void(Context&)>;

    HandlerRoute(const std::string& route_name, const std::string& verbs, const tarn::RoutePattern& pattern,
                 Handler handler, Access route_access = Access::Public)
        : Route(route_name, verbs, pattern, route_access),
          handler_(std::move(handler))
    {
    }

    void get(Context& context) const override { handler_(context); }
    void put(Context& context) override { handler_(context); }
    void post(Context& context) override { handler_(context); }
    void del(Context& context) override { handler_(context); }

private:
    const Handler handler_;
};

/// Answers with all that a handler can learn of its request.
void describe(Context& context)
{
    if (!context.reply.message) // a published change
        return;
    std::string text = std::to_string(context.variable<int>("id", 0)) + context.variable("rest", "none");
    for (const std::string& key : context.params->keys())
        text += key + "=" + context.params->get(key, "") + "\n";
    for (const Format format : context.request.formats())
        text += tarn::to_mime_type(format) + "\n";
    text += context.request.param("name", "a+b") + context.request.meta("ttl");
    if (context.request.has_body())
        text += context.request.data();
    context.reply.set_reply_text(text);
}

/// Does what a handler may do, by the number in the path.
void misbehave(Context& context)
{
    switch (context.variable<int>("how", 0)) {
    case 0:
        throw MessageException(Status::ImATeapot, "no \xFF coffee");
    case 1:
        throw std::runtime_error("failed \xC3");
    case 2:
        throw 2; // NOLINT: a handler may throw any type
    case 3:
        context.reply.message = nullptr;
        break;
    case 4:
        context.reply.set_reply_text(std::string("text \xFF"));
        break;
    case 5:
        context.reply.set_status(Status::Ok, "status \xFF");
        break;
    case 6:
        context.reply.set_reply_json(context.request.into<tarn::Stats>());
        break;
    case 7:
        context.reply.set_reply_proto(context.request.into<tarn::Stats>());
        break;
    case 8:
        context.request.message = nullptr;
        break;
    case 9:
        context.reply.set_reply_file("/nonexistent/file.json");
        break;
    case 10:
        context.request.set_param("key", context.request.header("value", ""));
        context.request.set_header("key", context.request.param("key", ""));
        context.request.clr_header("key");
        context.reply.set_header("key", context.request.header("KEY", "none"));
        context.reply.set_reply_data(context.request.detect_format(), context.request.data());
        break;
    default:
        context.reply.set_format_status(static_cast<Format>(12345), Status::Ok);
    }
}
} // namespace

std::vector<std::shared_ptr<tarn::Route>> make_routes(const std::filesystem::path& folder)
{
    const auto resets = std::make_shared<std::vector<std::function<void()>>>();
    std::vector<std::shared_ptr<tarn::Route>> routes = {
        make_value_route(tarn::make_bool_route, "bool", true, resets),
        make_value_route(tarn::make_int32_route, "int32", 1, resets),
        make_value_route(tarn::make_int64_route, "int64", 1L, resets),
        make_value_route(tarn::make_uint32_route, "uint32", 1U, resets),
        make_value_route(tarn::make_uint64_route, "uint64", 1UL, resets),
        make_value_route(tarn::make_float_route, "float", 1.5F, resets),
        make_value_route(tarn::make_double_route, "double", 1.5, resets),
        make_value_route(tarn::make_string_route, "string", std::string("first"), resets),
        make_stored_route<tarn::MemoryStore>("memory", folder, resets),
        make_stored_route<tarn::FileStore>("file", folder, resets),
        make_stored_route<tarn::CachedFileStore>("cached", folder, resets),
        std::make_shared<HandlerRoute>("user", "get,put,post,del", "/user/(:id=42)/(:name)", describe),
        std::make_shared<HandlerRoute>("files", "get,put,post,del", tarn::RoutePattern("/files/*", {"rest"}),
                                       describe),
        std::make_shared<HandlerRoute>("logs", "get", "/logs/*.txt", describe),
        std::make_shared<HandlerRoute>("private", "get,put", "/private", describe, Access::Private),
        std::make_shared<HandlerRoute>("misbehave", "get,put,post,del,head", "/misbehave/:how", misbehave),
        std::make_shared<tarn::Route>("empty", "get,put,post,del", "/empty", Access::Public),
        std::make_shared<example::UploadRoute>(folder / "image"),
        std::make_shared<example::DownloadRoute>(folder / "image"),
        tarn::make_relay_stats_route(),
    };
    routes.push_back(std::make_shared<HandlerRoute>("reset", "put", "/reset", [resets](Context&) {
        for (const auto& reset : *resets)
            reset();
    }));
    return routes;
}

const std::vector<std::string_view>& words_of_routes()
{
    static const std::vector<std::string_view> words = {
        "/value/bool",    "/value/int32", "/value/int64",   "/value/uint32",
        "/value/uint64",  "/value/float", "/value/double",  "/value/string",
        "/stored/memory", "/stored/file", "/stored/cached", "/user/7/x",
        "/user",          "/files/a/b",   "/logs/a.txt",    "/private",
        "/misbehave/0",   "/misbehave/3", "/misbehave/6",   "/misbehave/10",
        "/empty",         "/image",       "/download",      "/relay/stats",
        "/index",         "/index?",      "/password",      "/"};
    return words;
}
} // namespace tarn_fuzz
