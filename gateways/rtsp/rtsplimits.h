/* SPDX-License-Identifier: MIT */
#pragma once

/* What an RTSP client, and the daemon, can make tessard-rtsp use. */

/**
 * RTSP_CONNECTIONS_MAX:
 *
 * Connections at the same time; further ones are closed.
 */
#define RTSP_CONNECTIONS_MAX 128

/**
 * RTSP_SESSIONS_MAX:
 *
 * Sessions at the same time; further ones are refused.
 */
#define RTSP_SESSIONS_MAX 128

/**
 * RTSP_IDLE_SECONDS:
 *
 * How long a connection may be without a session, in seconds.
 */
#define RTSP_IDLE_SECONDS 30

/**
 * RTSP_SESSION_SECONDS:
 *
 * How long a session lives without a request or a report of its client, in seconds.
 */
#define RTSP_SESSION_SECONDS 60

/**
 * RTSP_UNFINISHED_BYTES_MAX:
 *
 * What a client may send between two complete requests. A client that gets media on the connection also
 * sends reports on it, and may send as much in each interval of the checks.
 */
#define RTSP_UNFINISHED_BYTES_MAX (64 * 1024)

/**
 * RTSP_BODY_BYTES_MAX:
 *
 * The body of a request.
 */
#define RTSP_BODY_BYTES_MAX (16 * 1024)

/**
 * RTSP_CHECK_MS:
 *
 * The interval at which connections are checked, in milliseconds.
 */
#define RTSP_CHECK_MS 200

/**
 * RTSP_THREADS:
 *
 * Threads that handle requests.
 */
#define RTSP_THREADS 4

/**
 * RTSP_DOCUMENT_BYTES_MAX:
 *
 * The longest document that is sent.
 */
#define RTSP_DOCUMENT_BYTES_MAX (4 * 1024 * 1024)

/**
 * RTSP_QUEUED_BYTES_MAX:
 *
 * Documents that wait for a track that does not take them; then the oldest are dropped.
 */
#define RTSP_QUEUED_BYTES_MAX (2 * RTSP_DOCUMENT_BYTES_MAX)

/**
 * RTSP_SYNC_POINT_MS:
 *
 * The least time between two sync points of a mount, in milliseconds.
 */
#define RTSP_SYNC_POINT_MS 200

/**
 * RTSP_MEDIA_END_SECONDS:
 *
 * How long a new client waits for the end of a media that its last client has left, in seconds.
 */
#define RTSP_MEDIA_END_SECONDS 5

/**
 * RTSP_CHANNELS_MAX:
 *
 * Video channels, each a mount.
 */
#define RTSP_CHANNELS_MAX 64

/**
 * RTSP_USERS_BYTES_MAX:
 *
 * The file with users and passwords.
 */
#define RTSP_USERS_BYTES_MAX (1024 * 1024)

/**
 * RTSP_FIRST_MEDIA_PORT:
 *
 * The first port for media over UDP and multicast.
 */
#define RTSP_FIRST_MEDIA_PORT 16384

/**
 * RTSP_LAST_MEDIA_PORT:
 *
 * The last one of these ports.
 */
#define RTSP_LAST_MEDIA_PORT 32767
