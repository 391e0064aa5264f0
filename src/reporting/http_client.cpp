#include "reporting/http_client.h"

#include <stdexcept>
#include <utility>

#include "sup_logger.h"

namespace zol {

namespace {

constexpr long buffer_size = 524288;
constexpr long status_ok = 200;
constexpr long status_not_modified = 304;
constexpr long status_request_timeout = 408;
constexpr long status_service_unavailable = 503;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("HttpClient");
  return instance;
}

// The list grows by one line; on failure the list that was there is freed, and the result is null.
CurlList append(CurlList list, const std::string& line) {
  curl_slist* longer = curl_slist_append(list.get(), line.c_str());
  if (longer == nullptr)
    return nullptr;
  static_cast<void>(list.release());
  return CurlList(longer);
}

std::string read_text(CURL* curl, CURLINFO what) {
  const char* text = nullptr;
  curl_easy_getinfo(curl, what, &text);
  return text != nullptr ? text : "";
}

}  // namespace

HttpClient::HttpClient(Unopened)
    : response(&response_body), write_data(&response_body), write_function(&HttpClient::write_callback) {}

HttpClient::HttpClient(bool connection_reuse) : HttpClient(Unopened()) {
  open(connection_reuse);
}

void HttpClient::open(bool connection_reuse) {
  multi.reset(curl_multi_init());
  if (multi == nullptr)
    throw std::runtime_error("ERROR Fail to create m_curl multi handle for post method");
  curl.reset(curl_easy_init());
  if (curl == nullptr)
    throw std::runtime_error("ERROR Fail to create m_curl handle for post method");
  // CURLOPT_NOSIGNAL stays off: with it libcurl would no longer shield the process from SIGPIPE, and nobody
  // else does. The alarm that it would spare is set for blocking look-ups only, and URLs hold addresses here.
  curl_easy_setopt(curl.get(), CURLOPT_SOCKOPTFUNCTION, &HttpClient::sockopt_callback);
  curl_easy_setopt(curl.get(), CURLOPT_SOCKOPTDATA, this);
  curl_easy_setopt(curl.get(), CURLOPT_FORBID_REUSE, connection_reuse ? 0L : 1L);
  if (connection_reuse) {
    SUP_LOG(logger(), log_level::info) << "Connection re-use enabled.";
  }
  curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(curl.get(), CURLOPT_BUFFERSIZE, buffer_size);
}

HttpClient::~HttpClient() {
  close();
}

void HttpClient::close() {
  clean_http_requests();
  curl.reset();
  multi.reset();
}

bool HttpClient::is_async_running() {
  return async_running;
}

int HttpClient::sockopt_function(int, curlsocktype) {
  return CURL_SOCKOPT_OK;
}

std::string HttpClient::get_bind_interface() {
  return {};
}

bool HttpClient::init_post_request_async(const std::string& url, const std::string& host,
                                         const std::string& cert_path, const std::string& body,
                                         bool compressed, long timeout_seconds) {
  SUP_LOG(logger(), log_level::info) << "Request full URL: " << url;
  if (refuse_second_request())
    return false;
  start_request();
  set_post_options();
  if (!set_url(url) || !set_post_body(body))
    return false;
  set_certificate(cert_path);
  if (!set_verification_and_timeout(timeout_seconds))
    return false;
  set_interface(get_bind_interface());
  CurlList headers = create_headers(host, "", "", true, compressed, false);
  if (headers == nullptr) {
    SUP_LOG(logger(), log_level::error) << "init_post_request_async: Failed setting custom http headers";
    return false;
  }
  if (!queue_request(std::move(headers)))
    return false;
  SUP_LOG(logger(), log_level::info) << "Successfully queued HTTP request for sending.";
  return true;
}

bool HttpClient::init_get_request_async(const std::string& url, const std::string& host,
                                        const std::string& cert_path, const std::string& date,
                                        const std::string& authorization, bool head_only,
                                        long timeout_seconds, bool if_modified_since) {
  if (refuse_second_request())
    return false;
  start_request();
  response->clear();
  if (!set_url(url))
    return false;
  if (!set_interface(bind_interface_value)) {
    SUP_LOG(logger(), log_level::error) << "Failed setting bind interface";
    return false;
  }
  set_get_options(head_only, if_modified_since);
  set_certificate(cert_path);
  if (!set_verification_and_timeout(timeout_seconds))
    return false;
  if (curl_easy_setopt(curl.get(), CURLOPT_FOLLOWLOCATION, 1L) != CURLE_OK) {
    SUP_LOG(logger(), log_level::error) << "Failed setting a follow location option";
    return false;
  }
  if (const std::string bind_interface = get_bind_interface(); !bind_interface.empty())
    set_interface(bind_interface);
  CurlList headers = create_headers(host, date, authorization, false, false, if_modified_since);
  if (headers == nullptr) {
    SUP_LOG(logger(), log_level::error) << "init_get_request_async: Failed setting custom http headers";
    return false;
  }
  if (!queue_request(std::move(headers)))
    return false;
  SUP_LOG(logger(), log_level::info) << "Successfully queued HTTP GET request.";
  return true;
}

