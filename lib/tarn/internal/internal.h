// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The parts behind the interface, for code that builds on them, such as a server or a test kit of your own.
/// Namespace tarn_internal may change with any release. These headers need cppzmq (zmq.hpp) as well.

#include "tarn/internal/async.h"
#include "tarn/internal/defaults.h"
#include "tarn/internal/envelope.h"
#include "tarn/internal/lookup_table.h"
#include "tarn/internal/multi_threaded_server.h"
#include "tarn/internal/pid_finder.h"
#include "tarn/internal/route_list.h"
#include "tarn/internal/router/router_impl.h"
#include "tarn/internal/session.h"
#include "tarn/internal/single_threaded_server.h"
#include "tarn/internal/utils/parse.h"
#include "tarn/internal/utils/parse_recipient.h"
#include "tarn/internal/utils/send.h"
#include "tarn/internal/utils/socket_ops.h"
