/* SPDX-License-Identifier: MIT */
/* Formats a metadata document: on one line, unchanged otherwise, or indented for people. Both end with a line
 * break. Documents are not trusted: parsing one opens no file and no connection.
 */
#include "documentformat.h"

#include <algorithm>
#include <cstring>
#include <libxml/parser.h>
#include <libxml/xmlsave.h>

G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlDoc, xmlFreeDoc)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlBuffer, xmlBufferFree)

namespace
{

/* Entities stay references, so a document cannot expand. */
constexpr int PARSE_OPTIONS = XML_PARSE_NONET | XML_PARSE_NOBLANKS | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

constexpr gchar ENCODING[] = "UTF-8";

gboolean
is_line_break(gchar c)
{
  return c == '\n' || c == '\r';
}

gsize
length_without_trailing_space(const gchar *document, gsize size)
{
  while (size > 0 && g_ascii_isspace(document[size - 1])) {
    size--;
  }
  return size;
}

GString *
format_unchanged(const gchar *document, gsize size)
{
  GString *text = g_string_new_len(document, static_cast<gssize>(size));

  if (size == 0 || document[size - 1] != '\n') {
    g_string_append_c(text, '\n');
  }
  return text;
}

} // namespace

/**
 * document_format_line:
 * @document: (transfer none) (array length=size): one document
 * @size: its length in bytes
 *
 * Formats the document as one line: removes white space at its end and replaces every other line break by a
 * blank.
 *
 * Returns: (transfer full): the document and a line break
 */
GString *
document_format_line(const gchar *document, gsize size)
{
  GString *line =
      g_string_new_len(document, static_cast<gssize>(length_without_trailing_space(document, size)));

  std::replace_if(line->str, line->str + line->len, is_line_break, ' ');
  g_string_append_c(line, '\n');
  return line;
}

/**
 * document_format_indented:
 * @document: (transfer none) (array length=size): one document
 * @size: its length in bytes, at most %G_MAXINT
 *
 * Indents the document, in UTF-8 and with an XML declaration. A document that does not parse stays unchanged.
 *
 * Returns: (transfer full): the document, ending with a line break
 */
GString *
document_format_indented(const gchar *document, gsize size)
{
  g_autoptr(xmlDoc) parsed = xmlReadMemory(document, static_cast<int>(size), nullptr, nullptr, PARSE_OPTIONS);
  if (parsed == nullptr) {
    return format_unchanged(document, size);
  }

  g_autoptr(xmlBuffer) buffer = xmlBufferCreate();
  xmlSaveCtxt *save = xmlSaveToBuffer(buffer, ENCODING, XML_SAVE_FORMAT);
  xmlSaveDoc(save, parsed);
  xmlSaveClose(save);
  return g_string_new_len(reinterpret_cast<const gchar *>(xmlBufferContent(buffer)), xmlBufferLength(buffer));
}
