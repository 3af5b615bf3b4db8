// SPDX-License-Identifier: Apache-2.0
// What is wrong with a fabric, as far as can be seen from outside, and what to do about it.

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <slate/uri.h>
#include <tarn/probe.h>
#include <tarn/zmq_subsystem.h>

#include "command.h"
#include "fabric_map.h"
#include "options.h"
#include "output/body.h"
#include "output/json.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
constexpr rlim_t min_descriptors = 1024;
constexpr const char* relay_input = "relay, input";
constexpr const char* relay_output = "relay, output";
constexpr const char* device_group = "corvane";

struct Finding {
    bool is_problem;
    std::string what;
    std::string remedy; ///< empty if there is nothing to do
};

std::string user_name(uid_t id)
{
    const passwd* entry = getpwuid(id);
    return entry ? entry->pw_name : std::to_string(id);
}

std::string group_name(gid_t id)
{
    const group* entry = getgrgid(id);
    return entry ? entry->gr_name : std::to_string(id);
}

bool is_member(gid_t id)
{
    std::array<gid_t, 256> groups{};
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    return getegid() == id ||
           (count > 0 && std::find(groups.begin(), groups.begin() + count, id) != groups.begin() + count);
}

/// A path in a command that people may paste into a shell, whatever others have named it.
std::string shell_word(const std::filesystem::path& path)
{
    const std::string text = escape(path.string());
    const bool is_plain = std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::string_view("/._-+,=%@").find(c) != std::string_view::npos;
    });
    if (is_plain)
        return text;
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

std::string owner_text(const struct stat& status)
{
    char mode[8];
    (void)std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned int>(status.st_mode & 07777U));
    return std::string(mode) + " " + user_name(status.st_uid) + ":" + group_name(status.st_gid);
}

class Doctor {
public:
    explicit Doctor(const slate::Duration& timeout) : timeout_(timeout) {}

    void look_at_versions()
    {
        note("tarn " TARN_VERSION " with ZeroMQ " + tarn::ZmqSubsystem::version() + ", as " +
             user_name(geteuid()) + ":" + group_name(getegid()));
    }

