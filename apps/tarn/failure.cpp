// SPDX-License-Identifier: Apache-2.0
#include "failure.h"

#include <slate/strings.h>
#include <slate/uri.h>
#include <tarn/probe.h>
#include <tarn/proto/message.pb.h>
#include <tarn/proto/status.pb.h>

#include "command.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
/// What to do about a status and its text, for a request to that path.
std::string remedy(int status, const std::string& text, const std::string& path)
{
    const std::string who = "`tarn who " + path + "`";
    // Which no time would mend.
    if (status == 408 && (slate::contains(text, "no such file") || slate::contains(text, "nobody listens")))
        return "start the service";
    if (status == 408 && slate::contains(text, "permission denied"))
        return "look at the modes and groups with `tarn doctor`";
    switch (status) {
    case 400:
        return who + " shows the route; check the body and the parameters";
    case 404:
        return who + " shows where it ends, and `tarn index` what there is";
    case 405:
        return who + " shows which verbs it takes";
    case 408:
        return "allow more time with -t, or see with " + who + " where it ends";
    case 413:
        return "send less, or raise the limits of the service";
    case 501:
        return who + " shows which verbs it takes";
    case 502:
    case 503:
        return "`tarn services` shows which services answer";
    default:
        return status >= 500 ? "the log of the service tells more" : "the service wants another request";
    }
}
/// Nothing came, for whatever reason: a look at the endpoint tells more than the reply, such as the process.
bool is_silence(tarn::LocalCause cause)
{
    return cause == tarn::LocalCause::NoSuchEndpoint || cause == tarn::LocalCause::NotAllowed ||
           cause == tarn::LocalCause::NoAnswerInTime;
}
} // namespace

int exit_status_of(const tarn::Reply& reply, const tarn::Endpoint& endpoint)
{
    if (!reply.message)
        return ExitOther;
    const int status = reply.status();
    if (is_silence(reply.local_cause())) {
        const bool is_far = endpoint->scheme() == "tcp"; // the client has looked; and a look takes time
        const bool is_there = is_far ? reply.local_cause() == tarn::LocalCause::NoAnswerInTime
                                     : !is_unreachable(look_at_endpoint(endpoint));
        return is_there ? ExitTimeout : ExitUnreachable;
    }
    if (reply.is_local())
        return ExitOther;
    if (status >= 200 && status < 400)
        return ExitGood;
    if (status == 408)
        return ExitTimeout;
    if (status >= 400 && status < 500)
        return ExitClientError;
    return status >= 500 && status < 600 ? ExitServerError : ExitOther;
}

std::string status_text(const tarn::Reply& reply)
{
    const std::string name = tarn::Status_Name(reply.status());
    return std::to_string(static_cast<int>(reply.status())) + (name.empty() ? "" : " " + name);
}

std::string explain(const tarn::Reply& reply, const Target& target, const std::string& path)
{
    const std::string where = escape(target.endpoint->to_string());
    const std::string what = brief(path);
    if (!reply.message)
        return what + ": the answer from " + where + " isn't a message; check that a service listens there";
    if (is_silence(reply.local_cause())) {
        const bool is_far = target.endpoint->scheme() == "tcp";
        const auto found = tarn::probe(target.endpoint, slate::Milliseconds(is_far ? 200 : 1000));
        if (is_unreachable(found))
            return what + ": nobody can be reached at " + where + ": " + found.error + "; " +
                   advice(found.error, target.endpoint);
        if (!found.served)
            return what + ": 408, nothing answers at " + where +
                   "; check the address and the network, or allow more time with -t";
        return what + ": 408, somebody listens at " + where +
               (found.pid ? " (" + escape(tarn::describe_server(found)) + ")" : "") +
               " but doesn't answer in time; allow more time with -t, or look at that process";
    }
    std::string text = what + ": " + status_text(reply);
    if (!reply.status_message().empty())
        text += ", " + escape(reply.status_message());
    if (reply.is_local() || (reply.status() == tarn::Status::NotFound && !reply.status_message().empty()))
        return text; // which says it already
    return text + "; " +
           remedy(reply.status(), reply.status_message(), brief(path.substr(0, path.find('?'))));
}
} // namespace tarn_command
