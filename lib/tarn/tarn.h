// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The whole interface in one include. Those who build on the parts that it is made of (a server of their
/// own, a test kit) include "tarn/internal/internal.h" as well.

#include "slate/slate.h"

#include "tarn/client.h"
#include "tarn/context.h"
#include "tarn/exception.h"
#include "tarn/formats.h"
#include "tarn/message.h"
#include "tarn/message_factory.h"
#include "tarn/policies.h"
#include "tarn/proto/message.pb.h"
#include "tarn/proto/routing.pb.h"
#include "tarn/proto/stats.pb.h"
#include "tarn/publisher.h"
#include "tarn/raw/raw_client.h"
#include "tarn/relay.h"
#include "tarn/relay_stats.h"
#include "tarn/reply.h"
#include "tarn/request.h"
#include "tarn/resource.h"
#include "tarn/route.h"
#include "tarn/route_pattern.h"
#include "tarn/router.h"
#include "tarn/routes/basic_route.h"
#include "tarn/routes/index_route.h"
#include "tarn/serdes.h"
#include "tarn/server.h"
#include "tarn/storage/cached_file_store.h"
#include "tarn/storage/file_store.h"
#include "tarn/storage/memory_store.h"
#include "tarn/transfer/chunk_headers.h"
#include "tarn/types.h"
#include "tarn/work.h"
#include "tarn/zmq_subsystem.h"
