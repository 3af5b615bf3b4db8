// SPDX-License-Identifier: Apache-2.0
// The five verbs: get, head, put, post and del.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <slate/dictionary.h>
#include <slate/strings.h>
#include <slate/uri.h>
#include <tarn/client.h>
#include <tarn/formats.h>
#include <tarn/probe.h>
#include <tarn/proto/message.pb.h>
#include <tarn/transfer/download.h>
#include <tarn/transfer/upload.h>
#include <tarn/zmq_subsystem.h>
#include <unistd.h>

#include "body_source.h"
#include "command.h"
#include "fabric_choice.h"
#include "failure.h"
#include "options.h"
#include "output/body.h"
#include "output/file.h"
#include "output/json.h"
#include "output/progress.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
constexpr std::size_t max_terminal_bytes = 8 * 1024 * 1024;

struct RequestOptions {
    std::shared_ptr<Place> place;
    std::shared_ptr<std::string> timeout;
    std::string path;
    std::optional<std::string> body;
    std::vector<std::string> headers;
    unsigned int retries = 0;
    std::string file; // empty: standard output
    bool with_head = false;
    bool as_json = false;
};

std::string reason(int error)
{
    return std::generic_category().message(error);
}

/// Where the body of a reply goes while it arrives.
class BodyOutput {
public:
    explicit BodyOutput(const RequestOptions& options) : is_forced_(options.file == "-")
    {
        if (!options.file.empty() && !is_forced_)
            file_.emplace(options.file);
        else if (options.as_json || (is_terminal(STDOUT_FILENO) && !is_forced_))
            keeps_ = true;
        else if (options.with_head) { // which comes first, but is known last
            spool_.reset(std::tmpfile());
            if (!spool_)
                throw Failure(ExitOther, "cannot make a temporary file: " + reason(errno) + "; use -o");
        }
        limit_ = options.as_json ? std::string().max_size() : max_terminal_bytes;
    }

    void write(std::string_view bytes)
    {
        size_ += bytes.size();
        if (file_)
            file_->write(bytes);
        else if (spool_) {
            if (std::fwrite(bytes.data(), 1, bytes.size(), spool_.get()) != bytes.size())
                throw Failure(ExitOther, "cannot write a temporary file: " + reason(errno) + "; use -o");
        }
        else if (!keeps_)
            write_out(bytes);
        else if (kept_.size() + bytes.size() > limit_)
            throw Failure(ExitOther, "the body has more than " +
                                         bytes_text(static_cast<double>(max_terminal_bytes)) +
                                         ", too much for a terminal; write it to a file with -o");
        else
            kept_ += bytes;
    }

    /// Ends the output of a good reply's body.
    void finish(std::string_view path, tarn::Format format)
    {
        if (file_)
            file_->finish();
        else if (spool_)
            copy_spool();
        else if (keeps_)
            show(path, format);
    }

    const std::string& kept() const { return kept_; }
    bool is_file() const { return file_.has_value(); }
    std::size_t size() const { return size_; }

private:
    void copy_spool()
    {
        std::rewind(spool_.get());
        std::array<char, 65536> piece{};
        while (const auto size = std::fread(piece.data(), 1, piece.size(), spool_.get()))
            write_out({piece.data(), size});
    }

    void show(std::string_view path, tarn::Format format)
    {
        if (kept_.empty())
            return;
        const auto text = readable(path, format, kept_);
        if (!text)
            throw Failure(ExitOther, "the body is binary (" + bytes_text(static_cast<double>(kept_.size())) +
                                         "), and a terminal can't show it; write it to a file with -o, or "
                                         "into a pipe");
        write_out(*text);
        if (!slate::ends_with(*text, "\n")) // so that the prompt starts on a line of its own
            write_out("\n");
    }

    struct Close {
        void operator()(FILE* file) const { (void)std::fclose(file); }
    };

    bool is_forced_;
    bool keeps_ = false;
    std::size_t limit_ = 0;
    std::size_t size_ = 0;
    std::string kept_;
    std::optional<OutputFile> file_;
    std::unique_ptr<FILE, Close> spool_;
};

class RequestRun {
public:
    RequestRun(std::string verb, const RequestOptions& options)
        : verb_(std::move(verb)),
          options_(options),
          path_(parse_path(options.path)),
          timeout_(parse_duration(*options.timeout, "-t")),
          headers_(parse_headers(options.headers)),
          object_{{"verb", verb_}, {"path", path_}, {"endpoint", nullptr}, {"exit", nullptr}}
    {
    }

