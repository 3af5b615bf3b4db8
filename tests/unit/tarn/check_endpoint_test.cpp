// SPDX-License-Identifier: Apache-2.0
#include "tarn/check_endpoint.h"

#include <gtest/gtest.h>

namespace {
using tarn::check_endpoint;

class AnEndpoint : public testing::TestWithParam<std::string> {};

TEST_P(AnEndpoint, WithoutFaultGivesNothing)
{
    EXPECT_EQ(check_endpoint(GetParam()), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Texts, AnEndpoint,
                         testing::Values("ipc:///run/x.sock", "ipc://x", "ipc://@x",
                                         "ipc:///" + std::string(106, 'x'), "tcp://127.0.0.1:1",
                                         "tcp://localhost:65535", "tcp://*:5555", "tcp://127.0.0.1:*",
                                         "tcp://[::1]:5555", "inproc://x"));

struct Fault {
    std::string text;
    std::string sentence;
};

/// For the names of the tests.
std::ostream& operator<<(std::ostream& out, const Fault& fault)
{
    return out << testing::PrintToString(fault.text);
}

class AFaultyEndpoint : public testing::TestWithParam<Fault> {};

TEST_P(AFaultyEndpoint, IsToldInASentence)
{
    EXPECT_EQ(check_endpoint(GetParam().text), GetParam().sentence);
}

const std::string write_it = "; write ipc:///run/x.sock or tcp://127.0.0.1:5555";

INSTANTIATE_TEST_SUITE_P(
    Texts, AFaultyEndpoint,
    testing::Values(
        Fault{"", "the endpoint is empty" + write_it},
        Fault{"/run/x.sock", "\"/run/x.sock\" is not an endpoint" + write_it},
        Fault{"ipc://", "\"ipc://\" is not an endpoint: nothing follows the \"://\"" + write_it},
        Fault{"ipc:///run\n/x",
              "\"ipc:///run?/x\" is not an endpoint: it has a control character" + write_it},
        Fault{"1pc:///x", "\"1pc:///x\" is not an endpoint" + write_it},
        Fault{"http://x", "\"http://x\" has none of the schemes ipc, tcp and inproc" + write_it},
        Fault{"TCP://127.0.0.1:1",
              "\"TCP://127.0.0.1:1\" has none of the schemes ipc, tcp and inproc" + write_it},
        Fault{"ipc:///" + std::string(107, 'x'),
              "\"ipc:///" + std::string(107, 'x') +
                  "\" is too long: a socket's path has 107 bytes at most, and this one has 108; choose a "
                  "shorter one"},
        Fault{"ipc://@", "\"ipc://@\" has no name behind the \"@\"; write it there, as in ipc://@x"},
        Fault{"tcp://127.0.0.1", "\"tcp://127.0.0.1\" has no port number; write it behind a colon, as in "
                                 "tcp://127.0.0.1:5555"},
        Fault{"tcp://127.0.0.1:", "\"tcp://127.0.0.1:\" has no port number; write it behind a colon, as in "
                                  "tcp://127.0.0.1:5555"},
        Fault{"tcp://x:65536",
              "\"tcp://x:65536\" has the port \"65536\", which is not a whole number from 1 to "
              "65535; write it as in tcp://127.0.0.1:5555"},
        Fault{"tcp://x:0",
              "\"tcp://x:0\" has the port \"0\", which is not a whole number from 1 to 65535; write "
              "it as in tcp://127.0.0.1:5555"},
        Fault{"tcp://x:55x",
              "\"tcp://x:55x\" has the port \"55x\", which is not a whole number from 1 to 65535; "
              "write it as in tcp://127.0.0.1:5555"},
        Fault{"tcp://:5555", "\"tcp://:5555\" has no host; write an address before the colon, as in "
                             "tcp://127.0.0.1:5555"}));

TEST(ALongEndpoint, IsNotQuotedInFull)
{
    const auto sentence = check_endpoint(std::string(100000, 'x'));
    ASSERT_TRUE(sentence);
    EXPECT_TRUE(sentence->starts_with("\"" + std::string(256, 'x') + "...\" is not an endpoint"));
    EXPECT_LT(sentence->size(), 350u);
}
} // namespace
