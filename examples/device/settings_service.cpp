// SPDX-License-Identifier: Apache-2.0
// Keeps a device's settings, each in a file of its own, and publishes every change:
//
//   device_settings_service SOCKET FOLDER ROUTER RELAY_IN
//
// A setting survives a restart and a power cut: its file always holds the old value or the new one, complete.

#include <exception>
#include <filesystem>
#include <iostream>

#include <tarn/tarn.h>

#include "../../apps/shared/termination_signal.h"

namespace {
/// Needs no lock: the server has one thread, so its handlers run one at a time.
class Setting {
public:
    Setting(const std::filesystem::path& folder, const std::string& name, std::string standard,
            std::shared_ptr<tarn::Publisher> publisher)
        : name_(name),
          standard_(std::move(standard)),
          publisher_(std::move(publisher)),
          provider_(slate::add_provider("setting", name, true)),
          store_(folder / name, provider_)
    {
    }
    ~Setting() { slate::remove_provider(provider_->name()); }
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;

    const std::string& standard() const { return standard_; }
    std::string get() const { return store_.read(0).value_or(standard_); }

    void set(const std::string& value)
    {
        store_.write(value);
        publisher_->put("/settings/" + name_, value);
    }

    void reset()
    {
        store_.erase({});
        publisher_->del("/settings/" + name_);
    }

private:
    std::string name_;
    std::string standard_;
    std::shared_ptr<tarn::Publisher> publisher_;
    std::shared_ptr<slate::Provider> provider_;
    tarn::CachedFileStore store_;
};

std::shared_ptr<tarn::Route> make_location_route(const std::shared_ptr<Setting>& setting)
{
    return tarn::make_string_route(
        "location", "get,put,delete", "/location", [setting](tarn::Context&) { return setting->get(); },
        [setting](tarn::Context&, std::string text) { setting->set(text); },
        [setting](tarn::Context&) { setting->reset(); }, tarn::Access::Public);
}

/// The route refuses a body that is not a number; the file, however, may hold anything.
std::shared_ptr<tarn::Route> make_interval_route(const std::shared_ptr<Setting>& setting)
{
    return tarn::make_uint32_route(
        "interval", "get,put,delete", "/interval",
        [setting](tarn::Context&) {
            unsigned int seconds = 0;
            if (!slate::try_parse(setting->get(), &seconds))
                slate::try_parse(setting->standard(), &seconds);
            return seconds;
        },
        [setting](tarn::Context&, unsigned int seconds) { setting->set(std::to_string(seconds)); },
        [setting](tarn::Context&) { setting->reset(); }, tarn::Access::Public);
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 5) {
        std::cerr << "usage: device_settings_service SOCKET FOLDER ROUTER RELAY_IN\n";
        return 2;
    }
    const TerminationSignal termination;

    try {
        tarn::ZmqSubsystem subsystem;
        // Asks for the relay's statistics through the router, and returns once the relay hears it.
        const auto publisher = tarn::make_publisher(
            {.endpoint = slate::make_uri(argv[4]), .stats_endpoint = slate::make_uri(argv[3])});
        subsystem.serve(
            slate::make_uri("ipc://" + std::string(argv[1])),
            {make_location_route(std::make_shared<Setting>(argv[2], "location", "workshop", publisher)),
             make_interval_route(std::make_shared<Setting>(argv[2], "interval", "60", publisher))});
        std::cout << "keeping settings in " << argv[2] << std::endl;
        termination.wait();
    }
    catch (const std::exception& error) {
        std::cerr << "device_settings_service: " << error.what() << "\n";
        return 1;
    }
}
