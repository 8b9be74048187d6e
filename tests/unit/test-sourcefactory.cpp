/* SPDX-License-Identifier: MIT */
#include "sourcefactory.h"

#include "logtext.h"
#include "testfactory.h"
#include "testhost.h"

#include <string>
#include <syslog.h>

using testhost::SyslogLine;
using testhost::SyslogLines;

namespace
{

class SourceFactoryTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    params_ = g_hash_table_new(g_str_hash, g_str_equal);
  }

  void TearDown() override
  {
    g_clear_pointer(&params_, g_hash_table_unref);
    Fixture::TearDown();
  }

  GHashTable *params_ = nullptr;
};

} // namespace

TEST_F(SourceFactoryTest, IsAnInterfaceOfObjects)
{
  const GType type = source_factory_get_type();

  EXPECT_STREQ(g_type_name(type), "SourceFactory");
  EXPECT_TRUE(G_TYPE_IS_INTERFACE(type));
  guint count = 0;
  g_autofree GType *prerequisites = g_type_interface_prerequisites(type, &count);
  ASSERT_EQ(count, 1U);
  EXPECT_EQ(prerequisites[0], static_cast<GType>(G_TYPE_OBJECT));
}

TEST_F(SourceFactoryTest, HasNeitherSignalsNorProperties)
{
  gpointer iface = g_type_default_interface_ref(source_factory_get_type());
  guint count = 0;
  g_autofree guint *signals = g_signal_list_ids(source_factory_get_type(), &count);
  EXPECT_EQ(count, 0U);
  g_autofree GParamSpec **properties = g_object_interface_list_properties(iface, &count);
  EXPECT_EQ(count, 0U);
  g_type_default_interface_unref(iface);
}

TEST_F(SourceFactoryTest, HasItsOwnErrorDomain)
{
  EXPECT_STREQ(g_quark_to_string(source_factory_error_quark()), "source_factory_error");
  EXPECT_EQ(source_factory_error_quark(), source_factory_error_quark());
}

TEST_F(SourceFactoryTest, ForwardsTheCallUnchanged)
{
  GHashTable *seen_params = nullptr;
  GError **seen_error = nullptr;
  g_autoptr(GstElement) element =
      GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("fakesrc", nullptr)));
  g_autoptr(TestFactory) factory = test_factory_new([&](GHashTable *params, GError **error) {
    seen_params = params;
    seen_error = error;
    return element;
  });
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(source_factory_create_source(SOURCE_FACTORY(factory), params_, &error), element);
  EXPECT_EQ(seen_params, params_);
  EXPECT_EQ(seen_error, &error);
}

TEST_F(SourceFactoryTest, LeavesTheErrorOfAFactoryThatDeclinesUntouched)
{
  g_autoptr(TestFactory) factory = test_factory_new([](GHashTable *, GError **) { return nullptr; });
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(source_factory_create_source(SOURCE_FACTORY(factory), params_, &error), nullptr);
  EXPECT_EQ(error, nullptr);
}

TEST_F(SourceFactoryTest, ForwardsTheErrorOfAFactoryThatFails)
{
  g_autoptr(TestFactory) factory = test_factory_new([](GHashTable *, GError **error) {
    source_factory_fail(error, source_factory_error_quark(), "No.");
    return nullptr;
  });
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(source_factory_create_source(SOURCE_FACTORY(factory), params_, &error), nullptr);
  EXPECT_TRUE(g_error_matches(error, source_factory_error_quark(), 0));
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "No."}}));
}

TEST_F(SourceFactoryTest, FailSetsAnErrorAndLogsTheSameText)
{
  const GQuark domain = g_quark_from_static_string("another_domain");
  g_autoptr(GError) error = nullptr;

  source_factory_fail(&error, domain, "Value '%s' of %d.", "50%s", 7);

  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, domain);
  EXPECT_EQ(error->code, 0);
  EXPECT_STREQ(error->message, "Value '50%s' of 7.");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "Value '50%s' of 7."}}));
}

TEST_F(SourceFactoryTest, FailLogsForACallerWithoutAnError)
{
  source_factory_fail(nullptr, source_factory_error_quark(), "No error.");

  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "No error."}}));
}

TEST_F(SourceFactoryTest, RefusesAValueWithTheSameTextInErrorAndLog)
{
  const GQuark domain = g_quark_from_static_string("another_domain");
  g_autoptr(GError) error = nullptr;

  source_factory_refuse_value(&error, domain, "Invalid %s", "50%s");

  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, domain);
  EXPECT_EQ(error->code, 0);
  EXPECT_STREQ(error->message, "Invalid %s: '50%s'.");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "Invalid %s: '50%s'."}}));
}

/* The error has the complete value. */
TEST_F(SourceFactoryTest, ClipsALongValueInTheLog)
{
  const std::string longest(LOG_TEXT_MAX_BYTES, 'x');
  g_autoptr(GError) error = nullptr;

  source_factory_refuse_value(&error, source_factory_error_quark(), "No", (longest + "yz").c_str());

  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->message, "No: '" + longest + "yz'.");
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "No: '" + longest + "... (2 bytes left out)'."}}));
}

TEST_F(SourceFactoryTest, EscapesAnyBytesInTheLog)
{
  g_autoptr(GError) error = nullptr;

  source_factory_refuse_value(&error, source_factory_error_quark(), "No", "a\n\xff\x1b");

  ASSERT_NE(error, nullptr);
  EXPECT_STREQ(error->message, "No: 'a\n\xff\x1b'.");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, R"(No: 'a\x0a\xff\x1b'.)"}}));
}

TEST_F(SourceFactoryTest, RefusesAValueForACallerWithoutAnError)
{
  source_factory_refuse_value(nullptr, source_factory_error_quark(), "Invalid", "x");

  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "Invalid: 'x'."}}));
}

TEST_F(SourceFactoryTest, LooksUpAParameterWithoutACopy)
{
  gchar value[] = "1";
  g_hash_table_insert(params_, const_cast<gchar *>("event"), value);

  EXPECT_EQ(source_factory_lookup_param(params_, "event"), value);
  EXPECT_EQ(source_factory_lookup_param(params_, "ptz"), nullptr);
}

TEST_F(SourceFactoryTest, AddsAGhostPadOfTheLastElement)
{
  g_autoptr(GstElement) bin = GST_ELEMENT(gst_object_ref_sink(gst_bin_new(nullptr)));
  GstElement *last = gst_element_factory_make("identity", nullptr);
  gst_bin_add(GST_BIN(bin), last);

  ASSERT_TRUE(source_factory_add_ghost_pad(bin, last));
  g_autoptr(GstPad) pad = gst_element_get_static_pad(bin, "src");
  ASSERT_TRUE(GST_IS_GHOST_PAD(pad));
  g_autoptr(GstPad) target = gst_ghost_pad_get_target(GST_GHOST_PAD(pad));
  EXPECT_EQ(GST_PAD_PARENT(target), last);
}

TEST_F(SourceFactoryTest, AddsNoGhostPadOfAnElementWithoutASourcePad)
{
  g_autoptr(GstElement) bin = GST_ELEMENT(gst_object_ref_sink(gst_bin_new(nullptr)));
  GstElement *last = gst_element_factory_make("fakesink", nullptr);
  gst_bin_add(GST_BIN(bin), last);

  EXPECT_FALSE(source_factory_add_ghost_pad(bin, last));
  EXPECT_EQ(bin->numpads, 0);
}
