/* The platform's converter of producers' data, "json2xml", as a test wants it to behave. Registered in this
 * process.
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
  CONVERT,         /* XML_START, what came in, XML_END */
  CONVERT_TWICE,   /* the same in two buffers, the second one with something else */
  IN_PIECES,       /* the same, each part in a memory of its own */
  EMPTY,           /* a buffer of no bytes */
  BYTES,           /* BYTES, which are not all text */
  BAD_TEXT,        /* as many bytes as came in, none of which is text */
  SWALLOW,         /* nothing, ever */
  HOLD,            /* nothing as long as there is a Hold, and then as CONVERT */
  FAIL,            /* an error of the stream */
  REFUSE_TO_WAKE,  /* the change of state to READY fails */
  REFUSE_TO_START, /* the change of state to PAUSED fails */
  LIVE,            /* says in every state that it has no data before it plays */
};

constexpr const char *XML_START = "<tt:SampleFrame>";
constexpr const char *XML_END = "</tt:SampleFrame>";
inline const std::string BYTES("<a\0b\0>", 6);

std::ostream &operator<<(std::ostream &stream, Behaviour behaviour);

/* What those elements do that are made from now on; CONVERT at first. Any thread. */
void set_behaviour(Behaviour behaviour);

/* Keeps what comes to an element that is to HOLD it, as long as this object lives. There is one at a time. */
class Hold
{
public:
  Hold();
  ~Hold();
  Hold(const Hold &) = delete;
  Hold &operator=(const Hold &) = delete;

  /* How many buffers wait, at this moment and at most until now. */
  unsigned waiting() const;
  unsigned most_waiting() const;
};

/* Stops the pipeline of the element that was made last. FALSE when the pipeline is gone. */
bool stop_left_pipeline();

/* The text that CONVERT makes of this one. */
std::string converted(const std::string &text);

/* What an element was given. */
struct Input {
  std::string text;
  unsigned memories;
  bool sample_frame;

  bool operator==(const Input &) const = default;
};

std::ostream &operator<<(std::ostream &stream, const Input &input);

/* Everything since the last call, in order. Any thread. */
std::vector<Input> take_inputs();

} // namespace testconverter
