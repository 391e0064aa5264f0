// A connection's name, as a status command prints it: taken apart by both grammars and put together again.
// Also as the peer's id within a name, where every byte is allowed.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/quiet_log.h"
#include "sites/zol_conn_name_parser.h"

namespace {

void expect(bool holds) {
  if (!holds)
    std::abort();
}

void zol_name(const std::string& name) {
  zol::ZolConnNameParser parser;
  if (!parser.deserialize_conn_name(name)) {
    expect(parser.get_serialize_conn_name() == "@@@@@@");  // untouched
    return;
  }
  zol::ZolConnNameParser again;
  expect(again.deserialize_conn_name(parser.get_serialize_conn_name()));
  expect(again.get_right_id() == parser.get_right_id());
  expect(again.get_serialize_conn_name() == parser.get_serialize_conn_name());
}

void kpa_name(const std::string& name) {
  zol::KpaConnNameParser parser;
  const bool taken = parser.deserialize_conn_name(name);
  expect(parser.get_serialize_conn_name() == (taken ? name : "@@@@"));
}

void peer_id(const std::string& id) {
  zol::ZolConnNameParser parser;
  expect(parser.deserialize_conn_name(
      zol::ZolConnNameParser::serialize_conn_name("site", "17", id, "r", "l", "vti0", "g")));
  expect(parser.get_right_id() == id);
  expect(parser.get_group() == "g");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zol_fuzz::quiet_log();
  const std::string text(reinterpret_cast<const char*>(data), size);
  zol_name(text);
  kpa_name(text);
  peer_id(text);
  return 0;
}
