#pragma once

#include <asio/buffer.hpp>
#include <asio/local/stream_protocol.hpp>

#include <array>
#include <chrono>
#include <deque>
#include <system_error>

#include "platform/ipc_listener.h"
#include "platform/run_loop.h"
#include "wire/frame.h"
#include "wire/frame_reader.h"

namespace corvane {

/// One client's socket: cuts the bytes that come into requests, has each delivered, and sends the responses in
/// order, several in one call where several are due. It neither waits nor calls its owner: the listener calls
/// `receive`, `serve_next` and `send` when the socket is ready and the budget allows it, and closes it. Request
/// queue. What takes memory throws std::bad_alloc, and leaves a connection that can only be closed.
class LocalConnection final : public IpcConnection {
 public:
  using Socket = asio::local::stream_protocol::socket;

  /// How often `tick` is to be called while `has_deadline`. Timeouts count ticks and do not look at the clock, so
  /// that a daemon that was stopped for a while closes nobody for the time in between.
  static constexpr std::chrono::milliseconds tick_interval{250};

  /// The socket must not block.
  LocalConnection(Socket socket, uint32_t request_limit);

  void set_exported_interface(const ExportedInterface& interface) override { interface_ = &interface; }
  void set_exported_object(ExportedObject& object) override { object_ = &object; }
  void set_delivery_queue(WorkQueue& queue) override { delivery_queue_ = &queue; }
  void resume() override { resumed_ = true; }

  /// Reads once what has come.
  void receive();
  /// Delivers the next request that has come whole, and queues its response. False where there is none, or where
  /// more output is pending than one connection may have. True counts as activity of the client.
  bool serve_next();
  /// Sends what the socket takes of the pending output. Whether it took anything, which counts as activity.
  bool send();

  /// Starts and stops the timeouts after any of the above. `over_budget`: no request is taken until others have
  /// read their answers, so that an incomplete request is not the client's fault.
  void update_deadlines(bool over_budget);
  bool has_deadline() const { return request_ticks_ != 0 || write_ticks_ != 0; }
  /// Counts the timeouts down. One that has passed makes the connection finished, with a fault; `over_budget` has
  /// the timeout for output pass earlier.
  void tick(bool over_budget);

  /// Closes the socket and drops the pending output.
  void close();

  /// Whether the connection takes further requests now.
  bool wants_input() const;
  bool wants_output() const { return unsent_ != 0; }
  /// Bytes of the responses that are held, those sent in part included.
  size_t pending_output() const { return unsent_ + sent_of_front_; }
  /// The socket is to be closed: nothing more can come or go, or the client broke a rule.
  bool is_finished() const { return failed_ || (!input_open_ && unsent_ == 0); }
  /// The rule that the client broke, for the log; null where it broke none.
  const char* fault() const { return fault_; }

  Socket& socket() { return socket_; }

 private:
  struct OutgoingFrame {
    std::array<char, wire::header_size> header;
    plist::ByteChain body;

    size_t size() const { return header.size() + body.size(); }
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

  void stop_input(const char* fault);
  void fail(const char* fault);
  void respond(const wire::Frame& request);
  void drop_sent(size_t count);
  Buffers gather();

  Socket socket_;
  const ExportedInterface* interface_ = nullptr;
  ExportedObject* object_ = nullptr;
  WorkQueue* delivery_queue_ = nullptr;
  bool resumed_ = false;

  wire::FrameReader reader_;
  bool input_open_ = true;

  std::deque<OutgoingFrame> output_;
  std::array<asio::const_buffer, 64> buffers_;
  size_t unsent_ = 0;
  size_t sent_of_front_ = 0;

  bool failed_ = false;
  const char* fault_ = nullptr;
  int request_ticks_ = 0;  ///< left until a request must have come whole; 0: none is awaited
  int write_ticks_ = 0;    ///< left until the client must have taken a byte; 0: none is due
};

}  // namespace corvane
