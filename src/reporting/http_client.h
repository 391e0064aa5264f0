// One HTTP request at a time, over a libcurl multi handle, without blocking the loop.
//
// The owner queues a request and then calls continue_send() from a timer until is_async_running() is false;
// no socket is watched, and transfers advance in continue_send() only. The same pair of handles serves every
// request of an object: each request sets all options that another kind of request may have left behind.
//
// The server's certificate is not checked: the node knows the server by address, and a report carries its own
// proof in a token. A client certificate is shown when one is configured.
//
// Logs under "HttpClient". curl_global_init() is the program's to call. Main thread only.
#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <ctime>
#include <list>
#include <memory>
#include <string>

namespace zol {

struct CurlEasyDeleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct CurlMultiDeleter {
  void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
};
struct CurlListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlEasy = std::unique_ptr<CURL, CurlEasyDeleter>;
using CurlMulti = std::unique_ptr<CURLM, CurlMultiDeleter>;
using CurlList = std::unique_ptr<curl_slist, CurlListDeleter>;

class HttpClient {
 public:
  using write_function_t = std::size_t (*)(char* data, std::size_t size, std::size_t nmemb, void* text);

  // Throws std::runtime_error when libcurl has no handle to give.
  explicit HttpClient(bool connection_reuse);
  virtual ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // False right after a request was queued, until the first continue_send(): the owner calls that first.
  virtual bool is_async_running();
  // One step of progress. False when libcurl reports an error of the whole stack; a transfer that fails is no
  // such error.
  virtual bool continue_send();
  // Queues a POST of JSON. `url` holds an address; `host` is the name for the Host header. An empty
  // `cert_path` is no client certificate. Takes its own copy of `body`, which may hold any bytes;
  // `compressed` says that it is gzip. False, with one error line, when the request couldn't be set up or
  // another one is queued.
  virtual bool init_post_request_async(const std::string& url, const std::string& host,
                                       const std::string& cert_path, const std::string& body, bool compressed,
                                       long timeout_seconds);

  // Queues a GET that follows redirections; the body goes to `response`. With `head_only` it is a HEAD, and
  // the header lines go there. With `if_modified_since` the last known "Last-Modified" is sent and refreshed.
  bool init_get_request_async(const std::string& url, const std::string& host, const std::string& cert_path,
                              const std::string& date, const std::string& authorization, bool head_only,
                              long timeout_seconds, bool if_modified_since);
  // The same with neither date nor authorization, and with a body.
  bool init_get_request_async(const std::string& url, const std::string& host, const std::string& cert_path,
                              long timeout_seconds, bool if_modified_since);

  // Takes the request off the stack, whatever its state, and frees its headers.
  void clean_http_requests();

  std::string*
      response;  // receives the body of a GET; not owned, `response_body` unless the owner changes it
  std::string* write_data;           // what libcurl is told to write to; the same string
  std::string bind_interface_value;  // a device or an address that a GET leaves by; empty is any
  write_function_t write_function;   // takes the body of a GET
  CurlEasy curl;
  CurlMulti multi;
  std::list<CurlList> header_lists;  // of the requests in flight
  bool async_running = false;
  bool response_done = false;  // an exchange was completed, whatever its status
  std::string response_body;
  std::time_t last_success = 0;  // time of the last status 200
  bool report_sent = false;      // the present request was answered with status 200
  long response_code = 0;        // of the last exchange; 503 for a failed connect, 408 for a time-out
  // Of the last exchange with status 200: seconds, bytes, bytes a second.
  double total_time = 0;
  double size_download = 0;
  double size_upload = 0;
  double speed_download = 0;
  double speed_upload = 0;
  double connect_time = 0;
  std::string primary_ip;     // the peer's address in the last completed exchange
  std::string local_ip;       // the own one
  std::string last_modified;  // text of the last "Last-Modified" header

 protected:
  // For an object that may well end before its first request: no handles, and so no descriptors, until
  // open().
  struct Unopened {};
  explicit HttpClient(Unopened);
  // Makes the handles; throws as the constructor. Once only, until close().
  void open(bool connection_reuse);
  // Gives up the request and gives the handles back.
  void close();

  // For each new socket; the result is libcurl's, 0 (CURL_SOCKOPT_OK) is to go on.
  virtual int sockopt_function(int fd, curlsocktype purpose);
  // A device or an address that every request leaves by; empty is any.
  virtual std::string get_bind_interface();

 private:
  static int sockopt_callback(void* self, curl_socket_t fd, curlsocktype purpose);
  static std::size_t write_callback(char* data, std::size_t size, std::size_t nmemb, void* text);
  static std::size_t discard_callback(char* data, std::size_t size, std::size_t nmemb, void* unused);
  static std::size_t header_callback(char* data, std::size_t size, std::size_t nmemb, void* last_modified);

  bool refuse_second_request() const;
  void start_request();
  void set_post_options();
  bool set_post_body(const std::string& body);
  void set_get_options(bool head_only, bool if_modified_since);
  bool set_url(const std::string& url);
  void set_certificate(const std::string& cert_path);
  bool set_verification_and_timeout(long timeout_seconds);
  bool set_interface(const std::string& name);
  bool queue_request(CurlList headers);
  CurlList create_headers(const std::string& host, const std::string& date, const std::string& authorization,
                          bool json, bool gzip, bool if_modified_since);
  void handle_result(CURLcode result);
  void handle_answer();
  void read_transfer_figures();
};

}  // namespace zol
