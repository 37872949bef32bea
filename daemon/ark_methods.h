#pragma once

#include <set>
#include <string>

#include "daemon/completion_block.h"
#include "plist/value.h"
#include "state/data_ark.h"

namespace corvane {

/// A key of the data ark and its domain. A null domain is none; without a key it is the domain's own entry.
struct ArkKey {
  plist::String* domain = nullptr;
  plist::String* key = nullptr;
};

/// The admin methods of the data ark. Those that may change it store it once, before they answer, if the file
/// lacks a change or the last store of such a method has failed. Where the store fails they answer code 2, and the
/// change is kept in memory. Every method answers code 2 where the ark could not be loaded for lack of memory.
/// Request queue.
class ArkMethods {
 public:
  /// The ark must outlive this; null where there is none. Before the first request.
  void set_ark(data_ark* ark) { ark_ = ark; }
  data_ark* ark() const { return ark_; }

  /// Answers {"Value", "Attributes"}, or no dictionary where there is no such entry.
  void copyArkValueForDomain_key_withCompletionBlock(const ArkKey& key, const CompletionBlock& completion);

  /// Set and remove answer the entry as it was before, or no dictionary where there was none. Code 1 for a key or
  /// a value that is too long to be set.
  void setArkValue_forDomain_key_withCompletionBlock(plist::Value& value, const ArkKey& key,
                                                     const CompletionBlock& completion);
  void removeArkValueForDomain_key_withCompletionBlock(const ArkKey& key, const CompletionBlock& completion);

  /// Gives the key just these attributes, and answers those before under "Attributes". Code 1 where they are not
  /// different integers from 0 to 8, and for a key that is too long.
  void setArkAttributes_forDomain_key_withCompletionBlock(const plist::Array& attributes, const ArkKey& key,
                                                          const CompletionBlock& completion);

  /// Answers a page of a domain's entries, or of the whole ark for a null domain. See `data_ark_copy_page`.
  void copyArkEntriesForDomain_after_withCompletionBlock(plist::String* domain, plist::String* after,
                                                         const CompletionBlock& completion);

  /// Sets all entries, and then the attributes of all. Code 1, with nothing changed, where one of them is wrong or
  /// all together are too many or too large. Of several entries with one key the last one counts.
  void restoreArkEntries_withCompletionBlock(const plist::Array& entries, const CompletionBlock& completion);

  /// Answers the name of the notification that is posted when the value changes or is removed. Code 1 for a
  /// composed key that is too long, or empty behind its domain; code 2 where too many keys are watched.
  void watchArkValueForDomain_key_withCompletionBlock(const ArkKey& key, const CompletionBlock& completion);

 private:
  bool has_ark(const CompletionBlock& completion) const;
  plist::Ref<plist::Dictionary> copy_entry(const ArkKey& key) const;
  void store_and_answer(plist::Dictionary* reply, const CompletionBlock& completion);

  data_ark* ark_ = nullptr;
  /// The file lacks a change, or may lack one that was interrupted. The ark's own count of unsaved changes is
  /// cleared by a failed store, and leaves changes out.
  bool store_is_due_ = false;
  std::set<std::string, std::less<>> watched_;  ///< composed keys
};

}  // namespace corvane
