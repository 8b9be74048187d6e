/* SPDX-License-Identifier: MIT */
#include "brokersession.h"

#include "mqttlimits.h"

#include <algorithm>
#include <cerrno>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace mqtt
{

namespace
{

constexpr const char *ONLINE = "online";
constexpr const char *OFFLINE = "offline";
constexpr const char *SYSTEM_CERTIFICATES = "/etc/ssl/certs";

/* How often the library checks the connection. */
constexpr gint64 CHECK_US = G_TIME_SPAN_SECOND;

const char *
text_or_null(const std::string &text)
{
  return text.empty() ? nullptr : text.c_str();
}

/* Without it OpenSSL would ask for the password of a key at the terminal. */
int
on_key_password(char *buffer, int size, int is_writing, void *user_data)
{
  return 0;
}

/* All bytes that have arrived, also those that were not read yet. */
guint64
count_received(int fd)
{
  struct tcp_info info = {};
  socklen_t size = sizeof info;
  if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
    return 0;
  }
  return info.tcpi_bytes_received;
}

} // namespace

/**
 * BrokerSession:
 * @config: the broker; it must outlive the session
 * @status_topic: the topic that says whether the program is connected
 * @outbox: what to publish; it must outlive the session
 */
BrokerSession::BrokerSession(const BrokerConfig *config, std::string status_topic, Outbox *outbox)
    : config_(config), status_topic_(std::move(status_topic)), outbox_(outbox),
      client_(mosquitto_new(config->client_id.c_str(), true, this))
{
  mosquitto_connect_callback_set(client_, on_connect);
  mosquitto_publish_callback_set(client_, on_publish);
  mosquitto_log_callback_set(client_, on_log);
}

BrokerSession::~BrokerSession()
{
  mosquitto_destroy(client_);
}

/* Returns: false */
bool
BrokerSession::fail(int result)
{
  const int error = errno;
  if (!failure_.empty()) {
    return false;
  }
  if (!library_error_.empty()) {
    failure_ = library_error_;
  } else if (result == MOSQ_ERR_ERRNO && error == EPROTO) {
    failure_ = "TLS failed; the broker may require another certificate.";
  } else {
    failure_ = result == MOSQ_ERR_ERRNO ? g_strerror(error) : mosquitto_strerror(result);
  }
  return false;
}

bool
BrokerSession::check(int result)
{
  return result == MOSQ_ERR_SUCCESS || fail(result);
}

/**
 * BrokerSession::set_up:
 *
 * Gives the library what it needs to connect.
 *
 * Returns: false if a file of TLS cannot be used; failure() is the reason
 */
bool
BrokerSession::set_up()
{
  /* The outbox bounds what is in flight; these are its messages and those of the status. */
  mosquitto_max_inflight_messages_set(client_, MQTT_IN_FLIGHT_MAX + 2);
  mosquitto_int_option(client_, MOSQ_OPT_TCP_NODELAY, 1);
  if (!config_->user.empty() &&
      !check(mosquitto_username_pw_set(client_, config_->user.c_str(), text_or_null(config_->password)))) {
    return false;
  }
  if (config_->is_tls) {
    const char *ca_file = text_or_null(config_->ca_file);
    const char *ca_folder = ca_file == nullptr ? SYSTEM_CERTIFICATES : nullptr;
    if (!check(mosquitto_tls_set(client_, ca_file, ca_folder, text_or_null(config_->certificate),
                                 text_or_null(config_->key), on_key_password))) {
      failure_ = "A file with certificates or a key cannot be read.";
      return false;
    }
  }
  return check(mosquitto_will_set(client_, status_topic_.c_str(), static_cast<int>(strlen(OFFLINE)), OFFLINE,
                                  config_->qos, true));
}

/**
 * BrokerSession::connect:
 *
 * Looks the address up and connects, which blocks. The broker's reply follows in a turn.
 *
 * Returns: false if there is no connection; failure() is the reason
 */
bool
BrokerSession::connect()
{
  begun_us_ = g_get_monotonic_time();
  bool is_begun = check(mosquitto_connect(client_, config_->host.c_str(), config_->port, config_->keepalive));
  begun_us_ = g_get_monotonic_time();
  return is_begun;
}

/* Returns: false if the broker takes too long to accept the connection, or sends too much */
bool
BrokerSession::check_progress()
{
  const gint64 lasted_us = g_get_monotonic_time() - begun_us_;
  if (!is_connected_ && lasted_us > MQTT_CONNECT_SECONDS * G_TIME_SPAN_SECOND) {
    failure_ = "The broker does not reply.";
    return false;
  }
  const auto pings = static_cast<guint64>(lasted_us / G_TIME_SPAN_SECOND / config_->keepalive);
  const guint64 allowed =
      MQTT_RECEIVED_BYTES_MAX + MQTT_RECEIVED_MESSAGE_BYTES * (acknowledged_ + in_flight_.size() + pings);
  if (count_received(mosquitto_socket(client_)) > allowed) {
    failure_ = "The broker sends too much.";
    return false;
  }
  return true;
}

