// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <set>
#include <stdexcept>

#include <unistd.h>

#include <CLI/CLI.hpp>

#include <tarn/tarn.h>

#include "help_page.h"

namespace {
help_page::Page make_page(const CLI::App& app)
{
    help_page::Page page;
    page.name = "tarnd";
    page.section = "8";
    page.summary = "the router and the relay of one device, or of one person";
    page.synopsis = "tarnd [OPTION]...";
    page.description =
        "Services put their sockets into a run-time directory, each in a directory of its own. tarnd passes "
        "requests on to them by the first segment of the path, and published changes to everybody who "
        "subscribes. As root it serves the device's directory, /run/tide; for anybody else a directory of "
        "their own, $XDG_RUNTIME_DIR/tarn or /tmp/tarn-<uid>. It runs until SIGINT or SIGTERM.";
    page.options = help_page::options_of(app);
    page.examples = {
        {"tarnd --make-run-dir", "your own fabric, without root"},
        {"tarnd --run-dir /run/tide", "the device's; the directory is there already"},
        {"tarnd --endpoint tcp://127.0.0.1:5555", "the router answers there too"},
        {"tarnd --no-relay", "requests only"},
        {"tarnd --group staff --mode 0770", "who may connect to the sockets"},
    };
    page.exit_statuses = {
        {"0", "ended by a signal"},
        {"1", "it can't serve, and standard error says why"},
        {"2", "wrong arguments"},
    };
    page.see_also = {"tarn(1)", "systemd.service(5)"};
    return page;
}

/// The columns that help is wrapped to; a program in the background has no terminal to ask.
constexpr std::size_t columns = 80;

/// Empty if the text is an endpoint that others can find.
std::string check_public_endpoint(const std::string& text)
{
    if (const auto fault = tarn::check_endpoint(text))
        return *fault;
    const auto endpoint = slate::make_uri(text);
    const std::string address = endpoint->address();
    if (endpoint->scheme() == "ipc") {
        if (address.front() != '/' && address.front() != '@')
            return "\"" + text + "\" has a relative path; write it from the root, as in ipc:///run/x.sock";
        return "";
    }
    if (endpoint->scheme() != "tcp")
        return "\"" + text +
               "\" has neither the scheme ipc nor tcp; write ipc:///run/x.sock or "
               "tcp://127.0.0.1:5555";
    if (address.ends_with(":*"))
        return "\"" + text + "\" has no port number; write it behind a colon, as in tcp://127.0.0.1:5555";
    return "";
}

std::string check_mode(const std::string& text)
{
    const bool is_octal = text.size() >= 3 && text.size() <= 4 &&
                          text.find_first_not_of("01234567") == std::string::npos &&
                          (text.size() == 3 || text.front() == '0');
    return is_octal ? "" : "\"" + text + "\" is not a mode; write three octal digits, such as 770";
}

/// A check that has no text of its own in the help, unlike CLI11's.
std::function<std::string(const std::string&)> in_range(std::uint64_t least, std::uint64_t most)
{
    return [=](const std::string& text) -> std::string {
        std::uint64_t number = 0;
        if (slate::try_parse(std::string_view(text), &number) && number >= least && number <= most)
            return "";
        return "\"" + text + "\" is not a whole number from " + std::to_string(least) + " to " +
               std::to_string(most);
    };
}

std::function<std::string(const std::string&)> one_of(const std::vector<std::string>& words)
{
    return [words](const std::string& text) -> std::string {
        if (std::find(words.begin(), words.end(), text) != words.end())
            return "";
        return "\"" + text + "\" is none of " + slate::join(words, ", ");
    };
}

/// The same directory has the same text then, whatever its spelling.
std::filesystem::path normalise(const std::filesystem::path& directory)
{
    auto result = std::filesystem::absolute(directory).lexically_normal();
    return result.has_filename() ? result : result.parent_path();
}

void finish(Options& options, const std::string& directory, const std::string& mode,
            const std::vector<std::string>& endpoints)
{
    if (!options.has_router && !options.has_relay)
        throw CLI::ValidationError("--no-router and --no-relay together leave nothing to serve; drop one");
    if (!options.has_router && !endpoints.empty())
        throw CLI::ValidationError("--endpoint is for the router; drop it or --no-router");
    if (!mode.empty())
        options.mode = static_cast<mode_t>(std::stoul(mode, nullptr, 8));

    const auto personal = normalise(tarn::personal_run_time_directory());
    if (!directory.empty())
        options.run_time_directory = normalise(directory);
    else
        options.run_time_directory =
            geteuid() == 0 ? std::filesystem::path(tarn::default_run_time_directory) : personal;
    options.is_personal = options.run_time_directory == personal;
    if (options.run_time_directory.native().size() + sizeof "/router/zmq.sock" > 108)
        throw CLI::ValidationError("\"" + options.run_time_directory.string() +
                                   "\" is too long: a socket's path has 107 bytes at most; choose a shorter "
                                   "directory");

    std::set<std::string> taken;
    taken.insert("ipc://" + (options.run_time_directory / "router/zmq.sock").string());
    for (const char* socket : {"relay/zmq.sock", "relay/in.sock", "relay/out.sock"})
        if (options.has_relay)
            taken.insert("ipc://" + (options.run_time_directory / socket).string());
    for (const std::string& text : endpoints) {
        const auto endpoint = slate::make_uri(text);
        if (!taken
                 .insert(endpoint->scheme() + "://" +
                         std::filesystem::path(endpoint->address()).lexically_normal().string())
                 .second)
            throw CLI::ValidationError("\"" + text + "\" is served anyway; drop this --endpoint");
        options.endpoints.push_back(endpoint);
    }
}
} // namespace

