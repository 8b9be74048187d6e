/* SPDX-License-Identifier: MIT */
#include "mount.h"

#include "rtsplimits.h"
#include "rtspmedia.h"
#include "videoline.h"

#include <gst/video/video.h>
#include <syslog.h>

/* The clients of a mount share one media, thus one video and one stream of the daemon. It exists from the
 * first client's request to the last client's end, and its feed belongs to it. A client that comes while a
 * media ends waits for its end, because two videos cannot have the same device, and gets the next media. So
 * does one that comes after the video has failed. A request holds the media from its choice to its reply:
 * otherwise its last client could leave in between, and the request would fail.
 *
 * Threads: the settings never change. The virtual functions are called on the threads of requests. The lock
 * protects the number of the current media and the count of those that end; no call is made with it held. */

struct _TessardMount {
  GstRTSPMediaFactory parent_instance;
  rtsp::MountSettings *settings;
  GMutex lock;
  GCond cond; /* signalled when a media has ended */
  GWeakRef current;
  guint number;
  guint ending;
};

G_DEFINE_FINAL_TYPE(TessardMount, tessard_mount, GST_TYPE_RTSP_MEDIA_FACTORY)

namespace
{

using rtsp::MetadataFeed;

constexpr const char *FEED_KEY = "tessard-metadata-feed";
constexpr const char *HELD_KEY = "tessard-held-media";
constexpr const char *TRACK = "metadata";

/* ONVIF's examples have this type, too. */
constexpr int METADATA_PAYLOAD_TYPE = 107;

using FeedPointer = std::shared_ptr<MetadataFeed>;

void
drop_feed(gpointer data)
{
  auto *feed = static_cast<FeedPointer *>(data);
  (*feed)->stop();
  delete feed;
}

FeedPointer *
find_feed(GstRTSPMedia *media)
{
  return static_cast<FeedPointer *>(g_object_get_data(G_OBJECT(media), FEED_KEY));
}

void
on_ending(GstRTSPMedia *media, gpointer user_data)
{
  auto *self = TESSARD_MOUNT(user_data);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);
  self->number++;
  self->ending++;
}

void
release_media(gpointer data)
{
  g_autoptr(GstRTSPMedia) media = GST_RTSP_MEDIA(data);
  gst_rtsp_media_unprepare(media);
}

/* Holds the current media for a client's request. One that is not prepared, or ends, cannot be held. */
void
hold_media(TessardMount *self, GstRTSPClient *client)
{
  g_autoptr(GstRTSPMedia) media = static_cast<GstRTSPMedia *>(g_weak_ref_get(&self->current));
  if (media != nullptr && gst_rtsp_media_get_status(media) == GST_RTSP_MEDIA_STATUS_PREPARED &&
      gst_rtsp_media_prepare(media, nullptr)) {
    g_object_set_data_full(G_OBJECT(client), HELD_KEY, g_steal_pointer(&media), release_media);
  }
}

/* A media that has failed before it was ready has not announced its end. */
void
on_unprepared(GstRTSPMedia *media, gpointer user_data)
{
  auto *self = TESSARD_MOUNT(user_data);
  (*find_feed(media))->stop();
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);
  self->ending -= self->ending > 0 ? 1 : 0;
  g_cond_broadcast(&self->cond);
}

/* Puts an element before the payloader that goes on when nothing takes the packets: a track that no client
 * has set up is not linked, and its source would end with an error. */
void
keep_running_without_clients(GstBin *bin, GstElement *payloader)
{
  g_autoptr(GstPad) sink = gst_element_get_static_pad(payloader, "sink");
  g_autoptr(GstPad) source = gst_pad_get_peer(sink);
  GstElement *tee = gst_element_factory_make("tee", nullptr);
  g_object_set(tee, "allow-not-linked", TRUE, nullptr);
  gst_bin_add(bin, tee);
  g_autoptr(GstPad) tee_sink = gst_element_get_static_pad(tee, "sink");
  g_autoptr(GstPad) tee_source = gst_element_request_pad_simple(tee, "src_%u");
  gst_pad_unlink(source, sink);
  gst_pad_link(source, tee_sink);
  gst_pad_link(tee_source, sink);
}

