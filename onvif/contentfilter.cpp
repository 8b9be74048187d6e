/* SPDX-License-Identifier: MIT */
#include "contentfilter.h"

#include "silenterrors.h"

#include <array>
#include <cstring>
#include <libxml/xpathInternals.h>

/* The expressions come from clients. XPath's core functions have no side effects and load no documents, and
 * no other functions are registered. So only the length of the text and the steps of an evaluation need
 * limits. */

namespace onvif
{

G_DEFINE_QUARK(tessard_content_filter_error, content_filter_error)

namespace
{

struct Fault {
  int code;
  const char *text;
};

constexpr std::array<Fault, 13> FAULTS = {{
    {XPATH_NUMBER_ERROR, "It has a malformed number"},
    {XPATH_UNFINISHED_LITERAL_ERROR, "It has a text without an end"},
    {XPATH_VARIABLE_REF_ERROR, "It has a malformed variable"},
    {XPATH_UNDEF_VARIABLE_ERROR, "It has an unknown variable"},
    {XPATH_INVALID_PREDICATE_ERROR, "It has a malformed predicate"},
    {XPATH_UNCLOSED_ERROR, "It has a bracket without an end"},
    {XPATH_UNKNOWN_FUNC_ERROR, "It has an unknown function"},
    {XPATH_INVALID_TYPE, "It has an operand of the wrong type"},
    {XPATH_INVALID_ARITY, "It has a function with the wrong number of arguments"},
    {XPATH_UNDEF_PREFIX_ERROR, "It has an unknown prefix"},
    {XPATH_INVALID_CHAR_ERROR, "It has an invalid character"},
    {XPATH_OP_LIMIT_EXCEEDED, "It takes too much work"},
    {XPATH_RECURSION_LIMIT_EXCEEDED, "It is nested too deeply"},
}};

const char *
fault_text(int code)
{
  for (const Fault &fault : FAULTS) {
    if (fault.code == code) {
      return fault.text;
    }
  }
  return "It is no XPath expression";
}

/* Without a handler, the context writes errors to standard error. libxml2 passes a code in the numbering of
 * all its errors, and no text. */
void
on_xpath_error(void *user_data, xmlErrorPtr found)
{
  auto error = static_cast<GError **>(user_data);
  if (*error != nullptr) {
    return;
  }
  int code = found->code - XML_XPATH_EXPRESSION_OK + XPATH_EXPRESSION_OK;
  g_set_error_literal(error, content_filter_error_quark(), 0, fault_text(code));
}

xmlXPathContext *
context_new(xmlDoc *document, GError **found)
{
  xmlXPathContext *context = xmlXPathNewContext(document);
  context->error = on_xpath_error;
  context->userData = found;
  context->opLimit = ContentFilter::MAX_OPERATIONS;
  for (const XmlNamespace &known : {TT, WSNT, TNS1}) {
    xmlXPathRegisterNs(context, reinterpret_cast<const xmlChar *>(known.prefix),
                       reinterpret_cast<const xmlChar *>(known.uri));
  }
  return context;
}

/* Sets @error from the context's handler. In a few cases a call fails without calling the handler. */
bool
check_result(bool failed, GError *found, GError **error)
{
  if (found != nullptr) {
    g_propagate_error(error, g_error_copy(found));
  } else if (failed) {
    g_set_error_literal(error, content_filter_error_quark(), 0, "It cannot be evaluated");
  }
  return found == nullptr && !failed;
}

} // namespace

void
ContentFilter::Free::operator()(xmlXPathCompExpr *expression) const
{
  xmlXPathFreeCompExpr(expression);
}

/**
 * ContentFilter::compile:
 * @text: the expression, any bytes
 * @examples: one event of each kind that the source sends
 * @error: set if @text is not an XPath expression or cannot be evaluated on @examples
 *
 * libxml2 detects unknown functions, variables and prefixes in an evaluation only, so the expression is
 * evaluated on the examples.
 *
 * Returns: the filter; unset with @error set
 */
std::optional<ContentFilter>
ContentFilter::compile(const char *text, std::span<const EventMessage> examples, GError **error)
{
  if (strnlen(text, MAX_LENGTH + 1) > MAX_LENGTH) {
    g_set_error(error, content_filter_error_quark(), 0, "It is longer than %" G_GSIZE_FORMAT " bytes",
                MAX_LENGTH);
    return std::nullopt;
  }
  if (!g_utf8_validate(text, -1, nullptr)) {
    g_set_error_literal(error, content_filter_error_quark(), 0, "It is not UTF-8");
    return std::nullopt;
  }

  SilentErrors silent;
  g_autoptr(GError) found = nullptr;
  g_autoptr(xmlXPathContext) context = context_new(nullptr, &found);
  ContentFilter filter;
  filter.expression_.reset(xmlXPathCtxtCompile(context, reinterpret_cast<const xmlChar *>(text)));
  if (!check_result(filter.expression_ == nullptr, found, error)) {
    return std::nullopt;
  }
  for (const EventMessage &example : examples) {
    if (!filter.matches(example, error).has_value()) {
      return std::nullopt;
    }
  }
  return filter;
}

/**
 * ContentFilter::matches:
 * @message: an event
 * @error: set if the evaluation fails, for example after %MAX_OPERATIONS steps
 *
 * Returns: whether the filter selects @message; unset with @error set
 */
std::optional<bool>
ContentFilter::matches(const EventMessage &message, GError **error) const
{
  SilentErrors silent;
  g_autoptr(GError) found = nullptr;
  g_autoptr(xmlDoc) document = event_message_to_document(message);
  g_autoptr(xmlXPathContext) context = context_new(document, &found);
  context->node = xmlDocGetRootElement(document);
  g_autoptr(xmlXPathObject) result = xmlXPathCompiledEval(expression_.get(), context);
  if (!check_result(result == nullptr, found, error)) {
    return std::nullopt;
  }
  return xmlXPathCastToBoolean(result) != 0;
}

} // namespace onvif
