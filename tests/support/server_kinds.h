// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "support/peers.h"
#include "support/runtime_test.h"
#include "tarn/internal/multi_threaded_server.h"
#include "tarn/internal/single_threaded_server.h"

namespace tarn_test {
/// How many workers a server has: one, for the kind with a single thread, or several.
struct ServerKind {
    std::string name;
    unsigned long workers;
};

inline std::ostream& operator<<(std::ostream& stream, const ServerKind& kind)
{
    return stream << kind.name;
}

/// What every server does is tested on both kinds.
class ServerTest : public RuntimeTest, public ::testing::WithParamInterface<ServerKind> {
protected:
    static constexpr int id = 4711;

    std::shared_ptr<tarn::Server> make(std::vector<std::shared_ptr<const slate::Uri>> uris,
                                       const std::shared_ptr<const slate::Uri>& pubsub_uri = nullptr)
    {
        if (GetParam().workers == 1)
            return tarn_internal::make_single_threaded_server(id, settings, uris, pubsub_uri, factory());
        return tarn_internal::make_multi_threaded_server(id, GetParam().workers, settings, uris, pubsub_uri,
                                                         factory());
    }

    /// The server's counter; a number that no test reaches if there is none.
    std::uint64_t counted(const std::string& name)
    {
        return counter("zmq.server", std::to_string(id), name).value_or(999999);
    }

    /// Waits for a counter: a client may have its reply before the server has counted it.
    bool will_have_counted(const std::string& name, std::uint64_t value)
    {
        return wait_until([&] { return counted(name) == value; });
    }

    /// A message sent as it is, and the message that came back.
    tarn::Message exchange(const tarn::Message& message)
    {
        tarn::Message answer;
        EXPECT_TRUE(answer.ParseFromString(RawPeer(uri).exchange(message.SerializeAsString())));
        return answer;
    }

    std::shared_ptr<const slate::Uri> uri = scratch_endpoint();
};

inline tarn::Message get_message(const std::string& path, int pid = 1)
{
    tarn::Message message;
    message.mutable_get()->mutable_head()->set_path(path);
    message.mutable_get()->mutable_head()->mutable_from()->set_pid(pid);
    return message;
}
} // namespace tarn_test

#define INSTANTIATE_SERVER_KINDS(suite)                                                                      \
    INSTANTIATE_TEST_SUITE_P(Kinds, suite,                                                                   \
                             ::testing::Values(tarn_test::ServerKind{"SingleThreaded", 1},                   \
                                               tarn_test::ServerKind{"MultiThreaded", 3}),                   \
                             [](const auto& kind) { return kind.param.name; })
