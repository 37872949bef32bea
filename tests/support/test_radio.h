#pragma once

#include <map>

#include "platform/telephony.h"

namespace corvane::testing {

/// A telephony service that answers what a test tells it to, without a notification centre.
struct TestRadio final : Telephony {
  struct Connection final : TelvoServerConnection {
    explicit Connection(TestRadio& owner) : radio(owner) {}
    // A query that fails fills its slot all the same, which nobody may use.
    TelvoStatus copy(Query query, plist::Ref<plist::Value>& slot) override {
      slot = radio.answers[query];
      return {1, radio.queries_fail ? static_cast<int32_t>(query) + 1 : 0};
    }
    TestRadio& radio;
  };

  TelephonyCentre* default_centre() override { return nullptr; }
  std::unique_ptr<TelvoServerConnection> connect(void (*)()) override {
    return std::make_unique<Connection>(*this);
  }
  TelvoRadioStatus copy_radio_status() override { return record; }
  plist::Ref<plist::Value> sim_status() override { return status; }
  plist::Ref<plist::Value> copy_my_phone_number() override { return phone_number; }

  std::map<TelvoServerConnection::Query, plist::Ref<plist::Value>> answers;
  bool queries_fail = false;
  TelvoRadioStatus record;
  plist::Ref<plist::Value> status, phone_number;
};

}  // namespace corvane::testing
