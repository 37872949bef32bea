#include "daemon/answers.h"

namespace corvane {

namespace {

void answer_error(const CompletionBlock& completion, const ErrorObject& error) {
  if (completion) completion(nullptr, &error);
}

}  // namespace

void answer_nothing(const CompletionBlock& completion) {
  if (completion) completion(nullptr, nullptr);
}

void answer(const CompletionBlock& completion, plist::Dictionary& reply) {
  if (completion) completion(&reply, nullptr);
}

void answer_bad_argument(const CompletionBlock& completion) {
  answer_error(completion, CorvaneError::getError(CorvaneError::unexpected_parameter));
}

void answer_failure(const CompletionBlock& completion) {
  answer_error(completion, CorvaneError::getError(CorvaneError::operation_failed));
}

void answer_failure_because(const CompletionBlock& completion, const char* description) {
  answer_error(completion, operation_failed_because(description));
}

}  // namespace corvane
