/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <string>

/* Reads JSON from one place to the next, as RFC 8259 has it and no laxer. Each read skips the white space in
 * front of what it reads. A place is valid as long as the reader. Any thread, one at a time. */
class JsonReader
{
public:
  JsonReader(const gchar *text, gsize size);
  JsonReader(const JsonReader &) = delete;
  JsonReader &operator=(const JsonReader &) = delete;

  gboolean check_encoding(GError **error) const;
  const gchar *find_next();
  gboolean take(gchar mark);
  gboolean expect(gchar mark, GError **error);
  gboolean expect_end(GError **error);
  gboolean read_string(std::string *value, GError **error);
  gboolean read_int32(gint32 *value, GError **error);
  gboolean read_boolean(gboolean *value, GError **error);
  gboolean refuse(const gchar *place, GError **error, const gchar *format, ...) const G_GNUC_PRINTF(4, 5);

private:
  gboolean take_word(const gchar *word);
  gboolean read_escape(std::string *value, GError **error);

  const std::string text;
  const gchar *position; /* in the text; its final NUL stops every read */
};
