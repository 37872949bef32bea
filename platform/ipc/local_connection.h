#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <optional>
#include <span>
#include <sys/uio.h>

#include "platform/ipc/passed_descriptors.h"
#include "platform/ipc/shared_answers.h"
#include "platform/ipc_listener.h"
#include "platform/run_loop.h"
#include "wire/frame.h"
#include "wire/frame_reader.h"

namespace corvane {

/// One client's socket: cuts the bytes that come into requests, has each delivered, and sends the responses in
/// order, several in one call where several are due. It neither waits nor calls its owner: the listener waits for
/// the socket, calls `received`, `serve` and `send` when they are due, and closes the connection. Request queue.
/// What takes memory throws std::bad_alloc, and leaves a connection that can only be closed.
class LocalConnection final : public IpcConnection {
 public:
  /// How often `tick` is to be called while `has_deadline`. Timeouts count ticks and do not look at the clock, so
  /// that a daemon that was stopped for a while closes nobody for the time in between.
  static constexpr std::chrono::milliseconds tick_interval{250};

  struct Environment {
    uint32_t request_limit;
    SharedAnswers& answers;
    /// Closes the socket; null where the kernel refuses descriptors that are passed along, so that closing cannot
    /// block.
    SocketCloser* closer;
  };

  /// Owns the socket, which must not block.
  LocalConnection(int socket, const Environment& environment);
  ~LocalConnection() override { close(); }
  LocalConnection(const LocalConnection&) = delete;
  LocalConnection& operator=(const LocalConnection&) = delete;

  void set_exported_interface(const ExportedInterface& interface) override { interface_ = &interface; }
  void set_exported_object(ExportedObject& object) override { object_ = &object; }
  void set_delivery_queue(WorkQueue& queue) override { delivery_queue_ = &queue; }
  void resume() override { resumed_ = true; }

  // ---- what the listener has it do ----

  /// Where the listener reads the next bytes to, while `wants_input`. Valid until `received` is called.
  std::span<char> input_buffer() { return reader_.prepare(); }
  /// Takes the first `count` bytes of the buffer, or, where that is 0, the end of the stream or an error.
  void received(size_t count);
  /// Reads to the buffer itself, once, what has come. Not while the listener reads to it.
  void receive();
  /// Whether a request has come whole and can be served now.
  bool has_request();
  /// Delivers that request, and queues the response. Whether there is one.
  bool serve();
  /// Sends what the socket takes of the pending output. Whether it took anything.
  bool send();
  /// Closes the socket and drops the pending output.
  void close();

  // ---- timeouts ----

  /// Starts and stops them after any of the above. Over the budget, output that waits in the kernel has one too.
  void update_deadlines(bool over_budget);
  bool has_deadline() const { return request_ticks_ != 0 || write_ticks_ != 0; }
  /// Counts them down. One that has passed makes the connection finished, with a fault.
  void tick();

  // ---- its state ----

  /// Whether bytes may have descriptors with them, so that only `receive` may read them.
  bool looks_for_descriptors() const { return environment_.closer != nullptr; }
  /// Whether more bytes are to be waited for.
  bool wants_input() const;
  /// Whether more may have come than there was room for when the last bytes were read.
  bool may_have_more() const { return filled_buffer_ && wants_input(); }
  bool wants_output() const { return unsent_ != 0; }
  /// The socket is to be closed: nothing more can come or go, or the client broke a rule.
  bool is_finished() const { return failed_ || (!input_open_ && !request_ && unsent_ == 0); }
  /// The rule that the client broke, if any.
  std::optional<CloseReason> fault() const { return fault_; }
  /// The bytes of answers that wait for the client, in the daemon and in the kernel.
  size_t held_output() const { return unsent_ + in_kernel_; }
  /// The bytes of memory that the connection takes: its request, its answers, those shared with others not
  /// counted, and the kernel's part.
  size_t memory() const;
  /// Asks the kernel how much output the client has not read yet.
  void measure_kernel_buffer();

  /// -1 when it is closed.
  int socket() const { return socket_; }

 private:
  struct OutgoingFrame {
    std::array<char, wire::header_size> header;
    plist::ByteChain own;
    SharedAnswers::Answer shared;  ///< in place of `own` where it is not null

    const plist::ByteChain& body() const { return shared ? *shared : own; }
    size_t size() const { return header.size() + body().size(); }
    size_t own_size() const { return header.size() + own.size(); }
  };
  ssize_t read_some(std::span<char> buffer);
  void stop_input(std::optional<CloseReason> fault);
  void fail(std::optional<CloseReason> fault);
  void drop_sent(size_t count);
  size_t gather();

  int socket_;
  const Environment environment_;
  const ExportedInterface* interface_ = nullptr;
  ExportedObject* object_ = nullptr;
  WorkQueue* delivery_queue_ = nullptr;
  bool resumed_ = false;

  wire::FrameReader reader_;
  std::optional<wire::Frame> request_;  ///< has come whole
  bool input_open_ = true;
  bool filled_buffer_ = false;  ///< the bytes read last

  std::deque<OutgoingFrame> output_;
  std::array<iovec, 64> buffers_;
  size_t unsent_ = 0;
  size_t sent_of_front_ = 0;
  size_t own_output_ = 0;
  size_t in_kernel_ = 0;  ///< at least what the kernel holds; exact when it was just measured

  bool failed_ = false;
  std::optional<CloseReason> fault_;
  int request_ticks_ = 0;  ///< left until a request must have come whole; 0: none is awaited
  int write_ticks_ = 0;    ///< left until the client must have taken a byte; 0: none is due
};

}  // namespace corvane
