#include "reporting/reporter.h"

#include <stdexcept>
#include <utility>

#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "sup_logger.h"

namespace zol_monitor {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Reporter");
  return instance;
}

}  // namespace

Reporter::Reporter(zol::AConfigurator* configuration_in, std::string url_key_in, std::string path_in,
                   std::string timeout_key_in, bool compress, bool save_on_success_in)
    : configuration(configuration_in),
      client(zol::hqs_hmac_parameters(), compress, configuration_in, true, false),
      url_key(std::move(url_key_in)),
      path(std::move(path_in)),
      timeout_key(std::move(timeout_key_in)),
      save_on_success(save_on_success_in) {}

std::string Reporter::get_query_args() {
  return {};
}

bool Reporter::send_report_async(bool resend) {
  const auto missing = [this, resend](const std::string& key) {
    SUP_LOG(logger(), log_level::error) << "send_report_async: missing configuration value: " << key;
    if (!resend)
      drop_report();
    return false;
  };
  // A report is made once, and what it takes out of the tables must not be lost on a client that is busy.
  if (!resend && client.is_async_running()) {
    SUP_LOG(logger(), log_level::notice)
        << "Request ignored since previous HTTP request is not completed yet";
    return false;
  }
  nothing_to_send = false;
  std::string url;
  int timeout_seconds = 0;
  if (!configuration->config.lookupValue(url_key, url))
    return missing(url_key);
  if (!configuration->config.lookupValue(timeout_key, timeout_seconds))
    return missing(timeout_key);
  if (!resend)
    body = create_report();
  if (body.empty()) {
    SUP_LOG(logger(), log_level::debug) << "Not sending empty report";
    nothing_to_send = true;
    return true;
  }
  SUP_LOG(logger(), log_level::debug) << "Report body: \n" << body;
  return client.init_post_request_async_resolver(url, path, get_client_cert_path(), body, timeout_seconds,
                                                 get_query_args());
}

bool Reporter::resend_report_async() {
  return send_report_async(true);
}

bool Reporter::is_report_sent() const {
  return client.report_sent || nothing_to_send;
}

bool Reporter::is_running() {
  return client.is_async_running();
}

bool Reporter::continue_send_report() {
  return client.continue_send();
}

void Reporter::set_compress(bool compress) {
  client.compress = compress;
}

std::time_t Reporter::get_last_successful_report_sent() const {
  return client.last_success;
}

libvariant::Variant Reporter::get_hqs_metadata(zol::AConfigurator& configuration) {
  static const char* const failure = "Couldn't read HQS meta data from configuration file ";
  std::string text;
  if (!configuration.config.lookupValue(zol_conf_consts::monitoring_hqs_meta_data_key, text)) {
    SUP_LOG(logger(), log_level::error) << failure;
    throw std::runtime_error(failure);
  }
  return libvariant::Deserialize(text);
}

}  // namespace zol_monitor