bool HttpClient::init_get_request_async(const std::string& url, const std::string& host,
                                        const std::string& cert_path, long timeout_seconds,
                                        bool if_modified_since) {
  return init_get_request_async(url, host, cert_path, "", "", false, timeout_seconds, if_modified_since);
}

// The options of a handle on the stack must not change under its transfer: libcurl reads the body and the
// headers while it sends them.
bool HttpClient::refuse_second_request() const {
  if (header_lists.empty())
    return false;
  SUP_LOG(logger(), log_level::error) << "Failed adding multi-handle: " << CURLM_ADDED_ALREADY;
  return true;
}

void HttpClient::start_request() {
  report_sent = false;
  response_done = false;
}

// Undoes what an earlier GET has set. The answer's body has no reader, and libcurl would print it.
void HttpClient::set_post_options() {
  curl_easy_setopt(curl.get(), CURLOPT_NOBODY, 0L);
  curl_easy_setopt(curl.get(), CURLOPT_HEADER, 0L);
  curl_easy_setopt(curl.get(), CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(curl.get(), CURLOPT_HEADERFUNCTION, nullptr);
  curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, nullptr);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &HttpClient::discard_callback);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, nullptr);
}

bool HttpClient::set_url(const std::string& url) {
  const CURLcode code = curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  if (code == CURLE_OK)
    return true;
  SUP_LOG(logger(), log_level::error) << "Failed setting URL: " << code;
  return false;
}

// The size goes first, so that a body with NUL bytes is copied whole.
bool HttpClient::set_post_body(const std::string& body) {
  CURLcode code =
      curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  if (code == CURLE_OK)
    code = curl_easy_setopt(curl.get(), CURLOPT_COPYPOSTFIELDS, body.c_str());
  if (code == CURLE_OK)
    return true;
  SUP_LOG(logger(), log_level::error) << "Failed setting HTTP body (COPYPOSTFIELDS): " << code;
  return false;
}

void HttpClient::set_get_options(bool head_only, bool if_modified_since) {
  const long head = head_only ? 1 : 0;
  curl_easy_setopt(curl.get(), CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_NOBODY, head);
  curl_easy_setopt(curl.get(), CURLOPT_HEADER, head);
  if (if_modified_since) {
    curl_easy_setopt(curl.get(), CURLOPT_HEADERFUNCTION, &HttpClient::header_callback);
    curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, &last_modified);
  } else {
    curl_easy_setopt(curl.get(), CURLOPT_HEADERFUNCTION, nullptr);
    curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, nullptr);
  }
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, write_function);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, write_data);
}

void HttpClient::set_certificate(const std::string& cert_path) {
  if (cert_path.empty()) {
    curl_easy_setopt(curl.get(), CURLOPT_SSLCERT, nullptr);
    return;
  }
  curl_easy_setopt(curl.get(), CURLOPT_SSLCERTTYPE, "PEM");
  curl_easy_setopt(curl.get(), CURLOPT_SSLCERT, cert_path.c_str());
}

bool HttpClient::set_verification_and_timeout(long timeout_seconds) {
  if (curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYPEER, 0L) != CURLE_OK) {
    SUP_LOG(logger(), log_level::error) << "Failed setting SSL host verification";
    return false;
  }
  if (curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, timeout_seconds) != CURLE_OK) {
    SUP_LOG(logger(), log_level::error) << "Failed setting request timeout";
    return false;
  }
  return true;
}

bool HttpClient::set_interface(const std::string& name) {
  const char* value = name.empty() ? nullptr : name.c_str();
  return curl_easy_setopt(curl.get(), CURLOPT_INTERFACE, value) == CURLE_OK;
}

CurlList HttpClient::create_headers(const std::string& host, const std::string& date,
                                    const std::string& authorization, bool json, bool gzip,
                                    bool if_modified_since) {
  std::list<std::string> lines = {"Host: " + host};
  if (json)
    lines.emplace_back("Content-Type: application/json");
  if (!date.empty())
    lines.push_back("Date: " + date);
  if (!authorization.empty())
    lines.push_back("Authorization: " + authorization);
  if (gzip)
    lines.emplace_back("Content-Encoding: gzip");
  if (if_modified_since && !last_modified.empty())
    lines.push_back("If-Modified-Since: " + last_modified);
  CurlList headers;
  for (const std::string& line : lines) {
    headers = append(std::move(headers), line);
    if (headers == nullptr)
      return nullptr;
  }
  if (curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get()) != CURLE_OK)
    return nullptr;
  return headers;
}