/* Adds the metadata to the tracks.
 *
 * Returns: %FALSE if an element is not installed */
bool
add_metadata(GstBin *bin, bool is_gzip, int index)
{
  GstElement *payloader = gst_element_factory_make("tessardrtppay", nullptr);
  if (payloader == nullptr) {
    return false;
  }
  const std::string name = "pay" + std::to_string(index);
  GstElement *track = rtsp::new_metadata_track();
  gst_object_set_name(GST_OBJECT(track), TRACK);
  gst_object_set_name(GST_OBJECT(payloader), name.c_str());
  g_object_set(payloader, "pt", METADATA_PAYLOAD_TYPE, "gzip", is_gzip ? TRUE : FALSE, nullptr);
  gst_bin_add_many(bin, track, payloader, nullptr);
  gst_element_link(track, payloader);
  keep_running_without_clients(bin, payloader);
  return true;
}

/* Returns: (transfer floating) (nullable): a bin with the video, or an empty one */
GstElement *
new_video(const std::string &line)
{
  if (line.empty()) {
    return gst_bin_new(nullptr);
  }
  g_autoptr(GError) error = nullptr;
  GstElement *bin =
      gst_parse_bin_from_description_full(line.c_str(), FALSE, nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
  if (bin == nullptr) {
    syslog(LOG_WARNING, "The video failed: %s", error->message);
    return nullptr;
  }
  g_autoptr(GstElement) payloader = gst_bin_get_by_name(GST_BIN(bin), rtsp::VIDEO_PAYLOADER);
  keep_running_without_clients(GST_BIN(bin), payloader);
  return bin;
}

/* A client is told only that there is no media. Called on the thread that posts the message. */
void
on_error(GstBus *bus, GstMessage *message, gpointer user_data)
{
  g_autoptr(GError) error = nullptr;
  gst_message_parse_error(message, &error, nullptr);
  syslog(LOG_WARNING, "The video failed: %s", error->message);
  auto *self = TESSARD_MOUNT(user_data);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);
  self->number++;
}

void
request_key_frame(GstRTSPMedia *media)
{
  g_autoptr(GstElement) tracks = gst_rtsp_media_get_element(media);
  g_autoptr(GstElement) payloader = gst_bin_get_by_name(GST_BIN(tracks), rtsp::VIDEO_PAYLOADER);
  GstEvent *event = gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0);
  gst_element_send_event(payloader, event);
}

} // namespace

/* The engine finds the media of a client by this key. Its own one has the query of the URL, with which each
 * client could make a media of its own. */
static gchar *
tessard_mount_gen_key(GstRTSPMediaFactory *factory, const GstRTSPUrl *url)
{
  auto *self = TESSARD_MOUNT(factory);
  const GstRTSPContext *context = gst_rtsp_context_get_current();
  if (context != nullptr && context->client != nullptr) {
    hold_media(self, context->client);
  }
  const gint64 end_us = g_get_monotonic_time() + RTSP_MEDIA_END_SECONDS * G_TIME_SPAN_SECOND;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);
  while (self->ending > 0 && g_cond_wait_until(&self->cond, &self->lock, end_us)) {
  }
  return g_strdup_printf("%u", self->number);
}

/* Returns: (transfer floating) (nullable): the engine sinks it, and would leave a reference of the mount */
static GstElement *
tessard_mount_create_element(GstRTSPMediaFactory *factory, const GstRTSPUrl *url)
{
  const rtsp::MountSettings &settings = *TESSARD_MOUNT(factory)->settings;
  GstElement *bin = new_video(settings.video_line);
  if (bin == nullptr || add_metadata(GST_BIN(bin), settings.is_gzip, settings.video_line.empty() ? 0 : 1)) {
    return bin;
  }
  gst_object_unref(gst_object_ref_sink(bin));
  return nullptr;
}

