/* SPDX-License-Identifier: MIT */
#pragma once

/* What a browser, the daemon and a video can make tessard-view use. */

/**
 * VIEW_CONNECTIONS_MAX:
 *
 * Connections at the same time. For a further one, that which has waited longest for its request is closed;
 * if none waits, the further one is closed.
 */
#define VIEW_CONNECTIONS_MAX 128

/**
 * VIEW_REQUEST_BYTES_MAX:
 *
 * What a connection can send: its request, with headers and body. Further bytes close it.
 */
#define VIEW_REQUEST_BYTES_MAX (32 * 1024)

/**
 * VIEW_BODY_BYTES_MAX:
 *
 * The body of a request.
 */
#define VIEW_BODY_BYTES_MAX (4 * 1024)

/**
 * VIEW_REQUEST_SECONDS:
 *
 * How long a request can take until it is complete, in seconds.
 */
#define VIEW_REQUEST_SECONDS 10

/**
 * VIEW_SEND_SECONDS:
 *
 * How long a reply, or one event or picture of a stream, can take until the client has accepted it, in
 * seconds.
 */
#define VIEW_SEND_SECONDS 10

/**
 * VIEW_LINGER_SECONDS:
 *
 * How long a connection stays open behind its reply for a client that still sends, in seconds.
 */
#define VIEW_LINGER_SECONDS 2

/**
 * VIEW_SEND_BUFFER_BYTES:
 *
 * What the kernel keeps for a client that does not read.
 */
#define VIEW_SEND_BUFFER_BYTES (256 * 1024)

/**
 * VIEW_QUEUE_BYTES_MAX:
 *
 * Events that wait for a client; one that lets more wait is dropped. The newest frame of a source replaces
 * one that waits.
 */
#define VIEW_QUEUE_BYTES_MAX (4 * 1024 * 1024)

/**
 * VIEW_EVENT_BYTES_MAX:
 *
 * The JSON text of a frame, a PTZ status or an event; a longer one is left out.
 */
#define VIEW_EVENT_BYTES_MAX (1024 * 1024)

/**
 * VIEW_INBOX_BYTES_MAX:
 *
 * Texts of a channel that wait for the main loop; then the daemon's stream waits.
 */
#define VIEW_INBOX_BYTES_MAX (4 * 1024 * 1024)

/**
 * VIEW_SOURCES_MAX:
 *
 * Sources of a channel whose newest frame is kept for clients that come late; those whose frames are oldest
 * are forgotten.
 */
#define VIEW_SOURCES_MAX 32

/**
 * VIEW_PROPERTIES_MAX:
 *
 * States of property events that are kept for clients that come late; the oldest are forgotten.
 */
#define VIEW_PROPERTIES_MAX 1024

/**
 * VIEW_STATE_BYTES_MAX:
 *
 * The frames that are kept for clients that come late, and as much for the states of property events.
 */
#define VIEW_STATE_BYTES_MAX (1024 * 1024)

/**
 * VIEW_PICTURE_BYTES_MAX:
 *
 * A picture; a larger one is left out.
 */
#define VIEW_PICTURE_BYTES_MAX (4 * 1024 * 1024)

/**
 * VIEW_COMMENT_SECONDS:
 *
 * The interval of the comments that keep a stream of events alive, in seconds.
 */
#define VIEW_COMMENT_SECONDS 15

/**
 * VIEW_RETRY_SECONDS:
 *
 * The time before a video is tried again after a failure, in seconds.
 */
#define VIEW_RETRY_SECONDS 5

/**
 * VIEW_SWITCHES_MAX:
 *
 * Switches that wait for the daemon; further ones are refused.
 */
#define VIEW_SWITCHES_MAX 8

/**
 * VIEW_CHANNELS_MAX:
 *
 * Video channels.
 */
#define VIEW_CHANNELS_MAX 64
