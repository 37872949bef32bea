#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "daemon/completion_block.h"
#include "platform/ipc_listener.h"
#include "plist/value.h"

namespace corvane {

/// An exported interface as a table of methods. `deliver` reads the request, calls the method that it names, and
/// makes the response from what the method gives its completion block. A request that cannot be read, names no
/// method or lacks an argument is answered with error code 1; one for which memory runs out with code 2. A reply
/// that nests too deeply or is too long for a response is logged and left out. `deliver` throws std::bad_alloc
/// when there is no memory for an error response either.
class MethodTable final : public ExportedInterface {
 public:
  struct Method {
    std::string_view selector;
    void (*call)(ExportedObject& object, const plist::Dictionary& request, const CompletionBlock& completion);
  };

  MethodTable(std::initializer_list<Method> methods) : methods_(methods) {}

  bool deliver(ExportedObject& object, const Message& message, plist::ByteChain& response) const override;

  /// The requests that were answered so far. Request queue.
  struct Counts {
    uint64_t answered = 0;  ///< those with an error included
    uint64_t bad_arguments = 0;
    uint64_t failures = 0;
  };
  const Counts& counts() const { return counts_; }

 private:
  void count_error(int32_t code) const;
  const Method* find(const plist::String* selector) const;
  // `selector` becomes that of the request, where it has one, and `error_code` that of the error that is answered.
  plist::Ref<plist::MutableDictionary> answer(ExportedObject& object, const Message& message,
                                              plist::Ref<plist::String>& selector, int32_t& error_code) const;

  const std::vector<Method> methods_;
  mutable Counts counts_;
};

}  // namespace corvane
