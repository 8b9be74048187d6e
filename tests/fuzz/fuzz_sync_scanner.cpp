/* SPDX-License-Identifier: MIT */
// A client's input after its request, in pieces of any size. A model splits the whole input into lines and
// characters.
#include "fuzz.h"
#include "syncscanner.h"

#include <optional>

namespace
{

constexpr size_t MAX_PIECES = 64;

constexpr std::string_view SYNC_LINE = "SYNC\n";

// UTF-8 sequences by the length that their first byte announces. The last two are never valid, but are read
// to the announced length, like overlong sequences.
struct SequenceKind {
  unsigned char mask;
  unsigned char lead;
  size_t size;
  uint32_t first_character;
};

constexpr SequenceKind SEQUENCE_KINDS[] = {
    {0x80, 0x00, 1, 0x1},     {0xe0, 0xc0, 2, 0x80},     {0xf0, 0xe0, 3, 0x800},
    {0xf8, 0xf0, 4, 0x10000}, {0xfc, 0xf8, 5, 0x200000}, {0xfe, 0xfc, 6, 0x4000000},
};

struct Reference {
  size_t good_bytes;
  std::vector<size_t> sync_ends; // among the good bytes
};

bool
is_continuation(char byte)
{
  return (byte & 0xc0) == 0x80;
}

bool
is_character(std::string_view sequence, const SequenceKind &kind)
{
  uint32_t character = static_cast<unsigned char>(sequence.front()) & static_cast<unsigned char>(~kind.mask);
  for (char byte : sequence.substr(1))
    character = character << 6 | (byte & 0x3f);
  return character >= kind.first_character && character <= 0x10ffff &&
         (character < 0xd800 || character > 0xdfff);
}

// The position at which the first sequence of the text is found to be invalid.
std::optional<size_t>
find_wrong_byte(std::string_view text, size_t *size)
{
  for (const SequenceKind &kind : SEQUENCE_KINDS) {
    if ((static_cast<unsigned char>(text.front()) & kind.mask) != kind.lead)
      continue;
    std::string_view sequence = text.substr(0, kind.size);
    for (size_t i = 1; i < sequence.size(); i++)
      if (!is_continuation(sequence[i]))
        return i;
    *size = sequence.size();
    if (sequence.size() == kind.size && !is_character(sequence, kind))
      return kind.size - 1;
    return std::nullopt;
  }
  return 0;
}

size_t
count_good_bytes(std::string_view text)
{
  size_t size = 0;
  for (size_t i = 0; i < text.size(); i += size)
    if (std::optional<size_t> wrong = find_wrong_byte(text.substr(i), &size); wrong.has_value())
      return i + *wrong;
  return text.size();
}

Reference
read_whole(std::string_view input)
{
  Reference reference = {count_good_bytes(input), {}};
  std::string_view good = input.substr(0, reference.good_bytes);
  size_t begin = 0;
  for (size_t end = good.find('\n'); end != good.npos; end = good.find('\n', begin)) {
    if (good.substr(begin, end + 1 - begin) == SYNC_LINE)
      reference.sync_ends.push_back(end + 1);
    begin = end + 1;
  }
  return reference;
}

size_t
count_syncs(const Reference &reference, size_t begin, size_t end)
{
  size_t count = 0;
  for (size_t sync_end : reference.sync_ends)
    count += sync_end > begin && sync_end <= end;
  return count;
}

void
check(const std::vector<std::string_view> &pieces, const Reference &reference)
{
  SyncScanner scanner = {};
  size_t fed = 0;
  for (std::string_view piece : pieces) {
    guint syncs = G_MAXUINT;
    bool good = sync_scanner_feed(&scanner, piece.data(), piece.size(), &syncs);
    size_t end = fed + piece.size();
    fuzz::require(syncs == count_syncs(reference, fed, end), "the number of lines is the model's");
    fuzz::require(good == (reference.good_bytes >= end), "the piece is refused if its text is invalid");
    if (!good)
      return;
    fed = end;
  }
}

std::vector<std::string_view>
cut_into_bytes(std::string_view input)
{
  std::vector<std::string_view> bytes;
  for (size_t i = 0; i < input.size(); i++)
    bytes.push_back(input.substr(i, 1));
  return bytes;
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  std::string_view input = fuzz::as_text(data, size);
  Reference reference = read_whole(input);
  check({input}, reference);
  check(cut_into_bytes(input), reference);
  check(fuzz::cut_into_pieces(input, MAX_PIECES), reference);
  return 0;
}
