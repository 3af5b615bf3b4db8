// SPDX-License-Identifier: Apache-2.0
#include "daemon.h"

#include <cerrno>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zmq.hpp>

#include "services_route.h"
#include "start.h"
#include "unknown_path.h"

namespace {
constexpr auto time_to_start = std::chrono::seconds(4);

std::vector<tarn::Endpoint> find_router_endpoints(const Options& options, const tarn::Fabric& fabric)
{
    if (!options.has_router)
        return {};
    std::vector<tarn::Endpoint> endpoints{fabric.router};
    endpoints.insert(endpoints.end(), options.endpoints.begin(), options.endpoints.end());
    return endpoints;
}

std::vector<tarn::Endpoint> find_relay_endpoints(const Options& options, const tarn::Fabric& fabric)
{
    if (!options.has_relay)
        return {};
    return {fabric.relay_stats, fabric.relay_in, fabric.relay_out};
}

mode_t socket_mode(const Options& options)
{
    return options.mode.value_or(options.is_personal ? 0700 : 0775);
}

std::shared_ptr<slate::Dictionary> make_settings(const Options& options, const std::string& group)
{
    std::ostringstream mode;
    mode << std::oct << std::setw(4) << std::setfill('0') << socket_mode(options);
    auto settings = options.limits.to_settings();
    settings->set("socket_mode", mode.str());
    settings->set("socket_group", group);
    return settings;
}

/// The path of an endpoint's socket file, or empty.
std::string socket_path(const tarn::Endpoint& endpoint)
{
    const std::string address = endpoint->address();
    return endpoint->scheme() == "ipc" && address.front() != '@' ? address : "";
}

/// A server reports in its log only that it can't bind, and then serves nothing.
void refuse_if_not_bindable(const tarn::ZmqSubsystem& subsystem, const tarn::Endpoint& endpoint)
{
    if (endpoint->scheme() == "tcp") {
        try {
            zmq::socket_t socket(*subsystem.ctx(), zmq::socket_type::router);
            socket.bind(endpoint->to_string());
        }
        catch (const zmq::error_t& error) {
            throw std::runtime_error("cannot serve at " + endpoint->to_string() + ": " + error.what() +
                                     "; name an address of this machine and a free port");
        }
    }
    const std::string path = socket_path(endpoint);
    if (path.empty())
        return;
    const auto directory = std::filesystem::path(path).parent_path();
    if (access(directory.c_str(), W_OK | X_OK) != 0)
        throw std::runtime_error("cannot serve at " + endpoint->to_string() + ": " + directory.string() +
                                 ": " + std::generic_category().message(errno) +
                                 "; make that directory, or let this user write to it");
}

std::runtime_error group_error(const std::string& group, const std::string& why)
{
    return std::runtime_error("cannot give the sockets to the group \"" + group + "\": " + why);
}

/// The group of the sockets; empty if they keep the one they have.
std::string find_group(const Options& options)
{
    if (!options.group.empty()) {
        if (!getgrnam(options.group.c_str()))
            throw group_error(options.group, "there is no such group; make it with groupadd, or name "
                                             "another one");
        return options.group;
    }
    return !options.is_personal && getgrnam("corvane") ? "corvane" : "";
}

/// The library only logs that it can't set the access, and why.
void refuse_other_access(const Options& options, const tarn::Endpoint& endpoint)
{
    const std::string path = socket_path(endpoint);
    if (path.empty())
        return;
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || (status.st_mode & 07777) != socket_mode(options))
        throw std::runtime_error("cannot set the mode of " + path + "; the log says why");
    const struct group* group = options.group.empty() ? nullptr : getgrnam(options.group.c_str());
    if (group && status.st_gid != group->gr_gid)
        throw group_error(options.group, path + " keeps its own, and the log says why; be a member of that "
                                                "group, or name another one");
}
} // namespace

