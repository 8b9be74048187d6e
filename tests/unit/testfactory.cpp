/* SPDX-License-Identifier: MIT */
#include "testfactory.h"

#include "logtext.h"
#include "testhost.h"

#include <syslog.h>

struct _TestFactory {
  GObject parent_instance;

  CreateSource *create_source;
};

static void test_factory_iface_init(SourceFactoryInterface *iface);

G_DEFINE_TYPE_WITH_CODE(TestFactory, test_factory, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(SOURCE_TYPE_FACTORY, test_factory_iface_init))

static void
test_factory_init(TestFactory *self)
{
  self->create_source = new CreateSource;
}

static void
test_factory_finalize(GObject *object)
{
  delete TEST_FACTORY(object)->create_source;

  G_OBJECT_CLASS(test_factory_parent_class)->finalize(object);
}

static void
test_factory_class_init(TestFactoryClass *klass)
{
  G_OBJECT_CLASS(klass)->finalize = test_factory_finalize;
}

static GstElement *
test_factory_create_source(SourceFactory *factory, GHashTable *params, GError **error)
{
  return (*TEST_FACTORY(factory)->create_source)(params, error);
}

static void
test_factory_iface_init(SourceFactoryInterface *iface)
{
  iface->create_source = test_factory_create_source;
}

TestFactory *
test_factory_new(CreateSource create_source)
{
  auto *self = TEST_FACTORY(g_object_new(test_factory_get_type(), nullptr));

  *self->create_source = std::move(create_source);
  return self;
}

namespace testfactory
{

GHashTable *
make_params(const Params &params)
{
  GHashTable *table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);

  for (const auto &[key, value] : params) {
    g_hash_table_insert(table, g_strdup(key.c_str()), g_strdup(value.c_str()));
  }
  return table;
}

Result::Result(SourceFactory *factory, const Params &params)
{
  g_autoptr(GHashTable) table = make_params(params);

  source = source_factory_create_source(factory, table, &error);
  if (source != nullptr) {
    EXPECT_TRUE(g_object_is_floating(source));
    gst_object_ref_sink(source);
  }
  EXPECT_EQ(g_hash_table_size(table), params.size());
}

Result::~Result()
{
  g_clear_object(&source);
  g_clear_error(&error);
}

std::string
Result::property(const char *name) const
{
  g_auto(GValue) value = G_VALUE_INIT;
  g_auto(GValue) text = G_VALUE_INIT;

  g_object_get_property(G_OBJECT(source), name, &value);
  g_value_init(&text, G_TYPE_STRING);
  g_value_transform(&value, &text);
  return g_value_get_string(&text);
}

void
expect_declined(SourceFactory *factory, const Params &params)
{
  const Result result(factory, params);

  EXPECT_EQ(result.source, nullptr);
  EXPECT_EQ(result.error, nullptr);
}

void
expect_refused(SourceFactory *factory, const Params &params, GQuark domain, const std::string &text)
{
  const Result result(factory, params);

  EXPECT_EQ(result.source, nullptr);
  ASSERT_TRUE(g_error_matches(result.error, domain, 0));
  EXPECT_EQ(result.error->message, text);
  EXPECT_EQ(testhost::take_syslog(), (testhost::SyslogLines{{LOG_WARNING, text}}));
}

const std::vector<HostileValue> &
hostile_values()
{
  constexpr gsize LEFT_OUT = 3000;
  static const std::vector<HostileValue> values = {
      {std::string(LOG_TEXT_MAX_BYTES, 'x'), std::string(LOG_TEXT_MAX_BYTES, 'x')},
      {std::string(LOG_TEXT_MAX_BYTES + LEFT_OUT, 'x'),
       std::string(LOG_TEXT_MAX_BYTES, 'x') + "... (" + std::to_string(LEFT_OUT) + " bytes left out)"},
      {"a\nb\t\x1b[2J\xff", R"(a\x0ab\x09\x1b[2J\xff)"},
  };

  return values;
}

void
expect_hostile_values_refused(SourceFactory *factory, const std::string &key, GQuark domain,
                              const std::string &problem)
{
  for (const HostileValue &hostile : hostile_values()) {
    const Result result(factory, {{key, hostile.value}});

    EXPECT_EQ(result.source, nullptr);
    ASSERT_TRUE(g_error_matches(result.error, domain, 0));
    EXPECT_EQ(result.error->message, problem + ": '" + hostile.value + "'.");
    EXPECT_EQ(testhost::take_syslog(),
              (testhost::SyslogLines{{LOG_WARNING, problem + ": '" + hostile.logged + "'."}}));
  }
}

void
expect_plain_factory(GType type, const char *name)
{
  GTypeQuery query = {};

  g_type_query(type, &query);
  EXPECT_STREQ(query.type_name, name);
  EXPECT_EQ(g_type_parent(type), static_cast<GType>(G_TYPE_OBJECT));
  EXPECT_TRUE(g_type_is_a(type, SOURCE_TYPE_FACTORY));
  EXPECT_EQ(query.class_size, sizeof(GObjectClass));
}

void
expect_linked(GstElement *from, GstElement *to)
{
  g_autoptr(GstPad) src = gst_element_get_static_pad(from, "src");
  g_autoptr(GstPad) sink = gst_element_get_static_pad(to, "sink");
  g_autoptr(GstPad) peer = gst_pad_get_peer(src);

  EXPECT_EQ(peer, sink);
}

void
expect_ghost_pad(GstElement *bin, GstElement *converter)
{
  ASSERT_EQ(bin->numpads, 1);
  auto *pad = GST_PAD(bin->pads->data);
  g_autoptr(GstPad) src = gst_element_get_static_pad(converter, "src");

  ASSERT_TRUE(GST_IS_GHOST_PAD(pad));
  g_autoptr(GstPad) target = gst_ghost_pad_get_target(GST_GHOST_PAD(pad));
  EXPECT_STREQ(GST_OBJECT_NAME(pad), "src");
  EXPECT_EQ(GST_PAD_DIRECTION(pad), GST_PAD_SRC);
  EXPECT_EQ(target, src);
}

std::string
factory_name(GstElement *element)
{
  return GST_OBJECT_NAME(gst_element_get_factory(element));
}

} // namespace testfactory
