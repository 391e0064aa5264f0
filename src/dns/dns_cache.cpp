// Cached answers and how long they are good.
#include <ctime>

#include "dns/resolver.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr std::size_t max_cache_size = 1000;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("DNSCache");
  return instance;
}

}  // namespace

DNSAnswer::DNSAnswer(const std::string& host, int ttl_sec, const std::list<std::string>& addresses,
                     const std::string& canonical_name)
    : hostname(host), ips(addresses), expires_ms(get_expiration_time(ttl_sec)), cname(canonical_name) {}

std::uint64_t DNSAnswer::get_expiration_time(int ttl_sec) {
  timespec now{};
  Helper::get_clock(&now);
  return (static_cast<std::uint64_t>(now.tv_sec) + static_cast<std::uint64_t>(ttl_sec)) * 1000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

bool DNSAnswer::is_expired() const {
  return expires_ms < get_expiration_time(0);
}

int DNSAnswer::get_ttl() const {
  const std::uint64_t now_ms = get_expiration_time(0);
  if (expires_ms < now_ms) {
    SUP_LOG(logger(), log_level::warning) << "get_ttl"
                                          << " DNS answer is no longer valid";
    return 0;
  }
  return static_cast<int>((expires_ms - now_ms) / 1000);
}

void DNSAnswer::rotate() {
  if (ips.size() > 1)
    ips.splice(ips.end(), ips, ips.begin());
}

DNSCache* DNSCache::instance() {
  static DNSCache cache;
  return &cache;
}

DNSAnswer* DNSCache::find_answer(const std::string& host) {
  const auto entry = answers.find(host);
  return entry == answers.end() || entry->second.is_expired() ? nullptr : &entry->second;
}

void DNSCache::save_answer(const std::string& host, int ttl_sec, const std::list<std::string>& ips,
                           const std::string& cname) {
  const auto entry = answers.find(host);
  if (entry != answers.end()) {
    entry->second = DNSAnswer(host, ttl_sec, ips, cname);
    SUP_LOG(logger(), log_level::debug) << "save_answer"
                                        << ": The result for [" << host << "] is updated, ttl: " << ttl_sec;
    return;
  }
  if (answers.size() >= max_cache_size) {
    SUP_LOG(logger(), log_level::warning)
        << "save_answer"
        << ": The cache is full, cache size: " << answers.size() << ", max size: " << max_cache_size;
    clear_expired();
  }
  answers.emplace(host, DNSAnswer(host, ttl_sec, ips, cname));
}

void DNSCache::clear_expired() {
  SUP_LOG(logger(), log_level::debug) << "clear_expired"
                                      << ": Going to remove all expired results";
  const std::size_t removed =
      std::erase_if(answers, [](const auto& entry) { return entry.second.is_expired(); });
  SUP_LOG(logger(), log_level::debug) << "clear_expired"
                                      << ": " << removed << " entries is removed";
}

}  // namespace zol
