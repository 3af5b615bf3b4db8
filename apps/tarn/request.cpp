// SPDX-License-Identifier: Apache-2.0
// The five verbs: get, head, put, post and del.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <system_error>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <slate/dictionary.h>
#include <slate/strings.h>
#include <slate/uri.h>
#include <tarn/client.h>
#include <tarn/exception.h>
#include <tarn/formats.h>
#include <tarn/probe.h>
#include <tarn/proto/message.pb.h>
#include <tarn/transfer/download.h>
#include <tarn/transfer/upload.h>
#include <tarn/zmq_subsystem.h>
#include <unistd.h>

#include "command.h"
#include "fabric_choice.h"
#include "failure.h"
#include "options.h"
#include "output/body.h"
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

/// A file that gets its name only when it is whole, so that no broken download is taken for a good one. What
/// isn't a regular file, such as /dev/null, is written directly.
class OutputFile {
public:
    explicit OutputFile(std::string name) : name_(std::move(name))
    {
        std::error_code ignored;
        const auto type = std::filesystem::status(name_, ignored).type();
        is_direct_ =
            type != std::filesystem::file_type::regular && type != std::filesystem::file_type::not_found;
        if (type == std::filesystem::file_type::directory)
            fail(EISDIR);
        written_ = is_direct_ ? name_ : name_ + ".part" + std::to_string(getpid());
        const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (is_direct_ ? 0 : O_EXCL);
        const int descriptor = open(written_.c_str(), flags, 0666);
        file_ = descriptor >= 0 ? fdopen(descriptor, "w") : nullptr;
        if (!file_)
            fail(errno);
    }
    ~OutputFile()
    {
        if (!file_)
            return;
        (void)std::fclose(file_);
        if (!is_direct_)
            (void)std::remove(written_.c_str());
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(std::string_view bytes)
    {
        if (std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size())
            fail(errno);
    }

    void finish()
    {
        FILE* file = std::exchange(file_, nullptr);
        if (std::fclose(file) != 0 || (!is_direct_ && std::rename(written_.c_str(), name_.c_str()) != 0)) {
            const int error = errno;
            if (!is_direct_)
                (void)std::remove(written_.c_str());
            fail(error);
        }
    }

private:
    [[noreturn]] void fail(int error) const
    {
        throw Failure(ExitOther, "cannot write '" + escape(name_) + "': " + reason(error) +
                                     "; name another file with -o");
    }

    std::string name_;
    std::string written_;
    bool is_direct_ = false;
    FILE* file_ = nullptr;
};

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

/// The body of a request: a text, a file or standard input.
class BodySource {
public:
    explicit BodySource(const std::optional<std::string>& argument) : text_(argument.value_or(""))
    {
        if (text_ == "-") {
            stream_ = &std::cin;
            return;
        }
        if (!slate::starts_with(text_, "@"))
            return;
        const std::string name = text_.substr(1);
        std::error_code error;
        if (std::filesystem::is_directory(name, error))
            fail(name, EISDIR);
        file_.open(name, std::ios::binary);
        if (!file_)
            fail(name, errno);
        stream_ = &file_;
        if (const auto size = std::filesystem::file_size(name, error); !error)
            size_ = size;
    }

    std::istream* stream() { return stream_; }
    const std::string& text() const { return text_; }
    std::optional<std::uint64_t> size() const { return size_; }

private:
    [[noreturn]] static void fail(const std::string& name, int error)
    {
        throw Failure(ExitUsage, "cannot read the body from '" + escape(name) + "': " + reason(error) +
                                     "; name a file behind the '@', or '-' for standard input");
    }

    std::string text_;
    std::ifstream file_;
    std::istream* stream_ = nullptr;
    std::optional<std::uint64_t> size_;
};

class RequestRun {
public:
    RequestRun(std::string verb, const RequestOptions& options)
        : verb_(std::move(verb)),
          options_(options),
          path_(parse_path(options.path)),
          timeout_(parse_duration(*options.timeout, "-t")),
          headers_(parse_headers(options.headers)),
          source_(options.body),
          target_(choose_target(*options.place, &tarn::Fabric::router, "router")),
          output_(options)
    {
    }

    int run()
    {
        require_served(target_.endpoint, "the endpoint", timeout_, options_.retries);
        tarn::ZmqSubsystem subsystem;
        const slate::StopWatch watch(true);
        const auto reply = exchange(tarn::make_client(target_.endpoint, options_.retries));
        elapsed_ = static_cast<double>(watch.elapsed()) / 1000;
        progress_.reset();
        const int status = exit_status_of(*reply, target_.endpoint);
        show(*reply, status);
        if (status != ExitGood)
            throw Failure(status, explain(*reply, target_, path_));
        return status;
    }

private:
    std::shared_ptr<tarn::Reply> exchange(const std::shared_ptr<tarn::Client>& client)
    {
        try {
            if (verb_ == "get")
                return download(client);
            auto reply = send(client);
            if (verb_ != "head" && reply->message && reply->has_body() &&
                exit_status_of(*reply, target_.endpoint) == ExitGood)
                output_.write(reply->data());
            return reply;
        }
        catch (const tarn::Exception& error) {
            throw bad_path(error);
        }
        catch (const std::out_of_range& error) {
            throw bad_path(error);
        }
    }

