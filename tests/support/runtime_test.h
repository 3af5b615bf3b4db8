// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/counters.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"
#include "support/wait_until.h"
#include "tarn/tarn.h"

namespace tarn_test {
/// A library that is up and running, with its log captured and a folder of its own.
class RuntimeTest : public ::testing::Test {
protected:
    /// An endpoint that nobody else has: "ipc" is a socket in the test's folder, and "inproc" a name in its
    /// context.
    std::shared_ptr<const slate::Uri> scratch_endpoint(const std::string& scheme = "ipc")
    {
        const std::string name = std::to_string(next_++);
        if (scheme == "ipc")
            return slate::make_uri("ipc://" + (folder.path() / (name + ".sock")).string());
        return slate::make_uri("inproc://test/" + name);
    }

    std::shared_ptr<tarn::MessageFactory> factory() const { return factory_; }

    /// A server at one endpoint that lives until the end of the test.
    std::shared_ptr<tarn::Server> serve(const std::shared_ptr<const slate::Uri>& uri)
    {
        return runtime->add_server(uri);
    }

    ScratchFolder folder;
    LogCapture logs;
    std::shared_ptr<slate::Dictionary> settings = slate::make_dictionary();
    std::unique_ptr<tarn::ZmqSubsystem> runtime = std::make_unique<tarn::ZmqSubsystem>(settings);

private:
    std::shared_ptr<tarn::MessageFactory> factory_ = tarn::make_message_factory();
    std::atomic<int> next_{0};
};

/// What handlers on other threads note down, for the test to read.
class Journal {
public:
    void add(const std::string& entry)
    {
        const std::lock_guard lock(mutex_);
        entries_.push_back(entry);
    }
    std::vector<std::string> entries() const
    {
        const std::lock_guard lock(mutex_);
        return entries_;
    }

private:
    mutable std::mutex mutex_; // guards entries_
    std::vector<std::string> entries_;
};

/// A route whose handlers are functions of the test. A verb without one does what Route does.
class TestRoute : public tarn::Route {
public:
    using Handler = std::function<void(tarn::Context&)>;

    using Route::Route;

    void get(tarn::Context& context) const override { on_get ? on_get(context) : Route::get(context); }
    void put(tarn::Context& context) override { on_put ? on_put(context) : Route::put(context); }
    void post(tarn::Context& context) override { on_post ? on_post(context) : Route::post(context); }
    void del(tarn::Context& context) override { on_del ? on_del(context) : Route::del(context); }

    Handler on_get, on_put, on_post, on_del;
};

inline std::shared_ptr<TestRoute> make_test_route(const std::string& name, const std::string& methods,
                                                  const std::string& pattern,
                                                  tarn::Access access = tarn::Access::Public)
{
    return std::make_shared<TestRoute>(name, methods, tarn::RoutePattern(pattern), access);
}
} // namespace tarn_test
