/* SPDX-License-Identifier: MIT */
#include "producerobject.h"

#include "error.h"
#include "metadatareceiver1.h"

#include <gio/gunixfdlist.h>

namespace receiver
{

namespace
{

GVariant *
channels_variant(const std::vector<guint32> &channels)
{
  return g_variant_new_fixed_array(G_VARIANT_TYPE_UINT32, channels.data(), channels.size(), sizeof(guint32));
}

const Producer *
producer_of(gpointer user_data)
{
  return static_cast<std::shared_ptr<Producer> *>(user_data)->get();
}

gboolean
on_get_sample_frame(MetadataReceiver1Producer *object, GDBusMethodInvocation *invocation, gpointer user_data)
{
  metadata_receiver1_producer_complete_get_sample_frame(object, invocation,
                                                        producer_of(user_data)->sample_frame().c_str());
  return TRUE;
}

gboolean
on_get_stream_fd(MetadataReceiver1Producer *object, GDBusMethodInvocation *invocation, GUnixFDList *,
                 gint channel, gpointer user_data)
{
  GError *error = nullptr;
  const int fd = static_cast<std::shared_ptr<Producer> *>(user_data)->get()->open_stream(channel, &error);

  if (fd < 0) {
    g_dbus_method_invocation_take_error(invocation, error);
    return TRUE;
  }
  g_autoptr(GUnixFDList) fds = descriptor_list_new(fd);
  metadata_receiver1_producer_complete_get_stream_fd(object, invocation, fds, g_variant_new_handle(0));
  return TRUE;
}

void
free_producer(gpointer data, GClosure *)
{
  delete static_cast<std::shared_ptr<Producer> *>(data);
}

void
connect(MetadataReceiver1Producer *object, const char *signal, GCallback callback,
        const std::shared_ptr<Producer> &producer)
{
  g_signal_connect_data(object, signal, callback, new std::shared_ptr<Producer>(producer), free_producer,
                        static_cast<GConnectFlags>(0));
}

} // namespace

/**
 * descriptor_list_new:
 * @fd: (transfer full): a descriptor
 *
 * Returns: (transfer full): a list of this descriptor
 */
GUnixFDList *
descriptor_list_new(int fd)
{
  return g_unix_fd_list_new_from_array(&fd, 1);
}

/**
 * producer_object_new:
 * @producer: a producer; the interface keeps it
 *
 * Makes the interface of a producer's object, with the producer's current description.
 *
 * Returns: (transfer full): the interface
 */
GDBusInterfaceSkeleton *
producer_object_new(const std::shared_ptr<Producer> &producer)
{
  const Description &description = producer->description();
  MetadataReceiver1Producer *object = metadata_receiver1_producer_skeleton_new();

  metadata_receiver1_producer_set_name(object, description.name.c_str());
  metadata_receiver1_producer_set_nice_name(object, description.nice_name.c_str());
  metadata_receiver1_producer_set_supported_channels(object, channels_variant(description.channels));
  connect(object, "handle-get-sample-frame", G_CALLBACK(on_get_sample_frame), producer);
  connect(object, "handle-get-stream-fd", G_CALLBACK(on_get_stream_fd), producer);
  return G_DBUS_INTERFACE_SKELETON(object);
}

} // namespace receiver
