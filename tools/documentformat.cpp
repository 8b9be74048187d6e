/* How a metadata document is written: on one line as it came, or indented for people. Either way it ends with
 * a line break. Documents come from outside; parsing one opens no file and no connection.
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

/* Entities stay references: a document that expands to something large stays small. */
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
format_as_it_is(const gchar *document, gsize size)
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
 * Puts the document on one line: white space at its end goes, every other line break becomes a blank. Any
 * thread.
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
 * Indents the document, in UTF-8 and with an XML declaration whatever it came with. What does not parse is
 * left as it came. Any thread.
 *
 * Returns: (transfer full): the document, ending with a line break
 */
GString *
document_format_indented(const gchar *document, gsize size)
{
  g_autoptr(xmlDoc) parsed = xmlReadMemory(document, static_cast<int>(size), nullptr, nullptr, PARSE_OPTIONS);
  if (parsed == nullptr) {
    return format_as_it_is(document, size);
  }

  g_autoptr(xmlBuffer) buffer = xmlBufferCreate();
  xmlSaveCtxt *save = xmlSaveToBuffer(buffer, ENCODING, XML_SAVE_FORMAT);
  xmlSaveDoc(save, parsed);
  xmlSaveClose(save);
  return g_string_new_len(reinterpret_cast<const gchar *>(xmlBufferContent(buffer)), xmlBufferLength(buffer));
}
