/* SPDX-License-Identifier: MIT */
/* Queries whether the platform's video scene manager has scenes. */
#include "scenemanager.h"

#include "systembus.h"

namespace
{

constexpr SystemBusObject SCENES = {"com.quon.VideoSceneManager1", "/com/quon/VideoSceneManager1",
                                    "com.quon.VideoSceneManager1.Scene"};

} // namespace

/**
 * scene_manager_is_provider_running:
 * @timeout_ms: the longest wait for the reply, in milliseconds; 0 makes the call without waiting for it
 * @cancellable: (nullable): ends the wait for the reply
 * @error: (out) (optional): where to put a shortage of descriptors or the cancellation; other failures are
 *   no errors
 *
 * Calls the scene manager for its number of channels. Logs nothing. Any thread except the main thread.
 *
 * Returns: whether it is at least 1; %FALSE with @error set as system_bus_call() sets it
 */
gboolean
scene_manager_is_provider_running(gint timeout_ms, GCancellable *cancellable, GError **error)
{
  g_autoptr(GVariant) reply =
      system_bus_call(&SCENES, "GetNumberOfChannels", nullptr, timeout_ms, cancellable, error);
  g_autoptr(GVariant) channels = system_bus_get_first_child(reply);

  return channels != nullptr && g_variant_is_of_type(channels, G_VARIANT_TYPE_INT32) &&
         g_variant_get_int32(channels) > 0;
}
