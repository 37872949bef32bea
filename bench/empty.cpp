// The least that a C++ program can be: it says that it is there, and waits.

#include <iostream>
#include <unistd.h>

int main() {
  std::cout << "ready" << std::endl;
  pause();
}
