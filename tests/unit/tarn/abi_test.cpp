// SPDX-License-Identifier: Apache-2.0
// What programs that are installed already count on, and no linker checks: the place of each virtual function
// in its table, and of each field in its structure.
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <vector>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <zmq.hpp>

#include "slate/dictionary.h"
#include "slate/queue.h"
#include "slate/uri.h"
#include "support/log_capture.h"
#include "tarn/internal/async.h"
#include "tarn/tarn.h"

namespace {
using Headers = const std::shared_ptr<slate::Dictionary>&;
using Path = std::string_view;
using Slots = std::vector<std::size_t>;
using Timeout = const slate::Duration&;
using tarn::Client;
using tarn::Message;
using tarn::MessageFactory;
using tarn::Publisher;
using tarn::Reply;
using tarn::Request;
using tarn::Server;

// A virtual destructor takes the first two.
constexpr std::size_t first_slot = 2;

/// Where a virtual function stands in its table: in the Itanium ABI a pointer to it begins with its offset
/// there, plus one, except where the ABI of ARM keeps the one elsewhere.
template <class Function>
std::size_t slot(Function function)
{
    std::uintptr_t word = 0;
    static_assert(sizeof(function) == 2 * sizeof(word));
    std::memcpy(&word, &function, sizeof(word));
#if !defined(__arm__) && !defined(__aarch64__)
    EXPECT_EQ(word % 2, 1u) << "not a virtual function";
    --word;
#endif
    return word / sizeof(void*);
}

/// `count` slots, one after the other.
Slots slots(std::size_t count)
{
    Slots result;
    for (std::size_t i = 0; i < count; ++i)
        result.push_back(first_slot + i);
    return result;
}

TEST(VirtualFunctions, OfDictionaryKeepTheirPlaces)
{
    using slate::Dictionary;
    using Get = std::string (Dictionary::*)(std::string_view, std::string_view) const;
    using Set = void (Dictionary::*)(std::string_view, std::string_view);
    using SetNumber = void (Dictionary::*)(std::string_view, long);
    using GetFlag = bool (Dictionary::*)(std::string_view, bool) const;

    EXPECT_EQ(
        (Slots{slot<Get>(&Dictionary::get), slot<Set>(&Dictionary::set), slot<SetNumber>(&Dictionary::set),
               slot<GetFlag>(&Dictionary::get), slot(&Dictionary::has), slot(&Dictionary::keys),
               slot(&Dictionary::clear), slot(&Dictionary::remove)}),
        slots(8));
}

TEST(VirtualFunctions, OfUriKeepTheirPlaces)
{
    using slate::Uri;

    EXPECT_EQ((Slots{slot(&Uri::to_string), slot(&Uri::scheme), slot(&Uri::address), slot(&Uri::path)}),
              slots(4));
}

TEST(VirtualFunctions, OfServerKeepTheirPlaces)
{
    using AddRoute = bool (Server::*)(const std::shared_ptr<tarn::Route>&);
    using AddCall = void (Server::*)(unsigned int, const std::function<void(Message&)>&);
    using DelRoute = void (Server::*)(const std::string&);
    using DelCall = void (Server::*)(unsigned int);

    EXPECT_EQ((Slots{slot(&Server::suppress_add_remote_call_warning), slot<AddRoute>(&Server::add),
                     slot<AddCall>(&Server::add), slot<DelRoute>(&Server::del), slot<DelCall>(&Server::del),
                     slot(&Server::clear)}),
              slots(6));
}

TEST(VirtualFunctions, OfMessageFactoryKeepTheirPlaces)
{
    using Made = std::shared_ptr<Message>;
    using Copying = Made (MessageFactory::*)(Path, const std::string&, Headers, Timeout) const;
    using Moving = Made (MessageFactory::*)(Path, std::string&&, Headers, Timeout) const;
    using Answering = Made (MessageFactory::*)(const Made&, int) const;
    using OfStatus = Made (MessageFactory::*)(const tarn::Status&) const;

    EXPECT_EQ((Slots{slot(&MessageFactory::make_head), slot(&MessageFactory::make_get),
                     slot<Copying>(&MessageFactory::make_put), slot<Moving>(&MessageFactory::make_put),
                     slot<Copying>(&MessageFactory::make_post), slot<Moving>(&MessageFactory::make_post),
                     slot(&MessageFactory::make_del), slot(&MessageFactory::make_message),
                     slot<Answering>(&MessageFactory::make_response),
                     slot<OfStatus>(&MessageFactory::make_response), slot(&MessageFactory::finder)}),
              slots(11));
}

TEST(VirtualFunctions, OfClientKeepTheirPlaces)
{
    using Got = std::shared_ptr<Reply>;
    using Get = Got (Client::*)(Path, Headers, Timeout) const;
    using GetStream = Got (Client::*)(Path, std::ostream&, Headers, Timeout) const;
    using Copying = Got (Client::*)(Path, const std::string&, Headers, Timeout);
    using Moving = Got (Client::*)(Path, std::string&&, Headers, Timeout);
    using Streaming = Got (Client::*)(Path, std::istream&, Headers, Timeout);

    EXPECT_EQ((Slots{slot(&Client::url), slot(&Client::head), slot<Get>(&Client::get),
                     slot<GetStream>(&Client::get), slot<Copying>(&Client::put), slot<Moving>(&Client::put),
                     slot<Streaming>(&Client::put), slot<Copying>(&Client::post), slot<Moving>(&Client::post),
                     slot<Streaming>(&Client::post), slot(&Client::del), slot(&Client::send)}),
              slots(12));
}

TEST(VirtualFunctions, OfPublisherKeepTheirPlaces)
{
    using Got = std::shared_ptr<Reply>;
    using Copying = Got (Publisher::*)(const Path&, const std::string&, Headers);
    using Streaming = Got (Publisher::*)(const Path&, std::istream&, Headers);

    EXPECT_EQ((Slots{slot(&Publisher::url), slot<Copying>(&Publisher::put), slot<Streaming>(&Publisher::put),
                     slot(&Publisher::del), slot(&Publisher::send)}),
              slots(5));
}

TEST(VirtualFunctions, OfResourceKeepTheirPlaces)
{
    using tarn::Format;
    using tarn::Resource;
    using Behavior = const Resource::Behavior&;
    using Policy = const tarn::WritePolicy&;
    using DataAndFormat = std::pair<std::string, Format>;
    using HasBehavior = bool (Resource::*)(Behavior) const;
    using ChangeBehavior = void (Resource::*)(Behavior);
    using SetTtl = void (Resource::*)(const slate::Duration&);
    using GetProvider = std::shared_ptr<slate::Provider> (Resource::*)() const;
    using Formats = std::vector<Format> (Resource::*)() const;
    using Name = std::string (Resource::*)() const;
    using Flag = bool (Resource::*)() const;
    using Read = DataAndFormat (Resource::*)(Headers, Format) const;
    using SaveInto = void (Resource::*)(std::function<void(tarn::Content)>, std::string_view, Headers) const;
    using Write = void (Resource::*)(Headers, const Format&, const std::string&, Policy);
    using LoadFrom = void (Resource::*)(std::function<std::string()>, std::string_view, Headers, Policy);
    using Erase = void (Resource::*)(Headers);
    using OfParameters = bool (Resource::*)(Headers) const;
    using OfRevision = bool (Resource::*)(long) const;
    using Size = std::size_t (Resource::*)(Headers, const Format&) const;

    EXPECT_EQ(
        (Slots{slot<HasBehavior>(&Resource::has_behavior), slot<ChangeBehavior>(&Resource::set_behavior),
               slot<ChangeBehavior>(&Resource::clear_behavior), slot<SetTtl>(&Resource::set_ttl),
               slot<GetProvider>(&Resource::provider), slot<Formats>(&Resource::formats),
               slot<Name>(&Resource::name), slot<Flag>(&Resource::supports_chunked_transfer),
               slot<Flag>(&Resource::read_provides_etag), slot<Read>(&Resource::read),
               slot<SaveInto>(&Resource::save_into), slot<Write>(&Resource::write),
               slot<LoadFrom>(&Resource::load_from), slot<Erase>(&Resource::erase),
               slot<Read>(&Resource::etag), slot<OfParameters>(&Resource::exists),
               slot<OfRevision>(&Resource::exists), slot<Size>(&Resource::size)}),
        slots(18));
}

TEST(VirtualFunctions, OfAsyncClientKeepTheirPlaces)
{
    using tarn::AsyncClient;

    EXPECT_EQ((Slots{slot(&AsyncClient::url), slot(&AsyncClient::head), slot(&AsyncClient::get),
                     slot(&AsyncClient::put), slot(&AsyncClient::post), slot(&AsyncClient::del),
                     slot(&AsyncClient::send), slot(&AsyncClient::in_flight), slot(&AsyncClient::callbacks)}),
              slots(9));
}

TEST(VirtualFunctions, OfRawClientKeepTheirPlaces)
{
    using tarn::RawClient;
    using Visit = tarn::Status (RawClient::*)(Message&, Timeout);

    EXPECT_EQ((Slots{slot(&RawClient::url), slot<Visit>(&RawClient::visit)}), slots(2));
}

TEST(VirtualFunctions, OfRouteKeepTheirPlaces)
{
    using tarn::Route;
    using Settings = const std::shared_ptr<const slate::Dictionary>&;
    using Paths = std::vector<std::string> (Route::*)() const;
    using Prime = void (Route::*)(Settings);
    using Flag = bool (Route::*)() const;
    using Reading = void (Route::*)(tarn::Context&) const;
    using Changing = void (Route::*)(tarn::Context&);

    EXPECT_EQ((Slots{slot<Paths>(&Route::complete_patterns), slot<Prime>(&Route::prime),
                     slot<Flag>(&Route::supports_chunked_transfer), slot<Reading>(&Route::head),
                     slot<Reading>(&Route::get), slot<Changing>(&Route::put), slot<Changing>(&Route::post),
                     slot<Changing>(&Route::del)}),
              slots(8));
}

TEST(VirtualFunctions, OfQueueKeepTheirPlaces)
{
    using slate::Queue;
    using Work = std::shared_ptr<slate::DeferredWork>;
    using Submit = Work (Queue::*)(const Work&);
    using SetCapacity = void (Queue::*)(std::size_t);

    EXPECT_EQ((Slots{slot<Submit>(&Queue::submit), slot<SetCapacity>(&Queue::set_capacity)}), slots(2));
}

class Work : public slate::DeferredWork {
public:
    Result perform() override { return Success; }
};

TEST(VirtualFunctions, OfDeferredWorkKeepTheirPlaces)
{
    using slate::DeferredWork;
    EXPECT_EQ((Slots{slot(&DeferredWork::perform), slot(&DeferredWork::to_string)}), slots(2));
}

TEST(VirtualFunctions, OfAsyncCallbackAreThoseOfDeferredWork)
{
    using tarn_internal::AsyncCallback;
    EXPECT_EQ((Slots{slot(&AsyncCallback::perform), slot(&AsyncCallback::to_string)}), slots(2));
}

TEST(Fields, OfDeferredWorkKeepTheirOrderAndEndWithTheFlag)
{
    const Work work;
    const auto place = [&](const auto& field) {
        return reinterpret_cast<std::uintptr_t>(&field) -
               reinterpret_cast<std::uintptr_t>(static_cast<const slate::DeferredWork*>(&work));
    };

    EXPECT_LT(place(work.id), place(work.promise));
    EXPECT_LT(place(work.promise), place(work.future));
    EXPECT_LT(place(work.future), place(work.attachment));
    EXPECT_LT(place(work.attachment), place(work.reserved));
    EXPECT_LT(place(work.reserved), place(work.cancelled));
    // Nothing but padding behind it.
    EXPECT_LT(sizeof(slate::DeferredWork) - (place(work.cancelled) + sizeof(work.cancelled)),
              alignof(slate::DeferredWork));
}

/// Opens what is for derived classes.
class AnyResource : public tarn::ResourceBase {
public:
    using ResourceBase::behavior_;
    using ResourceBase::provider_;
    using ResourceBase::queue_;
    using ResourceBase::ResourceBase;
    using ResourceBase::work_;

