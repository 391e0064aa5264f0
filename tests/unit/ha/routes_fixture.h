// The copy of the routes, opened for a test.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ha/bgp_routes_services.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/unit/core/loop_fixture.h"
#include "tests/unit/ha/route_messages.h"

namespace zol_test {

class RoutesUnderTest : public zol::BGPRoutesServices {
 public:
  using BGPRoutesServices::add_route_result;
  using BGPRoutesServices::dump_unfinished;
  using BGPRoutesServices::handle_stale_routes;
  using BGPRoutesServices::routes_recv;
  using BGPRoutesServices::run_messages;

  RoutesUnderTest() = default;

  // As if one datagram with that message had come.
  void feed(const RouteBytes& bytes) {
    std::vector<std::uint32_t> block = bytes.block();
    run_messages(block.data(), block.size() * sizeof block[0]);
    routes_recv();
  }

  // "destination via dev" of each route.
  std::vector<std::string> texts(int table) const {
    std::vector<std::string> result;
    for (const zol::Route& route : get_routing_table(table).dump(zol::route_any))
      result.push_back(route.subnet.to_str() + " " + route.via + " " + route.dev);
    return result;
  }
};

// The file of the fast path, and what was written to it.
class FastPathFile {
 public:
  FastPathFile() : former_(zol::BGPRoutesServices::fast_path_file) {
    std::ofstream(path_).put('0');
    zol::BGPRoutesServices::fast_path_file = path_.c_str();
  }
  ~FastPathFile() {
    zol::BGPRoutesServices::fast_path_file = former_;
    std::remove(path_.c_str());
  }
  FastPathFile(const FastPathFile&) = delete;
  FastPathFile& operator=(const FastPathFile&) = delete;

  std::string text() const {
    std::stringstream text;
    text << std::ifstream(path_).rdbuf();
    return text.str();
  }
  void take_away() { std::remove(path_.c_str()); }

 private:
  ScopedConfig folder_{""};
  std::string path_ = folder_.folder() + "/reset_fastpath";
  const char* former_;
};

// A loop, and the switches of the copy put back at the end.
class RoutesTest : public LoopTest {
 protected:
  ~RoutesTest() override {
    zol::BGPRoutesServices::fast_path_reset_enabled = false;
    zol::BGPRoutesServices::without_kernel = false;
  }
};

}  // namespace zol_test
