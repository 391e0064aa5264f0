// One kind of report: makes its text and hands it to its own client.
//
// When a report is made, how its transfer is polled and how often it is tried again is the scheduler's. A
// text is kept until the next report is made, so that a resend posts the same bytes.
//
// Logs under "Reporter". Main thread only.
#pragma once

#include <ctime>
#include <string>

#include "reporting/hqs_http_client.h"
#include "variant.h"

namespace zol {
class AConfigurator;
}

namespace zol_monitor {

class Reporter {
 public:
  // `url_key` and `timeout_key` name the settings of the server's URL and of the time-out in seconds; both
  // are read at each report. `path` is the server's for this report. `configuration` is not owned.
  Reporter(zol::AConfigurator* configuration, std::string url_key, std::string path, std::string timeout_key,
           bool compress, bool save_on_success);
  virtual ~Reporter() = default;
  Reporter(const Reporter&) = delete;
  Reporter& operator=(const Reporter&) = delete;

  // File of the client certificate; empty is none.
  virtual std::string get_client_cert_path() = 0;
  // The report's text; empty when there is nothing to send.
  virtual std::string create_report() = 0;
  // Lets go what the report would have taken, in place of create_report() when a setting is missing: nothing
  // may pile up for a report that can't be sent.
  virtual void drop_report() {}
  // What is added to the query string.
  virtual std::string get_query_args();

  // Makes the report, or with `resend` takes the last one, and starts its request. True when a request was
  // started or there was nothing to send.
  // While the last request is running no report is made and the result is false, with a notice.
  bool send_report_async(bool resend);
  bool resend_report_async();
  // The last report arrived, or there was nothing to send.
  bool is_report_sent() const;
  bool is_running();
  // One step of the transfer; false when libcurl failed as a whole.
  bool continue_send_report();
  // Whether the client gzips the next body.
  void set_compress(bool compress);
  bool is_save_on_success() const { return save_on_success; }
  // Time of the last report that arrived, 0 before the first.
  std::time_t get_last_successful_report_sent() const;

  // What the operator has set to go with the reports, JSON in Monitoring.hqs_meta_data. A missing setting
  // throws std::runtime_error.
  static libvariant::Variant get_hqs_metadata(zol::AConfigurator& configuration);

  zol::AConfigurator* configuration;
  zol::HQSHttpClient client;
  std::string url_key;
  std::string path;
  std::string timeout_key;
  std::string body;      // the last report
  bool save_on_success;  // the scheduler publishes the time of a report that arrived
  bool nothing_to_send = false;
};

}  // namespace zol_monitor
