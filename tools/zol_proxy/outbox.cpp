#include "zol_proxy/outbox.h"

#include <utility>

namespace standin {

namespace {

constexpr timeval retry_period{0, 20000};

}  // namespace

Outbox::Outbox(event_base* base, int fd, std::string source, std::string destination)
    : fd_(fd), source_(std::move(source)), destination_(std::move(destination)) {
  retry_.reset(evtimer_new(
      base, [](evutil_socket_t, short, void* self) { static_cast<Outbox*>(self)->flush(); }, this));
}

void Outbox::push(std::vector<char> message) {
  queue_.push_back(std::move(message));
  if (queue_.size() == 1)
    flush();
}

void Outbox::flush() {
  while (!queue_.empty()) {
    std::vector<char>& message = queue_.front();
    if (send_msg(fd_, destination_.c_str(), message.data(), message.size()) != 0) {
      evtimer_add(retry_.get(), &retry_period);
      return;
    }
    queue_.pop_front();
  }
}

}  // namespace standin
