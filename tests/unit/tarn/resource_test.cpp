// SPDX-License-Identifier: Apache-2.0
// How long a resource waits for its tasks shows in what it asks of nanosleep, which this program replaces.
#include "tarn/resource.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <ctime>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

#include "slate/dictionary.h"
#include "slate/duration.h"
#include "slate/log.h"
#include "slate/provider.h"
#include "slate/queue.h"
#include "support/counters.h"
#include "support/log_capture.h"
#include "support/wait_until.h"
#include "tarn/exception.h"
#include "tarn/formats.h"
#include "tarn/internal/async.h"
#include "tarn/zmq_subsystem.h"
#include "unit/tarn/thrown.h"

namespace {
/// Notes how long this thread wants to sleep, in milliseconds, and lets it go on at once, for as long as it
/// lives.
class Sleeps {
public:
    explicit Sleeps(std::function<void(int)> during = {}) : during_(std::move(during))
    {
        of_this_thread = this;
    }
    ~Sleeps() { of_this_thread = nullptr; }
    Sleeps(const Sleeps&) = delete;
    Sleeps& operator=(const Sleeps&) = delete;

    const std::vector<int>& asked() const { return asked_; }

    static Sleeps* here() { return of_this_thread; }
    void add(const timespec& duration)
    {
        asked_.push_back(static_cast<int>(duration.tv_sec * 1000 + duration.tv_nsec / 1'000'000));
        if (during_)
            during_(asked_.back());
    }

private:
    static thread_local Sleeps* of_this_thread;

    std::function<void(int)> during_;
    std::vector<int> asked_;
};
thread_local Sleeps* Sleeps::of_this_thread = nullptr;

std::atomic<int> interruptions{0};
} // namespace

// In place of the C library's.
extern "C" int nanosleep(const timespec* duration, timespec* rest)
{
    if (Sleeps::here()) {
        Sleeps::here()->add(*duration);
        return 0;
    }
    const int error = clock_nanosleep(CLOCK_MONOTONIC, 0, duration, rest);
    if (error == EINTR)
        ++interruptions;
    errno = error;
    return error ? -1 : 0;
}

namespace {
using namespace std::chrono_literals;

using slate::DeferredWork;
using tarn::Content;
using tarn::Format;
using tarn::MessageException;
using tarn::Resource;
using tarn::ResourceBase;
using tarn::Status;
using tarn::WritePolicy;
using tarn_internal::AsyncCallback;
using tarn_test::LogCapture;
using tarn_test::logged_and_thrown;
using tarn_test::providers;
using tarn_test::silently_thrown;
using Behavior = Resource::Behavior;
using Params = std::shared_ptr<slate::Dictionary>;
using Work = std::shared_ptr<DeferredWork>;
using Works = std::vector<Work>;

std::shared_ptr<slate::Provider> make_provider()
{
    return slate::add_provider("resource", "test", true);
}

/// Overrides no more than it must, and opens what is for derived classes.
class BareResource : public ResourceBase {
public:
    explicit BareResource(std::shared_ptr<slate::Provider> provider = make_provider())
        : ResourceBase(std::move(provider))
    {
    }

    std::vector<Format> formats() const override { return supported; }
    std::string name() const override { return "bare"; }
    bool exists(const Params& params) const override
    {
        asked_for = params;
        return there;
    }

    using ResourceBase::clean_work;
    using ResourceBase::exists;
    using ResourceBase::queue_;
    using ResourceBase::submit_work;
    using ResourceBase::work_;

    std::vector<Format> supported = {Format::Json, Format::Text};
    bool there = true;
    mutable Params asked_for;
};

/// Gives its data in any format, and notes how it is used.
class Document : public BareResource {
public:
    using BareResource::BareResource;

    std::pair<std::string, Format> read(const Params& params, Format format) const override
    {
        read_formats.push_back(format);
        read_params = params;
        return {data, given.value_or(format)};
    }
    void write(const Params& params, const Format& format, const std::string& new_data,
               const WritePolicy& policy) override
    {
        ++writes;
        written_params = params;
        written_format = format;
        data = new_data;
        written_policy = policy;
    }

    std::string data;
    /// What read says that it gives, instead of what was asked for.
    std::optional<Format> given;
    mutable std::vector<Format> read_formats;
    mutable Params read_params;
    int writes = 0;
    Params written_params;
    Format written_format = Format::Unknown;
    WritePolicy written_policy = WritePolicy::Replace;
};

bool is_ready(const DeferredWork& work)
{
    return work.future.wait_for(0s) == std::future_status::ready;
}

Work make_work()
{
    return std::make_shared<AsyncCallback>([] {});
}

/// Finished before anybody has run it.
Work make_finished_work(DeferredWork::Result result = DeferredWork::Success)
{
    const auto work = make_work();
    work->promise.set_value(result);
    return work;
}

/// Ends as one does that the queue refuses.
class RefusedWork : public DeferredWork {
public:
    Result perform() override { return Refused; }
};

/// A task that runs until it is released.
class Blocker {
public:
    ~Blocker() { release(); }

