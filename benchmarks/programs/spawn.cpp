/* SPDX-License-Identifier: MIT */
/* Measures the start of programs.
 *
 *   benchspawn
 *
 * Each line of standard input is a command:
 *
 *   listening SOCKET PROGRAM [ARGUMENT...]   until a connection to the socket succeeds
 *   byte PROGRAM [ARGUMENT...]               until the program writes to its standard output
 *
 * It ends the program and prints the time since its start in nanoseconds. The programs have its environment.
 */
#include "streams.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <iostream>
#include <iterator>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace benchmarks
{

namespace
{

constexpr gint64 BOUND_NS = 30 * G_GINT64_CONSTANT(1000000000);
constexpr long LOOK_NS = 100 * 1000;

[[noreturn]] void
die(const char *what)
{
  fprintf(stderr, "benchspawn: %s\n", what);
  exit(EXIT_FAILURE);
}

pid_t
spawn(std::vector<std::string> words, int out)
{
  std::vector<char *> arguments;
  posix_spawn_file_actions_t actions;
  pid_t pid = 0;

  arguments.reserve(words.size() + 1);
  for (std::string &word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  if (arguments.size() < 2 ||
      posix_spawn(&pid, arguments[0], &actions, nullptr, arguments.data(), environ) != 0) {
    die("a program does not start");
  }
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

void
wait_for_byte(int in)
{
  char byte = '\0';

  if (read(in, &byte, 1) != 1) {
    die("the program writes nothing");
  }
}

void
wait_for_listener(const std::string &path)
{
  const gint64 deadline = now_ns() + BOUND_NS;
  const timespec look = {0, LOOK_NS};
  int fd = -1;

  while ((fd = connect_to(path.c_str())) < 0) {
    if (now_ns() > deadline) {
      die("the program does not listen");
    }
    nanosleep(&look, nullptr);
  }
  close(fd);
}

void
end(pid_t pid)
{
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
}

void
measure(std::vector<std::string> words)
{
  const bool listens = words.size() > 2 && words[0] == "listening";
  const std::string path = listens ? words[1] : "";
  std::array<int, 2> ends = {-1, -1};

  if (words.empty() || (!listens && words[0] != "byte") || pipe2(ends.data(), O_CLOEXEC) != 0) {
    die("not a command");
  }
  words.erase(words.begin(), words.begin() + (listens ? 2 : 1));
  const gint64 began = now_ns();
  const pid_t pid = spawn(std::move(words), ends[1]);
  close(ends[1]);
  if (listens) {
    wait_for_listener(path);
  } else {
    wait_for_byte(ends[0]);
  }
  printf("%" G_GINT64_FORMAT "\n", now_ns() - began);
  fflush(stdout);
  end(pid);
  close(ends[0]);
}

} // namespace

} // namespace benchmarks

int
main()
{
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    benchmarks::measure({std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()});
  }
  return EXIT_SUCCESS;
}
