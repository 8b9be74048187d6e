#pragma once

#include "analyticsproducerlist.h"

#include <gst/gst.h>

G_BEGIN_DECLS

/**
 * SCENE_SAMPLE_FRAME:
 * @producer: the source of the frame, a string literal
 * @more_appearance: what its object shows beside its shape, a string literal
 *
 * A sample frame of scenes as a string literal: the document pretty-printed with two blanks per level of
 * depth and joined into one line; docs/compatibility.md, "blanks in sample frames".
 */
#define SCENE_SAMPLE_FRAME(producer, more_appearance)                                                        \
  "<tt:SampleFrame xmlns:tt=\"http://www.onvif.org/ver10/schema\" Source=\"" producer "\""                   \
  " UtcTime=\"2021-08-12T05:36:00Z\">"                                                                       \
  "  <tt:Object ObjectId=\"105\">"                                                                           \
  "    <tt:Appearance>"                                                                                      \
  "      <tt:Shape>"                                                                                         \
  "        <tt:BoundingBox bottom=\"0.2\" right=\"-0.2\" top=\"0.6\" left=\"-0.6\"/>"                        \
  "        <tt:CenterOfGravity y=\"0.4\" x=\"-0.4\"/>"                                                       \
  "        <tt:Polygon>"                                                                                     \
  "          <tt:Point y=\"0.2\" x=\"-0.2\"/>"                                                               \
  "          <tt:Point y=\"0.6\" x=\"-0.2\"/>"                                                               \
  "          <tt:Point y=\"0.6\" x=\"-0.6\"/>"                                                               \
  "          <tt:Point y=\"0.2\" x=\"-0.6\"/>"                                                               \
  "        </tt:Polygon>"                                                                                    \
  "      </tt:Shape>" more_appearance "    </tt:Appearance>"                                                 \
  "  </tt:Object>"                                                                                           \
  "  <tt:ObjectTree>"                                                                                        \
  "    <tt:Split>"                                                                                           \
  "      <tt:from ObjectId=\"18\"/>"                                                                         \
  "      <tt:to ObjectId=\"20\"/>"                                                                           \
  "      <tt:to ObjectId=\"18\"/>"                                                                           \
  "    </tt:Split>"                                                                                          \
  "    <tt:Merge>"                                                                                           \
  "      <tt:from ObjectId=\"19\"/>"                                                                         \
  "      <tt:from ObjectId=\"18\"/>"                                                                         \
  "      <tt:to ObjectId=\"18\"/>"                                                                           \
  "    </tt:Merge>"                                                                                          \
  "    <tt:Delete ObjectId=\"11\"/>"                                                                         \
  "  </tt:ObjectTree>"                                                                                       \
  "</tt:SampleFrame>"

/**
 * SceneSourceKind:
 * @bin_name: the name of the bin
 * @source: the factory of the element that produces scenes, and the element's name
 * @filter_name: the name of the caps filter behind it
 * @media_type: what the filter lets through
 * @converter: the factory of the element that makes them ONVIF, and the element's name
 * @no_source: the error when @source cannot be made
 * @no_filter: the same for the caps filter
 * @no_converter: the same for @converter
 * @converter_not_added: the error when the converter cannot be put into the bin
 * @filter_not_added: the same for the caps filter
 * @source_not_added: the same for the source
 * @not_linked: the error when the three cannot be linked
 * @no_ghost_pad: the error when the bin cannot get its pad
 *
 * What tells one kind of scene source from another: names, and the texts that a client reads.
 */
typedef struct {
  const gchar *bin_name;
  const gchar *source;
  const gchar *filter_name;
  const gchar *media_type;
  const gchar *converter;

  const gchar *no_source;
  const gchar *no_filter;
  const gchar *no_converter;
  const gchar *converter_not_added;
  const gchar *filter_not_added;
  const gchar *source_not_added;
  const gchar *not_linked;
  const gchar *no_ghost_pad;
} SceneSourceKind;

/**
 * SceneSourceConfigureFunc:
 * @converter: (transfer none): the new converter, in no bin yet
 * @user_data: what was given with the function
 * @error: (out) (optional): where to put the failure
 *
 * Returns: whether the converter can be used; %FALSE with @error set ends the building
 */
typedef gboolean (*SceneSourceConfigureFunc)(GstElement *converter, gpointer user_data, GError **error);

void scene_source_publish_producer(AnalyticsProducerList *producers, const gchar *name,
                                   const gchar *nice_name, const gchar *sample_frame_xml);

gboolean scene_source_is_enabled(AnalyticsProducerList *producers, const gchar *name, gint32 channel,
                                 gchar **source_name);

GstElement *scene_source_new(const SceneSourceKind *kind, gint32 channel, gboolean polygon,
                             SceneSourceConfigureFunc configure, gpointer user_data, GError **error);

G_END_DECLS
