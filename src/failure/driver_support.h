// What the two drivers of the failure handling have in common.
#pragma once

#include <string>

#include "config/zol_configurator.h"
#include "sup_logger.h"

namespace zol {

inline constexpr const char* driver_source = "zol";  // the IPC name of who runs the drivers

// The switch of a driver's process. A missing one throws std::runtime_error, in words that are the same for
// every key.
bool critical_switch(const char* key);

// Tells the peer of `dispatch` that a port of a neighbouring node has failed. False when the text is no
// address (error line) or the message didn't go out.
bool send_failure(IDispatch& dispatch, SupLogger& logger, const std::string& address, unsigned short port);

// Leaves the configurator's list; nothing when there is no configuration.
void unregister_driver(IReconfigure& driver);

}  // namespace zol
