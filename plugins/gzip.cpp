/* SPDX-License-Identifier: MIT */
#include "gzip.h"

#include <algorithm>

namespace plugins
{

namespace
{

/* What a step adds to the output. */
constexpr gsize STEP_BYTES = 16 * 1024;

/* The level of compression that zlib chooses. */
constexpr int DEFAULT_LEVEL = -1;

enum class StepResult { MORE, COMPLETE, FAILED };

/* Converts a part of the input, which it takes away, and appends at most @max_size bytes to the output. */
StepResult
convert_step(GConverter *converter, const guint8 **data, gsize *size, GByteArray *output, gsize max_size)
{
  const guint used = output->len;
  const auto room = static_cast<guint>(std::min(STEP_BYTES, max_size));
  gsize read = 0;
  gsize written = 0;
  g_byte_array_set_size(output, used + room);
  const GConverterResult result = g_converter_convert(converter, *data, *size, output->data + used, room,
                                                      G_CONVERTER_INPUT_AT_END, &read, &written, nullptr);
  if (result == G_CONVERTER_ERROR) {
    return StepResult::FAILED;
  }
  g_byte_array_set_size(output, used + static_cast<guint>(written));
  *data += read;
  *size -= read;
  return result == G_CONVERTER_FINISHED ? StepResult::COMPLETE : StepResult::MORE;
}

/* Converts all of the input to at most @max_size bytes.
 *
 * Returns: (transfer full) (nullable): the output; %NULL if the input is not valid, has more behind its end,
 *   or becomes longer */
GBytes *
convert(GConverter *converter, const void *input, gsize size, gsize max_size)
{
  const auto *data = static_cast<const guint8 *>(input);
  g_autoptr(GByteArray) output = g_byte_array_new();
  StepResult result = StepResult::MORE;
  while (result == StepResult::MORE && output->len <= max_size) {
    /* One byte more shows whether the output is too long. */
    result = convert_step(converter, &data, &size, output, max_size + 1 - output->len);
  }
  if (result != StepResult::COMPLETE || output->len > max_size || size > 0) {
    return nullptr;
  }
  return g_byte_array_free_to_bytes(g_steal_pointer(&output));
}

} // namespace

/**
 * gzip_compress:
 * @data: (array length=size): a text
 * @size: its length in bytes, less than 2 GiB
 *
 * Returns: (transfer full): the text as one member of the format, without name and time
 */
GBytes *
gzip_compress(const void *data, gsize size)
{
  g_autoptr(GZlibCompressor) compressor = g_zlib_compressor_new(G_ZLIB_COMPRESSOR_FORMAT_GZIP, DEFAULT_LEVEL);
  return convert(G_CONVERTER(compressor), data, size, G_MAXINT);
}

/**
 * gzip_expand:
 * @data: (array length=size): bytes of any content
 * @size: their number
 * @max_size: the longest text in bytes, less than 2 GiB
 *
 * The input does not tell the length of the text, so this stops at the limit.
 *
 * Returns: (transfer full) (nullable): the text; %NULL if the bytes are not exactly one member of the format,
 *   or the text is longer
 */
GBytes *
gzip_expand(const void *data, gsize size, gsize max_size)
{
  g_autoptr(GZlibDecompressor) decompressor = g_zlib_decompressor_new(G_ZLIB_COMPRESSOR_FORMAT_GZIP);
  return convert(G_CONVERTER(decompressor), data, size, max_size);
}

} // namespace plugins
