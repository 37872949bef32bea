#pragma once

#include <asio/buffer.hpp>
#include <asio/local/stream_protocol.hpp>

#include <array>
#include <chrono>
#include <deque>
#include <list>
#include <memory>

#include "platform/ipc_listener.h"
#include "platform/process/event_loops.h"
#include "wire/frame.h"
#include "wire/frame_reader.h"

namespace corvane {

class LocalConnection;

/// What a connection tells the listener that owns it. Request queue.
class ConnectionOwner {
 public:
  virtual ~ConnectionOwner() = default;

  /// A request came whole, or bytes of its answers went.
  virtual void connection_was_active(LocalConnection& connection) = 0;
  /// The connection counts the owner's ticks down from now on.
  virtual void connection_has_deadline() = 0;
  /// The connection is closed; the owner drops it. `reason` is null where there is nothing to report.
  virtual void connection_closed(LocalConnection& connection, const char* reason) = 0;

  /// Bytes of answers that a connection holds, and that it holds no longer.
  virtual void output_grew(size_t bytes) = 0;
  virtual void output_shrank(size_t bytes) = 0;
  /// Whether there is room for more of them. Where there was none, `resume` is called when there is.
  virtual bool takes_requests() const = 0;
  /// Whether room is to be made by those who do not read.
  virtual bool needs_room() const = 0;
};

/// One client's socket: reads requests, has each delivered, and sends the responses in order, several in
/// one call where several are due. Everything happens on the request queue.
class LocalConnection final : public IpcConnection, public std::enable_shared_from_this<LocalConnection> {
 public:
  using Socket = asio::local::stream_protocol::socket;
  using List = std::list<std::shared_ptr<LocalConnection>>;

  /// How often the owner calls `tick` while any connection has a deadline. Deadlines count ticks and do not
  /// look at the clock, so that a daemon that was stopped for a while blames nobody when it goes on.
  static constexpr std::chrono::milliseconds tick_interval{250};

  LocalConnection(Socket socket, RequestQueue& queue, uint32_t request_limit, ConnectionOwner& owner);

  void set_exported_interface(const ExportedInterface& interface) override { interface_ = &interface; }
  void set_exported_object(ExportedObject& object) override { object_ = &object; }
  void set_delivery_queue(WorkQueue& queue) override;
  void resume() override;

  /// Closes a connection that has kept the daemon waiting for too long. Answers whether the connection has
  /// a deadline still.
  bool tick();
  /// Closes at once, whatever is still due, and tells the owner.
  void close(const char* reason = nullptr);

  /// For the owner: the place in its list, and since when the connection is silent.
  List::iterator place;
  std::chrono::steady_clock::time_point silent_since;

 private:
  struct OutgoingFrame {
    std::array<char, wire::header_size> header;
    plist::ByteChain body;
  };
  // What a write call is given: a view of buffers_.
  struct Buffers {
    using value_type = asio::const_buffer;
    using const_iterator = const asio::const_buffer*;
    const_iterator begin() const { return first; }
    const_iterator end() const { return last; }
    const_iterator first;
    const_iterator last;
  };

  bool takes_requests() const;
  void take_no_more(const char* reason);
  void read_more();
  void serve();
  void serve_requests();
  void respond(const wire::Frame& request);
  void write_more();
  void written(size_t count);
  Buffers gather();
  void settle();

  Socket socket_;
  RequestQueue& queue_;
  ConnectionOwner& owner_;
  const ExportedInterface* interface_ = nullptr;
  ExportedObject* object_ = nullptr;

  wire::FrameReader reader_;
  bool input_open_ = true;
  bool reading_ = false;

  std::deque<OutgoingFrame> output_;
  std::array<asio::const_buffer, 64> buffers_;
  size_t unsent_ = 0;
  size_t sent_of_front_ = 0;
  bool waits_to_write_ = false;

  bool closed_ = false;
  const char* close_reason_ = nullptr;
  int request_ticks_left_ = 0;
  int write_ticks_left_ = 0;
};

}  // namespace corvane
