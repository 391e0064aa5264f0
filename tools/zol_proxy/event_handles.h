// Owners of libevent's C handles; each is freed with its owner.
#pragma once

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/dns.h>
#include <event2/event.h>
#include <event2/listener.h>

#include <memory>

namespace standin {

template <auto free_function>
struct HandleDeleter {
  template <typename T>
  void operator()(T* handle) const {
    free_function(handle);
  }
};

struct DnsDeleter {
  void operator()(evdns_base* base) const { evdns_base_free(base, 0); }
};

using EventBase = std::unique_ptr<event_base, HandleDeleter<event_base_free>>;
using Event = std::unique_ptr<event, HandleDeleter<event_free>>;
using BufferEvent = std::unique_ptr<bufferevent, HandleDeleter<bufferevent_free>>;
using Buffer = std::unique_ptr<evbuffer, HandleDeleter<evbuffer_free>>;
using Listener = std::unique_ptr<evconnlistener, HandleDeleter<evconnlistener_free>>;
using DnsBase = std::unique_ptr<evdns_base, DnsDeleter>;

}  // namespace standin
