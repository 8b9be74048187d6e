/* SPDX-License-Identifier: MIT */
#include "testpipes.h"

#include "testhost.h"

#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace testpipes
{

std::string
wire_form(const std::string &text)
{
  auto length = static_cast<guint32>(text.size());
  std::string form(sizeof length, '\0');
  std::memcpy(form.data(), &length, sizeof length);
  return form + text;
}

Descriptor::Descriptor(int fd) : fd_(fd)
{
}

Descriptor::Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1))
{
}

Descriptor::~Descriptor()
{
  close();
}

int
Descriptor::fd() const
{
  return fd_;
}

void
Descriptor::close()
{
  if (fd_ >= 0) {
    ::close(std::exchange(fd_, -1));
  }
}

void
Descriptor::write(const std::string &bytes) const
{
  ASSERT_EQ(::write(fd_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::string
Descriptor::read_some(gsize limit) const
{
  struct pollfd input = {fd_, POLLIN, 0};
  std::string bytes(limit, '\0');

  if (poll(&input, 1, 0) != 1) {
    return "";
  }
  const ssize_t count = ::read(fd_, bytes.data(), bytes.size());
  bytes.resize(count > 0 ? static_cast<gsize>(count) : 0);
  return bytes;
}

std::string
Descriptor::read(gsize size) const
{
  std::string bytes;

  EXPECT_TRUE(testhost::spin_until([&] {
    bytes += read_some(size - bytes.size());
    return bytes.size() == size;
  }));
  return bytes;
}

Texts
Descriptor::messages(gsize count) const
{
  Texts texts;

  while (texts.size() < count && !testing::Test::HasFailure()) {
    guint32 length = 0;
    const std::string form = read(sizeof length);
    std::memcpy(&length, form.data(), sizeof length);
    texts.push_back(read(length));
  }
  return texts;
}

bool
Descriptor::reaches_end() const
{
  return testhost::spin_until([this] {
    struct pollfd input = {fd_, POLLIN, 0};
    char byte = 0;
    return poll(&input, 1, 0) == 1 && ::read(fd_, &byte, 1) == 0;
  });
}

Pipe
open_pipe(int capacity)
{
  int fds[2] = {-1, -1};

  EXPECT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
  if (capacity > 0) {
    EXPECT_EQ(fcntl(fds[1], F_SETPIPE_SZ, capacity), capacity);
  }
  return {Descriptor(fds[0]), Descriptor(fds[1])};
}

int
duplicate(const Descriptor &descriptor)
{
  return fcntl(descriptor.fd(), F_DUPFD_CLOEXEC, 0);
}

} // namespace testpipes
