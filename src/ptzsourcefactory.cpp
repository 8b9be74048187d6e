/* Turns a request for pan, tilt and zoom into one "statuscacheptzsrc" element. The factory's only field is
 * written before anybody else knows the factory, so any number of requests may ask it at once.
 */
#include "ptzsourcefactory.h"

#include "optionvalidation.h"
#include "ptzvalidation.h"

#include <array>

struct _PTZSourceFactory {
  GObject parent_instance;

  gint32 ptz_move_capabilities;
};

static void ptz_source_factory_iface_init(SourceFactoryInterface *iface);

G_DEFINE_TYPE_WITH_CODE(PTZSourceFactory, ptz_source_factory, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(SOURCE_TYPE_FACTORY, ptz_source_factory_iface_init))

namespace
{

/* What the element narrows itself to. Neither means both. */
struct Filters {
  gboolean position;
  gboolean status;
};

/* By the value of "ptz". The first is never used, because 0 asks for no element at all. */
constexpr std::array<Filters, 4> FILTERS = {{
    {FALSE, FALSE},
    {FALSE, FALSE},
    {TRUE, FALSE},
    {FALSE, TRUE},
}};

/* A parameter that becomes a property of the element. An absent one leaves the element's default, also for
 * the channel (docs/compatibility.md, "PTZ channel"). */
struct Option {
  const gchar *key;
  const gchar *property;
  gint32 (*parse)(const gchar *value, GError **error);
};

constexpr std::array OPTIONS = {
    Option{"video_channel", "channel", option_validation_parse_channel},
    Option{"ptz_pantilt_coordinate_space", "coordinate-space-pantilt", ptz_validation_parse_ptz_pantilt},
    Option{"ptz_zoom_coordinate_space", "coordinate-space-zoom", ptz_validation_parse_ptz_zoom},
};

constexpr gint32 UNSET = -1;

using OptionValues = std::array<gint32, OPTIONS.size()>;

/* Reads every option that the request has. FALSE with @error set at the first bad one. */
gboolean
parse_options(GHashTable *params, OptionValues *values, GError **error)
{
  for (gsize i = 0; i < OPTIONS.size(); i++) {
    const gchar *text = source_factory_lookup_param(params, OPTIONS[i].key);
    if (text == nullptr) {
      (*values)[i] = UNSET;
      continue;
    }
    (*values)[i] = OPTIONS[i].parse(text, error);
    if ((*values)[i] < 0) {
      return FALSE;
    }
  }
  return TRUE;
}

void
set_options(GstElement *source, const OptionValues &values)
{
  for (gsize i = 0; i < OPTIONS.size(); i++) {
    if (values[i] != UNSET) {
      g_object_set(source, OPTIONS[i].property, values[i], nullptr);
    }
  }
}

GstElement *
create_source(SourceFactory *self, GHashTable *params, GError **error)
{
  const gint32 ptz = ptz_validation_parse_ptz(source_factory_lookup_param(params, "ptz"), error);
  OptionValues options;

  /* A bad option fails the request even where nothing of PTZ is asked for. */
  if (ptz < 0 || !parse_options(params, &options, error) || ptz == 0) {
    return nullptr;
  }

  GstElement *source = gst_element_factory_make("statuscacheptzsrc", nullptr);
  if (source == nullptr) {
    source_factory_fail(error, source_factory_error_quark(), "Could not construct statuscacheptzsrc.");
    return nullptr;
  }

  const Filters &filters = FILTERS.at(static_cast<gsize>(ptz));
  set_options(source, options);
  g_object_set(source, "filter-position", filters.position, "filter-status", filters.status,
               "ptz-move-capabilities", PTZ_SOURCE_FACTORY(self)->ptz_move_capabilities, nullptr);
  return source;
}

} // namespace

static void
ptz_source_factory_init(PTZSourceFactory *self)
{
}

static void
ptz_source_factory_class_init(PTZSourceFactoryClass *klass)
{
}

static void
ptz_source_factory_iface_init(SourceFactoryInterface *iface)
{
  iface->create_source = create_source;
}

/**
 * ptz_source_factory_new:
 * @ptz_move_capabilities: what the camera's head can move, as its driver says it; 0 if that is not known
 *
 * Any thread.
 *
 * Returns: (transfer full): a new factory of PTZ sources
 */
SourceFactory *
ptz_source_factory_new(gint32 ptz_move_capabilities)
{
  auto *self = PTZ_SOURCE_FACTORY(g_object_new(PTZ_TYPE_SOURCE_FACTORY, nullptr));

  self->ptz_move_capabilities = ptz_move_capabilities;
  return SOURCE_FACTORY(self);
}
