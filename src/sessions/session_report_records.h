// The entries of the session report: one map for each finished session.
#pragma once

#include <string>

#include "sessions/session_info.h"
#include "variant.h"

namespace zol {
class Services;
}

namespace zol_monitor {

class FinishedSessionsInfo;

// The legs stand as the session's pointers say: a reversed session reports them swapped.
libvariant::Variant make_session_record(const FinishedSessionsInfo& finished, const SessionInfo& session,
                                        const std::string& session_id, zol::Services* services,
                                        const std::string& next_hop, const std::string& next_hop_cname);

// Both legs carry the same byte count, since a non-TCP flow has one counter.
libvariant::Variant make_non_tcp_record(const NonTCPSessionInfo& session, bool is_gxe);

}  // namespace zol_monitor
