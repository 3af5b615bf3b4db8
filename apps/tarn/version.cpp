// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>
#include <google/protobuf/stubs/common.h>
#include <nlohmann/json.hpp>
#include <tarn/zmq_subsystem.h>

#include "command.h"
#include "output/body.h"
#include "output/json.h"

namespace tarn_command {
namespace {
int show_version(bool as_json)
{
    const std::string protobuf = google::protobuf::internal::VersionString(GOOGLE_PROTOBUF_VERSION);
    if (as_json)
        write_out(
            to_line(
                {{"tarn", TARN_VERSION}, {"zeromq", tarn::ZmqSubsystem::version()}, {"protobuf", protobuf}}) +
            "\n");
    else
        write_out("tarn " TARN_VERSION ", with ZeroMQ " + tarn::ZmqSubsystem::version() + " and protobuf " +
                  protobuf + "\n");
    return ExitGood;
}
} // namespace

Command version_command()
{
    return {"version",
            "the versions of this program and of what it stands on",
            "Prints the version of tarn, and the versions of ZeroMQ and protobuf that it was built with.",
            {{"tarn version", "for a report of a problem"}},
            [](CLI::App& app) {
                auto as_json = std::make_shared<bool>(false);
                app.add_flag("--json", *as_json, "as one JSON object");
                return [=] { return show_version(*as_json); };
            }};
}
} // namespace tarn_command
