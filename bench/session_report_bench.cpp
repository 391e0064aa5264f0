// A session report of 100,000 sessions: from finished sessions to records, the text, its token, its gzip
// form.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "bench/bench_monitor.h"
#include "reporting/report_text.h"
#include "zol_crypto.h"
#include "zol_helper.h"

namespace {

constexpr std::uint32_t sessions = 100000;

libvariant::Variant finished_records() {
  auto& monitor = zol_test::lone_monitor();
  zol_test::forget_sessions();
  zol_bench::fill(monitor, 0, sessions);
  for (auto& [id, session] : monitor.sessions.sessions_by_id) {
    session->network_id = "net-1";
    session->next_hop_ip = 0x0100000a;
    for (auto* leg : {session->in, session->out}) {
      leg->end_time_ms = session->start_time_ms + 1500 + session->client_port;
      leg->termination_reason = zol_monitor::STR_FIN_FROM_CLIENT_SIDE;
      *leg->incoming_bytes = 1000 + session->client_port;
      *leg->outgoing_bytes = 90000 + session->client_port;
      leg->tcp_info.rtt = 20000;
      leg->tcp_info.cwnd = 10;
      leg->tcp_info.mss = 1448;
    }
    monitor.sessions.finished_sessions.insert_session(session, monitor.services, "", "");
  }
  libvariant::Variant records = std::move(monitor.sessions.finished_sessions.sessions);
  zol_test::forget_sessions();
  return records;
}

const libvariant::Variant& report() {
  static const libvariant::Variant value = [] {
    libvariant::Variant map = libvariant::Variant::make_map();
    map.Assign("session_info", finished_records());
    return map;
  }();
  return value;
}

const std::string& text() {
  static const std::string value = zol_monitor::report_text(report());
  return value;
}

void build_records(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(finished_records());
}
BENCHMARK(build_records)->Unit(benchmark::kMillisecond)->Iterations(3);

void build_text(benchmark::State& state) {
  report();
  for (auto _ : state)
    benchmark::DoNotOptimize(zol_monitor::report_text(report()));
  state.counters["text_bytes"] = static_cast<double>(text().size());
}
BENCHMARK(build_text)->Unit(benchmark::kMillisecond);

void sign_text(benchmark::State& state) {
  const zol::Crypto crypto;
  const std::string& message = text();
  std::string token;
  for (auto _ : state)
    crypto.hmac(zol::HASH_HMAC_SHA256, "a secret of the benchmark", message + "1234567", token);
}
BENCHMARK(sign_text)->Unit(benchmark::kMillisecond);

void compress_text(benchmark::State& state) {
  const std::string& plain = text();
  long size = 0;
  for (auto _ : state) {
    unsigned char* zipped = nullptr;
    zol::Helper::gzip_buffer(plain, 1, &zipped, size);
    delete[] zipped;
  }
  state.counters["gzip_bytes"] = static_cast<double>(size);
}
BENCHMARK(compress_text)->Unit(benchmark::kMillisecond);

}  // namespace
