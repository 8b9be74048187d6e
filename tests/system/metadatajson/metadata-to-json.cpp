/* SPDX-License-Identifier: MIT */
// Converts the documents in the files that the arguments name. Prints one line per text: a JSON array of the
// source of a frame, the topic of an event, the values of its source, and the text itself.
#include "jsonscalar.h"
#include "metadatajson.h"

#include <cstdio>

namespace
{

std::string
line_of(const onvif::MetadataText &text)
{
  std::string line = "[";
  onvif::json_append_string(&line, text.source);
  line += ',';
  onvif::json_append_string(&line, text.topic);
  line += ",[";
  for (const std::string &value : text.source_values) {
    if (line.back() != '[') {
      line += ',';
    }
    onvif::json_append_string(&line, value);
  }
  return line + "]," + text.json + "]\n";
}

bool
convert(const char *path)
{
  g_autofree char *document = nullptr;
  gsize size = 0;
  g_autoptr(GError) error = nullptr;
  std::optional<onvif::MetadataTexts> texts;
  if (g_file_get_contents(path, &document, &size, &error)) {
    texts = onvif::metadata_to_json({document, size}, &error);
  }
  if (!texts.has_value()) {
    fprintf(stderr, "%s: %s\n", path, error->message);
    return false;
  }
  for (const onvif::MetadataText &text : texts->texts) {
    fputs(line_of(text).c_str(), stdout);
  }
  return true;
}

} // namespace

int
main(int argc, char **argv)
{
  for (int i = 1; i < argc; i++) {
    if (!convert(argv[i])) {
      return 1;
    }
  }
  return 0;
}