    Failure bad_path(const std::exception& error) const
    {
        return {ExitUsage, "'" + escape(path_) + "' is not a path: " + escape(error.what()) +
                               "; write one such as /clock/time or '/clock/time?format=json'"};
    }

    std::shared_ptr<tarn::Reply> send(const std::shared_ptr<tarn::Client>& client)
    {
        if (verb_ == "head")
            return client->head(path_, headers_, timeout_);
        if (verb_ == "del")
            return client->del(path_, headers_, timeout_);
        if (source_.stream())
            return upload(client);
        return verb_ == "put" ? client->put(path_, source_.text(), headers_, timeout_)
                              : client->post(path_, source_.text(), headers_, timeout_);
    }

    std::shared_ptr<tarn::Reply> upload(const std::shared_ptr<tarn::Client>& client)
    {
        progress_.emplace(source_.size(), true);
        tarn::UploadOptions upload;
        upload.verb = verb_ == "put" ? tarn::UploadOptions::Verb::Put : tarn::UploadOptions::Verb::Post;
        upload.chunk_timeout = timeout_;
        upload.last_timeout = std::max(timeout_, upload.last_timeout); // which runs the handler
        upload.progress = [this](std::uint64_t bytes) { progress_->show(bytes); };
        return tarn::upload(client, path_, *source_.stream(), headers_, upload).reply;
    }

    std::shared_ptr<tarn::Reply> download(const std::shared_ptr<tarn::Client>& client)
    {
        progress_.emplace(std::nullopt, output_.is_file() || !is_terminal(STDOUT_FILENO));
        tarn::DownloadOptions options;
        options.chunk_timeout = timeout_;
        options.progress = [this](std::uint64_t bytes) { progress_->show(bytes); };
        tarn::Download download(client, path_, headers_, options);
        while (const auto chunk = download.read())
            output_.write(*chunk);
        return download.result().reply;
    }

    void show(const tarn::Reply& reply, int status)
    {
        if (options_.as_json)
            write_out(to_line(object_of(reply, status)) + "\n");
        else if (reply.message &&
                 (verb_ == "head" ? status == ExitGood || options_.with_head : options_.with_head))
            show_head(reply);
        if (status == ExitGood && !options_.as_json)
            output_.finish(path_, reply.format());
        else if (status == ExitGood && output_.is_file())
            output_.finish(path_, reply.format());
        flush_out();
    }

    void show_head(const tarn::Reply& reply)
    {
        if (options_.with_head) {
            const std::string message = escape(reply.status_message());
            write_out(paint(status_text(reply), reply.good() ? Colour::Green : Colour::Red) +
                      (message.empty() ? "" : ": " + message) + "\n");
        }
        for (const auto& header : reply.head().headers())
            write_out(paint(escape(header.key()), Colour::Cyan) + ": " + escape(header.value()) + "\n");
        if (const std::string type = tarn::to_mime_type(reply.format());
            options_.with_head && !type.empty() && !reply.has_header("Content-Type"))
            write_out(paint("Content-Type", Colour::Cyan) + ": " + type + "\n");
        if (options_.with_head && verb_ != "head")
            write_out("\n");
    }

    nlohmann::ordered_json object_of(const tarn::Reply& reply, int status)
    {
        nlohmann::ordered_json object;
        object["verb"] = verb_;
        object["path"] = path_;
        object["endpoint"] = target_.endpoint->to_string();
        object["exit"] = status;
        object["milliseconds"] = elapsed_;
        if (!reply.message)
            return object;
        object["status"] = static_cast<int>(reply.status());
        object["reason"] = tarn::Status_Name(reply.status());
        object["message"] = reply.status_message();
        object["local"] = reply.is_local();
        if (reply.head().from().pid() != 0 && !reply.is_local())
            object["pid"] = reply.head().from().pid();
        object["headers"] = nlohmann::ordered_json::object();
        for (const auto& header : reply.head().headers())
            object["headers"][header.key()] = header.value();
        object["format"] = tarn::to_mime_type(reply.format());
        if (output_.is_file()) {
            object["bytes"] = output_.size();
            object["file"] = options_.file;
        }
        else
            add_body(object, path_, reply.format(),
                     status != ExitGood && reply.has_body() ? reply.data() : output_.kept());
        return object;
    }

    const std::string verb_;
    const RequestOptions& options_;
    const std::string path_;
    const slate::Duration timeout_;
    const std::shared_ptr<slate::Dictionary> headers_;
    BodySource source_;
    const Target target_;
    BodyOutput output_;
    std::optional<Progress> progress_;
    double elapsed_ = 0;
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
    app.add_option("-H,--header", options->headers, "adds a header, such as 'Accept: application/json'")
        ->type_name("'KEY: VALUE'")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    options->timeout = add_timeout(app);
    app.add_option("-r,--retries", options->retries,
                   "how many more times to wait, for the endpoint to be served and for the answer")
        ->type_name("N")
        ->check(whole_number());
    app.add_option(
           "-o,--output", options->file,
           "writes the body to a file, which appears when it is whole; '-' is standard output, also for "
           "what a terminal can't show")
        ->type_name("FILE");
    app.add_flag("-i,--include", options->with_head, "shows status and headers before the body");
    app.add_flag("--json", options->as_json, "prints one JSON object with status, headers and body");
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
         {"tarn put /offset -- -5", "a body that begins with '-'"}});
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
