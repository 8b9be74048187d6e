/* SPDX-License-Identifier: MIT */
#pragma once

/* What the daemon, the broker and the key file can make tessard-mqtt use. */

/**
 * MQTT_CONFIG_BYTES_MAX:
 *
 * Bytes of the key file; a longer one is refused.
 */
#define MQTT_CONFIG_BYTES_MAX (64 * 1024)

/**
 * MQTT_PASSWORD_BYTES_MAX:
 *
 * Bytes of the file with the password; a longer one is refused.
 */
#define MQTT_PASSWORD_BYTES_MAX 4096

/**
 * MQTT_PREFIX_BYTES_MAX:
 *
 * Bytes of the prefix of topics, of a profile and of a PTZ configuration.
 */
#define MQTT_PREFIX_BYTES_MAX 1024

/**
 * MQTT_CHANNELS_MAX:
 *
 * Video channels.
 */
#define MQTT_CHANNELS_MAX 64

/**
 * MQTT_PATTERNS_MAX:
 *
 * Patterns of the metadata filter.
 */
#define MQTT_PATTERNS_MAX 64

/**
 * MQTT_PATTERN_BYTES_MAX:
 *
 * Bytes of a pattern.
 */
#define MQTT_PATTERN_BYTES_MAX 256

/**
 * MQTT_FRAME_RATE_MAX:
 *
 * The highest limit of frames a second of a module.
 */
#define MQTT_FRAME_RATE_MAX 1000

/**
 * MQTT_TOPIC_BYTES_MAX:
 *
 * Bytes of a topic, as MQTT has it; with a longer one nothing is published.
 */
#define MQTT_TOPIC_BYTES_MAX 65535

/**
 * MQTT_PAYLOAD_BYTES_MAX:
 *
 * Bytes of a payload; a longer one is not published.
 */
#define MQTT_PAYLOAD_BYTES_MAX (4 * 1024 * 1024)

/**
 * MQTT_STATES_MAX:
 *
 * Properties; further ones are not published.
 */
#define MQTT_STATES_MAX 8192

/**
 * MQTT_STATES_BYTES_MAX:
 *
 * Bytes of the topics and present states of all properties. A state that exceeds it is not published, and
 * that of the property before it is deleted.
 */
#define MQTT_STATES_BYTES_MAX (32 * 1024 * 1024)

/**
 * MQTT_CHANGES_MAX:
 *
 * States that wait while the broker is there; then only the last one of each property waits.
 */
#define MQTT_CHANGES_MAX 10000

/**
 * MQTT_CHANGES_BYTES_MAX:
 *
 * Bytes of these states.
 */
#define MQTT_CHANGES_BYTES_MAX (64 * 1024 * 1024)

/**
 * MQTT_EVENTS_MAX:
 *
 * Events without a state that wait for the broker; then the oldest are dropped.
 */
#define MQTT_EVENTS_MAX 10000

/**
 * MQTT_EVENTS_BYTES_MAX:
 *
 * Bytes of these events.
 */
#define MQTT_EVENTS_BYTES_MAX (64 * 1024 * 1024)

/**
 * MQTT_MODULES_MAX:
 *
 * Topics with frames or PTZ statuses; those that were silent for longest are forgotten.
 */
#define MQTT_MODULES_MAX 1024

/**
 * MQTT_MODULE_FRAMES_MAX:
 *
 * Frames of a topic that wait while the broker is there; then the oldest are dropped.
 */
#define MQTT_MODULE_FRAMES_MAX 64

/**
 * MQTT_FRAMES_BYTES_MAX:
 *
 * Bytes of all frames that wait.
 */
#define MQTT_FRAMES_BYTES_MAX (64 * 1024 * 1024)

/**
 * MQTT_SETTLE_SECONDS:
 *
 * The time after which a new stream of the daemon has shown all properties, in seconds. Those that it has not
 * shown are deleted.
 */
#define MQTT_SETTLE_SECONDS 5

/**
 * MQTT_IN_FLIGHT_MAX:
 *
 * Messages that the broker has not acknowledged; then it gets no further one.
 */
#define MQTT_IN_FLIGHT_MAX 64

/**
 * MQTT_IN_FLIGHT_BYTES_MAX:
 *
 * Bytes of these messages.
 */
#define MQTT_IN_FLIGHT_BYTES_MAX (8 * 1024 * 1024)

/**
 * MQTT_CONNECT_SECONDS:
 *
 * The time for TLS and the broker's reply on a new connection, in seconds.
 */
#define MQTT_CONNECT_SECONDS 10

/**
 * MQTT_FIRST_RETRY_MS:
 *
 * The time until the second attempt to connect, in milliseconds. Each failure doubles it.
 */
#define MQTT_FIRST_RETRY_MS 1000

/**
 * MQTT_LAST_RETRY_MS:
 *
 * The longest time between two attempts to connect, in milliseconds.
 */
#define MQTT_LAST_RETRY_MS 30000

/**
 * MQTT_STABLE_SECONDS:
 *
 * A connection that lasted this long, in seconds, is no failure.
 */
#define MQTT_STABLE_SECONDS 10

/**
 * MQTT_RECEIVED_BYTES_MAX:
 *
 * What the broker may send, in bytes, in addition to its acknowledgements.
 */
#define MQTT_RECEIVED_BYTES_MAX (64 * 1024)

/**
 * MQTT_RECEIVED_MESSAGE_BYTES:
 *
 * What the broker may send for each acknowledgement and reply to a ping, in bytes; the rest of it is for TLS.
 */
#define MQTT_RECEIVED_MESSAGE_BYTES 64

/**
 * MQTT_STOP_SECONDS:
 *
 * How long the end of the program waits for the broker, in seconds.
 */
#define MQTT_STOP_SECONDS 5

/**
 * MQTT_LOG_SECONDS:
 *
 * How long a message of one kind is not logged again, in seconds.
 */
#define MQTT_LOG_SECONDS 60
