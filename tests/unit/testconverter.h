/* SPDX-License-Identifier: MIT */
/* A stand-in for the platform's converter "json2xml" with selectable behaviour, registered in this process.
 */
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace testconverter
{

/* Once in a process is enough. */
void install();

enum class Behaviour {
  CONVERT,         /* XML_START, the input, XML_END */
  CONVERT_TWICE,   /* the same, and a second buffer with other content */
  IN_PIECES,       /* the same in several memories */
  EMPTY,           /* a buffer of no bytes */
  BYTES,           /* BYTES, not all of them text */
  BAD_TEXT,        /* as many bytes as the input has, none of them text */
  SWALLOW,         /* no output */
  HOLD,            /* nothing while a Hold lives, then like CONVERT */
  FAIL,            /* an error of the stream */
  REFUSE_TO_WAKE,  /* the change of state to READY fails */
  REFUSE_TO_START, /* the change of state to PAUSED fails */
  LIVE,            /* reports in every state that it has no data before PLAYING */
};

constexpr const char *XML_START = "<tt:SampleFrame>";
constexpr const char *XML_END = "</tt:SampleFrame>";
inline const std::string BYTES("<a\0b\0>", 6);

std::ostream &operator<<(std::ostream &stream, Behaviour behaviour);

/* The behaviour of new elements; initially CONVERT. Any thread. */
void set_behaviour(Behaviour behaviour);

/* Holds the buffers of elements with HOLD while this object lives. There is one at a time. */
class Hold
{
public:
  Hold();
  ~Hold();
  Hold(const Hold &) = delete;
  Hold &operator=(const Hold &) = delete;

  /* The number of held buffers, now and at most until now. */
  unsigned waiting() const;
  unsigned most_waiting() const;
};

/* Stops the pipeline of the newest element. FALSE when the pipeline is gone. */
bool stop_left_pipeline();

/* The output of CONVERT for this input. */
std::string converted(const std::string &text);

/* The input of an element. */
struct Input {
  std::string text;
  unsigned memories;
  bool sample_frame;

  bool operator==(const Input &) const = default;
};

std::ostream &operator<<(std::ostream &stream, const Input &input);

/* All inputs since the last call, in order. Any thread. */
std::vector<Input> take_inputs();

} // namespace testconverter
