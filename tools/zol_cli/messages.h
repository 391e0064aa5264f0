// What zol_cli sends.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ipc_messages.h"

namespace standin {

// The header-only messages by the name that the monitoring daemon gives them.
std::optional<msgtype_e> type_by_name(std::string_view name);

// Pairs of hexadecimal digits with any white space between; nothing for other text.
std::optional<std::vector<unsigned char>> parse_hex(std::string_view text);

// The number-th record of a burst: its session id and its client are its own, so that a reader can tell which
// came. Ids start with the number, most significant byte first.
ipc_session_identification_msg_t burst_record(unsigned number);

}  // namespace standin