    void wait_until_running() { running_->get_future().wait(); }
    void release()
    {
        if (!std::exchange(released_, true))
            go_.set_value();
    }

private:
    std::promise<void> go_;
    std::shared_ptr<std::promise<void>> running_ = std::make_shared<std::promise<void>>();
    bool released_ = false;

public:
    const Work work = std::make_shared<AsyncCallback>([go = go_.get_future().share(), running = running_] {
        running->set_value();
        go.wait();
    });
};

// ---- behaviour ------------------------------------------------------------------------------------------

TEST(ResourceBehavior, IsInBitsOfWhichNoTwoAreTheSame)
{
    std::uint32_t seen = 0;
    for (const Behavior behavior : {Behavior::ReadOnly, Behavior::WriteOnly, Behavior::Persistent,
                                    Behavior::Volatile, Behavior::Secret}) {
        const auto bit = static_cast<std::uint32_t>(behavior);
        EXPECT_NE(bit, 0U);
        EXPECT_EQ(bit & (bit - 1), 0U);
        EXPECT_EQ(seen & bit, 0U);
        seen |= bit;
    }
    EXPECT_EQ(static_cast<std::uint32_t>(Behavior::ReadOnly | Behavior::Secret), 1U | 16U);
}

TEST(ResourceBehavior, IsNoneAtFirst)
{
    const BareResource resource;

    EXPECT_FALSE(resource.has_behavior(static_cast<Behavior>(0xFFFFFFFF)));
}

TEST(ResourceBehavior, IsThereIfAnyOfItsBitsIsSet)
{
    BareResource resource;

    resource.set_behavior(Behavior::ReadOnly | Behavior::Persistent);

    EXPECT_TRUE(resource.has_behavior(Behavior::ReadOnly));
    EXPECT_TRUE(resource.has_behavior(Behavior::Persistent));
    EXPECT_TRUE(resource.has_behavior(Behavior::Persistent | Behavior::Secret));
    EXPECT_FALSE(resource.has_behavior(Behavior::Secret));
    EXPECT_FALSE(resource.has_behavior(static_cast<Behavior>(0)));
}

TEST(ResourceBehavior, IsAddedAndTakenAwayBitByBit)
{
    BareResource resource;
    resource.set_behavior(Behavior::ReadOnly);
    resource.set_behavior(Behavior::Secret | static_cast<Behavior>(0x80000000));
    EXPECT_TRUE(resource.has_behavior(Behavior::ReadOnly));

    resource.clear_behavior(Behavior::ReadOnly | Behavior::Volatile);

    EXPECT_FALSE(resource.has_behavior(Behavior::ReadOnly | Behavior::Volatile));
    EXPECT_TRUE(resource.has_behavior(Behavior::Secret));
    EXPECT_TRUE(resource.has_behavior(static_cast<Behavior>(0x80000000)));
}

TEST(ResourceBehavior, MayBeChangedOnManyThreadsAtOnce)
{
    BareResource resource;
    std::vector<std::thread> threads;
    for (int bit = 0; bit < 4; ++bit) {
        threads.emplace_back([&, behavior = static_cast<Behavior>(1U << bit)] {
            for (int i = 0; i < 20'000; ++i) {
                resource.set_behavior(behavior);
                EXPECT_TRUE(resource.has_behavior(behavior));
                resource.clear_behavior(behavior);
                EXPECT_FALSE(resource.has_behavior(behavior));
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
}

// ---- what a resource does by default --------------------------------------------------------------------

TEST(AResource, IsAnInterfaceAndItsBaseIsAbstract)
{
    EXPECT_TRUE(std::is_abstract_v<Resource>);
    EXPECT_TRUE(std::is_abstract_v<ResourceBase>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Resource>);
    EXPECT_EQ(sizeof(Resource), sizeof(void*)); // no fields
}

TEST(AResource, IsDestroyedThroughItsInterface)
{
    std::unique_ptr<Resource> resource = std::make_unique<BareResource>();
    EXPECT_EQ(resource->name(), "bare");
    EXPECT_EQ(providers("resource"), 1U);

    resource.reset();

    EXPECT_EQ(providers("resource"), 0U);
}

/// The status and text with which an action is refused, the text being logged as an error of that provider.
template <class Action>
std::pair<Status, std::string> refusal(const std::string& provider, Action action)
{
    const LogCapture logs;
    try {
        action();
    }
    catch (const MessageException& error) {
        EXPECT_EQ(logs.lines().size(), 1U);
        EXPECT_TRUE(logs.has(slate::ErrorLevel, error.what()));
        EXPECT_EQ(logs.lines().at(0).provider, provider);
        return {error.status, error.what()};
    }
    return {Status::UnknownStatus, "not refused"};
}

TEST(AResource, ReadsWritesAndErasesNothingByDefault)
{
    using Refusal = std::pair<Status, std::string>;
    BareResource resource;

    EXPECT_EQ(refusal("resource[test]", [&] { resource.read(nullptr, Format::Json); }),
              Refusal(Status::NotImplemented, "; read, not implemented"));
    EXPECT_EQ(
        refusal("resource[test]", [&] { resource.write(nullptr, Format::Json, "", WritePolicy::Replace); }),
        Refusal(Status::NotImplemented, "; write, not implemented"));
    EXPECT_EQ(refusal("resource[test]", [&] { resource.erase(nullptr); }),
              Refusal(Status::NotImplemented, "; erase, not implemented"));
    EXPECT_EQ(refusal("resource[test]", [&] { resource.etag(nullptr, Format::Json); }),
              Refusal(Status::NotImplemented, "; read, not implemented"));
}

TEST(AResource, NeedsNoProvider)
{
    const LogCapture logs;
    const BareResource resource(nullptr);

    EXPECT_EQ(resource.provider(), nullptr);
    EXPECT_THROW(resource.read(nullptr, Format::Json), MessageException);
    EXPECT_EQ(providers("resource"), 0U);
}

TEST(AResource, TakesNoChunksAndReadsNoEntityTagByDefault)
{
    const BareResource resource;

    EXPECT_FALSE(resource.supports_chunked_transfer());
    EXPECT_FALSE(resource.read_provides_etag());
}

TEST(AResource, IgnoresATimeToLive)
{
    const LogCapture logs;
    Document resource;
    resource.data = "stays";

    resource.set_ttl(slate::Milliseconds(0));

    EXPECT_EQ(resource.read(nullptr, Format::Text).first, "stays");
    EXPECT_TRUE(logs.lines().empty());
}

TEST(AResource, GivesItsProvider)
{
    const auto provider = make_provider();
    const BareResource resource(provider);

    EXPECT_EQ(resource.provider(), provider);
}

TEST(AResource, RemovesItsProviderAndNoOther)
{
    const auto other = make_provider();
    {
        const auto provider = make_provider();
        EXPECT_NE(provider->name(), other->name());
        const BareResource resource(provider);
        EXPECT_EQ(providers("resource"), 2U);
    }
    EXPECT_EQ(providers("resource"), 1U);

    slate::remove_provider(other->name());
    EXPECT_EQ(providers("resource"), 0U);
}

TEST(AResource, RemovesItsProviderIfItsOwnConstructorFails)
{
    class Failing : public BareResource {
    public:
        Failing() { throw std::runtime_error("no"); }
    };

    EXPECT_THROW(Failing(), std::runtime_error);
    EXPECT_EQ(providers("resource"), 0U);
}

TEST(AResource, AsksForARevisionByTheParameterRev)
{
    BareResource resource;

    EXPECT_TRUE(resource.exists(7));
    EXPECT_EQ(resource.asked_for->keys(), std::vector<std::string>{"rev"});
    EXPECT_EQ(resource.asked_for->get("rev", ""), "7");

    resource.there = false;
    EXPECT_FALSE(static_cast<const Resource&>(resource).exists(std::numeric_limits<long>::min()));
    EXPECT_EQ(resource.asked_for->get("rev", ""), std::to_string(std::numeric_limits<long>::min()));
}

TEST(AResource, IsAsLargeAsWhatIsRead)
{
    Document resource;
    resource.data = std::string("a\0b\n", 4);
    const auto params = slate::make_dictionary();

    EXPECT_EQ(resource.size(params, Format::Text), 4U);

    EXPECT_EQ(resource.read_formats, std::vector<Format>{Format::Text});
    EXPECT_EQ(resource.read_params, params);
}

// ---- reading in the format that suits -------------------------------------------------------------------

struct Negotiation {
    std::string name;
    std::string accept;
    Format chosen;

    friend std::ostream& operator<<(std::ostream& stream, const Negotiation& row)
    {
        return stream << row.name;
    }
};

class SaveInto : public testing::TestWithParam<Negotiation> {};

TEST_P(SaveInto, ReadsTheFormatThatSuitsBest)
{
    Document resource; // JSON and text
    resource.data = "data";
    std::vector<Content> got;

    resource.save_into([&](Content content) { got.push_back(std::move(content)); }, GetParam().accept,
                       nullptr);

    ASSERT_EQ(got.size(), 1U);
    EXPECT_EQ(got[0].mime_type, tarn::to_mime_type(GetParam().chosen));
    EXPECT_EQ(got[0].data, "data");
    EXPECT_EQ(resource.read_formats.at(0), GetParam().chosen);
}

INSTANTIATE_TEST_SUITE_P(
    Accept, SaveInto,
    testing::Values(Negotiation{"Nothing", "", Format::Json},
                    Negotiation{"TheFirst", "application/json", Format::Json},
                    Negotiation{"TheOther", "text/plain", Format::Text},
                    Negotiation{"NoneThatThereIs", "image/png", Format::Json},
                    Negotiation{"Nonsense", "nonsense", Format::Json},
                    Negotiation{"OneThatThereIsAndOneNot", "image/png,text/plain", Format::Text},
                    Negotiation{"BothInOrder", "text/plain,application/json", Format::Text},
                    Negotiation{"BothByFactor", "text/plain;q=0.5,application/json;q=0.9", Format::Json},
                    // Wildcards aren't looked into.
                    Negotiation{"Anything", "*/*", Format::Json},
                    Negotiation{"AnyText", "text/*", Format::Json},
                    Negotiation{"AnythingOrText", "*/*,text/plain", Format::Text}),
    [](const auto& row) { return row.param.name; });

TEST(SaveIntoASink, GivesDataTypeTagAndParameters)
{
    Document resource;
    resource.data = "abc";
    const auto params = slate::make_dictionary();
    Content got;

    resource.save_into([&](Content content) { got = std::move(content); }, "text/plain", params);

    EXPECT_EQ(got.data, "abc");
    EXPECT_EQ(got.mime_type, "text/plain");
    EXPECT_EQ(got.etag, "kAFQmDzST7DWlj99KOF/cg==");
    EXPECT_EQ(got.params, params);
    EXPECT_EQ(resource.read_params, params);
}

TEST(SaveIntoASink, TellsTheFormatThatWasReadAndNotTheOneAskedFor)
{
    Document resource;
    resource.supported = {Format::Any, Format::Csv};
    resource.given = Format::Csv;
    Content got;

    resource.save_into([&](Content content) { got = std::move(content); }, "image/png,*/*", nullptr);

    EXPECT_EQ(got.mime_type, "text/csv");
    // The tag is of that format too.
    EXPECT_EQ(resource.read_formats, (std::vector<Format>{Format::Any, Format::Csv}));
}

TEST(SaveIntoASink, TakesTheTagFromAResourceThatHasItsOwn)
{
    class Tagged : public Document {
    public:
        std::pair<std::string, Format> etag(const Params& params, Format format) const override
        {
            tag_params = params;
            tag_format = format;
            return {"v7", Format::Bin};
        }
        mutable Params tag_params;
        mutable Format tag_format = Format::Unknown;
    };
    const Tagged resource;
    const auto params = slate::make_dictionary();
    Content got;

    resource.save_into([&](Content content) { got = std::move(content); }, "text/plain", params);

    EXPECT_EQ(got.etag, "v7");
    EXPECT_EQ(got.mime_type, "text/plain");
    EXPECT_EQ(resource.tag_params, params);
    EXPECT_EQ(resource.tag_format, Format::Text);
    EXPECT_EQ(resource.read_formats.size(), 1U);
}

TEST(SaveIntoASink, FailsWithoutASinkOrAFormatOrWhatTheySay)
{
    Document resource;
    EXPECT_THROW(resource.save_into({}, "", nullptr), std::bad_function_call);
    EXPECT_EQ(silently_thrown<std::runtime_error>([&] {
                  resource.save_into([](Content) { throw std::runtime_error("sink"); }, "", nullptr);
              }),
              "sink");

    int calls = 0;
    const auto sink = [&](Content) { ++calls; };
    resource.given = Format::Png; // which it doesn't list
    EXPECT_EQ(logged_and_thrown<MessageException>([&] { resource.save_into(sink, "", nullptr); }),
              "; etag, unsupported format: Png");
    resource.supported.clear();
    EXPECT_THROW(resource.save_into(sink, "", nullptr), std::out_of_range);
    const BareResource unreadable;
    EXPECT_EQ(logged_and_thrown<MessageException>([&] { unreadable.save_into(sink, "", nullptr); }),
              "; read, not implemented");
    EXPECT_EQ(calls, 0);
}

// ---- writing in the format that is told -----------------------------------------------------------------

TEST(LoadFrom, WritesWhatTheSourceGivesInTheFormatOfItsContentType)
{
    Document resource;
    const auto params = slate::make_dictionary();
    int calls = 0;

    resource.load_from(
        [&] {
            ++calls;
            return std::string("{}\0", 3);
        },
        "application/json; charset=utf-8", params, WritePolicy::CreateOnly);

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(resource.writes, 1);
    EXPECT_EQ(resource.data, std::string("{}\0", 3));
    EXPECT_EQ(resource.written_format, Format::Json);
    EXPECT_EQ(resource.written_params, params);
    EXPECT_EQ(resource.written_policy, WritePolicy::CreateOnly);
}

TEST(LoadFrom, LeavesItToTheResourceWhichFormatsItTakes)
{
    Document resource; // JSON and text

    resource.load_from([] { return std::string(); }, "image/png", nullptr, WritePolicy::UpdateOnly);

    EXPECT_EQ(resource.written_format, Format::Png);
    EXPECT_EQ(resource.written_params, nullptr);
    EXPECT_EQ(resource.written_policy, WritePolicy::UpdateOnly);
}

TEST(LoadFrom, RefusesAnUnknownContentTypeBeforeItAsksTheSource)
{
    using Refusal = std::pair<Status, std::string>;
    Document resource;
    int calls = 0;
    const auto source = [&] { return std::to_string(++calls); };

    EXPECT_EQ(refusal("resource[test]",
                      [&] { resource.load_from(source, "nonsense", nullptr, WritePolicy::Replace); }),
              Refusal(Status::UnsupportedMediaType, "; load_from, unknown content type: nonsense"));
    EXPECT_EQ(
        refusal("resource[test]", [&] { resource.load_from(source, "", nullptr, WritePolicy::Replace); }),
        Refusal(Status::UnsupportedMediaType, "; load_from, unknown content type: "));
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(resource.writes, 0);
}

TEST(LoadFrom, FailsWithoutASourceOrWithWhatItThrows)
{
    Document resource;
    const auto failing = []() -> std::string { throw std::runtime_error("source"); };

    EXPECT_THROW(resource.load_from({}, "text/plain", nullptr, WritePolicy::Replace), std::bad_function_call);
    EXPECT_EQ(silently_thrown<std::runtime_error>(
                  [&] { resource.load_from(failing, "text/plain", nullptr, WritePolicy::Replace); }),
              "source");
    EXPECT_EQ(resource.writes, 0);
}

// ---- entity tags ----------------------------------------------------------------------------------------

TEST(EntityTag, IsTheMd5OfTheDataInBase64)
{
    Document resource;
    const auto params = slate::make_dictionary();

    EXPECT_EQ(resource.etag(params, Format::Json),
              std::pair(std::string("1B2M2Y8AsgTpgAmY7PhCfg=="), Format::Json));
    EXPECT_EQ(resource.read_params, params);

    resource.data = "abc";
    EXPECT_EQ(resource.etag(params, Format::Text),
              std::pair(std::string("kAFQmDzST7DWlj99KOF/cg=="), Format::Text));
    EXPECT_EQ(resource.read_formats, (std::vector<Format>{Format::Json, Format::Text}));
}

TEST(EntityTag, IsEqualForEqualDataOnly)
{
    Document one;
    Document two;
    one.data = two.data = std::string(5000, 'x');

    EXPECT_EQ(one.etag(nullptr, Format::Json), two.etag(nullptr, Format::Json));
    two.data.back() = 'y';
    EXPECT_NE(one.etag(nullptr, Format::Json), two.etag(nullptr, Format::Json));
}

TEST(EntityTag, OfAnyFormatIsOfTheOneThatIsRead)
{
    Document resource;
    resource.given = Format::Text;

    EXPECT_EQ(resource.etag(nullptr, Format::Any).second, Format::Text);

    EXPECT_EQ(resource.read_formats, std::vector<Format>{Format::Any});
}

TEST(EntityTag, IsRefusedForAFormatThatTheResourceLacks)
{
    using Refusal = std::pair<Status, std::string>;
    Document resource;

    EXPECT_EQ(refusal("resource[test]", [&] { resource.etag(nullptr, Format::Png); }),
              Refusal(Status::UnsupportedMediaType, "; etag, unsupported format: Png"));
    EXPECT_EQ(refusal("resource[test]", [&] { resource.etag(nullptr, Format::Unknown); }),
              Refusal(Status::UnsupportedMediaType, "; etag, unsupported format: Unknown"));
    resource.supported.clear();
    EXPECT_EQ(refusal("resource[test]", [&] { resource.etag(nullptr, Format::Any); }),
              Refusal(Status::UnsupportedMediaType, "; etag, unsupported format: Any"));
    EXPECT_TRUE(resource.read_formats.empty());
}

// ---- work for the queue ---------------------------------------------------------------------------------

/// Runs tasks at once, on the thread that submits them.
class InlineQueue : public slate::Queue {
public:
    Work submit(const Work& work) override
    {
        submitted.push_back(work);
        if (on_submit)
            on_submit();
        try {
            work->promise.set_value(work->perform());
        }
        catch (...) {
            work->promise.set_exception(std::current_exception());
        }
        return nullptr;
    }
    void set_capacity(std::size_t) override {}

    Works submitted;
    std::function<void()> on_submit;
};

class WorkOfAResource : public testing::Test {
protected:
    /// A resource that hands its work to that queue.
    static void use(BareResource& resource, const std::shared_ptr<slate::Queue>& queue)
    {
        resource.queue_ = std::make_shared<slate::Lazy<slate::Queue>>([queue] { return queue; });
    }

    static bool is_no_state(const std::function<void()>& action)
    {
        try {
            action();
        }
        catch (const std::future_error& error) {
            return error.code() == std::future_errc::no_state;
        }
        return false;
    }

    LogCapture logs_;
    int setups_ = 0;
    std::unique_ptr<tarn::ZmqSubsystem> runtime_ =
        std::make_unique<tarn::ZmqSubsystem>(slate::make_dictionary(), [this](slate::Queue& queue) {
            ++setups_;
            queue.set_capacity(1);
        });
    std::shared_ptr<InlineQueue> inline_queue_ = std::make_shared<InlineQueue>();
};

TEST_F(WorkOfAResource, IsNotTakenWhileTheRuntimeIsDown)
{
    runtime_.reset();
    BareResource resource;
    const auto work = make_work();

    EXPECT_FALSE(resource.submit_work(work));
    EXPECT_FALSE(resource.submit_work(work));

    EXPECT_TRUE(resource.work_.empty());
    EXPECT_EQ(resource.queue_, nullptr);
    EXPECT_EQ(work.use_count(), 1);
    EXPECT_FALSE(is_ready(*work));
    EXPECT_EQ(logs_.texts(slate::WarnLevel),
              std::vector<std::string>(2, "cannot resolve queue; tarn not / no longer initialized"));

    // It is looked for again.
    const tarn::ZmqSubsystem runtime;
    EXPECT_TRUE(resource.submit_work(work));
    work->future.wait();
}

TEST_F(WorkOfAResource, RunsOnTheQueueOfTheRuntimeWhichIsBuiltForIt)
{
    BareResource resource;
    EXPECT_EQ(resource.queue_, nullptr);
    EXPECT_EQ(setups_, 0);
    std::thread::id thread;
    const auto work = std::make_shared<AsyncCallback>([&] { thread = std::this_thread::get_id(); });

    EXPECT_TRUE(resource.submit_work(work));

    EXPECT_EQ(resource.queue_, runtime_->queue());
    EXPECT_EQ(setups_, 1);
    EXPECT_EQ(work->future.get(), 0);
    EXPECT_NE(thread, std::thread::id());
    EXPECT_NE(thread, std::this_thread::get_id());
    resource.work_.clear(); // its result has been taken
}

TEST_F(WorkOfAResource, GoesToTheSameQueueAfterTheRuntimeIsGone)
{
    BareResource resource;
    const auto queue = runtime_->queue();
    EXPECT_TRUE(resource.submit_work(make_work()));
    runtime_.reset();

    const auto work = make_work();
    ASSERT_TRUE(resource.submit_work(work));

    EXPECT_EQ(resource.queue_, queue);
    work->future.wait();
    EXPECT_TRUE(logs_.lines().empty());
}

TEST_F(WorkOfAResource, IsKeptWhileItIsOnItsWay)
{
    Blocker blocker;
    BareResource resource;

    EXPECT_TRUE(resource.submit_work(blocker.work));
    blocker.wait_until_running();
    resource.clean_work();
    EXPECT_EQ(resource.work_, Works{blocker.work});

    blocker.release();
    blocker.work->future.wait();
    resource.clean_work();
    EXPECT_TRUE(resource.work_.empty());
    EXPECT_EQ(blocker.work->future.get(), 0);
}

TEST_F(WorkOfAResource, IsForgottenAtTheNextOneIfItIsFinished)
{
    Blocker blocker;
    BareResource resource;
    use(resource, inline_queue_);
    const auto first = make_work();

    EXPECT_TRUE(resource.submit_work(first));
    EXPECT_EQ(resource.work_, Works{first});
    const auto second = make_work();
    EXPECT_TRUE(resource.submit_work(second));

    EXPECT_EQ(resource.work_, Works{second});
    EXPECT_EQ(inline_queue_->submitted, (Works{first, second}));
    EXPECT_TRUE(logs_.lines().empty());
}

TEST_F(WorkOfAResource, IsRefusedByAFullQueue)
{
    Blocker running;
    const auto waiting = make_work();
    const auto refused = make_work();
    BareResource resource;
    EXPECT_TRUE(resource.submit_work(running.work));
    running.wait_until_running();
    EXPECT_TRUE(resource.submit_work(waiting));

    EXPECT_EQ(silently_thrown<tarn::OverloadedException>([&] { resource.submit_work(refused); }),
              "too many requests");

    // It stays until it is cleaned, as the finished work that it is.
    EXPECT_EQ(resource.work_, (Works{running.work, waiting, refused}));
    resource.clean_work();
    EXPECT_EQ(resource.work_, (Works{running.work, waiting}));
    EXPECT_EQ(refused->future.get(), DeferredWork::Refused);

    // There is room again once a task is done.
    running.release();
    waiting->future.wait();
    EXPECT_TRUE(resource.submit_work(make_work()));
    EXPECT_TRUE(logs_.lines().empty());
}

TEST_F(WorkOfAResource, ThatWasRefusedIsForgottenByTheNextOne)
{
    BareResource resource;
    use(resource, inline_queue_);
    for (int i = 0; i < 3; ++i) {
        EXPECT_THROW(resource.submit_work(std::make_shared<RefusedWork>()), tarn::OverloadedException);
        EXPECT_EQ(resource.work_.size(), 1U);
    }
    EXPECT_TRUE(resource.submit_work(make_work()));
    EXPECT_EQ(resource.work_.size(), 1U);
}

TEST_F(WorkOfAResource, MayHaveAnyOtherResult)
{
    for (const int result : {1, 0, -1, -3, 4711}) {
        class Job : public DeferredWork {
        public:
            explicit Job(Result result) : result_(result) {}
            Result perform() override { return result_; }

        private:
            Result result_;
        };
        BareResource resource;
        use(resource, inline_queue_);
        const auto work = std::make_shared<Job>(result);

        EXPECT_TRUE(resource.submit_work(work));

        // However early it was done, its result is still there.
        EXPECT_EQ(work->future.get(), result);
        resource.work_.clear();
    }
}

TEST_F(WorkOfAResource, ThatFailsAtOnceThrowsWhatItThrew)
{
    BareResource resource;
    use(resource, inline_queue_);
    const auto work = std::make_shared<AsyncCallback>([] { throw std::runtime_error("out of paper"); });

    EXPECT_EQ(silently_thrown<std::runtime_error>([&] { resource.submit_work(work); }), "out of paper");

    EXPECT_EQ(silently_thrown<std::runtime_error>([&] { std::exchange(work->future, {}).get(); }),
              "out of paper");
    resource.work_.clear();
}

TEST_F(WorkOfAResource, ThatWasDoneRefusedOrFailedAtOnceLeavesNoTrace)
{
    const Sleeps sleeps;
    {
        BareResource resource;
        use(resource, inline_queue_);
        EXPECT_TRUE(resource.submit_work(make_work()));
    }
    {
        BareResource resource;
        use(resource, inline_queue_);
        EXPECT_THROW(resource.submit_work(std::make_shared<RefusedWork>()), tarn::OverloadedException);
    }
    {
        BareResource resource;
        use(resource, inline_queue_);
        EXPECT_THROW(resource.submit_work(std::make_shared<AsyncCallback>(nullptr)), std::bad_function_call);
    }
    EXPECT_TRUE(sleeps.asked().empty());
    EXPECT_TRUE(logs_.lines().empty());
    EXPECT_EQ(providers("resource"), 0U);
}

TEST_F(WorkOfAResource, WithoutAStateThrowsWhenItIsHandedOver)
{
    BareResource resource;
    use(resource, inline_queue_);
    const auto work = make_work();
    const auto taken = std::move(work->future);

    EXPECT_TRUE(is_no_state([&] { resource.submit_work(work); }));

    EXPECT_EQ(inline_queue_->submitted, Works{work});
    EXPECT_TRUE(is_no_state([&] { resource.clean_work(); }));
    EXPECT_TRUE(is_no_state([&] { resource.submit_work(make_work()); }));
    EXPECT_EQ(inline_queue_->submitted, Works{work});
}

TEST_F(WorkOfAResource, FailsIfThereIsNoQueue)
{
    BareResource resource;
    resource.queue_ = std::make_shared<slate::Lazy<slate::Queue>>(nullptr);

    EXPECT_THROW(resource.submit_work(make_work()), std::bad_function_call);
    EXPECT_TRUE(resource.work_.empty());

    // The lock of the lazy queue is free again.
    use(resource, inline_queue_);
    EXPECT_TRUE(resource.submit_work(make_work()));
}

TEST_F(WorkOfAResource, IsDroppedAgainIfTheQueueThrows)
{
    Blocker blocker;
    BareResource resource;
    EXPECT_TRUE(resource.submit_work(blocker.work));
    use(resource, inline_queue_);
    inline_queue_->on_submit = [] { throw std::runtime_error("full of holes"); };
    const auto work = make_work();

    EXPECT_EQ(silently_thrown<std::runtime_error>([&] { resource.submit_work(work); }), "full of holes");

    EXPECT_EQ(resource.work_, Works{blocker.work});
    EXPECT_FALSE(is_ready(*work));
    inline_queue_->on_submit = {};
    EXPECT_TRUE(resource.submit_work(work));
    EXPECT_EQ(resource.work_, (Works{blocker.work, work}));
    blocker.release();
    blocker.work->future.wait();
}

TEST_F(WorkOfAResource, IsKeptBeforeItIsHandedOver)
{
    BareResource resource;
    use(resource, inline_queue_);
    const auto work = make_work();
    bool kept = false;
    inline_queue_->on_submit = [&] { kept = !resource.work_.empty() && resource.work_.back() == work; };

    EXPECT_TRUE(resource.submit_work(work));

    EXPECT_TRUE(kept);
}

TEST_F(WorkOfAResource, IsHandedOverWithoutHoldingUpOthersThatNeedTheQueue)
{
    BareResource resource;
    use(resource, inline_queue_);
    bool reached = false;
    std::future<std::shared_ptr<slate::Queue>> other; // its end waits for it
    inline_queue_->on_submit = [&] {
        other = std::async(std::launch::async, [&] { return resource.queue_->get(); });
        reached = other.wait_for(20s) == std::future_status::ready;
    };

    resource.submit_work(make_work());

    EXPECT_TRUE(reached);
}

TEST_F(WorkOfAResource, IsCleanedIfFinishedAndKeptInOrderIfNot)
{
    BareResource resource;
    const Works left = {make_work(), make_work(), make_work()};
    resource.work_ = {make_finished_work(),
                      left[0],
                      left[1],
                      make_finished_work(),
                      make_finished_work(DeferredWork::Refused),
                      left[2],
                      make_finished_work()};

    resource.clean_work();

    EXPECT_EQ(resource.work_, left);
    for (const auto& work : left)
        EXPECT_FALSE(is_ready(*work));
}

TEST_F(WorkOfAResource, IsNotWaitedForWhenItIsCleaned)
{
    BareResource resource;
    for (int i = 0; i < 1000; ++i)
        resource.work_.push_back(make_work());
    // Waiting for this one would run it.
    resource.work_[500]->future = std::async(std::launch::deferred, [] { return 0; });

    const auto start = std::chrono::steady_clock::now();
    resource.clean_work();

    // Far more than it needs, and far less than any wait for each would take.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_EQ(resource.work_.size(), 1000U);
}

TEST_F(WorkOfAResource, WithoutAStateStopsTheCleaningThere)
{
    BareResource resource;
    const auto kept = make_work();
    const auto stateless = make_work();
    const auto taken = std::move(stateless->future);
    const auto behind = make_finished_work();
    resource.work_ = {make_finished_work(), kept, stateless, behind};

    EXPECT_TRUE(is_no_state([&] { resource.clean_work(); }));

    EXPECT_EQ(resource.work_, (Works{kept, stateless, behind}));
}

// ---- the end of a resource ------------------------------------------------------------------------------

class TheEndOfAResource : public WorkOfAResource {
protected:
    std::unique_ptr<BareResource> resource_ = std::make_unique<BareResource>();
};

// All pauses between its looks; the first look comes without one.
const std::vector<int> all_sleeps = {4, 9, 19, 39, 78, 156, 312, 625, 1250, 2500};

TEST_F(TheEndOfAResource, ComesAtOnceWithoutWork)
{
    const Sleeps sleeps;

    BareResource().set_behavior(Behavior::Secret); // never had any
    EXPECT_EQ(setups_, 0);
    use(*resource_, inline_queue_);
    resource_.reset();

    EXPECT_TRUE(sleeps.asked().empty());
    EXPECT_TRUE(logs_.lines().empty());
}

TEST_F(TheEndOfAResource, ComesAtOnceIfAllWorkIsFinished)
{
    const auto work = make_work();
    resource_->submit_work(work);
    work->future.wait();
    const Sleeps sleeps;

    resource_.reset();

    EXPECT_TRUE(sleeps.asked().empty());
    EXPECT_TRUE(work->cancelled); // it is asked before it is looked at
    EXPECT_TRUE(logs_.lines().empty());
    EXPECT_EQ(work->future.get(), 0);
}

TEST_F(TheEndOfAResource, LooksAtNoWorkIfItNeverHadAQueue)
{
    const auto work = make_work();
    resource_->work_ = {work};
    const Sleeps sleeps;

    resource_.reset();

    EXPECT_TRUE(sleeps.asked().empty());
    EXPECT_FALSE(work->cancelled);
    EXPECT_TRUE(logs_.lines().empty());
    EXPECT_EQ(providers("resource"), 0U);
}

TEST_F(TheEndOfAResource, CancelsAllItsWorkAndWaitsForIt)
{
    Blocker blocker;
    const auto waiting =
        std::make_shared<AsyncCallback>([] { ADD_FAILURE() << "run though it was cancelled"; });
    resource_->submit_work(blocker.work);
    blocker.wait_until_running();
    resource_->submit_work(waiting);
    const Sleeps sleeps([&](int milliseconds) {
        EXPECT_TRUE(blocker.work->cancelled);
        EXPECT_TRUE(waiting->cancelled);
        EXPECT_EQ(providers("resource"), 1U);
        if (milliseconds != 19)
            return;
        blocker.release();
        waiting->future.wait();
    });

    resource_.reset();

    EXPECT_EQ(sleeps.asked(), (std::vector<int>{4, 9, 19}));
    EXPECT_EQ(blocker.work->future.get(), 0);
    EXPECT_EQ(waiting->future.get(), DeferredWork::Cancelled);
    EXPECT_TRUE(logs_.lines().empty());
    EXPECT_EQ(providers("resource"), 0U);
}

TEST_F(TheEndOfAResource, IsHeldUpByWorkThatHangsForAllItsSleepsAndNoMore)
{
    use(*resource_, inline_queue_);
    const auto hung = make_work();
    resource_->work_ = {hung, make_finished_work()};
    const Sleeps sleeps;

    resource_.reset();

    EXPECT_EQ(sleeps.asked(), all_sleeps);
    ASSERT_EQ(logs_.lines().size(), 1U);
    EXPECT_EQ(logs_.lines()[0].level, slate::WarnLevel);
    EXPECT_EQ(logs_.lines()[0].text, "failed to clean up work");
    EXPECT_EQ(logs_.lines()[0].provider, "resource[test]");
    EXPECT_EQ(hung.use_count(), 1);
    EXPECT_EQ(providers("resource"), 0U);
}

TEST_F(TheEndOfAResource, LooksOnceMoreAfterEachSleepButTheLast)
{
    use(*resource_, inline_queue_);
    const auto late = make_work();
    resource_->work_ = {late};
    {
        const Sleeps sleeps([&](int milliseconds) {
            if (milliseconds == 1250)
                late->promise.set_value(0);
        });
        resource_.reset();
        EXPECT_EQ(sleeps.asked(), std::vector<int>(all_sleeps.begin(), all_sleeps.end() - 1));
        EXPECT_TRUE(logs_.lines().empty());
    }

    resource_ = std::make_unique<BareResource>();
    use(*resource_, inline_queue_);
    const auto too_late = make_work();
    resource_->work_ = {too_late};
    const Sleeps sleeps([&](int milliseconds) {
        if (milliseconds == 2500)
            too_late->promise.set_value(0);
    });
    resource_.reset();
    EXPECT_EQ(sleeps.asked(), all_sleeps);
    EXPECT_EQ(logs_.texts(slate::WarnLevel), std::vector<std::string>{"failed to clean up work"});
}

void ignore_signal(int) {}

TEST_F(TheEndOfAResource, TakesFiveSecondsIfWorkHangsWhateverSignalsCome)
{
    struct sigaction action {};
    action.sa_handler = ignore_signal;
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    Blocker blocker;
    resource_->submit_work(blocker.work);
    blocker.wait_until_running();
    std::mutex mutex;
    std::condition_variable ended;
    bool is_over = false;
    std::thread disturber([&, thread = pthread_self()] {
        std::unique_lock lock(mutex);
        while (!ended.wait_for(lock, 50ms, [&] { return is_over; }))
            pthread_kill(thread, SIGUSR1);
    });

    const auto start = std::chrono::steady_clock::now();
    resource_.reset();
    const auto waited = std::chrono::steady_clock::now() - start;

    {
        const std::lock_guard lock(mutex);
        is_over = true;
    }
    ended.notify_one();
    disturber.join();
    EXPECT_GE(waited, 4992ms);
    EXPECT_GT(interruptions, 0);
    EXPECT_EQ(logs_.texts(slate::WarnLevel), std::vector<std::string>{"failed to clean up work"});
}

TEST_F(TheEndOfAResource, ComesSoonIfWorkHeedsThatItIsCancelled)
{
    std::promise<DeferredWork*> self;
    std::promise<void> running;
    const auto work = std::make_shared<AsyncCallback>([&running, self = self.get_future().share()] {
        running.set_value();
        (void)tarn_test::wait_until([&] { return self.get()->cancelled.load(); });
    });
    self.set_value(work.get());
    resource_->submit_work(work);
    running.get_future().wait();

    resource_.reset();

    EXPECT_TRUE(is_ready(*work));
    EXPECT_TRUE(logs_.lines().empty());
}

TEST_F(TheEndOfAResource, LogsThatItsWorkHasNoStateAndThrowsNothing)
{
    use(*resource_, inline_queue_);
    const auto work = make_work();
    const auto taken = std::move(work->future);
    EXPECT_THROW(resource_->submit_work(work), std::future_error);
    const Sleeps sleeps;

    resource_.reset();

    EXPECT_TRUE(sleeps.asked().empty());
    ASSERT_EQ(logs_.lines().size(), 1U);
    EXPECT_EQ(logs_.lines()[0].level, slate::WarnLevel);
    EXPECT_EQ(logs_.lines()[0].provider, "resource[test]");
    EXPECT_EQ(logs_.lines()[0].text, std::string("failed to clean up work; ") +
                                         std::future_error(std::future_errc::no_state).what());
    EXPECT_EQ(providers("resource"), 0U);
}

TEST_F(TheEndOfAResource, SurvivesWhateverIsThrownMeanwhile)
{
    use(*resource_, inline_queue_);
    resource_->work_ = {make_work()};
    const Sleeps sleeps([](int) { throw 42; });

    resource_.reset();

    EXPECT_EQ(logs_.texts(slate::WarnLevel),
              std::vector<std::string>{"failed to clean up work; unknown error"});
    EXPECT_EQ(logs_.lines().size(), 1U);
    EXPECT_EQ(providers("resource"), 0U);
}
} // namespace