bool HttpClient::queue_request(CurlList headers) {
  const CURLMcode code = curl_multi_add_handle(multi.get(), curl.get());
  if (code != CURLM_OK) {
    SUP_LOG(logger(), log_level::error) << "Failed adding multi-handle: " << code;
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, nullptr);
    return false;
  }
  header_lists.push_back(std::move(headers));
  return true;
}

bool HttpClient::continue_send() {
  int running = 0;
  const CURLMcode result = curl_multi_perform(multi.get(), &running);
  SUP_LOG(logger(), log_level::trace) << "curl_multi_perform: num_running_req:" << running;
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi.get(), &left)) {
    if (message->msg == CURLMSG_DONE)
      handle_result(message->data.result);
    else
      SUP_LOG(logger(), log_level::debug)
          << "curl_multi_info_read: return unknown message code: " << message->msg;
  }
  async_running = running != 0;
  if (!async_running)
    clean_http_requests();
  return result == CURLM_OK || result == CURLM_CALL_MULTI_PERFORM;
}

void HttpClient::handle_result(CURLcode result) {
  switch (result) {
    case CURLE_OK:
      handle_answer();
      break;
    case CURLE_COULDNT_CONNECT:
      response_code = status_service_unavailable;
      SUP_LOG(logger(), log_level::warning) << "Server replied with reset.";
      break;
    case CURLE_OPERATION_TIMEDOUT:
      response_code = status_request_timeout;
      SUP_LOG(logger(), log_level::warning) << "HTTP request timeout.";
      break;
    default:
      SUP_LOG(logger(), log_level::warning)
          << "HTTP request failed. Status code: " << result << " (" << curl_easy_strerror(result) << ")";
  }
}

void HttpClient::handle_answer() {
  response_code = 0;
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &response_code);
  primary_ip = read_text(curl.get(), CURLINFO_PRIMARY_IP);
  local_ip = read_text(curl.get(), CURLINFO_LOCAL_IP);
  response_done = true;
  if (response_code == status_ok) {
    SUP_LOG(logger(), log_level::info) << "HTTP request completed successfully.";
    last_success = time(nullptr);
    report_sent = true;
    read_transfer_figures();
  } else if (response_code == status_not_modified) {
    SUP_LOG(logger(), log_level::info) << "HTTP request completed successfully, but there was no update";
  } else {
    SUP_LOG(logger(), log_level::warning) << "HTTP reponse error: " << response_code;
  }
}

void HttpClient::read_transfer_figures() {
  curl_easy_getinfo(curl.get(), CURLINFO_TOTAL_TIME, &total_time);
  const auto read_amount = [this](CURLINFO what, double& figure) {
    curl_off_t amount = 0;
    curl_easy_getinfo(curl.get(), what, &amount);
    figure = static_cast<double>(amount);
  };
  read_amount(CURLINFO_SIZE_DOWNLOAD_T, size_download);
  read_amount(CURLINFO_SIZE_UPLOAD_T, size_upload);
  read_amount(CURLINFO_SPEED_DOWNLOAD_T, speed_download);
  read_amount(CURLINFO_SPEED_UPLOAD_T, speed_upload);
  curl_easy_getinfo(curl.get(), CURLINFO_CONNECT_TIME, &connect_time);
}

void HttpClient::clean_http_requests() {
  curl_multi_remove_handle(multi.get(), curl.get());
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, nullptr);
  header_lists.clear();
  async_running = false;
}

int HttpClient::sockopt_callback(void* self, curl_socket_t fd, curlsocktype purpose) {
  return static_cast<HttpClient*>(self)->sockopt_function(fd, purpose);
}

std::size_t HttpClient::write_callback(char* data, std::size_t size, std::size_t nmemb, void* text) {
  static_cast<std::string*>(text)->append(data, size * nmemb);
  return size * nmemb;
}

std::size_t HttpClient::discard_callback(char*, std::size_t size, std::size_t nmemb, void*) {
  return size * nmemb;
}

std::size_t HttpClient::header_callback(char* data, std::size_t size, std::size_t nmemb,
                                        void* last_modified) {
  static const std::string name = "Last-Modified: ";
  std::string line(data, size * nmemb);
  if (line.ends_with('\n'))
    line.pop_back();
  if (line.ends_with('\r'))
    line.pop_back();
  SUP_LOG(logger(), log_level::trace) << "Received header: " << line;
  if (const std::size_t at = line.find(name); at != std::string::npos)
    *static_cast<std::string*>(last_modified) = line.substr(at + name.size());
  return size * nmemb;
}

}  // namespace zol
