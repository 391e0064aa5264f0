// Small services of the node's helper library: clocks, time stamps, addresses, shell commands, roles.
//
// Everything is static and keeps no state that a caller sees. Main thread only where a comment doesn't say
// otherwise.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <ctime>
#include <list>
#include <set>
#include <string>
#include <vector>

namespace zol {

class Helper {
 public:
  // --- clocks ---

  // Wall clock, milliseconds since the epoch.
  static std::uint64_t get_timestamp_ms();
  // CLOCK_BOOTTIME: monotonic, and counts the time that the machine was suspended. False on failure.
  static bool get_clock(timespec* now);
  static bool get_clock(timespec& now) { return get_clock(&now); }
  // `to` minus `from`.
  static std::int64_t get_clock_diff_ms(const timespec& from, const timespec& to);
  static std::int64_t get_clock_diff_us(const timespec* from, const timespec* to);
  // Whole milliseconds; the rest is dropped.
  static unsigned convert_us_to_ms(unsigned us);

  // --- time stamps: ISO 8601 in UTC, "2026-11-21T08:02:03Z" and "2026-11-21T08:02:03.123Z" ---

  static std::string get_timestamp_gmt_format();
  static std::string get_timestamp_gmt_format(const long* seconds);
  static std::string get_timestamp_gmt_format_ms();
  static std::string get_timestamp_gmt_format_ms(std::uint64_t milliseconds);

  // --- addresses ---

  // A dotted IPv4 address with four parts, and nothing else.
  static bool is_valid_ip_address(const std::string& text);
  // RFC 1918. False for text that is no address.
  static bool is_private_address(const std::string& text);
  static bool is_private_address(std::uint32_t address);  // in network order
  // Dotted text of an address in network order. With General.mask_client_address the last octet is "x". A
  // text that is no address comes back as it is.
  static std::string make_anonymous_address(std::uint32_t address);
  static std::string make_anonymous_address(const std::string& address);
  static std::string make_log_addr(std::uint32_t address);
  static std::string make_log_addr(const std::string& address);
  // The IPv4 addresses that /etc/hosts gives for a name, in its order; names are the same in either case.
  // False, with `addresses` left alone, when it names none. The file is read again only when it has changed.
  static bool try_static_resolution(const std::string& host, std::list<in_addr>& addresses);
  // The source address that the kernel's routes choose for a destination; empty when there is no route.
  static std::string internal_ip_get(const std::string& destination);
  // The first IPv4 address of a network device; false, with `address` left alone, when it has none.
  static bool lookup_device_ipv4(const std::string& device, std::string& address);
  static bool lookup_device_ipv4(const std::string& device, in_addr& address);
  // The network device of the kernel's route to a destination; empty when there is no route.
  static std::string dst_dev_get(const std::string& destination);
  // The IPv4 addresses of this machine's devices: with or without those of the loopback device, and with or
  // without aliases, which bear a label of their own beside the device's name ("eth0:1").
  static std::set<std::string> get_machine_static_ips(bool without_loopback, bool without_aliases);

  // --- the node's role, from its configuration ---

  static bool is_middle_mile_network();  // MiddleMileNetwork.enabled
  static bool is_kpa();                  // General.kpa_id is set and General.zol_id is not
  static bool is_zol();                  // the opposite
  // General.zol_id and General.external_ip, or with `kpa` General.kpa_id and General.kpa_public_ip. A missing
  // key throws std::runtime_error.
  static std::string get_my_id(bool kpa);
  static std::string get_external_ip(bool kpa);

  // --- commands, through /bin/sh -c; each blocks until the command ends ---

  // No descriptor is handed down, and no ignored or blocked signal.

  // What the command printed on standard output; empty when it couldn't be run.
  static std::string run_cmd(const std::string& command);
  // The command's own exit status, -1 when it couldn't be run or was killed; standard output and standard
  // error together go to `output`.
  static int run_cmd_stderr(const std::string& command, std::string& output);

  // --- the rest ---

  // One gzip member (RFC 1952) by libdeflate; levels 1 to 12. The caller frees `*out` with delete[]. False,
  // with an error line and null in `*out`, for another level or without memory.
  static bool gzip_buffer(const std::string& in, int level, unsigned char** out, long& out_size);
  // Splits at a separator; empty pieces are left out. The second form replaces what `pieces` held.
  static std::vector<std::string> deserialize_strings(const std::string& text, char separator);
  static void deserialize_strings(const std::string& text, std::vector<std::string>& pieces, char separator);
  // The text between the first `from` and the first `to` behind it, `from` itself included with `keep_from`.
  // An empty `to` stands for the end of the text. Empty when the text lacks one of them.
  static std::string extract_token(const std::string& text, const std::string& from, const std::string& to,
                                   bool keep_from);
  // The pieces with the separator between them.
  static std::string serialize_strings(const std::set<std::string>& pieces, char separator);
  // Whether there is anything of that name.
  static bool is_file_exists(const std::string& path);
  // The whole of a regular file, a megabyte at most; false, and `text` left alone, when it is none or can't
  // be read.
  static bool string_from_file(const std::string& path, std::string& text);
  // Whether two files hold the same bytes; false when one can't be read.
  static bool compare_files(const std::string& one, const std::string& other);
  static unsigned long calc_number_of_cores();  // 0 when unknown
  // The busy share in percent: 100 * (1 - idle / (elapsed * cores)). Not clamped.
  static double calc_usage_percentage(unsigned long long idle_ticks, double elapsed_ticks,
                                      unsigned long cores);
};

}  // namespace zol
