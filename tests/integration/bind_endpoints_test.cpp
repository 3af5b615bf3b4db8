// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/bind_endpoints.h"

#include <fcntl.h>
#include <unistd.h>

#include "support/environment.h"
#include "support/runtime_test.h"

namespace {
using namespace tarn_test;
using tarn_internal::inproc_is_bound;

class AnInprocEndpoint : public RuntimeTest {};

TEST_F(AnInprocEndpoint, IsSeenToBeBoundOrNot)
{
    EXPECT_EQ(inproc_is_bound(*runtime->ctx(), *scratch_endpoint("inproc")), false);
    const auto uri = scratch_endpoint("inproc");
    zmq::socket_t socket(*runtime->ctx(), zmq::socket_type::rep);
    socket.bind(uri->to_string());
    EXPECT_EQ(inproc_is_bound(*runtime->ctx(), *uri), true);
}

TEST_F(AnInprocEndpoint, IsNotTakenForUnboundIfThereIsNoDescriptorForALook)
{
    const auto uri = scratch_endpoint("inproc");
    zmq::socket_t socket(*runtime->ctx(), zmq::socket_type::rep);
    socket.bind(uri->to_string());
    const int next = open("/dev/null", O_RDONLY);
    close(next);
    const DescriptorLimit limit(static_cast<rlim_t>(next));
    EXPECT_EQ(inproc_is_bound(*runtime->ctx(), *uri), std::nullopt);
}
} // namespace
