// SPDX-License-Identifier: Apache-2.0
// A remote call by number.

#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <slate/encoding.h>
#include <slate/strings.h>
#include <slate/uri.h>
#include <tarn/client.h>
#include <tarn/proto/message.pb.h>
#include <tarn/zmq_subsystem.h>

#include "command.h"
#include "fabric_choice.h"
#include "failure.h"
#include "options.h"
#include "output/body.h"
#include "output/json.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
/// What the server has returned. Throws Failure if it is an error.
std::vector<google::protobuf::Any> fetch_values(const Target& target, unsigned int number,
                                                const slate::Duration& timeout)
{
    require_served(target.endpoint, "the server");
    tarn::ZmqSubsystem subsystem;
    const auto message = std::make_shared<tarn::Message>();
    message->mutable_call()->mutable_select()->set_method_number(number);
    const auto reply = tarn::make_client(target.endpoint, 0)->send(tarn::Request(message), timeout);
    const std::string what = "call " + std::to_string(number);
    const int status = exit_status_of(*reply, target.endpoint);
    if (status != ExitGood) {
        // A call without a result has no status, but it was answered.
        const bool is_answered =
            reply->message && reply->message->has_call() && !reply->message->call().has_result();
        if (!is_answered)
            throw Failure(status, reply->is_local() || !reply->message
                                      ? explain(*reply, target, what)
                                      : what + ": " + status_text(*reply) + ", " +
                                            escape(reply->status_message()) +
                                            "; ask the service which numbers it takes");
    }
    const auto& values = reply->message->call().result().value();
    return {values.begin(), values.end()};
}

int call(const std::string& endpoint_text, const std::string& number_text, const slate::Duration& timeout,
         bool as_json)
{
    unsigned int number = 0;
    if (!slate::try_parse(number_text, &number))
        throw Failure(ExitUsage,
                      "'" + brief(number_text) + "' is not the number of a call; write one such as 200");
    const Target target = {parse_endpoint(endpoint_text), std::nullopt};
    nlohmann::ordered_json object = {
        {"number", number}, {"endpoint", target.endpoint->to_string()}, {"exit", nullptr}};
    return print_object(as_json, object, [&] {
        const auto values = fetch_values(target, number, timeout);
        object["values"] = nlohmann::ordered_json::array();
        for (const auto& value : values) {
            object["values"].push_back({{"type", value.type_url()},
                                        {"text", any_text(value)},
                                        {"base64", slate::encode_base64(value.value())}});
            if (!as_json)
                write_out(escape(any_text(value)) + "\n");
        }
        return static_cast<int>(ExitGood);
    });
}
} // namespace

Command call_command()
{
    return {"call",
            "make a remote call by number",
            "Calls a function of a server by its number, without arguments, and prints the values that it "
            "returns: as text where their type is known, else their type and size. Calls go straight to a "
            "server; routers don't pass them on.",
            {{"tarn call /run/tide/clock/zmq.sock 200", "function 200 of the server at that socket"}},
            [](CLI::App& app) {
                auto endpoint = std::make_shared<std::string>();
                auto number = std::make_shared<std::string>();
                auto as_json = std::make_shared<bool>(false);
                app.add_option("ENDPOINT", *endpoint, "the server: a URI or a socket's path")->required();
                app.add_option("NUMBER", *number, "of the function")->required();
                const auto timeout = add_timeout(app);
                app.add_flag("--json", *as_json, "as one JSON object, also after a failure");
                return [=] { return call(*endpoint, *number, parse_duration(*timeout, "-t"), *as_json); };
            }};
}
} // namespace tarn_command