static GstElement *
tessard_mount_create_pipeline(GstRTSPMediaFactory *factory, GstRTSPMedia *media)
{
  GstElement *pipeline =
      GST_RTSP_MEDIA_FACTORY_CLASS(tessard_mount_parent_class)->create_pipeline(factory, media);
  g_autoptr(GstBus) bus = gst_element_get_bus(pipeline);
  gst_bus_enable_sync_message_emission(bus);
  g_signal_connect(bus, "sync-message::error", G_CALLBACK(on_error), factory);
  return pipeline;
}

static void
tessard_mount_configure(GstRTSPMediaFactory *factory, GstRTSPMedia *media)
{
  const rtsp::MountSettings &settings = *TESSARD_MOUNT(factory)->settings;
  GST_RTSP_MEDIA_FACTORY_CLASS(tessard_mount_parent_class)->configure(factory, media);
  g_autoptr(GstElement) tracks = gst_rtsp_media_get_element(media);
  g_autoptr(GstElement) track = gst_bin_get_by_name(GST_BIN(tracks), TRACK);
  auto feed = std::make_shared<MetadataFeed>(settings.request, settings.channel, GST_APP_SRC(track));
  g_object_set_data_full(G_OBJECT(media), FEED_KEY, new FeedPointer(feed), drop_feed);
  g_weak_ref_set(&TESSARD_MOUNT(factory)->current, media);
  g_signal_connect(media, "ending", G_CALLBACK(on_ending), factory);
  g_signal_connect(media, "unprepared", G_CALLBACK(on_unprepared), factory);
}

static void
tessard_mount_init(TessardMount *self)
{
  g_weak_ref_init(&self->current, nullptr);
  g_mutex_init(&self->lock);
  g_cond_init(&self->cond);
}

static void
tessard_mount_finalize(GObject *object)
{
  auto *self = TESSARD_MOUNT(object);
  delete self->settings;
  g_weak_ref_clear(&self->current);
  g_cond_clear(&self->cond);
  g_mutex_clear(&self->lock);
  G_OBJECT_CLASS(tessard_mount_parent_class)->finalize(object);
}

static void
tessard_mount_class_init(TessardMountClass *klass)
{
  GstRTSPMediaFactoryClass *factory_class = GST_RTSP_MEDIA_FACTORY_CLASS(klass);
  G_OBJECT_CLASS(klass)->finalize = tessard_mount_finalize;
  factory_class->gen_key = tessard_mount_gen_key;
  factory_class->create_element = tessard_mount_create_element;
  factory_class->create_pipeline = tessard_mount_create_pipeline;
  factory_class->configure = tessard_mount_configure;
}

namespace rtsp
{

/**
 * new_mount:
 * @settings: the tracks
 *
 * Returns: (transfer full): a factory of media for the mount points
 */
TessardMount *
new_mount(const MountSettings &settings)
{
  auto *mount = TESSARD_MOUNT(g_object_new(TESSARD_TYPE_MOUNT, "shared", TRUE, nullptr));
  mount->settings = new MountSettings(settings);
  gst_rtsp_media_factory_set_media_gtype(GST_RTSP_MEDIA_FACTORY(mount), TESSARD_TYPE_RTSP_MEDIA);
  return mount;
}

/**
 * end_request:
 * @client: a client
 *
 * Its request has a reply. Must be called for each reply, on any thread.
 */
void
end_request(GstRTSPClient *client)
{
  g_object_set_data(G_OBJECT(client), HELD_KEY, nullptr);
}

/**
 * play_media:
 * @media: a media of a mount
 *
 * A client plays the media: the metadata begins with the complete state, the video with a key frame. Can be
 * called on any thread.
 */
void
play_media(GstRTSPMedia *media)
{
  (*find_feed(media))->play();
  g_autoptr(GstElement) tracks = gst_rtsp_media_get_element(media);
  g_autoptr(GstElement) payloader = gst_bin_get_by_name(GST_BIN(tracks), "pay1");
  if (payloader != nullptr) {
    request_key_frame(media);
  }
}

} // namespace rtsp
