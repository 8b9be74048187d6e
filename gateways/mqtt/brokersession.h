/* SPDX-License-Identifier: MIT */
#pragma once

#include "mqttconfig.h"
#include "outbox.h"

#include <mosquitto.h>
#include <unordered_map>
#include <unordered_set>

namespace mqtt
{

/* One connection to the broker, which takes its messages from the outbox. The library has no state of
 * another one: what the broker has not acknowledged goes back to the outbox. Only for the broker's thread. */
class BrokerSession
{
public:
  BrokerSession(const BrokerConfig *config, std::string status_topic, Outbox *outbox);
  ~BrokerSession();
  BrokerSession(const BrokerSession &) = delete;
  BrokerSession &operator=(const BrokerSession &) = delete;

  bool set_up();
  bool connect();
  bool turn(int wake_fd, gint64 until_us);
  void say_goodbye();
  void disconnect();

  bool is_connected() const
  {
    return is_connected_;
  }
  bool has_said_goodbye() const
  {
    return has_said_goodbye_ && status_mids_.empty();
  }
  const std::string &failure() const
  {
    return failure_;
  }

private:
  bool fail(int result);
  bool check(int result);
  bool check_progress();
  bool publish(const Message &message);
  bool publish_status(const char *status);
  bool send_waiting(gint64 *due_us);
  bool handle(short events);
  void acknowledge(int mid);
  static void on_connect(mosquitto *client, void *user_data, int result);
  static void on_publish(mosquitto *client, void *user_data, int mid);
  static void on_log(mosquitto *client, void *user_data, int level, const char *text);

  const BrokerConfig *config_;
  std::string status_topic_;
  Outbox *outbox_;
  mosquitto *client_;
  bool is_connected_ = false; /* the broker has accepted the connection */
  bool has_said_goodbye_ = false;
  gint64 begun_us_ = 0;
  std::unordered_map<int, guint64> in_flight_; /* the id of each message that the library has */
  std::unordered_set<int> status_mids_;
  std::unordered_set<int> early_mids_; /* acknowledged before the library has told their number */
  guint64 acknowledged_ = 0;
  std::string failure_;
  std::string library_error_; /* the last one that the library has logged */
};

} // namespace mqtt
