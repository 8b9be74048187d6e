/* SPDX-License-Identifier: MIT */
/* Makes a "statuscacheptzsrc" element for a request for pan, tilt and zoom. The factory's field is written
 * before the first request, so several requests can use it at once.
 */
#include "ptzsourcefactory.h"

#include "optionvalidation.h"
#include "ptzvalidation.h"

struct _PTZSourceFactory {
  GObject parent_instance;

  gint32 ptz_move_capabilities;
};

static void ptz_source_factory_iface_init(SourceFactoryInterface *iface);

G_DEFINE_TYPE_WITH_CODE(PTZSourceFactory, ptz_source_factory, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(SOURCE_TYPE_FACTORY, ptz_source_factory_iface_init))

namespace
{

/* Sets a parameter of the request. An absent one leaves the element's default, also for the channel
 * (docs/compatibility.md, "PTZ channel"). */
void
set_option(GstElement *source, const gchar *property, gint32 value)
{
  if (value >= 0) {
    g_object_set(source, property, value, nullptr);
  }
}

GstElement *
create_ptz_source(SourceFactory *self, GHashTable *params, GError **error)
{
  const PtzValidationPtz ptz = ptz_validation_lookup_ptz(params, error);
  gint32 channel = 0;
  PtzValidationSpaces spaces = {};

  /* A bad channel or coordinate space fails the request even without PTZ. */
  if (ptz == PTZ_VALIDATION_PTZ_INVALID || !option_validation_lookup_named_channel(params, &channel, error) ||
      !ptz_validation_lookup_spaces(params, &spaces, error) || ptz == PTZ_VALIDATION_PTZ_OFF) {
    return nullptr;
  }

  GstElement *source = gst_element_factory_make("statuscacheptzsrc", nullptr);
  if (source == nullptr) {
    source_factory_fail(error, source_factory_error_quark(), "Could not construct statuscacheptzsrc.");
    return nullptr;
  }

  set_option(source, "channel", channel);
  set_option(source, "coordinate-space-pantilt", spaces.pan_tilt);
  set_option(source, "coordinate-space-zoom", spaces.zoom);
  /* A filter selects one kind. Without a filter the element produces both. */
  g_object_set(source, "filter-position", ptz == PTZ_VALIDATION_PTZ_POSITION, "filter-status",
               ptz == PTZ_VALIDATION_PTZ_STATUS, "ptz-move-capabilities",
               PTZ_SOURCE_FACTORY(self)->ptz_move_capabilities, nullptr);
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
  iface->create_source = create_ptz_source;
}

/**
 * ptz_source_factory_new:
 * @ptz_move_capabilities: the movements of the camera's head, as its driver reports them; 0 when unknown
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