    int run()
    {
        return print_object(options_.as_json, object_, [this] { return request(); });
    }

private:
    int request()
    {
        source_.emplace(options_.body);
        target_ =
            wait_for_target(*options_.place, &tarn::Fabric::router, "router", timeout_, options_.retries);
        object_["endpoint"] = target_->endpoint->to_string();
        output_.emplace(options_);
        require_served(target_->endpoint, "the endpoint", timeout_, options_.retries);
        tarn::ZmqSubsystem subsystem;
        const slate::StopWatch watch(true);
        const auto reply = exchange(tarn::make_client(target_->endpoint, options_.retries));
        object_["milliseconds"] = static_cast<double>(watch.elapsed()) / 1000;
        progress_.reset();
        const int status = exit_status_of(*reply, target_->endpoint);
        show(*reply, status == ExitGood);
        if (status != ExitGood)
            throw Failure(status, explain(*reply, *target_, path_));
        return status;
    }

    std::shared_ptr<tarn::Reply> exchange(const std::shared_ptr<tarn::Client>& client)
    {
        if (verb_ == "get")
            return download(client);
        auto reply = send(client);
        if (verb_ != "head" && reply->message && reply->has_body() &&
            exit_status_of(*reply, target_->endpoint) == ExitGood)
            output_->write(reply->data());
        return reply;
    }

    std::shared_ptr<tarn::Reply> send(const std::shared_ptr<tarn::Client>& client)
    {
        if (verb_ == "head")
            return client->head(path_, headers_, timeout_);
        if (verb_ == "del")
            return client->del(path_, headers_, timeout_);
        if (source_->stream())
            return upload(client);
        return verb_ == "put" ? client->put(path_, source_->text(), headers_, timeout_)
                              : client->post(path_, source_->text(), headers_, timeout_);
    }

    std::shared_ptr<tarn::Reply> upload(const std::shared_ptr<tarn::Client>& client)
    {
        progress_.emplace(source_->size(), true);
        tarn::UploadOptions upload;
        upload.verb = verb_ == "put" ? tarn::UploadOptions::Verb::Put : tarn::UploadOptions::Verb::Post;
        upload.chunk_timeout = timeout_;
        upload.last_timeout = std::max(timeout_, upload.last_timeout); // which runs the handler
        upload.progress = [this](std::uint64_t bytes) { progress_->show(bytes); };
        return tarn::upload(client, path_, *source_->stream(), headers_, upload).reply;
    }

    std::shared_ptr<tarn::Reply> download(const std::shared_ptr<tarn::Client>& client)
    {
        progress_.emplace(std::nullopt, output_->is_file() || !is_terminal(STDOUT_FILENO));
        tarn::DownloadOptions options;
        options.chunk_timeout = timeout_;
        options.progress = [this](std::uint64_t bytes) { progress_->show(bytes); };
        tarn::Download download(client, path_, headers_, options);
        while (const auto chunk = download.read())
            output_->write(*chunk);
        return download.result().reply;
    }

    void show(const tarn::Reply& reply, bool is_good)
    {
        const bool wants_head = verb_ == "head" ? is_good || options_.with_head : options_.with_head;
        if (options_.as_json)
            fill_object(reply, is_good);
        else if (reply.message && wants_head)
            show_head(reply);
        if (is_good && (!options_.as_json || output_->is_file()))
            output_->finish(path_, reply.format());
        flush_out();
    }

    /// With the type of the body, which travels as a number.
    static std::vector<std::pair<std::string, std::string>> headers_of(const tarn::Reply& reply)
    {
        std::vector<std::pair<std::string, std::string>> headers;
        for (const auto& header : reply.head().headers())
            headers.emplace_back(header.key(), header.value());
        if (std::string type = tarn::to_mime_type(reply.format());
            !type.empty() && !reply.has_header("Content-Type"))
            headers.emplace_back("Content-Type", std::move(type));
        return headers;
    }

    void show_head(const tarn::Reply& reply)
    {
        if (options_.with_head) {
            const std::string message = escape(reply.status_message());
            write_out(paint(status_text(reply), reply.good() ? Colour::Green : Colour::Red) +
                      (message.empty() ? "" : ": " + message) + "\n");
        }
        for (const auto& [key, value] : headers_of(reply))
            write_out(paint(escape(key), Colour::Cyan) + ": " + escape(value) + "\n");
        if (options_.with_head && verb_ != "head")
            write_out("\n");
    }

