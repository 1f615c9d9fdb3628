#pragma once

#include "server/connection.h"

namespace qwk {

class Logger;

/// Receives one request from the client, carries it out and sends the answer. Serves a listening
/// client until it leaves or the logger ends its streams. Leaves the connection open. Reports
/// failures; throws std::system_error when a lock fails, std::bad_alloc when memory is short.
void serveClient(Connection& connection, Logger& logger);

} // namespace qwk
