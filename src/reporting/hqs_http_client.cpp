#include "reporting/hqs_http_client.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "dns/resolver.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr int lookup_retries = 2;
constexpr unsigned lookup_timeout_ms = 3000;
constexpr int gzip_level = 1;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("HQSHttpClient");
  return instance;
}

std::string name_of(const std::map<std::string, std::string>& names, const char* parameter) {
  const auto found = names.find(parameter);
  return found == names.end() ? "" : found->second;
}

}  // namespace

const std::map<std::string, std::string>& hqs_hmac_parameters() {
  static const std::map<std::string, std::string> names = {
      {"secret", zol_conf_consts::monitoring_hmac_secret_key},
      {"key", zol_conf_consts::general_zol_id_key},
      {"timeout", zol_conf_consts::monitoring_hmac_timeout_key},
  };
  return names;
}

HQSHttpClient::HQSHttpClient(Unopened, const std::map<std::string, std::string>& names, bool compress_in,
                             AConfigurator* configuration_in, bool hmac_in, bool if_modified_since_in)
    : HttpClient(Unopened()),
      PersistentHosts("HQSHttpClient"),
      secret_key(name_of(names, "secret")),
      key_key(name_of(names, "key")),
      timeout_key(name_of(names, "timeout")),
      compress(compress_in),
      hmac(hmac_in),
      if_modified_since(if_modified_since_in),
      configuration(configuration_in) {
  if (hmac && (secret_key.empty() || key_key.empty() || timeout_key.empty()))
    throw std::runtime_error("ERROR Missing parameters names for HMAC");
}

HQSHttpClient::HQSHttpClient(const std::map<std::string, std::string>& names, bool compress_in,
                             AConfigurator* configuration_in, bool hmac_in, bool if_modified_since_in)
    : HQSHttpClient(Unopened(), names, compress_in, configuration_in, hmac_in, if_modified_since_in) {
  open();
}

void HQSHttpClient::open() {
  if (curl != nullptr)
    return;
  HttpClient::open(false);
  resolver = std::make_unique<Resolver>(true, lookup_retries, lookup_timeout_ms, 0);
  if (hosts.empty())  // a client that is opened again knows a newer address than the file's first
    persistent_hosts_load();
}

void HQSHttpClient::close() {
  cancel_lookup();
  resolver.reset();
  HttpClient::close();
}

HQSHttpClient::HQSHttpClient(bool compress_in, AConfigurator* configuration_in)
    : HQSHttpClient({}, compress_in, configuration_in, false, false) {}

// The resolver gives up its look-ups with its own end.
HQSHttpClient::~HQSHttpClient() = default;

bool HQSHttpClient::is_async_running() {
  return resolver_context != nullptr || HttpClient::is_async_running();
}

bool HQSHttpClient::continue_send() {
  return resolver_context != nullptr || HttpClient::continue_send();
}

bool HQSHttpClient::init_post_request_async_resolver(const std::string& url, const std::string& path_in,
                                                     const std::string& cert_path_in,
                                                     const std::string& body_in, long timeout_in,
                                                     const std::string& query_args_in) {
  return init_http_request_async_resolver(url, path_in, body_in, method_post, cert_path_in, timeout_in,
                                          query_args_in);
}

bool HQSHttpClient::init_get_request_async_resolver(const std::string& url, const std::string& path_in,
                                                    const std::string& cert_path_in, long timeout_in) {
  return init_http_request_async_resolver(url, path_in, "", method_get, cert_path_in, timeout_in, "");
}

void HQSHttpClient::cancel_http_requests() {
  cancel_lookup();
  clean_http_requests();
}

void HQSHttpClient::cancel_lookup() {
  if (resolver_context == nullptr)
    return;
  SUP_LOG(logger(), log_level::warning) << "Resolver context already initialized. Canceling previous request";
  resolver->cancel_request(resolver_context);
  resolver_context = nullptr;
}

bool HQSHttpClient::init_http_request_async_resolver(const std::string& url, const std::string& path_in,
                                                     const std::string& body_in, std::int32_t method_in,
                                                     const std::string& cert_path_in, long timeout_in,
                                                     const std::string& query_args_in) {
  cancel_lookup();
  if (is_async_running()) {
    SUP_LOG(logger(), log_level::notice)
        << "Request ignored since previous HTTP request is not completed yet";
    return false;
  }
  report_sent = false;
  if (!read_url(url)) {
    SUP_LOG(logger(), log_level::error)
        << "init_http_request_async_resolver: Couldn't find available HQS receiver URL";
    return false;
  }
  path = path_in;
  body = body_in;
  method = method_in;
  cert_path = cert_path_in;
  timeout = timeout_in;
  query_args = query_args_in;
  SUP_LOG(logger(), log_level::debug) << "HTTP client <" << this << "> send DNS request for [" << host << "]";
  // A literal address or a cached name is answered within the call, and then there is nothing to wait for.
  lookup_answered_ = false;
  void* lookup = resolver->getaddrinfo_async(host, &HQSHttpClient::resolve_complete_cb, this);
  resolver_context = lookup_answered_ ? nullptr : lookup;
  return true;
}

bool HQSHttpClient::read_url(const std::string& url) {
  const std::size_t scheme_end = url.find(':');
  const std::size_t slashes = url.find("//");
  const std::string rest = slashes == std::string::npos ? "" : url.substr(slashes + 2);
  const std::size_t colon = rest.rfind(':');
  if (scheme_end == std::string::npos || rest.empty() || colon == 0) {
    SUP_LOG(logger(), log_level::error) << "read_url: Failed parsing HQS URL";
    return false;
  }
  scheme = url.substr(0, scheme_end);
  host = rest.substr(0, colon);
  port = colon == std::string::npos ? rest : rest.substr(colon + 1);
  return true;
}

