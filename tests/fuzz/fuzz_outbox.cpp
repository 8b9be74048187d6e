/* SPDX-License-Identifier: MIT */
// What waits for a broker that comes and goes. Each byte of the input is a step. In the end the broker has
// the last state of each property, and each event once it was acknowledged, in their order.
#include "fuzz.h"
#include "mqttlimits.h"
#include "outbox.h"

#include <algorithm>
#include <map>
#include <string>

namespace
{

constexpr int TOPICS = 4;

class Model
{
public:
  void step(uint8_t byte);
  void finish();

private:
  void set_state(int topic, uint8_t value);
  void take();
  void acknowledge();
  void receive(const mqtt::Message &message);
  void connect(bool is_prompt);
  void disconnect();

  mqtt::Outbox outbox_{0};
  gint64 now_us_ = 0;
  bool is_connected_ = false;
  bool is_prompt_ = false;                      // whether the broker has messages before it acknowledges them
  std::map<std::string, std::string> states_;   // the daemon's
  std::map<std::string, std::string> retained_; // the broker's
  std::vector<mqtt::Message> in_flight_;
  size_t events_ = 0;
  size_t received_ = 0; // the number of events, all of which are received in their order
};

void
Model::set_state(int topic, uint8_t value)
{
  const std::string name = "s" + std::to_string(topic);
  const std::string state = value == 0 ? "" : std::to_string(value);
  outbox_.set_state(name, state, false);
  if (state.empty()) {
    states_.erase(name);
  } else {
    states_[name] = state;
  }
}

void
Model::receive(const mqtt::Message &message)
{
  if (message.kind == mqtt::MessageKind::STATE) {
    if (message.payload.empty()) {
      retained_.erase(message.topic);
    } else {
      retained_[message.topic] = message.payload;
    }
  } else if (message.kind == mqtt::MessageKind::EVENT) {
    const size_t number = std::stoul(message.payload);
    fuzz::require(number <= received_, "no event is left out");
    received_ = std::max(received_, number + 1);
  }
}

void
Model::take()
{
  gint64 due_us;
  const mqtt::Message *message = is_connected_ ? outbox_.take(now_us_, &due_us) : nullptr;
  if (message != nullptr) {
    in_flight_.push_back(*message);
    if (is_prompt_)
      receive(*message);
  }
  fuzz::require(in_flight_.size() <= MQTT_IN_FLIGHT_MAX, "messages in flight are bounded");
}

void
Model::acknowledge()
{
  if (in_flight_.empty())
    return;
  if (!is_prompt_)
    receive(in_flight_.front());
  outbox_.acknowledge(in_flight_.front().id);
  in_flight_.erase(in_flight_.begin());
}

void
Model::connect(bool is_prompt)
{
  if (is_connected_)
    return;
  outbox_.connect(now_us_);
  is_connected_ = true;
  is_prompt_ = is_prompt;
}

void
Model::disconnect()
{
  in_flight_.clear();
  outbox_.disconnect();
  is_connected_ = false;
}

void
Model::step(uint8_t byte)
{
  const int topic = byte / 8 % TOPICS;
  now_us_ += G_TIME_SPAN_SECOND;
  switch (byte % 8) {
  case 0:
    set_state(topic, byte / 32);
    break;
  case 1:
    outbox_.add_event("e", std::to_string(events_++));
    break;
  case 2:
    outbox_.add_frame("f" + std::to_string(topic), std::string(byte, 'x'));
    break;
  case 3:
    disconnect();
    break;
  case 4:
    connect(topic % 2 == 0);
    break;
  case 5:
    acknowledge();
    break;
  default:
    take();
  }
}

void
Model::finish()
{
  disconnect();
  connect(true);
  for (size_t left = 10000; left > 0 && outbox_.has_events(); left--) {
    take();
    acknowledge();
  }
  fuzz::require(!outbox_.has_events(), "all is sent");
  fuzz::require(retained_ == states_, "the broker has the last states");
  fuzz::require(received_ == events_ && outbox_.dropped().events == 0, "the broker has all events");
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  Model model;
  for (size_t i = 0; i < std::min<size_t>(size, 2000); i++) {
    model.step(data[i]);
  }
  model.finish();
  return 0;
}
