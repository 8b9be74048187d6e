/* SPDX-License-Identifier: MIT */
// The message cutter cuts a stream of messages that arrives in pieces; a simple model cuts the whole stream.
// An input has the modes, the length of a turn, and the pieces.
#include "fuzz.h"
#include "messagecutter.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <numeric>
#include <string>

namespace
{

constexpr const char *FRAME_START = "{start}";
constexpr const char *FRAME_END = "{end}";

// The cutter refuses longer ones.
constexpr guint32 MAX_PAYLOAD = 4096;

// The byte before a piece: its size, and whether the next piece arrives while it is read.
constexpr guint8 SIZE_MASK = 0x7f;
constexpr guint8 MORE_COMES = 0x80;

struct Stream {
  guint8 modes = 0; // bit n: a message whose place modulo 8 is n may come in pieces
  size_t turn = 0;  // a reader's turn ends at each multiple of it; 0 for one turn without end
  std::string bytes;
  std::map<size_t, bool> ends; // where pieces end, and whether nothing more is there then

  bool keeps_pieces(size_t place) const
  {
    return (modes >> place % 8 & 1) != 0;
  }

  bool is_turns_end(size_t place) const
  {
    return turn != 0 && place % turn == 0;
  }

  bool is_dry(size_t place) const
  {
    auto end = ends.find(place);
    return end != ends.end() && end->second;
  }

  // The end of the piece that has the byte at this position.
  size_t piece_end(size_t place) const
  {
    return ends.upper_bound(place)->first;
  }
};

struct Outcome {
  std::vector<std::string> frames; // empty for a message with a length of 0
  bool is_refused = false;         // a length was over the maximum
  bool has_begun = false;          // a message was left unfinished

  bool operator==(const Outcome &) const = default;
};

Stream
make_stream(std::string_view input)
{
  Stream stream;
  auto take = [&input](size_t size) {
    std::string_view taken = input.substr(0, size);
    input.remove_prefix(taken.size());
    return taken;
  };
  auto take_byte = [&take] {
    std::string_view taken = take(1);
    return taken.empty() ? guint8() : static_cast<guint8>(taken.front());
  };

  stream.modes = take_byte();
  stream.turn = take_byte();
  while (!input.empty()) {
    const guint8 head = take_byte();
    stream.bytes += take(head & SIZE_MASK);
    stream.ends[stream.bytes.size()] |= (head & MORE_COMES) == 0;
  }
  stream.ends.try_emplace(stream.bytes.size(), false);
  return stream;
}

// The model

guint32
make_length(std::string_view bytes)
{
  guint32 length = 0;
  memcpy(&length, bytes.data(), std::min(bytes.size(), sizeof length));
  return length;
}

std::string
make_frame(const std::string &payload)
{
  return FRAME_START + payload + FRAME_END;
}

class Model
{
public:
  explicit Model(const Stream &stream) : stream_(stream), bytes_(stream.bytes)
  {
    while (place_ < bytes_.size() && !outcome.is_refused && !outcome.has_begun) {
      if (stream_.keeps_pieces(place_))
        cut_collected();
      else
        cut_at_once();
    }
  }

  Outcome outcome;

private:
  bool is_refused(guint32 length)
  {
    outcome.is_refused = length > MAX_PAYLOAD;
    return outcome.is_refused;
  }

  // Mode that collects pieces: their boundaries have no effect.
  void cut_collected()
  {
    std::string_view rest = bytes_.substr(place_);
    const guint32 length = make_length(rest);
    if (rest.size() >= sizeof length && is_refused(length))
      return;
    if (rest.size() < sizeof length + length) {
      outcome.has_begun = true;
      return;
    }
    place_ += sizeof length + length;
    outcome.frames.push_back(length > 0 ? make_frame(std::string(rest.substr(sizeof length, length))) : "");
  }