void HQSHttpClient::resolve_complete_cb(bool failed, const char*, int, std::list<std::string>& addresses,
                                        void* self) {
  static_cast<HQSHttpClient*>(self)->resolve_complete(failed, addresses);
}

void HQSHttpClient::resolve_complete(bool failed, const std::list<std::string>& addresses) {
  SUP_LOG(logger(), log_level::debug)
      << "resolve_complete_cb: Resolve complete for HTTP client <" << this << ">";
  lookup_answered_ = true;
  resolver_context = nullptr;
  if (!failed && !addresses.empty()) {
    cached_host = host;
    cached_ip = addresses.front();
    persistent_hosts_save();
  } else {
    SUP_LOG(logger(), log_level::error)
        << "resolve_complete_cb: Failed to Resolve HQS URL. Trying to used cached result";
    if (cached_host != host || cached_ip.empty()) {
      SUP_LOG(logger(), log_level::error) << "resolve_complete_cb: No cached resolution. giving up";
      report_sent = false;
      return;
    }
  }
  const std::string url = scheme + "://" + cached_ip + ":" + port + path;
  SUP_LOG(logger(), log_level::info) << "Sending HTTP request to: " << url;
  SUP_LOG(logger(), log_level::debug) << "resolve_complete_cb: Report body length: " << body.size();
  if (!start_transfer(url)) {
    SUP_LOG(logger(), log_level::error)
        << "resolve_complete_cb: HTTP client <" << this << "> failed sending report";
  }
  body.clear();
}

bool HQSHttpClient::start_transfer(const std::string& url) {
  switch (method) {
    case method_get:
      return HttpClient::init_get_request_async(url, host, cert_path, timeout, if_modified_since);
    case method_post:
      return init_post_request_async(url, host, cert_path, body, query_args);
    default:
      SUP_LOG(logger(), log_level::error) << "Unsupported HTTP method type: " << method;
      return false;
  }
}

bool HQSHttpClient::init_post_request_async(const std::string& url, const std::string& host_in,
                                            const std::string& cert_path_in, const std::string& body_in,
                                            const std::string& query_args_in) {
  std::string full_url = url;
  if (hmac) {
    std::string key;
    std::string token;
    if (!compute_hmac(body_in, key, token)) {
      SUP_LOG(logger(), log_level::error) << "Failed to compute HMAC";
      return false;
    }
    full_url += "?key=" + key + "&token=" + token;
  }
  if (!query_args_in.empty())
    full_url += (hmac ? "&" : "?") + query_args_in;
  std::string zipped;
  const bool compressed = compress && gzip_body(body_in, zipped);
  return HttpClient::init_post_request_async(full_url, host_in, cert_path_in, compressed ? zipped : body_in,
                                             compressed, timeout);
}

// The server takes a compressed report as a text, which ends at its first NUL.
bool HQSHttpClient::gzip_body(const std::string& plain, std::string& zipped) const {
  unsigned char* bytes = nullptr;
  long size = 0;
  // NOLINTNEXTLINE(readability-redundant-string-cstr): ends at the NUL
  const bool done = Helper::gzip_buffer(plain.c_str(), gzip_level, &bytes, size);
  const std::unique_ptr<unsigned char[]> owner(bytes);
  if (!done) {
    SUP_LOG(logger(), log_level::warning) << "Failed gzipping buffer. Sending as plain text";
    return false;
  }
  zipped.assign(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
  return true;
}

bool HQSHttpClient::get_hmac_params(HmacParams& params) const {
  const auto read = [this](const char* name, const std::string& setting, auto& value) {
    if (configuration->config.lookupValue(setting, value))
      return true;
    SUP_LOG(logger(), log_level::error) << "get_hmac_params: Couldn't get HMAC " << name << " parameter";
    return false;
  };
  return read("secret", secret_key, params.secret) && read("key", key_key, params.key) &&
         read("timeout", timeout_key, params.timeout_ms);
}

bool HQSHttpClient::compute_hmac(const std::string& message, std::string& key, std::string& token) const {
  HmacParams params;
  if (!get_hmac_params(params))
    return false;
  if (params.secret.empty() || params.key.empty() || params.timeout_ms == 0) {
    SUP_LOG(logger(), log_level::error) << "compute_hmac: Not enough parameters for HMAC";
    return false;
  }
  const std::string plain = crypto.decrypt(params.secret);
  if (plain.empty()) {
    SUP_LOG(logger(), log_level::error) << "compute_hmac: Couldn't decode HMAC secret";
    return false;
  }
  key = params.key;
  const std::uint64_t window = Helper::get_timestamp_ms() / params.timeout_ms;
  return crypto.hmac(HASH_HMAC_SHA256, plain, message + std::to_string(window), token);
}

void HQSHttpClient::persistent_hosts_save_internal(hosts_t& kept) {
  std::list<std::string>& addresses = kept[cached_host];
  if (std::find(addresses.begin(), addresses.end(), cached_ip) == addresses.end())
    addresses.push_back(cached_ip);
}

void HQSHttpClient::persistent_hosts_load_internal(hosts_t& loaded) {
  if (loaded.empty())
    return;
  cached_host = loaded.begin()->first;
  cached_ip = loaded.begin()->second.front();
}

}  // namespace zol
