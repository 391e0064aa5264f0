// The names of the IPsec and GRE connections. Whoever writes the tunnel configuration packs what this daemon
// needs into the name, and the status commands print it back.
//
//   of a ZOL  <vpn_site_name>@<internal_id>@<base64 of right_id>@<right>@<left>@<vti_interface>@<group>
//             Head-Office@1203@QGhxLnNpdGU=@203.0.113.7@198.51.100.1@vti12@site-group
//   of a KPA  <dc_id>@<internal_id>@<right>@<left>@<vti_iface>
//
// A field may be empty. An "@" within a field isn't escaped and makes a name that no parser takes; a
// right_id, which may begin with one, is base64 (RFC 4648) for that reason. Names have no limit of length
// here.
//
// A name with another number of tokens is logged as an error and refused, and the fields stay as they were.
#pragma once

#include <string>

namespace zol {

class ZolConnNameParser {
 public:
  ZolConnNameParser() = default;

  static std::string serialize_conn_name(const std::string& vpn_site_name, const std::string& internal_id,
                                         const std::string& right_id, const std::string& right,
                                         const std::string& left, const std::string& vti_interface,
                                         const std::string& group);
  // The name of the fields.
  std::string get_serialize_conn_name() const;
  // A third token that is no base64 is the right_id as it stands.
  bool deserialize_conn_name(const std::string& name);

  void set_vpn_site_name(const std::string& value) { vpn_site_name = value; }
  void set_internal_id(const std::string& value) { internal_id = value; }
  void set_right_id(const std::string& value) { right_id = value; }
  void set_right(const std::string& value) { right = value; }
  void set_left(const std::string& value) { left = value; }
  void set_vti_interface(const std::string& value) { vti_interface = value; }
  void set_group(const std::string& value) { group = value; }

  const std::string& get_vpn_site_name() const { return vpn_site_name; }
  const std::string& get_internal_id() const { return internal_id; }
  const std::string& get_right_id() const { return right_id; }
  const std::string& get_right() const { return right; }
  const std::string& get_left() const { return left; }
  const std::string& get_vti_interface() const { return vti_interface; }
  const std::string& get_group() const { return group; }

 private:
  std::string vpn_site_name;
  std::string internal_id;    // the site's
  std::string right_id;       // peer id, "@" in front of a textual identity
  std::string right;          // peer host name or address as configured
  std::string left;           // local address of the tunnel
  std::string vti_interface;  // name of the tunnel interface
  std::string group;          // the site's vpn_group
};

// The same for a measurement agent.
class KpaConnNameParser {
 public:
  KpaConnNameParser() = default;

  static std::string serialize_conn_name(const std::string& dc_id, const std::string& internal_id,
                                         const std::string& right, const std::string& left,
                                         const std::string& vti_iface);
  std::string get_serialize_conn_name() const;
  bool deserialize_conn_name(const std::string& name);

  void set_dc_id(const std::string& value) { dc_id = value; }
  void set_internal_id(const std::string& value) { internal_id = value; }
  void set_right(const std::string& value) { right = value; }
  void set_left(const std::string& value) { left = value; }
  void set_vti_iface(const std::string& value) { vti_iface = value; }

  const std::string& get_dc_id() const { return dc_id; }
  const std::string& get_internal_id() const { return internal_id; }
  const std::string& get_right() const { return right; }
  const std::string& get_left() const { return left; }
  const std::string& get_vti_iface() const { return vti_iface; }

 private:
  std::string dc_id;
  std::string internal_id;
  std::string right;
  std::string left;
  std::string vti_iface;
};

}  // namespace zol
