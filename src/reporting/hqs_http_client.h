// Requests to the management server, the HQS.
//
// A request goes to an address that the program's own resolver finds, with the server's name in the Host
// header. A signed one carries "?key=<id>&token=<HMAC>" in its URL; the token covers the plain body and the
// number of the present window of the wall clock, so node and server must agree on the clock within a window.
// Nothing that can't be signed goes out.
//
// The last good address of the server is kept in a file, so that a failed look-up doesn't stop the reports.
//
// A request is under way from the look-up to the end of the transfer, and is_async_running() is true all that
// time but between the answer of the look-up and the next continue_send(). The request waits there, and must
// not be taken for ended: only after a continue_send() does is_async_running() tell. Whether it arrived is
// `report_sent`.
//
// Logs under "HQSHttpClient"; the secret is never logged. Main thread only.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "reporting/http_client.h"
#include "reporting/zol_persistent_hosts.h"
#include "zol_crypto.h"

namespace zol {

class AConfigurator;
class Resolver;

// Which settings sign a request: "secret", "key" and "timeout" to the names of their keys. All reports and
// events share these.
const std::map<std::string, std::string>& hqs_hmac_parameters();

class HQSHttpClient : public HttpClient, protected PersistentHosts {
 public:
  enum : std::int32_t { method_get = 0, method_post = 1, method_none = 2 };

  // `names` as in hqs_hmac_parameters(). With `hmac` a missing or empty one throws std::runtime_error.
  // `configuration` is not owned and outlives the object; its settings are read at each request.
  HQSHttpClient(const std::map<std::string, std::string>& names, bool compress, AConfigurator* configuration,
                bool hmac, bool if_modified_since);
  // Without signing.
  HQSHttpClient(bool compress, AConfigurator* configuration);
  ~HQSHttpClient() override;

  // Starts the look-up of the host of `url`, "scheme://host:port"; the request follows when it is answered,
  // which may be within this call. `timeout` in seconds is that of the transfer. An unanswered look-up of an
  // earlier request is given up; a request in transfer stays and this one is refused. False when no look-up
  // was started.
  bool init_post_request_async_resolver(const std::string& url, const std::string& path,
                                        const std::string& cert_path, const std::string& body, long timeout,
                                        const std::string& query_args);
  bool init_get_request_async_resolver(const std::string& url, const std::string& path,
                                       const std::string& cert_path, long timeout);
  // Gives up the look-up or the transfer.
  void cancel_http_requests();

  bool is_async_running() override;
  bool continue_send() override;

  using HttpClient::init_post_request_async;
  // Signs, compresses and queues one POST to `url`, whose host is an address.
  virtual bool init_post_request_async(const std::string& url, const std::string& host,
                                       const std::string& cert_path, const std::string& body,
                                       const std::string& query_args);
  // Adds the last good resolution behind the host's other addresses, unless it is among them.
  void persistent_hosts_save_internal(hosts_t& hosts) override;
  // Takes the first address of the first host.
  void persistent_hosts_load_internal(hosts_t& hosts) override;

  std::int32_t method = method_none;
  std::string secret_key;  // names of settings
  std::string key_key;
  std::string timeout_key;
  Crypto crypto;
  std::string scheme;
  std::string host;
  std::string port;
  std::string path;
  std::string body;
  std::string cached_host;  // the last good resolution
  std::string cached_ip;
  bool compress;
  std::string cert_path;
  void* resolver_context = nullptr;  // the look-up in progress, null when none
  std::unique_ptr<Resolver> resolver;
  bool hmac;
  std::int64_t timeout = 0;  // seconds
  std::string query_args;
  bool if_modified_since;
  AConfigurator* configuration;

 protected:
  // For an object that may well end before its first request: neither handles nor resolver nor the kept
  // addresses until open(), which comes before the first request. Twice is once.
  HQSHttpClient(Unopened, const std::map<std::string, std::string>& names, bool compress,
                AConfigurator* configuration, bool hmac, bool if_modified_since);
  void open();
  // Gives up the look-up or the transfer, and gives back handles and resolver, until the next open(). Not for
  // a callback of either.
  void close();

 private:
  struct HmacParams {
    std::string secret;  // as configured: enciphered
    std::string key;
    unsigned timeout_ms = 0;
  };

  static void resolve_complete_cb(bool failed, const char* cname, int ttl, std::list<std::string>& addresses,
                                  void* self);

  bool init_http_request_async_resolver(const std::string& url, const std::string& path,
                                        const std::string& body, std::int32_t method,
                                        const std::string& cert_path, long timeout,
                                        const std::string& query_args);
  bool read_url(const std::string& url);
  void cancel_lookup();
  void resolve_complete(bool failed, const std::list<std::string>& addresses);
  bool start_transfer(const std::string& url);
  bool get_hmac_params(HmacParams& params) const;
  bool compute_hmac(const std::string& body, std::string& key, std::string& token) const;
  bool gzip_body(const std::string& body, std::string& compressed) const;

  bool lookup_answered_ = false;
};

}  // namespace zol
