#ifndef TESSEL_TESSEL_H
#define TESSEL_TESSEL_H

/// @file
/// The whole of the library: publish/subscribe with a last-value cache, and remote procedure calls.

#include "tessel/export.h"
#include "tessel/message_broker.h"
#include "tessel/message_dispatcher.h"
#include "tessel/publisher.h"
#include "tessel/rpc_broker.h"
#include "tessel/rpc_client.h"
#include "tessel/rpc_dispatcher.h"
#include "tessel/rpc_error.h"
#include "tessel/service.h"
#include "tessel/version.h"

/// All names of the library.
namespace tessel {}

#endif