    void look_at_limits()
    {
        rlimit limit{};
        if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < min_descriptors)
            problem("a process may open " + std::to_string(limit.rlim_cur) +
                        " files only, and each connection takes one",
                    "raise the limit: `ulimit -n 4096`, or LimitNOFILE= in the unit");
    }

    /// What of a fabric is served.
    struct Served {
        bool router = false;
        bool relay = false;
    };

    Served look_at_fabric(const std::string& directory, const std::string& title, bool must_be_there)
    {
        const auto fabric = fabric_in(directory);
        const std::string shown = escape(fabric.run_time_directory.string());
        struct stat status {};
        if (lstat(fabric.run_time_directory.c_str(), &status) != 0) {
            if (must_be_there)
                problem(title + " " + shown + ": " + std::generic_category().message(errno),
                        "start `tarnd --make-run-dir`, or `tarn demo` for one of your own");
            else
                note(title + ": there is none in " + shown);
            return {};
        }
        if (S_ISLNK(status.st_mode))
            note(title + " " + shown + " is a link");
        if (const auto why = distrust(fabric)) {
            problem(title + ": " + escape(*why), "until then no command and no program uses it");
            return {};
        }
        if (stat(fabric.run_time_directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            problem(title + " " + shown + " is not a directory", "remove it, and make a directory there");
            return {};
        }
        look_at_directory(title + " " + shown, fabric.run_time_directory, status);
        return look_at_sockets(fabric);
    }

    void look_at_one(const std::string& directory)
    {
        const std::size_t before = findings_.size();
        const bool is_served = look_at_fabric(directory, "fabric", true).router;
        if (!is_served && findings_.size() > before && !findings_.back().is_problem)
            problem("no router answers in " + escape(directory),
                    "start one: `tarnd --run-dir " + shell_word(directory) + "`");
    }

    void compare(const Served& device, const Served& own)
    {
        const bool has_changes_elsewhere =
            (device.router && !device.relay && own.relay) || (!device.router && device.relay && own.router);
        if (has_changes_elsewhere)
            problem(std::string("requests go to ") +
                        (device.router ? "the device's fabric" : "your own fabric") + ", and changes to " +
                        (device.router ? "your own" : "the device's"),
                    "end one of the two, or name one with --run-dir");
        else if (device.router && own.router)
            problem("two fabrics answer: that of the device and your own; without -e or --run-dir every "
                    "command takes the device's",
                    "end the other one (`tarn demo`), or name it with --run-dir");
        else if (!device.router && !own.router && !may_not_connect_)
            problem("no router answers, neither of the device nor of your own", "start " + fabric_programs());
    }

    int show(bool as_json) const
    {
        const bool is_well = std::none_of(findings_.begin(), findings_.end(),
                                          [](const Finding& finding) { return finding.is_problem; });
        if (as_json) {
            auto array = nlohmann::ordered_json::array();
            for (const Finding& finding : findings_)
                array.push_back(
                    {{"problem", finding.is_problem}, {"what", finding.what}, {"remedy", finding.remedy}});
            write_out(to_line(array) + "\n");
            return is_well ? ExitGood : ExitOther;
        }
        for (const Finding& finding : findings_) {
            write_out((finding.is_problem ? paint("problem", Colour::Red) : paint("ok     ", Colour::Green)) +
                      "  " + finding.what + "\n");
            if (!finding.remedy.empty())
                write_out("         " + paint("remedy:", Colour::Bold) + " " + finding.remedy + "\n");
        }
        write_out(is_well ? "Nothing is wrong.\n" : "");
        return is_well ? ExitGood : ExitOther;
    }

private:
    void note(const std::string& what) { findings_.push_back({false, what, ""}); }
    void problem(const std::string& what, const std::string& remedy)
    {
        findings_.push_back({true, what, remedy});
    }

    void look_at_directory(const std::string& title, const std::filesystem::path& directory,
                           const struct stat& status)
    {
        shared_group_.reset();
        note(title + ": " + owner_text(status));
        if (directory == tarn::default_run_time_directory)
            look_at_group(directory, status);
        if ((status.st_mode & S_IWOTH) != 0 && (status.st_mode & S_ISVTX) == 0)
            problem("anybody may replace the services in " + escape(directory.string()),
                    "take the right to write from others: `chmod o-w " + shell_word(directory) + "`");
        if ((status.st_mode & S_IWGRP) != 0 && (status.st_mode & S_ISVTX) == 0)
            problem("a member of the group " + group_name(status.st_gid) +
                        " may rename another's service in " + escape(directory.string()),
                    "set the sticky bit: `chmod +t " + shell_word(directory) + "`");
        if (access(directory.c_str(), X_OK | R_OK) != 0)
            problem("you may not look into " + escape(directory.string()),
                    is_member(status.st_gid) ? "let the group in: `chmod g+rx " + shell_word(directory) + "`"
                                             : join(status.st_gid, "let its owner give it to a group of "
                                                                   "yours, or name another with --run-dir"));
    }

    /// The directory of a device is for the members of a group, by default of one made for that.
    void look_at_group(const std::filesystem::path& directory, const struct stat& status)
    {
        const std::string shown = shell_word(directory);
        if (status.st_gid != 0)
            shared_group_ = status.st_gid;
        if (status.st_gid == 0 && !getgrnam(device_group))
            problem(std::string("there is no group ") + device_group + ", so only root can use the fabric",
                    std::string("make it: `systemd-sysusers`, or `addgroup --system ") + device_group +
                        "`; then `chgrp " + device_group + " " + shown + "`, and start `tarnd` again");
        else if (status.st_gid == 0)
            problem(shown + " belongs to the group " + group_name(0) + ", so only root can use the fabric",
                    std::string("give it to its group: `chgrp ") + device_group + " " + shown +
                        "`, and start `tarnd` again");
        else if ((status.st_mode & S_IRWXG) != S_IRWXG)
            problem(shown + " isn't open to its group, so only root can start services there",
                    "give it its mode: `chmod 3775 " + shown + "`");
    }

    /// How this user joins a group; of root's own group nobody else should be a member.
    static std::string join(gid_t group, const std::string& otherwise)
    {
        if (group == 0)
            return otherwise;
        return "join the group: `adduser " + user_name(geteuid()) + " " + group_name(group) +
               "`, and log in again";
    }

    Served look_at_sockets(const tarn::Fabric& fabric)
    {
        std::vector<std::string> names;
        try {
            names = service_names(fabric.run_time_directory);
        }
        catch (const Failure& failure) {
            problem(failure.what(), "look at its modes above");
            return {};
        }
        for (const std::string& name : names) {
            const auto endpoint = tarn::service_endpoint(fabric, name);
            if (!endpoint)
                problem("no endpoint can be in " + escape((fabric.run_time_directory / name).string()) +
                            ", as a socket's path has " + std::to_string(sizeof(sockaddr_un::sun_path) - 1) +
                            " bytes at most",
                        "give the service a shorter name, or the fabric a shorter directory");
            else
                look_at_socket(name, endpoint, true);
        }
        std::error_code ignored;
        if (!std::filesystem::exists(fabric.router->address(), ignored))
            note("there is no router, so no request reaches a service by its path");
        if (!std::filesystem::exists(fabric.relay_out->address(), ignored))
            note("there is no relay, so nothing that is published here is heard");
        look_at_socket(relay_input, fabric.relay_in, false);
        look_at_socket(relay_output, fabric.relay_out, false);
        return {look_at_endpoint(fabric.router).served, look_at_endpoint(fabric.relay_out).served};
    }

    /// Else it is tarnd's own, which it makes and removes itself.
    static bool is_service(const std::string& name)
    {
        return name != "router" && name != "relay" && name != relay_input && name != relay_output;
    }

    static std::string remove_directory(const std::filesystem::path& socket)
    {
        return "rmdir " + shell_word(socket.parent_path());
    }

    void look_at_socket(const std::string& name, const tarn::Endpoint& endpoint, bool has_index)
    {
        const std::string path = endpoint->address();
        const std::string title = escape(name) + " at " + escape(path);
        struct stat status {};
        const bool is_there = stat(path.c_str(), &status) == 0;
        const auto found = tarn::probe(endpoint);
        const std::string process =
            found.pid ? ", process " + std::to_string(*found.pid) + " " + escape(found.process_name) : "";
        if (found.error == "no such file") {
            if (is_service(name))
                problem(title + ": a directory without a socket, so requests to it get 408",
                        "start the service, or remove the directory: `" + remove_directory(path) + "`");
            return;
        }
        if (found.error == "nobody listens") {
            problem(title + ": a socket that nobody listens at, as its process has ended",
                    is_service(name) ? "start the service again, or remove what it has left: `rm " +
                                           shell_word(path) + " && " + remove_directory(path) + "`"
                                     : "start `tarnd` again, which removes it");
            return;
        }
        if (found.error == "permission denied") {
            std::string text = title + ": you may not connect";
            if (is_there)
                text += "; it is " + owner_text(status);
            const std::string otherwise = is_service(name) ? "let it serve with another mode or group"
                                                           : "start `tarnd` with a --group that you are in";
            may_not_connect_ = true;
            problem(text, is_there && !is_member(status.st_gid) ? join(status.st_gid, otherwise) : otherwise);
            return;
        }
        if (!found.served) {
            problem(title + ": " + found.error, "look at that file");
            return;
        }
        if (has_index) {
            const auto service = services::look_at(name, endpoint, timeout_);
            if (!service.problem.empty()) {
                problem(title + process + ": " + escape(service.problem),
                        service.answers ? "look into the log of that service"
                        : found.pid     ? "look what process " + std::to_string(*found.pid) +
                                          " does; a handler may hang, or it may be stopped"
                                    : "look what its process does");
                return;
            }
        }
        const std::string owner = is_there ? owner_text(status) : "";
        if (is_there && shared_group_ && status.st_gid != *shared_group_ && (status.st_mode & S_IWOTH) == 0)
            problem(title + process + ": " + owner + ", so the members of the directory's group " +
                        group_name(*shared_group_) + " may not connect",
                    is_service(name) ? "start it again, as a member of that group" : "start `tarnd` again");
        else
            note(title + process + ": " + owner);
    }

    const slate::Duration timeout_;
    std::optional<gid_t> shared_group_; ///< of the device's directory, unless it is root's own
    bool may_not_connect_ = false;
    std::vector<Finding> findings_;
};
} // namespace