  // Otherwise the length has the bytes that the piece has of it, and the payload ends when no byte is
  // available.
  void cut_at_once()
  {
    const size_t end = std::min(place_ + sizeof(guint32), stream_.piece_end(place_));
    const guint32 length = make_length(bytes_.substr(place_, end - place_));
    place_ = end;
    if (is_refused(length))
      return;
    const std::vector<std::string_view> parts = find_parts(length);
    const size_t found = std::accumulate(parts.begin(), parts.end(), size_t(),
                                         [](size_t sum, std::string_view part) { return sum + part.size(); });
    if (found == length)
      outcome.frames.push_back(length > 0 ? make_frame(join(parts, length)) : "");
    else
      outcome.has_begun = !stream_.is_dry(place_);
  }

  // The parts of a payload between the ends of pieces. The end of a turn does not count.
  std::vector<std::string_view> find_parts(size_t left)
  {
    std::vector<std::string_view> parts;
    size_t begin = place_;
    while (left > 0 && !stream_.is_dry(place_) && place_ < bytes_.size()) {
      const size_t end = std::min(place_ + left, stream_.piece_end(place_));
      left -= end - place_;
      place_ = end;
      if (left == 0 || !stream_.is_turns_end(place_)) {
        parts.push_back(bytes_.substr(begin, place_ - begin));
        begin = place_;
      }
    }
    return parts;
  }

  // Each part begins at the size of the part before it.
  static std::string join(const std::vector<std::string_view> &parts, guint32 length)
  {
    std::string payload(length, '\0');
    size_t offset = 0;
    for (std::string_view part : parts) {
      std::copy(part.begin(), part.end(), payload.begin() + static_cast<std::ptrdiff_t>(offset));
      offset = part.size();
    }
    return payload;
  }

  const Stream &stream_;
  std::string_view bytes_;
  size_t place_ = 0;
};

// The component

class Reader
{
public:
  explicit Reader(const Stream &stream) : stream_(stream)
  {
    size_t begin = 0;
    for (auto [end, is_dry] : stream_.ends) {
      read_piece(begin, end);
      if (outcome.is_refused)
        return;
      if (is_dry)
        message_cutter_end_piece(cutter_);
      begin = end;
    }
    outcome.has_begun = message_cutter_has_begun(cutter_);
  }

  ~Reader()
  {
    message_cutter_free(cutter_);
  }

  Reader(const Reader &) = delete;
  Reader &operator=(const Reader &) = delete;

  Outcome outcome;

private:
  void read_piece(size_t begin, size_t end)
  {
    while (begin < end && !outcome.is_refused) {
      if (!message_cutter_has_begun(cutter_))
        message_cutter_set_keeps_pieces(cutter_, stream_.keeps_pieces(begin));
      begin += read_some(begin, end);
      settle();
    }
  }

  size_t read_some(size_t begin, size_t end)
  {
    const size_t limit = stream_.turn != 0 ? stream_.turn - begin % stream_.turn : G_MAXSIZE;
    gsize size = 0;
    guint8 *space = message_cutter_get_space(cutter_, limit, &size);
    fuzz::require(space != nullptr && size > 0, "there is space for the next byte");
    const size_t count = std::min<size_t>(size, end - begin);
    std::copy_n(stream_.bytes.begin() + static_cast<std::ptrdiff_t>(begin), count, space);
    message_cutter_add(cutter_, count);
    return count;
  }

  void settle()
  {
    if (message_cutter_get_state(cutter_) == MESSAGE_CUTTER_NEEDS_FRAME) {
      outcome.is_refused = message_cutter_get_length(cutter_) > MAX_PAYLOAD;
      if (outcome.is_refused)
        return;
      fuzz::require(message_cutter_make_frame(cutter_), "there is memory");
    }
    if (message_cutter_get_state(cutter_) == MESSAGE_CUTTER_COMPLETE) {
      gsize size = 0;
      g_autofree guint8 *frame = message_cutter_take_frame(cutter_, &size);
      outcome.frames.emplace_back(frame, frame + size);
    }
  }

  const Stream &stream_;
  MessageCutter *cutter_ = message_cutter_new(FRAME_START, FRAME_END);
};

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  const Stream stream = make_stream(fuzz::as_text(data, size));
  fuzz::require(Reader(stream).outcome == Model(stream).outcome, "the frames are those of the model");
  return 0;
}
