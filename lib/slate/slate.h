// SPDX-License-Identifier: Apache-2.0
#pragma once

// The whole framework in one include. It doesn't depend on any library that is built on it.

#include "slate/clock.h"
#include "slate/dictionary.h"
#include "slate/duration.h"
#include "slate/encoding.h"
#include "slate/file.h"
#include "slate/lazy.h"
#include "slate/log.h"
#include "slate/md5.h"
#include "slate/provider.h"
#include "slate/queue.h"
#include "slate/strings.h"
#include "slate/uri.h"
#include "slate/uuid.h"