    void fill_object(const tarn::Reply& reply, bool is_good)
    {
        if (!reply.message)
            return;
        object_["status"] = static_cast<int>(reply.status());
        object_["reason"] = tarn::Status_Name(reply.status());
        object_["message"] = reply.status_message();
        object_["local"] = reply.is_local();
        if (reply.head().from().pid() != 0 && !reply.is_local())
            object_["pid"] = reply.head().from().pid();
        object_["headers"] = nlohmann::ordered_json::object();
        for (const auto& [key, value] : headers_of(reply))
            object_["headers"][key] = value;
        object_["format"] = tarn::to_mime_type(reply.format());
        if (!is_good)
            add_body(object_, path_, reply.format(), reply.has_body() ? reply.data() : "");
        else if (output_->is_file()) {
            object_["bytes"] = output_->size();
            object_["file"] = options_.file;
        }
        else
            add_body(object_, path_, reply.format(), output_->kept());
    }

    const std::string verb_;
    const RequestOptions& options_;
    const std::string path_;
    const slate::Duration timeout_;
    const std::shared_ptr<slate::Dictionary> headers_;
    nlohmann::ordered_json object_; // for --json
    std::optional<BodySource> source_;
    std::optional<Target> target_;
    std::optional<BodyOutput> output_;
    std::optional<Progress> progress_;
};

std::function<int()> add_request(CLI::App& app, const std::string& verb)
{
    auto options = std::make_shared<RequestOptions>();
    app.add_option("PATH", options->path,
                   "what it is about, such as /clock/time or '/clock/time?format=json'")
        ->required();
    if (verb == "put" || verb == "post")
        app.add_option("BODY", options->body,
                       "the body: a text, @FILE for a file's contents, or - for standard input");
    options->place = add_place(app, request_endpoint);
    add_headers(app, options->headers);
    options->timeout = add_timeout(app);
    app.add_option("-r,--retries", options->retries,
                   "how many more times to wait, for the endpoint to be served and for the answer")
        ->type_name("N")
        ->check(whole_number());
    if (verb != "head") // which has no body
        app.add_option("-o,--output", options->file,
                       "writes the body to a file, which appears when it is whole; '-' is standard output, "
                       "also for what a terminal can't show")
            ->check(not_empty("photo.jpg"))
            ->type_name("FILE");
    app.add_flag("-i,--include", options->with_head, "shows status and headers before the body");
    app.add_flag("--json", options->as_json,
                 "prints one JSON object with status, headers and body, also after a failure");
    return [=] { return RequestRun(verb, *options).run(); };
}

Command request_command(const std::string& verb, const std::string& summary, const std::string& description,
                        const std::vector<Example>& examples)
{
    return {verb, summary, description, examples, [=](CLI::App& app) { return add_request(app, verb); }};
}
} // namespace

Command get_command()
{
    return request_command(
        "get", "fetch what is at a path",
        "Prints the body of a good reply as it arrives, whatever its size. On a terminal JSON is indented, "
        "control characters are made visible, and binary is refused; a pipe or a file gets every byte as it "
        "came. What went wrong is one sentence on standard error.",
        {{"tarn get /clock/time", "from the service clock of this device"},
         {"tarn get -H 'Accept: application/json' /machine/memory", "as JSON"},
         {"tarn get -e ./x.sock /index", "from one socket, without a router"},
         {"tarn get -o photo.jpg /camera/photo", "into a file"},
         {"tarn get --json /clock/time | jq .status", "for a script"}});
}

Command head_command()
{
    return request_command(
        "head", "fetch the headers only",
        "Prints the headers of a good reply, and with -i its status before them.",
        {{"tarn head /clock/time", "its headers"}, {"tarn head -i /clock/time", "with the status"}});
}

Command put_command()
{
    return request_command(
        "put", "set what is at a path",
        "Sends a body, and prints that of the reply. A file and standard input are sent in chunks of 1 MiB, "
        "so they may have any size; -t then is for each chunk, and at least a minute for the last one.",
        {{"tarn put /clock/zone UTC", "a text"},
         {"tarn put /files/drop/photo.jpg @photo.jpg", "a file"},
         {"tar c logs | tarn put /files/drop/logs.tar -", "standard input"},
         {"tarn put -H 'Content-Type: application/json' /x '{\"a\": 1}'", "JSON"},
         {"tarn put /offset -- -5", "a body that begins with '-'"},
         {"printf @home | tarn put /nickname -", "a body that begins with '@'"}});
}

Command post_command()
{
    return request_command(
        "post", "send something to a path", "Like put, with the verb POST, for what isn't idempotent.",
        {{"tarn post /printer/jobs @page.pdf", "a file"}, {"tarn post /door/open", "without a body"}});
}

Command del_command()
{
    return request_command("del", "delete what is at a path", "Sends DELETE. Its other name is delete.",
                           {{"tarn del /settings/location", "back to the default"}});
}
} // namespace tarn_command
