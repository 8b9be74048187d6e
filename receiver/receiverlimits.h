/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/**
 * RECEIVER_MAX_PRODUCERS:
 *
 * The number of registered producers, including those without an application.
 */
#define RECEIVER_MAX_PRODUCERS 128

/**
 * RECEIVER_PRODUCERS_KEPT:
 *
 * The number of these places that are reserved for users without a producer.
 */
#define RECEIVER_PRODUCERS_KEPT 16

/**
 * RECEIVER_MAX_NAME_BYTES:
 *
 * The length of a producer's name. The daemon has the same limit.
 */
#define RECEIVER_MAX_NAME_BYTES 255

/**
 * RECEIVER_MAX_NICE_NAME_BYTES:
 *
 * The length of a producer's name for display. The daemon has the same limit.
 */
#define RECEIVER_MAX_NICE_NAME_BYTES 1024

/**
 * RECEIVER_MAX_PRODUCER_CHANNELS:
 *
 * The number of video channels of a producer. The daemon has the same limit.
 */
#define RECEIVER_MAX_PRODUCER_CHANNELS 256

/**
 * RECEIVER_MAX_CHANNEL_NUMBER:
 *
 * The highest number of a video channel: GetStreamFd has it as a signed integer.
 */
#define RECEIVER_MAX_CHANNEL_NUMBER 2147483647

/**
 * RECEIVER_MAX_SAMPLE_FRAME_BYTES:
 *
 * The length of a sample frame in JSON. The daemon accepts as much in XML, which is longer.
 */
#define RECEIVER_MAX_SAMPLE_FRAME_BYTES (256 * 1024)

/**
 * RECEIVER_MAX_OPEN_CHANNELS:
 *
 * The number of channels that applications have open, for all producers together.
 */
#define RECEIVER_MAX_OPEN_CHANNELS 512

/**
 * RECEIVER_OPEN_CHANNELS_KEPT:
 *
 * The number of these places that are reserved for producers without an open channel: one for each producer.
 */
#define RECEIVER_OPEN_CHANNELS_KEPT 128

/**
 * RECEIVER_MAX_STREAMS:
 *
 * The number of open streams, for all producers together.
 */
#define RECEIVER_MAX_STREAMS 3072

/**
 * RECEIVER_MAX_CHANNEL_STREAMS:
 *
 * The number of streams of one channel of a producer: twice the daemon's clients, because the streams of
 * clients that have disconnected can still be open.
 */
#define RECEIVER_MAX_CHANNEL_STREAMS 512

/**
 * RECEIVER_MAX_MESSAGE_BYTES:
 *
 * The length of an application's message, without the four bytes before it. json2xml has the same limit.
 */
#define RECEIVER_MAX_MESSAGE_BYTES (1024 * 1024)

/**
 * RECEIVER_MESSAGE_TIMEOUT_MS:
 *
 * The time from a message's first byte to its last, in milliseconds.
 */
#define RECEIVER_MESSAGE_TIMEOUT_MS 10000

/**
 * RECEIVER_READ_BYTES:
 *
 * The number of bytes that are read from one channel in a turn of the main loop.
 */
#define RECEIVER_READ_BYTES 65536

/**
 * RECEIVER_DRAIN_BYTES:
 *
 * The number of bytes that are read at most from a channel whose application has disconnected or opens it
 * again: more than a pipe holds.
 */
#define RECEIVER_DRAIN_BYTES (2 * 1024 * 1024)

/**
 * RECEIVER_QUEUE_MAX_BYTES:
 *
 * The bytes of the messages that wait for a stream's reader. One message always waits.
 */
#define RECEIVER_QUEUE_MAX_BYTES (1024 * 1024)

/**
 * RECEIVER_QUEUE_MAX_MESSAGES:
 *
 * The number of messages that wait for a stream's reader.
 */
#define RECEIVER_QUEUE_MAX_MESSAGES 2048

/**
 * RECEIVER_QUEUE_MAX_AGE_MS:
 *
 * The time for which messages wait for a stream's reader, in milliseconds. The newest always waits.
 */
#define RECEIVER_QUEUE_MAX_AGE_MS 2000

/**
 * RECEIVER_MAX_QUEUED_BYTES:
 *
 * The bytes of the messages of all streams. A message that is in several queues counts once.
 */
#define RECEIVER_MAX_QUEUED_BYTES (256 * 1024 * 1024)

/**
 * RECEIVER_MESSAGE_OVERHEAD:
 *
 * The number of bytes that a message counts there in addition to its own.
 */
#define RECEIVER_MESSAGE_OVERHEAD 128

/**
 * RECEIVER_STREAM_PIPE_BYTES:
 *
 * The capacity of a stream's pipe. It is small because a message in the pipe cannot be dropped.
 */
#define RECEIVER_STREAM_PIPE_BYTES 4096

/**
 * RECEIVER_GRACE_SECONDS:
 *
 * The time for which a producer without an application stays listed, in seconds.
 */
#define RECEIVER_GRACE_SECONDS 30

/**
 * RECEIVER_MAX_WAITING_CALLS:
 *
 * The number of calls that wait until the bus has reported their callers' users.
 */
#define RECEIVER_MAX_WAITING_CALLS 256

/**
 * RECEIVER_MAX_APPLICATION_TOPICS:
 *
 * The number of topics that an application has declared.
 */
