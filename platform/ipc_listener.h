#pragma once

#include <cstdint>

#include "platform/connection_counts.h"
#include "plist/value.h"
#include "plist/writer.h"

/// Named local services: a listener has a delegate, and each connection an exported interface, an exported object
/// and a delivery queue.
namespace corvane {

class WorkQueue;

/// One message of a client, as it came.
struct Message {
  enum Kind : uint8_t { raw_data = 1 };

  uint8_t kind;
  plist::Ref<plist::Data> body;
};

/// What implements the methods of an exported interface.
class ExportedObject {
 public:
  virtual ~ExportedObject() = default;
};

/// The description of the methods that a connection offers.
class ExportedInterface {
 public:
  virtual ~ExportedInterface() = default;

  /// Calls the method that a message asks for and appends the response's body to `response`, which is empty. False
  /// where the message gets no response. Runs on the connection's delivery queue. Throws std::bad_alloc.
  virtual bool deliver(ExportedObject& object, const Message& message, plist::ByteChain& response) const = 0;
};

/// A client's connection, as the delegate that sets it up sees it. Nothing is read from it before it is resumed.
class IpcConnection {
 public:
  virtual ~IpcConnection() = default;

  /// Both must outlive the listener.
  virtual void set_exported_interface(const ExportedInterface& interface) = 0;
  virtual void set_exported_object(ExportedObject& object) = 0;
  virtual void set_delivery_queue(WorkQueue& queue) = 0;
  virtual void resume() = 0;
};

class IpcListener;

class IpcListenerDelegate {
 public:
  virtual ~IpcListenerDelegate() = default;

  /// Once for each new connection, on the request queue. False refuses it.
  virtual bool listener_shouldAcceptNewConnection(IpcListener& listener, IpcConnection& connection) = 0;
};

/// Who may connect to a service.
enum class IpcAccess {
  everyone,  ///< any local process; none is asked who it is
  owner,     ///< the daemon's own user
};

class IpcListener {
 public:
  /// Unregisters the service and closes its connections, after the request that is running.
  virtual ~IpcListener() = default;

  /// The delegate must outlive the listener.
  virtual void set_delegate(IpcListenerDelegate& delegate) = 0;
  /// From now on clients can connect. A name that cannot be registered is reported and tried again every few
  /// seconds.
  virtual void resume() = 0;
  /// Request queue.
  virtual ConnectionCounts counts() const = 0;
};

}  // namespace corvane
