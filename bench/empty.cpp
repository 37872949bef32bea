// The smallest C++ program: it says that it runs, and waits.

#include <iostream>
#include <unistd.h>

int main() {
  std::cout << "ready" << std::endl;
  pause();
}
