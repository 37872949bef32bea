#pragma once

#include "daemon/completion_block.h"

/// The answers that methods share. Each calls the completion block, unless that is empty.
namespace corvane {

/// No dictionary and no error.
void answer_nothing(const CompletionBlock& completion);
void answer(const CompletionBlock& completion, plist::Dictionary& reply);
/// Error code 1: an argument is missing or wrong.
void answer_bad_argument(const CompletionBlock& completion);
/// Error code 2: the operation failed.
void answer_failure(const CompletionBlock& completion);
/// Error code 2, with a description that tells the operator why.
void answer_failure_because(const CompletionBlock& completion, const char* description);

}  // namespace corvane
