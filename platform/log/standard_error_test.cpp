#include "platform/log/standard_error.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <sys/socket.h>

namespace corvane {
namespace {

std::string read_all(int reader) {
  static char bytes[4 << 20];
  return {bytes, static_cast<size_t>(read(reader, bytes, sizeof bytes))};
}

void expect_that_nothing_waits(int reader, int writer) {
  const Descriptor saved(dup(STDERR_FILENO));
  dup2(writer, STDERR_FILENO);
  StandardError standard_error;
  alarm(20);  // ends the test where a line waits
  standard_error.write(std::string(2 << 20, 'x') + "\n");
  for (int i = 0; i < 11; ++i) standard_error.write("nobody reads\n");
  EXPECT_EQ(read_all(reader).find_first_not_of('x'), std::string::npos) << "the first part of the first line";
  for (const char* line : {"read again\n", "and again\n"}) standard_error.write(line);
  EXPECT_EQ(read_all(reader), "\n[12 lines dropped]\nread again\nand again\n");
  alarm(0);
  EXPECT_EQ(fcntl(writer, F_GETFL) & O_NONBLOCK, 0) << "the description is the parent's";
  dup2(saved.number(), STDERR_FILENO);
}

TEST(StandardErrorTest, NothingWaitsForWhoeverReadsIt) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  expect_that_nothing_waits(ends[0], ends[1]);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  expect_that_nothing_waits(ends[0], ends[1]);
}

TEST(StandardErrorTest, ARegularFileGetsEveryLineAtTheParentsPlaceInIt) {
  const Descriptor saved(dup(STDERR_FILENO));
  const Descriptor file(open("/tmp", O_TMPFILE | O_RDWR, 0600));
  dup2(file.number(), STDERR_FILENO);
  StandardError standard_error;
  for (const char* line : {"one\n", "two\n", "three\n"}) standard_error.write(line);
  dprintf(file.number(), "the parent's\n");
  dup2(saved.number(), STDERR_FILENO);
  lseek(file.number(), 0, SEEK_SET);
  EXPECT_EQ(read_all(file.number()), "one\ntwo\nthree\nthe parent's\n");
}

}  // namespace
}  // namespace corvane
