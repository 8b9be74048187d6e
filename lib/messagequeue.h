/* SPDX-License-Identifier: MIT */
#pragma once

#include <deque>
#include <glib.h>
#include <optional>
#include <string>

/**
 * TESSARD_QUEUE_MAX_BYTES:
 *
 * How many bytes of items can wait for the receiver in a channel. One item can always wait.
 */
#define TESSARD_QUEUE_MAX_BYTES (2 * 1024 * 1024)

/**
 * TESSARD_QUEUE_MAX_ITEMS:
 *
 * How many items can wait for the receiver in a channel.
 */
#define TESSARD_QUEUE_MAX_ITEMS 1024

/**
 * TESSARD_QUEUE_MAX_AGE_MS:
 *
 * How long an item waits for the receiver, in milliseconds. Then it is dropped: clients do not get detections
 * of the past.
 */
#define TESSARD_QUEUE_MAX_AGE_MS 5000

/* Items of a channel that wait for the receiver. Any thread. */
class MessageQueue
{
public:
  MessageQueue() = default;
  MessageQueue(const MessageQueue &) = delete;
  MessageQueue &operator=(const MessageQueue &) = delete;
  ~MessageQueue();

  gboolean push(std::string text, guint *expired);
  std::optional<std::string> pop(guint *expired);
  guint clear();

private:
  struct Message {
    std::string text;
    gint64 time; /* monotonic */
  };

  guint expire();

  GMutex lock = {};
  std::deque<Message> messages;
  gsize bytes = 0;
};
