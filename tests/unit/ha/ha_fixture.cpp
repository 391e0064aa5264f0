#include "tests/unit/ha/ha_fixture.h"

#include <sched.h>
#include <stdlib.h>

#include <fstream>
#include <sstream>

#include "tests/support/loopback.h"
#include "zol_helper.h"

namespace zol_test {

namespace {

bool own_machine = false;

constexpr const char* devices =
    "ip link add eth0 type veth peer name eth1 && ip link set eth0 up && ip link set eth1 up";
constexpr const char* addresses =
    "ip addr flush dev eth0 && ip addr flush dev eth1 && ip addr add 192.0.2.1/24 dev eth0 && "
    "ip addr add 198.51.100.1/24 dev eth1 && ip route replace default via 192.0.2.254";

std::string node_config(const TestNode& node, const std::string& more) {
  return "General: { zol_id = \"" + node.id() + "\"; hop_id = \"a\"; use_temp_vrrp_instances = false; };\n" +
         more;
}

}  // namespace

void enter_own_machine() {
  own_machine = unshare(CLONE_NEWNET | CLONE_NEWNS) == 0 && raise_loopback() &&
                mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 && system(devices) == 0;
}

bool on_own_machine() {
  return own_machine;
}

std::string output_of(const std::string& command) {
  return zol::Helper::run_cmd(command);
}

void write_text(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::trunc | std::ios::binary) << text;
}

std::string read_text(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

HaTest::HaTest() : config_(node_config(node_, "")) {
  if (own_machine && system(addresses) != 0)
    ADD_FAILURE() << "the devices can't be set up";
  configure("");
}

HaTest::~HaTest() {
  zol::IDispatch::setup(-1, "");
}

void HaTest::configure(const std::string& more) {
  config_.set(node_config(node_, more));
  networks_.read_configuration();
}

std::string HaTest::hop(const std::string& hop_members, const std::string& clusters) {
  return one_interface(wan_address) + "HopData: { hops = ( { hop_id = \"a\"; " + hop_members +
         " } ); clusters = ( " + clusters + " ); };\n";
}

std::vector<Bytes> HaTest::messages(int fd) {
  std::vector<Bytes> all;
  for (Bytes message; !(message = receive(fd)).empty();)
    all.push_back(message);
  return all;
}

}  // namespace zol_test
