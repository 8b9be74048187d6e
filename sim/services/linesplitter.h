#pragma once

#include "message.h"

#include <optional>
#include <string>

namespace sim
{

/* Cuts bytes, as they come, into lines. Empty lines are left out, as are those that no message could carry.
 */
class LineSplitter
{
public:
  void push(std::string_view bytes);
  void finish();
  std::optional<SharedText> pop();
  gsize dropped() const;

private:
  std::string bytes_;  /* what has come and is not cut yet */
  gsize begin_ = 0;    /* of the next line in `bytes_` */
  gsize searched_ = 0; /* up to where no line ends */
  gsize dropped_ = 0;
  bool dropping_ = false; /* a line that is too long already */
};

} /* namespace sim */
