// SPDX-License-Identifier: Apache-2.0
// Redirects protobuf's own log lines (about invalid UTF-8 in a text, for example) from standard error to the
// log, as soon as the library is loaded.
#include <google/protobuf/stubs/common.h>

#if GOOGLE_PROTOBUF_VERSION >= 4022000
// Protobuf 22.0 and later logs through Abseil.
#define TARN_PROTOBUF_LOGS_THROUGH_ABSEIL 1
#include <absl/log/globals.h>
#include <absl/log/log_sink.h>
#include <absl/log/log_sink_registry.h>
#else
#define TARN_PROTOBUF_LOGS_THROUGH_ABSEIL 0
#include <google/protobuf/stubs/logging.h>
#endif

#include "slate/log.h"

namespace tarn_internal {
namespace {
#if TARN_PROTOBUF_LOGS_THROUGH_ABSEIL
class SlateSink : public absl::LogSink {
public:
    void Send(const absl::LogEntry& entry) override
    {
        const slate::SourceLine line(entry.source_basename().data(), entry.source_line());
        const std::string_view text(entry.text_message().data(), entry.text_message().size());
        switch (entry.log_severity()) {
        case absl::LogSeverity::kInfo:
            slate::log_info(line, "protobuf: ", text);
            break;
        case absl::LogSeverity::kWarning:
            slate::log_warn(line, "protobuf: ", text);
            break;
        default:
            slate::log_error(line, "protobuf: ", text);
        }
    }
};

void redirect()
{
    // Never removed, because protobuf may log until the process ends.
    static auto* const sink = new SlateSink;
    absl::AddLogSink(sink);
    absl::SetStderrThreshold(absl::LogSeverityAtLeast::kFatal);
}
#else
void write_line(google::protobuf::LogLevel level, const char* file, int line, const std::string& text)
{
    const slate::SourceLine source(file, line);
    switch (level) {
    case google::protobuf::LOGLEVEL_INFO:
        slate::log_info(source, "protobuf: ", text);
        break;
    case google::protobuf::LOGLEVEL_WARNING:
        slate::log_warn(source, "protobuf: ", text);
        break;
    case google::protobuf::LOGLEVEL_ERROR:
    case google::protobuf::LOGLEVEL_FATAL:
        slate::log_error(source, "protobuf: ", text);
        break;
    }
}

void redirect()
{
    google::protobuf::SetLogHandler(write_line);
}
#endif

[[maybe_unused]] const bool redirected = (redirect(), true);
} // namespace
} // namespace tarn_internal
