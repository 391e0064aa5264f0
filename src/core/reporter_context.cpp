#include "core/reporter_context.h"

#include <event2/event.h>

#include <cstdlib>
#include <stdexcept>

#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "core/monitor_context.h"
#include "dual_zol_helper.h"
#include "reporting/reporter.h"
#include "shared_object.h"
#include "shared_records.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

bool reports_disabled = false;
std::uint64_t last_dual_check_ms = 0;

namespace {

constexpr std::uint64_t dual_check_period_ms = 5000;
constexpr unsigned other_instances_timeout_us = 100000;
constexpr int other_instances_tries = 2;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Monitor");
  return instance;
}

// Brackets a callback's work, on every way out of it.
class ContextScope {
 public:
  explicit ContextScope(MonitorContext* context) : context_(context) { context_->context_start(); }
  ~ContextScope() { context_->context_end(); }
  ContextScope(const ContextScope&) = delete;
  ContextScope& operator=(const ContextScope&) = delete;

 private:
  MonitorContext* context_;
};

template <typename T>
bool lookup(const char* key, T& value) {
  return zol::TheConfigurator::get_configuration()->config.lookupValue(key, value);
}

}  // namespace

ReporterContext::ReporterContext(MonitorContext* context_in, const std::string& name_in, bool read_retries)
    : send_timer(send_report_cb, this, -1),
      poll_timer(poll_send_report_cb, this, -1),
      name(name_in),
      context(context_in) {
  if (read_retries && !lookup(zol_conf_consts::monitoring_reporter_total_retries_key, total_retries))
    throw std::runtime_error("ERROR couldn't find parameter total allowed attempts for HTTP request");
}

ReporterContext::~ReporterContext() = default;

void ReporterContext::charge_reporter(bool initial) {
  unsigned resolution = 0;
  if (!lookup(resolution_key, resolution))
    throw std::runtime_error("ERROR couldn't find the critical report resolution parameter");
  update_dual_zol_state(context);
  if (resolution == 0 || reports_disabled) {
    SUP_LOG(logger(), log_level::info) << "Reporter " << name << " is disabled ";
    charged = false;
    return;
  }
  unsigned delay = resolution;
  if (initial) {
    const bool others = zol_utils::DualZOLHelper::instance()->check_for_other_running_zol_instances(
        other_instances_timeout_us, other_instances_tries);
    if (!others)
      delay = static_cast<unsigned>(rand()) % resolution;  // NOLINT: spreading needs no better source
    SUP_LOG(logger(), log_level::info) << "Initial report will be sent in " << delay << "ms";
  }
  send_timer.charge(delay);
  charged = true;
}

void ReporterContext::charge_poll_send_report() {
  unsigned rate = 0;
  if (!lookup(zol_conf_consts::monitoring_polling_rate_ms_key, rate))
    throw std::runtime_error("ERROR couldn't find parameter polling rate that critical for monitoring");
  poll_timer.charge(rate);
}

void ReporterContext::send_report(int, short) {
  const bool is_running = reporter->is_running();
  // Between the answer of its look-up and the next poll a report waits in a client that isn't running.
  const bool is_waiting = poll_timer.is_pending() && !is_running;
  if (!is_running && !is_waiting)  // a report still under way keeps its count
    attempts = 0;
  charge_reporter(false);
  reporter->set_compress(compress);
  if (is_waiting) {
    SUP_LOG(logger(), log_level::notice)
        << "Request ignored since previous HTTP request is not completed yet";
  }
  if (is_waiting || !reporter->send_report_async(false)) {
    SUP_LOG(logger(), log_level::error) << "Failed scheduling monitor report send.";
    return;
  }
  poll_send_report(0, 0);
}

void ReporterContext::poll_send_report(int, short) {
  for (;;) {
    if (!reporter->continue_send_report())
      throw std::runtime_error(
          "ERROR while adding curl handle to multi stack, couldn't continue to send report");
    if (reporter->is_running()) {
      charge_poll_send_report();
      return;
    }
    if (reporter->is_report_sent()) {
      if (reporter->is_save_on_success())
        save_last_successful_report_sent();
      return;
    }
    if (total_retries <= attempts) {
      SUP_LOG(logger(), log_level::error) << "poll_send_report: Failed to send " << name << " report to HQS";
      return;
    }
    SUP_LOG(logger(), log_level::info) << "poll_send_report: Retrying, " << total_retries - attempts
                                       << " attempts left for sending " << name << " report";
    if (!reporter->resend_report_async()) {
      SUP_LOG(logger(), log_level::error) << "Failed scheduling report for resending.";
      return;
    }
    ++attempts;
  }
}

void ReporterContext::send_report_cb(int fd, short events, void* self) {
  auto* reporter_context = static_cast<ReporterContext*>(self);
  const ContextScope scope(reporter_context->context);
  reporter_context->send_report(fd, events);
}

void ReporterContext::poll_send_report_cb(int fd, short events, void* self) {
  auto* reporter_context = static_cast<ReporterContext*>(self);
  const ContextScope scope(reporter_context->context);
  reporter_context->poll_send_report(fd, events);
}

void ReporterContext::update_dual_zol_state(MonitorContext* monitor_context) {
  const std::uint64_t now = zol::Helper::get_timestamp_ms();
  // A look of the future was one before the wall clock was set back.
  if (last_dual_check_ms <= now && last_dual_check_ms + dual_check_period_ms > now)
    return;
  last_dual_check_ms = now;
  const bool is_running = !reports_disabled;
  const bool should_run = zol_utils::DualZOLHelper::instance()->zol_is_services_should_run();
  if (should_run && !is_running) {
    reports_disabled = false;
    monitor_context->start();
    SUP_LOG(logger(), log_level::info) << "update_dual_zol_state: Reports are now re-enabled";
  } else if (!should_run && is_running) {
    reports_disabled = true;
    monitor_context->stop();
    SUP_LOG(logger(), log_level::info) << "update_dual_zol_state: Reports are now disabled";
  }
  SUP_LOG(logger(), log_level::debug) << "update_dual_zol_state: reports state is_running [" << is_running
                                      << "] should_run [" << should_run << "]";
}

void ReporterContext::save_last_successful_report_sent() {
  const time_t sent = reporter->get_last_successful_report_sent();
  zol_utils::with_locked_record<zol_utils::ZolStatusData>(
      "save_last_successful_report_sent",
      [sent](zol_utils::ZolStatusData& status) { status.last_successful_report = sent; });
}

}  // namespace zol_monitor
