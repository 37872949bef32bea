// Counts in the data ark how often it was run. Needs root, or the daemon's own user.
//
//     c++ -std=c++17 -o client client.cpp $(pkg-config --cflags --libs corvane)

#include <corvane.h>
#include <cstdint>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>

namespace {

struct Release {
  void operator()(corvane_connection* connection) const { corvane_connection_close(connection); }
  void operator()(corvane_value* value) const { corvane_value_release(value); }
};
using Connection = std::unique_ptr<corvane_connection, Release>;
using Value = std::unique_ptr<corvane_value, Release>;

void check(corvane_status status, const corvane_error& error) {
  if (status != CORVANE_OK) throw std::runtime_error(error.message);
}

Connection connect(corvane_service service) {
  corvane_error error;
  corvane_connection* connection = nullptr;
  check(corvane_connection_open(service, nullptr, CORVANE_DEFAULT_TIMEOUT, &connection, &error), error);
  return Connection(connection);
}

// The reply of any of the functions of corvane.h that give one.
template <class Function, class... Arguments>
Value ask(const Connection& connection, Function function, Arguments... arguments) {
  corvane_error error;
  corvane_value* reply = nullptr;
  check(function(connection.get(), arguments..., &reply, &error), error);
  return Value(reply);
}

}  // namespace

int main() try {
  constexpr const char* domain = "com.example.client";
  constexpr const char* key = "Runs";
  const Connection admin = connect(CORVANE_ADMIN);
  const Value entry = ask(admin, corvane_ark_get, domain, key);
  std::int64_t runs = 0;  // stays so where there is no entry, or another kind of value in it
  corvane_value_int64(corvane_value_get(entry.get(), "Value"), &runs);
  const Value increased(corvane_int64_new(runs + 1));
  ask(admin, corvane_ark_set, domain, key, increased.get());
  std::cout << "run " << runs + 1 << "\n";
} catch (const std::exception& error) {
  std::cerr << "client: " << error.what() << "\n";
  return 1;
}
