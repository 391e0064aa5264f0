// What the library's own tests may reach; no program of the node uses it.
#pragma once

#include <string>

namespace zol_ipc {

// The folder that holds a folder for each node and the folder "instances"; "/run/zol" until it is set.
// Endpoints that are open keep the folder that they were opened with.
void set_ipc_base_folder(const std::string& folder);
const std::string& ipc_base_folder();

}  // namespace zol_ipc