/* The library can acknowledge a message before mosquitto_publish() returns. */
bool
BrokerSession::publish(const Message &message)
{
  int mid = 0;
  early_mids_.clear();
  if (!check(mosquitto_publish(client_, &mid, message.topic.c_str(), static_cast<int>(message.payload.size()),
                               message.payload.data(), config_->qos, message.kind == MessageKind::STATE))) {
    return false;
  }
  in_flight_[mid] = message.id;
  if (early_mids_.contains(mid)) {
    acknowledge(mid);
  }
  return true;
}

bool
BrokerSession::publish_status(const char *status)
{
  int mid = 0;
  early_mids_.clear();
  if (!check(mosquitto_publish(client_, &mid, status_topic_.c_str(), static_cast<int>(strlen(status)), status,
                               config_->qos, true))) {
    return false;
  }
  if (!early_mids_.contains(mid)) {
    status_mids_.insert(mid);
  }
  return true;
}

/* Returns: false if the connection has failed. @due_us: (out): when there may be more to send */
bool
BrokerSession::send_waiting(gint64 *due_us)
{
  *due_us = G_MAXINT64;
  if (!is_connected_ || has_said_goodbye_) {
    return true;
  }
  const Message *message;
  while ((message = outbox_->take(g_get_monotonic_time(), due_us)) != nullptr) {
    if (!publish(*message)) {
      return false;
    }
  }
  return true;
}

bool
BrokerSession::handle(short events)
{
  if ((events & (POLLIN | POLLHUP | POLLERR)) != 0 && !check(mosquitto_loop_read(client_, 1))) {
    return false;
  }
  if (mosquitto_want_write(client_) && !check(mosquitto_loop_write(client_, 1))) {
    return false;
  }
  return check(mosquitto_loop_misc(client_));
}

/**
 * BrokerSession::turn:
 * @wake_fd: a descriptor that ends the wait when it can be read
 * @until_us: the monotonic time that ends the wait
 *
 * Sends what waits, waits for the broker, and handles what it sends.
 *
 * Returns: false if the connection is over; failure() is the reason
 */
bool
BrokerSession::turn(int wake_fd, gint64 until_us)
{
  gint64 due_us;
  if (!send_waiting(&due_us)) {
    return false;
  }
  const gint64 now_us = g_get_monotonic_time();
  const gint64 wait_us = std::clamp<gint64>(std::min(due_us, until_us) - now_us, 0, CHECK_US);
  pollfd fds[] = {
      {wake_fd, POLLIN, 0},
      {mosquitto_socket(client_),
       static_cast<short>(mosquitto_want_write(client_) ? POLLIN | POLLOUT : POLLIN), 0},
  };
  poll(fds, G_N_ELEMENTS(fds), static_cast<int>((wait_us + 999) / G_TIME_SPAN_MILLISECOND));
  const bool was_connected = is_connected_;
  if (!check_progress() || !handle(fds[1].revents)) {
    return false;
  }
  if (is_connected_ && !was_connected) {
    outbox_->connect(g_get_monotonic_time());
    return publish_status(ONLINE);
  }
  return true;
}

/**
 * BrokerSession::say_goodbye:
 *
 * Publishes that the program ends. Nothing else is sent afterwards.
 */
void
BrokerSession::say_goodbye()
{
  if (!has_said_goodbye_) {
    has_said_goodbye_ = true;
    publish_status(OFFLINE);
  }
}

/**
 * BrokerSession::disconnect:
 *
 * Ends the connection without the broker's own message that it has ended.
 */
void
BrokerSession::disconnect()
{
  mosquitto_disconnect(client_);
}

void
BrokerSession::acknowledge(int mid)
{
  auto sent = in_flight_.find(mid);
  if (sent != in_flight_.end()) {
    outbox_->acknowledge(sent->second);
    in_flight_.erase(sent);
    acknowledged_++;
  } else if (status_mids_.erase(mid) == 0) {
    early_mids_.insert(mid);
  }
}

void
BrokerSession::on_connect(mosquitto *client, void *user_data, int result)
{
  auto *self = static_cast<BrokerSession *>(user_data);
  self->is_connected_ = result == 0;
  if (result != 0) {
    self->failure_ = mosquitto_connack_string(result);
  }
}

void
BrokerSession::on_publish(mosquitto *client, void *user_data, int mid)
{
  static_cast<BrokerSession *>(user_data)->acknowledge(mid);
}

void
BrokerSession::on_log(mosquitto *client, void *user_data, int level, const char *text)
{
  auto *self = static_cast<BrokerSession *>(user_data);
  /* The first line has the name of the file that is wrong, further ones have the reasons below it. */
  if (level == MOSQ_LOG_ERR && self->library_error_.empty()) {
    self->library_error_ = g_str_has_prefix(text, "Error: ") ? text + strlen("Error: ") : text;
  }
}

} // namespace mqtt