    std::vector<tarn::Format> formats() const override { return {}; }
    std::string name() const override { return ""; }
    using ResourceBase::exists;
    bool exists(Headers) const override { return false; }
};

TEST(Fields, OfResourceBaseKeepTheirOrder)
{
    const AnyResource resource(nullptr);
    const auto place = [](const auto& field) { return reinterpret_cast<std::uintptr_t>(&field); };

    static_assert(std::is_same_v<decltype(resource.behavior_), std::atomic<std::uint32_t>>);
    EXPECT_EQ(place(resource.behavior_), place(resource) + sizeof(void*));
    EXPECT_LT(place(resource.behavior_), place(resource.queue_));
    EXPECT_LT(place(resource.queue_), place(resource.work_));
    EXPECT_LT(place(resource.work_), place(resource.provider_));
    EXPECT_EQ(place(resource.provider_) + sizeof(resource.provider_), place(resource) + sizeof(resource));
}

TEST(Fields, OfBasicRouteFollowThoseOfRouteInTheirOrder)
{
    using Value = tarn::BasicRoute<int>;
    const auto route = std::dynamic_pointer_cast<Value>(tarn::make_int32_route("v", "", "/v", {}));
    const auto place = [](const auto& field) { return reinterpret_cast<std::uintptr_t>(&field); };

    EXPECT_GE(place(route->getter), place(*route) + sizeof(tarn::Route));
    EXPECT_LT(place(route->getter), place(route->setter));
    EXPECT_LT(place(route->setter), place(route->deleter));
    EXPECT_EQ(place(route->deleter) + sizeof(route->deleter), place(*route) + sizeof(Value));
}

TEST(Fields, OfContentKeepTheirOrder)
{
    const tarn::Content content{"data", "type", "tag", slate::make_dictionary()};

    EXPECT_EQ(content.data, "data");
    EXPECT_EQ(content.mime_type, "type");
    EXPECT_EQ(content.etag, "tag");
    EXPECT_LT(reinterpret_cast<std::uintptr_t>(&content.etag),
              reinterpret_cast<std::uintptr_t>(&content.params));
}

TEST(Symbols, OfRoutesStoresAndResourcesAreWhereProgramsLook)
{
    // Mangled, so with the types of all arguments.
    for (const char* symbol : {
             "_ZN13tarn_internal13resolve_queueEv",
             "_ZN13tarn_internal13AsyncCallbackC1ERKSt8functionIFvvEE",
             "_ZN13tarn_internal13AsyncCallback11id_counter_E",
             "_ZN4tarn12ResourceBaseC2ESt10shared_ptrIN5slate8ProviderEE",
             "_ZN4tarn12ResourceBaseD2Ev",
             "_ZN4tarn12ResourceBase11submit_workERKSt10shared_ptrIN5slate12DeferredWorkEE",
             "_ZN4tarn12ResourceBase10clean_workEv",
             "_ZN4tarn11MemoryStoreC1ESt10shared_ptrIN5slate8ProviderEE",
             "_ZN4tarn11MemoryStoreC1ERKNSt10filesystem7__cxx114pathESt10shared_ptrIN5slate8ProviderEE",
             "_ZN4tarn11MemoryStoreC1ERKNSt10filesystem7__cxx114pathESt10shared_ptrIN5slate8ProviderEE"
             "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
             "_ZN4tarn9FileStoreC1ERKNSt10filesystem7__cxx114pathERKSt10shared_ptrIN5slate8ProviderEE",
             "_ZN4tarn15CachedFileStoreC1ERKNSt10filesystem7__cxx114pathERKSt10shared_ptrIN5slate8ProviderEE",
             "_ZN4tarn11MemoryStore5writeERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
             "_ZN4tarn9FileStore5writeERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
             "_ZN4tarn15CachedFileStore5writeERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
             "_ZNK4tarn11MemoryStore9lazy_loadEv",
             "_ZNK4tarn11MemoryStore4readB5cxx11El",
             "_ZNK4tarn9FileStore4readB5cxx11El",
             "_ZNK4tarn15CachedFileStore4readB5cxx11El",
             "_ZNK4tarn11MemoryStore6existsEl",
             "_ZNK4tarn9FileStore6existsEl",
             "_ZNK4tarn15CachedFileStore6existsEl",
             "_ZN4tarn11MemoryStore5eraseENS_11PurgePolicyE",
             "_ZN4tarn9FileStore5eraseENS_11PurgePolicyE",
             "_ZN4tarn15CachedFileStore5eraseENS_11PurgePolicyE",
             "_ZNK4tarn10BasicRouteIbE3getERNS_7ContextE",
             "_ZNK4tarn10BasicRouteIiE3getERNS_7ContextE",
             "_ZNK4tarn10BasicRouteIlE3getERNS_7ContextE",
             "_ZNK4tarn10BasicRouteIjE3getERNS_7ContextE",
             "_ZNK4tarn10BasicRouteImE3getERNS_7ContextE",
             "_ZNK4tarn10BasicRouteIfE3getERNS_7ContextE",
             "_ZNK4tarn10BasicRouteIdE3getERNS_7ContextE",
             "_ZNK4tarn10BasicRouteINSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEE3getERNS_7ContextE",
         })
        EXPECT_NE(dlsym(RTLD_DEFAULT, symbol), nullptr) << symbol;
}

TEST(Symbols, OfRawClientsAndRoutersAreWhereProgramsLook)
{
    for (const char* symbol : {
             "_ZN4tarn15make_raw_clientERKNSt10filesystem7__cxx114pathEjRKSt10shared_ptrINS_14MessageFactory"
             "EE",
             "_ZN4tarn15make_raw_clientERKSt10shared_ptrIKN5slate3UriEEjRKS0_INS_14MessageFactoryEE",
             "_ZN4tarn11make_routerERKSt10shared_ptrIKN5slate10DictionaryEERKSt6vectorIS0_IKNS1_3UriEESaISA_"
             "EERKSA_RKS0_INS_14MessageFactoryEERKNSt10filesystem7__cxx114pathE",
             "_ZN4tarn12ZmqSubsystem10add_routerERKSt6vectorISt10shared_ptrIKN5slate3UriEESaIS6_EE"
             "RKNSt10filesystem7__cxx114pathE",
             "_ZN4tarn12ZmqSubsystem10add_routerERKSt6vectorISt10shared_ptrIKN5slate3UriEESaIS6_EERKS6_"
             "RKNSt10filesystem7__cxx114pathE",
         })
        EXPECT_NE(dlsym(RTLD_DEFAULT, symbol), nullptr) << symbol;
}

TEST(Exceptions, OfTheLibraryAreCaughtByTheirTypes)
{
    const tarn_test::LogCapture logs;
    const tarn::ZmqSubsystem subsystem;
    const auto nowhere = slate::make_uri("ipc:///dev/null/nowhere.sock");
    tarn::Context context;

    EXPECT_THROW(tarn::make_relay(nowhere, nowhere), zmq::error_t);
    EXPECT_THROW(tarn::make_relay(nowhere, nowhere), std::exception);
    EXPECT_THROW(tarn::RoutePattern("/:a"), tarn::Exception);
    EXPECT_THROW(tarn::make_bool_route("", "get", "/a", {})->post(context), std::exception);
    EXPECT_THROW(tarn::Route("a", "get", "/a", tarn::Access::Public).get(context), tarn::MessageException);
}
} // namespace
