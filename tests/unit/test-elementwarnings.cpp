/* SPDX-License-Identifier: MIT */
#include "elementwarnings.h"

#include "logtext.h"
#include "ratelimitedlog.h"
#include "testhost.h"

#include <string>
#include <syslog.h>

using testhost::SyslogLine;
using testhost::SyslogLines;

namespace
{

/* An element of this factory. */
class Element
{
public:
  explicit Element(const char *factory, const char *name = nullptr)
      : element_(gst_element_factory_make(factory, name))
  {
    gst_object_ref_sink(element_);
  }

  ~Element()
  {
    gst_object_unref(element_);
  }

  Element(const Element &) = delete;
  Element &operator=(const Element &) = delete;

  GstObject *object() const
  {
    return GST_OBJECT(element_);
  }

private:
  GstElement *element_;
};

void
warn(GstObject *source, GQuark domain, gint code, const std::string &text, const char *debug = nullptr)
{
  g_autoptr(GError) warning = g_error_new_literal(domain, code, text.c_str());
  g_autoptr(GstMessage) message = gst_message_new_warning(source, warning, debug);

  element_warnings_log(message);
}

void
warn_of_decoding(GstObject *source, const std::string &text, const char *debug = nullptr)
{
  warn(source, GST_STREAM_ERROR, GST_STREAM_ERROR_DECODE, text, debug);
}

SyslogLine
line(const std::string &source, const std::string &text)
{
  return {LOG_WARNING, "Warning from " + source + " in metadata connection manager pipeline: " + text};
}

class ElementWarningsTest : public testhost::Fixture
{
protected:
  void TearDown() override
  {
    EXPECT_EQ(testhost::take_syslog(), SyslogLines());
    flush();
    Fixture::TearDown();
  }

  /* Ends all intervals and returns the lines of their counts. */
  static SyslogLines flush()
  {
    rate_limited_log_flush();
    return testhost::take_syslog();
  }
};

} // namespace

TEST_F(ElementWarningsTest, LogsTheFactoryAndTheText)
{
  const Element queue("queue", "some name");

  warn_of_decoding(queue.object(), "Something is left out.");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{line("queue", "Something is left out.")}));
}

TEST_F(ElementWarningsTest, LogsTheDetailsWithoutFileAndLine)
{
  const Element queue("queue");

  warn_of_decoding(queue.object(), "Something is left out.", "file.cpp(7): f (): /queue:\n12 bytes");
  warn(queue.object(), GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT, "Something is odd.",
       "file.cpp(8): f (): /queue");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{line("queue", "Something is left out. (12 bytes)"),
                                                  line("queue", "Something is odd.")}));
}

TEST_F(ElementWarningsTest, NamesTheTypeOfASourceWithoutAFactory)
{
  const Element queue("queue");
  g_autoptr(GstPad) pad = gst_element_get_static_pad(GST_ELEMENT(queue.object()), "sink");

  warn_of_decoding(GST_OBJECT(pad), "Something is left out.");
  warn_of_decoding(nullptr, "Something is left out.");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{line("GstPad", "Something is left out."),
                                                  line("the pipeline", "Something is left out.")}));
}

TEST_F(ElementWarningsTest, ClipsATextAndKeepsItOnOneLine)
{
  const Element queue("queue");
  const std::string text(LOG_TEXT_MAX_BYTES + 1, 'x');

  warn_of_decoding(queue.object(), text);
  warn(queue.object(), GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT, "one\nline", "place:\nof\ntwo");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{line("queue", text.substr(1) + "... (1 bytes left out)"),
                                                  line("queue", "one\\x0aline (of\\x0atwo)")}));
}

TEST_F(ElementWarningsTest, CountsAKindForAllElementsOfAFactory)
{
  const Element first("queue");
  const Element second("queue");

  for (int i = 0; i < 3; i++) {
    warn_of_decoding(first.object(), "Something is left out.");
    warn_of_decoding(second.object(), "Something else is left out.");
  }
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{line("queue", "Something is left out.")}));
  EXPECT_EQ(flush(),
            (SyslogLines{line("queue", "Something else is left out. (4 more since the last such line)")}));
}

TEST_F(ElementWarningsTest, LogsALineForEachSourceDomainAndCode)
{
  const Element queue("queue");
  const Element sink("fdsink");

  for (int i = 0; i < 2; i++) {
    warn_of_decoding(queue.object(), "one");
    warn_of_decoding(sink.object(), "two");
    warn(queue.object(), GST_RESOURCE_ERROR, GST_STREAM_ERROR_DECODE, "three");
    warn(queue.object(), GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT, "four");
  }
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{line("queue", "one"), line("fdsink", "two"),
                                                  line("queue", "three"), line("queue", "four")}));
}

TEST_F(ElementWarningsTest, SharesALineAmongTheKindsBeyondTheLimit)
{
  const Element queue("queue");
  SyslogLines expected;

  for (gint code = 0; code < ELEMENT_WARNINGS_MAX_KINDS + 3; code++) {
    warn(queue.object(), GST_STREAM_ERROR, code, std::to_string(code));
    if (code <= ELEMENT_WARNINGS_MAX_KINDS) {
      expected.push_back(line("queue", std::to_string(code)));
    }
  }
  EXPECT_EQ(testhost::take_syslog(), expected);
  EXPECT_EQ(flush(), (SyslogLines{line("queue", std::to_string(ELEMENT_WARNINGS_MAX_KINDS + 2) +
                                                    " (1 more since the last such line)")}));
}

TEST_F(ElementWarningsTest, ReusesThePlaceOfAKindAfterItsInterval)
{
  const Element queue("queue");

  for (gint code = 0; code < ELEMENT_WARNINGS_MAX_KINDS; code++) {
    warn(queue.object(), GST_STREAM_ERROR, code, "early");
  }
  EXPECT_EQ(testhost::take_syslog().size(), gsize{ELEMENT_WARNINGS_MAX_KINDS});
  EXPECT_EQ(flush(), SyslogLines());
  for (int i = 0; i < 2; i++) {
    warn(queue.object(), GST_RESOURCE_ERROR, 1, "late");
    warn(queue.object(), GST_RESOURCE_ERROR, 2, "late too");
  }
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{line("queue", "late"), line("queue", "late too")}));
}
