#pragma once

#include <initializer_list>
#include <string_view>
#include <vector>

#include "daemon/completion_block.h"
#include "platform/ipc_listener.h"
#include "plist/value.h"

namespace corvane {

/// An exported interface as a table of methods. A message becomes a request, the request finds its method,
/// and what the method's completion block is given becomes the response; requests that cannot be read, name
/// no method or lack an argument are answered with the error "Unexpeceted parameter", and one that memory runs
/// out for with "operation failed". Where that finds no memory either, `deliver` throws std::bad_alloc.
class MethodTable final : public ExportedInterface {
 public:
  struct Method {
    std::string_view selector;
    void (*call)(ExportedObject& object, const plist::Dictionary& request, const CompletionBlock& completion);
  };

  MethodTable(std::initializer_list<Method> methods) : methods_(methods) {}

  bool deliver(ExportedObject& object, const Message& message, plist::ByteChain& response) const override;

 private:
  const Method* find(const plist::String* selector) const;
  // `selector` becomes that of the request, where it has one.
  plist::Ref<plist::MutableDictionary> answer(ExportedObject& object, const Message& message,
                                              plist::Ref<plist::String>& selector) const;

  const std::vector<Method> methods_;
};

}  // namespace corvane
