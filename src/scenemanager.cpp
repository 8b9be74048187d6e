/* What the daemon asks the platform's video scene manager: whether there are scenes. */
#include "scenemanager.h"

#include "systembus.h"

namespace
{

constexpr SystemBusObject SCENES = {"com.quon.VideoSceneManager1", "/com/quon/VideoSceneManager1",
                                    "com.quon.VideoSceneManager1.Scene"};

} // namespace

/**
 * scene_manager_is_provider_running:
 * @timeout_ms: how many milliseconds the reply may take; with 0 the function does not wait for it
 * @cancellable: (nullable): ends the wait for the reply
 * @error: (out) (optional): where to put a shortage of descriptors or the cancellation; other failures are
 *   no errors
 *
 * Asks the scene manager for how many channels it has scenes. Logs nothing. Any thread except the main
 * thread.
 *
 * Returns: %TRUE when it is at least one; %FALSE with @error set as system_bus_call() sets it
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
