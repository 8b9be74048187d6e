#pragma once

#include "camera.h"
#include "misbehaviour.h"
#include "stream.h"

#include <map>

namespace sim
{

enum class Method {
  GET_SAMPLE_FRAME,
  GET_STREAM_FD,
};

/* What GetStreamFd hands out. */
struct Descriptors {
  bool socket = false; /* or else a pipe */
  bool blocking = true;
};

/* One producer of analytics: what it says of itself, and its streams. Main thread only. */
class Producer
{
public:
  static constexpr gsize MAX_STREAMS = 64;

  Producer(std::string name, std::string nice_name, const Camera &camera, std::unique_ptr<Feed> feed);

  const std::string &name() const;
  GVariant *properties() const;
  std::string sample_frame() const;
  int open_stream(gint32 channel, GError **error);
  void hang_up();
  gsize stream_count() const;

  void set_sample_frame(const std::string &text);
  bool set_property(const std::string &property, const std::string &value, GError **error);
  bool misbehave(const std::string &method, const Words &words, GError **error);
  void behave();
  const Misbehaviour &misbehaviour(Method method) const;

  Descriptors descriptors;
  Pieces pieces;

private:
  GVariant *property_value(const char *property) const;
  bool check_channel(gint32 channel, GError **error) const;

  const std::string name_;
  const std::string nice_name_;
  const Camera &camera_;
  std::optional<std::string> sample_frame_;                   /* in place of the feed's */
  std::map<std::string, std::shared_ptr<GVariant>> replaced_; /* properties; an unset one is left out */
  std::array<Misbehaviour, 2> misbehaviours_;
  const std::unique_ptr<Feed> feed_;
  std::vector<std::unique_ptr<Stream>> streams_;
};

} /* namespace sim */
