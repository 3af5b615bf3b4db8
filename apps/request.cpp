// SPDX-License-Identifier: Apache-2.0
// One request from the command line:
//
//   tarn_request [-t SECONDS] [-H KEY:VALUE]... ENDPOINT VERB PATH [BODY]
//
//   tarn_request ipc:///run/tide/router.sock get /status/uptime
//   tarn_request -H accept:application/json ipc:///run/tide/router.sock get /status/memory
//   tarn_request ipc:///run/tide/router.sock put /files/drop/photo.jpg - <photo.jpg
//
// VERB is get, head, put, post or delete. A BODY of "-" is read from standard input and sent in chunks. The
// body of a good reply goes to standard output; the status and text of a bad one go to standard error.
// Exit status: 0 for a good reply, 1 for any other, 2 for a request that can't be made.

#include <exception>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>

#include <unistd.h>

#include <tarn/tarn.h>

namespace {
struct Arguments {
    std::shared_ptr<const slate::Uri> endpoint;
    std::string verb;
    std::string path;
    std::string body;
    std::shared_ptr<slate::Dictionary> headers = slate::make_dictionary();
    slate::Duration timeout = tarn::default_timeout();
};

constexpr const char* usage = "usage: tarn_request [-t SECONDS] [-H KEY:VALUE]... ENDPOINT VERB PATH [BODY]";

void read_option(int option, Arguments& arguments)
{
    if (option == '?') // getopt has printed what is wrong with it
        throw std::invalid_argument(usage);
    if (option == 't') {
        long seconds = 0;
        if (!slate::try_parse(std::string_view(optarg), &seconds) || seconds < 0)
            throw std::invalid_argument("not a number of seconds: " + std::string(optarg));
        arguments.timeout = slate::Seconds(seconds);
        return;
    }
    const std::string header = optarg;
    const std::size_t colon = header.find(':');
    if (colon == std::string::npos)
        throw std::invalid_argument("not a header of the form KEY:VALUE: " + header);
    arguments.headers->set(header.substr(0, colon), std::string_view(header).substr(colon + 1));
}

Arguments read(int argc, char** argv)
{
    Arguments arguments;
    for (int option = getopt(argc, argv, "+t:H:"); option != -1; option = getopt(argc, argv, "+t:H:"))
        read_option(option, arguments);
    if (argc - optind < 3 || argc - optind > 4)
        throw std::invalid_argument(usage);

    arguments.endpoint = slate::make_uri(argv[optind]);
    if (!arguments.endpoint)
        throw std::invalid_argument("not an endpoint: " + std::string(argv[optind]));
    arguments.verb = argv[optind + 1];
    arguments.path = argv[optind + 2];
    arguments.body = argc - optind == 4 ? argv[optind + 3] : "";
    return arguments;
}

/// Standard input as the body, in chunks. The service may take longer for the last one, which runs its
/// handler.
std::shared_ptr<tarn::Reply> upload_input(const std::shared_ptr<tarn::Client>& client,
                                          const Arguments& arguments)
{
    tarn::UploadOptions options;
    options.verb = arguments.verb == "put" ? tarn::UploadOptions::Verb::Put : tarn::UploadOptions::Verb::Post;
    options.chunk_timeout = arguments.timeout;
    options.last_timeout = std::max(arguments.timeout, options.last_timeout);
    return tarn::upload(client, arguments.path, std::cin, arguments.headers, options).reply;
}

/// Makes the request. For get, the reply's body is printed as it arrives, chunk by chunk. Throws
/// std::invalid_argument for an unknown verb.
std::shared_ptr<tarn::Reply> exchange(const std::shared_ptr<tarn::Client>& client, const Arguments& arguments)
{
    const auto& [endpoint, verb, path, body, headers, timeout] = arguments;
    if ((verb == "put" || verb == "post") && body == "-")
        return upload_input(client, arguments);
    if (verb == "get")
        return tarn::download(client, path, std::cout, headers, {.chunk_timeout = timeout}).reply;
    if (verb == "head")
        return client->head(path, headers, timeout);
    if (verb == "put")
        return client->put(path, body, headers, timeout);
    if (verb == "post")
        return client->post(path, body, headers, timeout);
    if (verb == "delete")
        return client->del(path, headers, timeout);
    throw std::invalid_argument("not a verb: " + verb);
}

void show(const tarn::Reply& reply, const std::string& verb)
{
    if (reply.bad()) {
        std::cerr << "tarn_request: " << static_cast<int>(reply.status()) << " "
                  << tarn::Status_Name(reply.status())
                  << (reply.status_message().empty() ? "" : ": " + reply.status_message()) << "\n";
        return;
    }
    if (verb == "head") {
        for (const auto& header : reply.head().headers())
            std::cout << header.key() << ": " << header.value() << "\n";
        return;
    }
    if (verb != "get" && reply.message->response().has_body())
        std::cout << reply.data();
    if (isatty(STDOUT_FILENO)) // so that the prompt starts on a line of its own
        std::cout << "\n";
}
} // namespace

int main(int argc, char** argv)
{
    slate::set_log_sinks({}); // the reply tells what went wrong
    try {
        const Arguments arguments = read(argc, argv);
        tarn::ZmqSubsystem subsystem;
        const auto client = tarn::make_client(arguments.endpoint, 0);
        const auto reply = exchange(client, arguments);
        show(*reply, arguments.verb);
        std::cout.flush();
        return reply->good() && std::cout ? 0 : 1;
    }
    catch (const std::exception& error) {
        std::cerr << "tarn_request: " << error.what() << "\n";
        return 2;
    }
}
