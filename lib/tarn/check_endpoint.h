// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarn {
/// What is wrong with a text that is to be an endpoint, in a sentence for people, which also says how to
/// write it; nothing if no fault is to be seen. Such as: "tcp://127.0.0.1" has no port number; write it
/// behind a colon, as in tcp://127.0.0.1:5555
///
/// It looks at the text only: neither at files nor at the network, so that it says nothing about whether
/// somebody serves there; probe() does. "*" as host or port, with which a server leaves the choice to the
/// system, is no fault.
///
/// The make_ functions call it for the endpoints that they get, and log the sentence as an error before they
/// go on as they would without. Any thread.
[[nodiscard]] std::optional<std::string> check_endpoint(std::string_view text);
} // namespace tarn
