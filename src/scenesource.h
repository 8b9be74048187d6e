/* SPDX-License-Identifier: MIT */
#pragma once

#include "analyticsproducerlist.h"

#include <gst/gst.h>

G_BEGIN_DECLS

/**
 * SCENE_SAMPLE_FRAME:
 * @producer: the source of the frame, a string literal
 * @more_appearance: the elements after the shape of its object, a string literal
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
 * @filter_name: the name of the caps filter after it
 * @media_type: the media type that the filter passes
 * @converter: the factory of the element that converts scenes to ONVIF, and the element's name
 * @no_source: the error when the source cannot be made
 * @no_filter: the error when the caps filter cannot be made
 * @no_converter: the error when the converter cannot be made
 * @converter_not_added: the error when the converter cannot be added to the bin
 * @filter_not_added: the error when the caps filter cannot be added to the bin
 * @source_not_added: the error when the source cannot be added to the bin
 * @not_linked: the error when the three elements cannot be linked
 * @no_ghost_pad: the error when the bin cannot get its pad
 *
 * A kind of scene source: names, and the texts of errors.
 *
 * Any thread can call the functions of this component, except scene_source_publish_producer(), which is for
 * the main thread.
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
 * @converter: (transfer none): the new converter, before it is added to the bin
 * @user_data: the data that was passed with the function
 * @error: (out) (optional): where to put the failure
 *
 * Returns: whether the converter can be used; %FALSE with @error set
 */
typedef gboolean (*SceneSourceConfigureFunc)(GstElement *converter, gpointer user_data, GError **error);

void scene_source_publish_producer(AnalyticsProducerList *producers, const gchar *name,
                                   const gchar *nice_name, const gchar *sample_frame_xml);

gboolean scene_source_is_enabled(AnalyticsProducerList *producers, const gchar *name, gint32 channel,
                                 gchar **source_name);

GstElement *scene_source_new(const SceneSourceKind *kind, gint32 channel, gboolean polygon,
                             SceneSourceConfigureFunc configure, gpointer user_data, GError **error);

G_END_DECLS
