/* SPDX-License-Identifier: MIT */
#pragma once

#include "camera.h"
#include "fault.h"
#include "feedstream.h"
#include "receiver/producer.h"

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

/* A producer of the receiver whose messages come from a feed, and whose properties, replies and streams can
 * have faults. Main thread only. */
class Producer : public receiver::Producer
{
public:
  Producer(std::string name, std::string nice_name, const Camera &camera, std::unique_ptr<Feed> feed,
           receiver::Budget *budget);
  ~Producer() override;

  GVariant *properties() const;
  std::string sample_frame() const override;

  void set_sample_frame(const std::string &text);
  bool set_property(const std::string &property, const std::string &value, GError **error);
  bool inject_fault(const std::string &method, const Arguments &arguments, GError **error);
  void clear_faults();
  const Fault &fault_of(Method method) const;

  Descriptors descriptors;
  Pieces pieces;

protected:
  bool supports(gint64 channel) const override;
  bool open_pair(int fds[2], GError **error) const override;
  std::unique_ptr<receiver::Stream> make_stream(int fd, std::string label,
                                                receiver::Stream::Ended ended) override;

private:
  GVariant *property_value(const char *property) const;

  const Camera &camera_;
  std::optional<std::string> sample_frame_; /* overrides the feed's */
  std::map<std::string, std::shared_ptr<GVariant>>
      overridden_; /* properties; one without a value is omitted */
  std::array<Fault, 2> faults_;
  const std::unique_ptr<Feed> feed_;
};

} // namespace sim
