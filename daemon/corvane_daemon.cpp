#include "daemon/corvane_daemon.h"

#include "daemon/answers.h"
#include "daemon/connection_setup.h"
#include "daemon/protocols.h"
#include "device/regulatory_images.h"
#include "wire/methods.h"

namespace corvane {

using plist::Ref;

Ref<plist::Number> CorvaneDaemon::booleanToNumber(const plist::Value* value) {
  return plist::Number::create_int32(value == plist::Boolean::yes() ? 1 : 0);
}

bool CorvaneDaemon::listener_shouldAcceptNewConnection(IpcListener&, IpcConnection& connection) {
  set_up_connection(connection, corvane_protocol(), *this);
  return true;
}

void CorvaneDaemon::copyRegulatoryImagesWithCompletionBlock(const CompletionBlock& completion) {
  const Ref<plist::Dictionary> images = copy_regulatory_images();
  if (completion) completion(images.get(), nullptr);
}

void CorvaneDaemon::copyVersionWithCompletionBlock(const CompletionBlock& completion) {
  const Ref<plist::MutableDictionary> reply = plist::MutableDictionary::create();
  reply->set(wire::version_key, plist::String::create(CORVANE_VERSION));
  answer(completion, *reply);
}

}  // namespace corvane
