// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace slate {
class Duration;
}

namespace tarn {
/// How long a chunked transfer may pause before its server forgets it: 15 minutes.
slate::Duration default_session_ttl();
/// How long a client waits for a reply: 4 seconds.
slate::Duration default_timeout();
/// How many further waits follow a client's first one: 2.
unsigned int default_retries();

/// The keys of the settings: where the relay's process answers requests, where the relay forwards changes,
/// where it receives them, and how long a chunked transfer may pause.
std::string relay_url();
std::string relay_pub();
std::string relay_sub();
std::string session_ttl();
} // namespace tarn
