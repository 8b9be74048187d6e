/* SPDX-License-Identifier: MIT */
#include "schema.h"

#include "libxml.h"
#include "xml.h"

#include <libxml/catalog.h>
#include <libxml/parser.h>
#include <libxml/xmlschemas.h>

G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlSchema, xmlSchemaFree)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlSchemaParserCtxt, xmlSchemaFreeParserCtxt)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlSchemaValidCtxt, xmlSchemaFreeValidCtxt)

namespace
{

/* The schemas cause warnings about repeated imports. */
void
on_warning(void *user_data, const char *format, ...)
{
}

[[gnu::format(printf, 2, 3)]] void
on_error(void *user_data, const char *format, ...)
{
  va_list arguments;
  va_start(arguments, format);
  g_autofree char *text = g_strdup_vprintf(format, arguments);
  va_end(arguments);
  *static_cast<std::string *>(user_data) += text;
}

xmlSchema *
load_schema(std::string *errors)
{
  const char *folder = g_getenv("ONVIF_SCHEMA_DIR");
  g_autofree char *catalog = g_build_filename(folder, "catalog.xml", nullptr);
  g_autofree char *path = g_build_filename(folder, "ver10", "schema", "metadatastream.xsd", nullptr);
  xmlLoadCatalog(catalog);
  g_autoptr(xmlSchemaParserCtxt) parser = xmlSchemaNewParserCtxt(path);
  xmlSchemaSetParserErrors(parser, on_error, on_warning, errors);
  return xmlSchemaParse(parser);
}

} // namespace

bool
have_onvif_schemas()
{
  return g_getenv("ONVIF_SCHEMA_DIR") != nullptr;
}

testing::AssertionResult
is_valid_fragment(const std::string &fragment)
{
  std::string errors;
  g_autoptr(xmlSchema) schema = load_schema(&errors);
  if (schema == nullptr) {
    return testing::AssertionFailure() << "cannot read the schemas: " << errors;
  }

  std::string text = "<tt:MetadataStream xmlns:tt=\"" + std::string(onvif::TT.uri) + "\">" + fragment +
                     "</tt:MetadataStream>";
  g_autoptr(xmlDoc) document =
      xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, XML_PARSE_NONET);
  if (document == nullptr) {
    return testing::AssertionFailure() << "not well-formed: " << text;
  }
  g_autoptr(xmlSchemaValidCtxt) validation = xmlSchemaNewValidCtxt(schema);
  xmlSchemaSetValidErrors(validation, on_error, on_warning, &errors);
  if (xmlSchemaValidateDoc(validation, document) != 0) {
    return testing::AssertionFailure() << errors << " in " << text;
  }
  return testing::AssertionSuccess();
}
