/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <string>

/* The write end of a receiver's channel. Writes messages without ever blocking. For the main thread. */
class ChannelWriter
{
public:
  /* Called from the main loop and within write(). */
  using Callback = void (*)(ChannelWriter *writer, gpointer user_data);

  ChannelWriter(guint32 channel, Callback on_written, Callback on_end, gpointer user_data);
  ChannelWriter(const ChannelWriter &) = delete;
  ChannelWriter &operator=(const ChannelWriter &) = delete;
  ~ChannelWriter();

  guint32 channel() const;
  void open(int descriptor);
  void close();
  gboolean is_open() const;
  gboolean is_writing() const;
  void write(const std::string &message);

private:
  static gboolean on_hang_up(gint fd, GIOCondition condition, gpointer user_data);
  static gboolean on_writable(gint fd, GIOCondition condition, gpointer user_data);
  gboolean write_some();

  guint32 number;
  Callback on_written;
  Callback on_end;
  gpointer user_data;
  int fd = -1;
  std::string pending; /* the rest of the message */
  guint hang_up_source = 0;
  guint writable_source = 0;
};
