/* SPDX-License-Identifier: MIT */
#include "testproducers.h"

#include <gtest/gtest.h>

namespace testproducers
{

AnalyticsProducer *
make_producer(const std::string &name, const Channels &channels, gint type)
{
  g_autoptr(GArray) array = g_array_new(FALSE, FALSE, sizeof(guint32));

  g_array_append_vals(array, channels.data(), channels.size());
  return analytics_producer_new(name.c_str(), ("nice " + name).c_str(), ("<" + name + "/>").c_str(), array,
                                type);
}

std::string
text_property(AnalyticsProducer *producer, const char *name)
{
  g_autofree gchar *text = nullptr;

  g_object_get(producer, name, &text, nullptr);
  return text;
}

std::string
state(AnalyticsProducer *producer, guint32 channel)
{
  auto *untouched = reinterpret_cast<gchar *>(producer);
  gchar *taken = untouched;
  const gboolean enabled = analytics_producer_get_channel_enabled(producer, channel, &taken);
  g_autofree gchar *name = taken == untouched ? g_strdup("untouched") : taken;

  EXPECT_TRUE(enabled == TRUE || enabled == FALSE);
  EXPECT_EQ(enabled, name != nullptr);
  EXPECT_EQ(analytics_producer_get_channel_enabled(producer, channel, nullptr), enabled);
  return name != nullptr ? "[" + std::string(name) + "]" : "disabled";
}

guint
references(gpointer object)
{
  return G_OBJECT(object)->ref_count;
}

} // namespace testproducers