Command doctor_command()
{
    return {"doctor",
            "find out what is wrong, and what to do about it",
            "Looks at the directories, modes and groups of the device's fabric and of your own, at their "
            "sockets, whether two fabrics are in each other's way, at limits, and at versions. Each problem "
            "has its remedy. The exit status is 1 if there is one.",
            {{"tarn doctor", "what is wrong here"},
             {"tarn doctor --run-dir /tmp/x", "of another fabric"},
             {"sudo -u backup tarn doctor", "as another user sees it"}},
            [](CLI::App& app) {
                const auto place = add_place(app, nullptr);
                const auto timeout = add_timeout(app, "1s");
                auto as_json = std::make_shared<bool>(false);
                app.add_flag("--json", *as_json, "as one JSON array");
                return [=] {
                    Doctor doctor(parse_duration(*timeout, "-t"));
                    const tarn::ZmqSubsystem subsystem;
                    doctor.look_at_versions();
                    doctor.look_at_limits();
                    if (!place->run_time_directory.empty())
                        doctor.look_at_one(place->run_time_directory);
                    else {
                        const auto device = doctor.look_at_fabric(tarn::default_run_time_directory,
                                                                  "the device's fabric", false);
                        const auto own = doctor.look_at_fabric(tarn::personal_run_time_directory().string(),
                                                               "your own fabric", false);
                        doctor.compare(device, own);
                    }
                    return doctor.show(*as_json);
                };
            }};
}
} // namespace tarn_command
