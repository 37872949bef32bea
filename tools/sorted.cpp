#include "tools/sorted.h"

namespace corvane::tools {

SortedEntries sorted(const plist::Dictionary& dictionary) {
  SortedEntries entries;
  for (const plist::Dictionary::Entry& entry : dictionary.entries()) {
    entries.emplace(entry.key->view(), entry.value.get());
  }
  return entries;
}

}  // namespace corvane::tools
