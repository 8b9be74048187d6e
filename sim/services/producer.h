/* SPDX-License-Identifier: MIT */
#pragma once

#include "camera.h"
#include "fault.h"
#include "stream.h"

#include <map>

namespace sim
{

enum class Method {
  GET_SAMPLE_FRAME,
  GET_STREAM_FD,
};

/* The descriptors that GetStreamFd returns. */
struct Descriptors {
  bool socket = false; /* if false, a pipe */
  bool blocking = true;
};

/* One producer of analytics: its properties, its sample frame and its streams. Main thread only. */
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
  bool inject_fault(const std::string &method, const Arguments &arguments, GError **error);
  void clear_faults();
  const Fault &fault_of(Method method) const;

  Descriptors descriptors;
  Pieces pieces;

private:
  GVariant *property_value(const char *property) const;
  bool check_channel(gint32 channel, GError **error) const;

  const std::string name_;
  const std::string nice_name_;
  const Camera &camera_;
  std::optional<std::string> sample_frame_; /* overrides the feed's */
  std::map<std::string, std::shared_ptr<GVariant>>
      overridden_; /* properties; one without a value is omitted */
  std::array<Fault, 2> faults_;
  const std::unique_ptr<Feed> feed_;
  std::vector<std::unique_ptr<Stream>> streams_;
};

} // namespace sim