#define RECEIVER_MAX_APPLICATION_TOPICS 256

/**
 * RECEIVER_MAX_APPLICATION_PROPERTIES:
 *
 * The number of properties, each a topic with values of its source, that an application has.
 */
#define RECEIVER_MAX_APPLICATION_PROPERTIES 1024

/**
 * RECEIVER_MAX_DECLARATIONS:
 *
 * The number of declared topics of all applications. A topic that two applications have declared counts
 * twice.
 */
#define RECEIVER_MAX_DECLARATIONS 2048

/**
 * RECEIVER_DECLARATIONS_KEPT:
 *
 * The number of these places that are reserved for users without a topic.
 */
#define RECEIVER_DECLARATIONS_KEPT 256

/**
 * RECEIVER_MAX_DECLARATION_BYTES:
 *
 * The bytes of the texts of all declarations.
 */
#define RECEIVER_MAX_DECLARATION_BYTES (2 * 1024 * 1024)

/**
 * RECEIVER_DECLARATION_BYTES_KEPT:
 *
 * The number of these bytes that are reserved for users without a topic.
 */
#define RECEIVER_DECLARATION_BYTES_KEPT (256 * 1024)

/**
 * RECEIVER_MAX_PROPERTIES:
 *
 * The number of properties of all applications.
 */
#define RECEIVER_MAX_PROPERTIES 8192

/**
 * RECEIVER_PROPERTIES_KEPT:
 *
 * The number of these places that are reserved for users without a property.
 */
#define RECEIVER_PROPERTIES_KEPT 1024

/**
 * RECEIVER_EVENT_ITEM_OVERHEAD:
 *
 * The number of bytes that an item of a property counts in addition to its texts.
 */
#define RECEIVER_EVENT_ITEM_OVERHEAD 64

/**
 * RECEIVER_MAX_PROPERTY_BYTES:
 *
 * The bytes of the present events of all properties: their texts and those of their topics, and
 * %RECEIVER_EVENT_ITEM_OVERHEAD for each item. The daemon's pipelines keep twice as much.
 */
#define RECEIVER_MAX_PROPERTY_BYTES (16 * 1024 * 1024)

/**
 * RECEIVER_PROPERTY_BYTES_KEPT:
 *
 * The number of these bytes that are reserved for users without a property.
 */
#define RECEIVER_PROPERTY_BYTES_KEPT (2 * 1024 * 1024)

/**
 * RECEIVER_MAX_TOPIC_BYTES:
 *
 * The length of a topic.
 */
#define RECEIVER_MAX_TOPIC_BYTES 256

/**
 * RECEIVER_MAX_TOPIC_LEVELS:
 *
 * The number of names in a topic. Topic filters of events have the same limit.
 */
#define RECEIVER_MAX_TOPIC_LEVELS 16

/**
 * RECEIVER_MAX_EVENT_ITEMS:
 *
 * The number of items in the source of an event, and in its data.
 */
#define RECEIVER_MAX_EVENT_ITEMS 16

/**
 * RECEIVER_MAX_ITEM_NAME_BYTES:
 *
 * The length of the name of an item.
 */
#define RECEIVER_MAX_ITEM_NAME_BYTES 64

/**
 * RECEIVER_MAX_ITEM_TYPE_BYTES:
 *
 * The length of the type of an item.
 */
#define RECEIVER_MAX_ITEM_TYPE_BYTES 128

/**
 * RECEIVER_MAX_NAMESPACES:
 *
 * The number of namespaces of a declaration.
 */
#define RECEIVER_MAX_NAMESPACES 16

/**
 * RECEIVER_MAX_PREFIX_BYTES:
 *
 * The length of a prefix.
 */
#define RECEIVER_MAX_PREFIX_BYTES 32

/**
 * RECEIVER_MAX_NAMESPACE_BYTES:
 *
 * The length of the URI of a namespace.
 */
#define RECEIVER_MAX_NAMESPACE_BYTES 256

/**
 * RECEIVER_MAX_EVENT_BYTES:
 *
 * The length of an event as a message of a stream, without the four bytes before it.
 */
#define RECEIVER_MAX_EVENT_BYTES (64 * 1024)

/**
 * RECEIVER_EVENTS_PER_SECOND:
 *
 * The number of events that an application can emit in a second.
 */
#define RECEIVER_EVENTS_PER_SECOND 1000

/**
 * RECEIVER_EVENT_BURST:
 *
 * The number of events that an application can emit at once, after a pause.
 */
#define RECEIVER_EVENT_BURST 1000

/**
 * RECEIVER_MAX_EVENTS_PER_SECOND:
 *
 * The number of events that all applications can emit in a second, and at once after a pause.
 */
#define RECEIVER_MAX_EVENTS_PER_SECOND 8000

/**
 * RECEIVER_LATEST_EVENT_S:
 *
 * The latest time of an event, in seconds since 1970: the end of 2099. Metadata have the same limit.
 */
#define RECEIVER_LATEST_EVENT_S 4102444799

/**
 * RECEIVER_MAX_EVENT_STREAMS:
 *
 * The number of streams of events: twice the daemon's clients, because the streams of clients that have
 * disconnected can still be open.
 */
#define RECEIVER_MAX_EVENT_STREAMS 512
