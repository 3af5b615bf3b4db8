// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The whole library in one include.
///
/// Namespace tarn is the interface. What stands in tarn_internal is installed for those who build on the
/// parts (a server, a test kit) and may change with any release.

#include "slate/slate.h"

#include "tarn/client.h"
#include "tarn/context.h"
#include "tarn/exception.h"
#include "tarn/formats.h"
#include "tarn/internal/async.h"
#include "tarn/internal/controlled_thread.h"
#include "tarn/internal/defaults.h"
#include "tarn/internal/envelope.h"
#include "tarn/internal/lookup_table.h"
#include "tarn/internal/multi_threaded_server.h"
#include "tarn/internal/pid_finder.h"
#include "tarn/internal/route_list.h"
#include "tarn/internal/session.h"
#include "tarn/internal/single_threaded_server.h"
#include "tarn/internal/utils/parse.h"
#include "tarn/internal/utils/parse_recipient.h"
#include "tarn/internal/utils/receive.h"
#include "tarn/internal/utils/send.h"
#include "tarn/internal/utils/socket_ops.h"
#include "tarn/message_factory.h"
#include "tarn/policies.h"
#include "tarn/proto/routing.pb.h"
#include "tarn/proto/stats.pb.h"
#include "tarn/publisher.h"
#include "tarn/relay.h"
#include "tarn/relay_stats.h"
#include "tarn/reply.h"
#include "tarn/request.h"
#include "tarn/resource.h"
#include "tarn/route.h"
#include "tarn/route_pattern.h"
#include "tarn/routes/basic_route.h"
#include "tarn/routes/index_route.h"
#include "tarn/serdes.h"
#include "tarn/server.h"
#include "tarn/storage/cached_file_store.h"
#include "tarn/storage/file_store.h"
#include "tarn/storage/memory_store.h"
#include "tarn/zmq_subsystem.h"