std::optional<Options> read_options(int argc, char** argv, int& status)
{
    Options options;
    std::string directory;
    std::string mode;
    std::vector<std::string> endpoints;

    CLI::App app("", "tarnd");
    app.set_help_flag("-h,--help", "Print this help");
    app.set_version_flag("--version", std::string("tarnd ") + TARN_VERSION, "Print the version");
    app.add_option("--run-dir", directory, "The directory of the services' sockets")
        ->type_name("DIRECTORY")
        ->check([](const std::string& text) { // more likely a script's unset variable than the default
            return text.empty() ? std::string("it is empty; name one such as /run/tide") : std::string();
        });
    app.add_flag("--make-run-dir", options.makes_directory, "Make that directory if it is missing");
    app.add_option("-e,--endpoint", endpoints, "Where the router answers too; may be repeated")
        ->type_name("ENDPOINT")
        ->allow_extra_args(false)
        ->check([](const std::string& text) { return check_public_endpoint(text); });
    app.add_flag_callback(
        "--no-router", [&] { options.has_router = false; }, "Serve the relay only");
    app.add_flag_callback(
        "--no-relay", [&] { options.has_relay = false; }, "Serve the router only");
    app.add_option(
           "--group", options.group,
           "The group of the sockets; without it corvane, if there is one and the fabric is no person's")
        ->type_name("NAME");
    app.add_option("--mode", mode,
                   "Who may write to a socket may connect; 775 by default, 700 for a person's fabric")
        ->type_name("OCTAL")
        ->check([](const std::string& text) { return check_mode(text); });
    app.add_option("--max-frame-bytes", options.limits.max_frame_bytes,
                   "Closes the connection of a peer that sends more at once; 134217728 by default")
        ->type_name("BYTES")
        ->check(in_range(1, INT64_MAX));
    app.add_option("--max-transfer-bytes", options.limits.max_transfer_bytes,
                   "A larger body to the router itself gets status 413; 1073741824 by default")
        ->type_name("BYTES")
        ->check(in_range(1, INT64_MAX));
    app.add_option("--high-water-mark", options.limits.high_water_mark,
                   "How many changes wait for a slow subscriber; further ones are lost; 10000 by default")
        ->type_name("CHANGES")
        ->check(in_range(1, INT32_MAX));
    app.add_option("--log-level", options.log_level,
                   "extreme, debug, verbose, info (the default), warn or error")
        ->type_name("LEVEL")
        ->check(one_of({"extreme", "debug", "verbose", "info", "warn", "error"}));
    app.add_option("--log-sink", options.log_sink, "stderr (the default) or journal")
        ->type_name("SINK")
        ->check(one_of({"stderr", "journal"}));
    if (argc == 2 && std::string(argv[1]) == "--write-manual") { // for the build
        std::cout << to_manual(make_page(app));
        return std::nullopt;
    }
    try {
        app.parse(argc, argv);
        finish(options, directory, mode, endpoints);
        return options;
    }
    catch (const CLI::CallForHelp&) {
        std::cout << to_help(make_page(app), columns);
    }
    catch (const CLI::Success& wish) {
        status = app.exit(wish);
    }
    catch (const CLI::Error& error) {
        std::cerr << "tarnd: " << error.what() << "; tarnd --help shows how to write it\n";
        status = 2;
    }
    return std::nullopt;
}
