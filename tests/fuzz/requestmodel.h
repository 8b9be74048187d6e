/* SPDX-License-Identifier: MIT */
// A simple model of requests, for the targets that send them.
#pragma once

#include "requestoutcome.h"

#include <string_view>
#include <utility>

namespace requests
{

constexpr std::string_view PARAGRAPH_SEPARATOR = "\xe2\x80\xa9";

struct Line {
  bool found = false;
  std::string_view text; // with its terminator
  gsize terminator_size = 0;
};

// The expected outcome of the input, and how many of its bytes may be read.
struct Expectation {
  Outcome outcome;
  gsize min_taken = 0;
  gsize max_taken = 0;
};

inline gsize
terminator_at(std::string_view rest)
{
  if (rest.starts_with("\r\n"))
    return 2;
  if (rest.starts_with(PARAGRAPH_SEPARATOR))
    return PARAGRAPH_SEPARATOR.size();
  return rest.front() == '\n' || rest.front() == '\r' || rest.front() == '\0' ? 1 : 0;
}

class Model
{
public:
  // `input` is all that a client sends before it shuts down its half; `max_bytes` of it may be read.
  Model(std::string_view input, gsize max_bytes)
      : readable_(input.substr(0, max_bytes)), max_bytes_(max_bytes), bounded_(input.size() >= max_bytes)
  {
  }

  Expectation run()
  {
    Outcome outcome = open();
    gsize max_taken = outcome.accepted ? position_ : end_of_input_line();
    return {std::move(outcome), position_, max_taken};
  }

private:
  Line next_line()
  {
    std::string_view rest = readable_.substr(position_);
    for (gsize i = 0; i < rest.size(); i++) {
      gsize terminator_size = terminator_at(rest.substr(i));
      bool open_end = rest[i] == '\r' && i + 1 == rest.size() && bounded_;
      if (terminator_size > 0 && !open_end)
        return take(rest.substr(0, i + terminator_size), terminator_size);
    }
    Line last = take(rest, 0);
    return rest.empty() || bounded_ ? Line() : last;
  }

  Line take(std::string_view text, gsize terminator_size)
  {
    position_ += text.size();
    return {true, text, terminator_size};
  }

  Outcome open()
  {
    Line line = next_line();
    if (!line.found)
      return fail("Could not read request from client socket: " + reason());
    if (line.text != "OPEN\n")
      return fail("Unknown: request: " + std::string(line.text.substr(0, line.text.find('\0'))) + " (" +
                  std::to_string(line.text.size()) + ")");
    return header();
  }

  Outcome header()
  {
    Params params;
    for (;;) {
      Line line = next_line();
      if (!line.found)
        return fail("Could not read request header from socket: " + reason());
      if (line.text == "\n")
        return {true, std::move(params), ""};
      std::string_view text = line.text.substr(0, line.text.size() - line.terminator_size);
      std::string_view stripped = text.substr(0, text.find_last_not_of(" \t\n\f\r") + 1);
      gsize equals = stripped.find('=');
      if (equals == stripped.npos)
        return fail("Unable to parse header line: " + std::string(text) + ".");
      params[std::string(stripped.substr(0, equals))] = stripped.substr(equals + 1);
    }
  }

  static Outcome fail(const std::string &reason)
  {
    return {false, {}, "FAIL\n" + reason};
  }

  std::string reason() const
  {
    return bounded_ ? "Request longer than " + std::to_string(max_bytes_) + " bytes" : "";
  }

  // A malformed request is read up to the line feed after the malformed part at most.
  gsize end_of_input_line() const
  {
    gsize last = position_ > 0 ? position_ - 1 : 0;
    gsize line_feed = readable_.find('\n', last);
    return line_feed == readable_.npos ? readable_.size() : line_feed + 1;
  }

  std::string_view readable_;
  gsize max_bytes_;
  bool bounded_; // the readable bytes end at the limit, not at the end of the stream
  gsize position_ = 0;
};

} // namespace requests
