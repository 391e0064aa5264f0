// Status commands that print what a test tells them, and a site table to compare with.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "sites/site_service.h"
#include "sites/vpn_sites_services.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/unit/libzolutils/temp_folder.h"
#include "tests/unit/sites/node_folders.h"

namespace zol_test {

class TestSites : public zol::SiteServicesBase {
 public:
  std::vector<zol::VPNConnInfo> get_connections_info_status() override { return {}; }

  zol::SiteService& add(const std::string& internal_id, const std::string& protocol) {
    auto site = std::make_shared<zol::SiteService>();
    site->name = "site-" + internal_id;
    site->internal_id = internal_id;
    site->accept_connections = true;
    site->type = "site";
    site->protocol = protocol;
    site_services[internal_id] = site;
    return *site;
  }
  static zol::VPNConnInfo& add_conn(zol::SiteService& site, const std::string& right_id,
                                    const std::string& right) {
    auto conn = std::make_shared<zol::VPNConnInfo>();
    conn->right_id = right_id;
    conn->right = right;
    conn->internal_id = site.internal_id;
    conn->name = site.name;
    conn->protocol = site.protocol;
    site.entries.push_back(conn);
    return *conn;
  }
};

// A program in front of the ones of the machine: its name, and a shell text that it runs.
class OwnProgram {
 public:
  OwnProgram(const std::string& name, const std::string& text) : former_path_(getenv("PATH")) {
    write_program(folder_.file(name), "#!/bin/sh\n" + text + "\n");
    setenv("PATH", (folder_.path() + ":" + former_path_).c_str(), 1);
  }
  ~OwnProgram() { setenv("PATH", former_path_.c_str(), 1); }
  OwnProgram(const OwnProgram&) = delete;
  OwnProgram& operator=(const OwnProgram&) = delete;

 private:
  TempFolder folder_;
  std::string former_path_;
};

inline std::string here_document(const std::string& text) {
  return "cat <<'END_OF_TEXT'\n" + text + "END_OF_TEXT";
}

class StatusParserTest : public testing::Test {
 protected:
  ScopedConfig config{"General: { zol_id = \"node\"; };"};
  LogCapture log;
  TestSites sites;
};

}  // namespace zol_test
