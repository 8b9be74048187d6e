/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>
#include <map>
#include <optional>
#include <string>
#include <vector>

/**
 * DAEMON_STATUS_MAX_ENTRIES:
 *
 * The most clients, and the most sources, that are accepted from the daemon.
 */
#define DAEMON_STATUS_MAX_ENTRIES 1000

/* The daemon's status; com.quon.MetadataServer1.Status.xml describes each value. Times are in microseconds,
 * but for the start in seconds. */

struct DaemonClient {
  guint64 id = 0;
  guint32 pid = 0;
  guint32 uid = 0;
  gboolean is_streaming = FALSE;
  std::map<std::string, std::string> request;
  guint64 documents = 0;
  guint64 bytes = 0;
  guint32 queue_items = 0;
  guint32 queue_bytes = 0;
  guint64 age_us = 0;
  gint64 last_document_age_us = -1;
};

struct DaemonSource {
  std::string source;
  guint32 streams = 0;
  guint64 messages = 0;
  guint64 bytes = 0;
  guint64 dropped = 0;
};

struct DaemonLimits {
  guint32 clients = 0;
  guint32 clients_kept = 0;
  guint32 descriptors = 0;
  guint32 descriptors_kept = 0;
  guint64 client_held_bytes = 0;
  guint64 held_bytes = 0;
};

struct DaemonStatus {
  std::string version;
  gint64 start_time_s = 0;
  guint64 uptime_us = 0;
  std::vector<DaemonClient> clients;
  guint64 clients_total = 0;
  guint64 documents_total = 0;
  guint64 bytes_total = 0;
  std::vector<DaemonSource> sources;
  guint64 messages_total = 0;
  guint64 message_bytes_total = 0;
  guint64 dropped_total = 0;
  guint64 held_bytes = 0;
  guint32 descriptors = 0;
  DaemonLimits limits;
};

std::optional<DaemonStatus> daemon_status_read(GVariant *status, GError **error);
std::optional<DaemonStatus> daemon_status_fetch(GDBusConnection *connection, GError **error);