/// The sockets of the router, which, unlike servers and relays, leaves them behind: to others they would look
/// like those of a process that was killed.
class Daemon::SocketFiles {
public:
    explicit SocketFiles(const std::vector<tarn::Endpoint>& endpoints)
    {
        for (const auto& endpoint : endpoints) {
            struct stat status {};
            const std::string path = socket_path(endpoint);
            if (!path.empty() && lstat(path.c_str(), &status) == 0)
                files_.push_back({path, status.st_dev, status.st_ino});
        }
    }
    ~SocketFiles()
    {
        for (const File& file : files_) {
            struct stat status {};
            if (lstat(file.path.c_str(), &status) == 0 && status.st_dev == file.device &&
                status.st_ino == file.inode) // else it is somebody else's
                (void)unlink(file.path.c_str());
        }
    }
    SocketFiles(const SocketFiles&) = delete;
    SocketFiles& operator=(const SocketFiles&) = delete;

private:
    struct File {
        std::string path;
        dev_t device;
        ino_t inode;
    };
    std::vector<File> files_;
};

Daemon::~Daemon() = default;

Daemon::Daemon(const Options& options)
    : fabric_(tarn::make_fabric(options.run_time_directory)),
      router_endpoints_(find_router_endpoints(options, fabric_)),
      relay_endpoints_(find_relay_endpoints(options, fabric_))
{
    run_time_directory::prepare(options);
    const std::string group = find_group(options);
    const auto reserve = [&](const char* part, const std::vector<tarn::Endpoint>& endpoints) {
        if (endpoints.empty())
            return;
        run_time_directory::prepare_part(options, part);
        locks_.push_back(
            std::make_unique<run_time_directory::Lock>(options, part, endpoints.front()->to_string()));
    };
    reserve("router", router_endpoints_);
    reserve("relay", relay_endpoints_);
    start::refuse_if_served(router_endpoints_);
    start::refuse_if_served(relay_endpoints_);

    subsystem_ = std::make_unique<tarn::ZmqSubsystem>(make_settings(options, group));
    for (const auto& endpoint : router_endpoints_)
        refuse_if_not_bindable(*subsystem_, endpoint);

    umask(~socket_mode(options) & 0777); // from the first moment
    const auto settings = subsystem_->settings();
    if (options.has_relay) {
        relay_ = tarn::make_relay(fabric_.relay_in, fabric_.relay_out);
        relay_stats_ = tarn::make_server(1, settings, {fabric_.relay_stats}, fabric_.relay_out,
                                         tarn::make_message_factory(), {tarn::make_relay_stats_route()});
    }
    if (options.has_router) {
        const auto unknown = [directory = fabric_.run_time_directory](const std::string& path) {
            return describe_unknown_path(directory, path);
        };
        // Its own routes need no published changes, so it gets no relay.
        router_ = tarn::make_router(settings, router_endpoints_, nullptr, tarn::make_message_factory(),
                                    fabric_.run_time_directory,
                                    {make_services_route(fabric_, router_endpoints_)}, unknown);
    }

    std::vector<tarn::Endpoint> asked = router_endpoints_;
    if (options.has_relay)
        asked.push_back(fabric_.relay_stats);
    for (const auto& endpoint : asked) {
        if (!answers_at(endpoint, time_to_start))
            throw std::runtime_error("cannot answer at " + endpoint->to_string() + "; the log says why");
    }
    router_files_ = std::make_unique<SocketFiles>(router_endpoints_);
    for (const auto* endpoints : {&router_endpoints_, &relay_endpoints_}) {
        for (const auto& endpoint : *endpoints)
            refuse_other_access(options, endpoint);
    }
    if (group.empty() && !options.is_personal)
        slate::log_warn(SLATE_HERE,
                        "there is no group \"corvane\": the sockets keep the group of this process");
}

bool Daemon::answers(std::chrono::microseconds time) const
{
    return answers_at(router_endpoints_.empty() ? fabric_.relay_stats : router_endpoints_.front(),
                      slate::Duration(time));
}

bool Daemon::answers_at(const tarn::Endpoint& endpoint, const slate::Duration& time)
{
    // The router keeps half a second of the ttl for the way back, which must not cut a short wait.
    const tarn::Request request(
        tarn::make_message_factory()->make_get("/index", nullptr, time + slate::Seconds(1)));
    const auto reply = tarn::make_client(endpoint, 0)->send(request, time);
    return !reply->is_local() && reply->message && reply->head().from().pid() == getpid();
}
