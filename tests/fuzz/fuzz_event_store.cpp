/* SPDX-License-Identifier: MIT */
// Calls of applications in any order, with applications that disconnect and come back, and time that passes.
// Each byte triple of the input is a step. After each step:
// - who has followed all events knows exactly the present states;
// - only an application that has declared a topic has emitted events of it;
// - no application has changed a property that another one with a connection has emitted.
// In the end, nothing is left of applications that have gone.
#include "fuzz.h"
#include "receiver/eventstore.h"
#include "receiver/receiverlimits.h"

#include <map>
#include <set>
#include <string>

/* The name is the linker's, which requires that it be visible. */
extern "C" __attribute__((visibility("default"))) gint64 __wrap_g_get_monotonic_time();

static gint64 now_us;

gint64
__wrap_g_get_monotonic_time()
{
  return now_us;
}

namespace
{

using receiver::Caller;
using receiver::EventStore;
using receiver::EventTopic;

constexpr int SENDERS = 6;
constexpr int USERS = 2;
constexpr int TOPICS = 3;
constexpr int SOURCES = 4;

std::string
part(const std::string &text, const std::string &before)
{
  const size_t begin = text.find(before) + before.size();
  return text.substr(begin, text.find('"', begin) - begin);
}

class Run
{
public:
  void step(uint8_t kind, uint8_t who, uint8_t what)
  {
    const int sender = who % SENDERS;
    const int topic = what % TOPICS;
    switch (kind % 6) {
    case 0:
      declare(sender, topic, what / TOPICS % 4);
      break;
    case 1:
    case 2:
    case 3:
      emit(sender, topic, what / TOPICS % SOURCES, kind / 6 % 4);
      break;
    case 4:
      disconnect(sender);
      break;
    default:
      pass(what);
      break;
    }
    check_states();
  }

  void finish()
  {
    for (int sender = 0; sender < SENDERS; sender++)
      disconnect(sender);
    now_us += (RECEIVER_GRACE_SECONDS + 1) * G_TIME_SPAN_SECOND;
    store_.remove_overdue();
    fuzz::require(known_.empty() && store_.topics().empty(), "nothing is left");
    fuzz::require(!store_.next_removal().has_value(), "no application is left");
    fuzz::require(!store_.state_after(0, store_.newest_property()).has_value(), "no property is left");
  }

private:
  // The bus never uses a name again.
  std::string name(int sender) const
  {
    return ":" + std::to_string(sender) + "." + std::to_string(generations_[sender]);
  }

  void declare(int sender, int number, int shape)
  {
    EventTopic topic = {"tns1:T" + std::to_string(number),
                        shape % 2 == 0,
                        {{"Source", "xs:string"}},
                        {{"Data", shape / 2 == 0 ? "xs:string" : "xs:int"}},
                        {}};
    g_autoptr(GError) error = nullptr;
    const bool done = store_.declare({name(sender), static_cast<guint32>(sender % USERS)}, topic, &error);
    fuzz::require(done == (error == nullptr), "either done or an error");
    if (done)
      declared_.insert({name(sender), topic.name});
    fuzz::require(!done || store_.has_topic_of(name(sender)), "the application has a topic");
  }

  void emit(int sender, int number, int source, int operation)
  {
    constexpr const char *OPERATIONS[] = {"", "Initialized", "Changed", "Deleted"};
    const std::string topic = "tns1:T" + std::to_string(number);
    const std::string key = topic + " " + std::to_string(source);
    const size_t before = emitted_;
    g_autoptr(GError) error = nullptr;
    const bool done = store_.emit(
        name(sender),
        {topic, OPERATIONS[operation], {{"Source", std::to_string(source)}}, {{"Data", "1"}}, 1}, &error);
    fuzz::require(done == (error == nullptr) && emitted_ == before + (done ? 1 : 0), "an event or an error");
    if (!done)
      return;
    fuzz::require(declared_.contains({name(sender), topic}), "the topic is declared");
    if (operation == 0)
      return;
    const auto owner = owners_.find(key);
    fuzz::require(owner == owners_.end() || owner->second == name(sender),
                  "the property is the application's");
    if (operation == 3)
      owners_.erase(key);
    else
      owners_[key] = name(sender);
  }

  void disconnect(int sender)
  {
    std::erase_if(owners_, [this, sender](const auto &entry) { return entry.second == name(sender); });
    store_.disconnect(name(sender));
    fuzz::require(!store_.has_topic_of(name(sender)), "an application that has gone has no topic");
    generations_[sender]++;
  }

  void pass(int seconds)
  {
    now_us += seconds % 64 * G_TIME_SPAN_SECOND;
    store_.remove_overdue();
    const auto next = store_.next_removal();
    fuzz::require(!next.has_value() || *next > now_us, "nothing is overdue");
  }

  void on_event(const std::string &text)
  {
    emitted_++;
    const std::string operation = part(text, R"("Operation":")");
    const std::string key = part(text, R"("Topic":")") + " " + part(text, R"(["Source",")");
    if (operation == "Deleted")
      fuzz::require(known_.erase(key) == 1, "a deleted property was known");
    else if (operation == "Initialized")
      known_.insert(key);
    else if (operation == "Changed")
      fuzz::require(known_.contains(key), "a changed property was known");
  }

  void check_states() const
  {
    std::set<std::string> states;
    guint64 last = 0;
    while (const auto state = store_.state_after(last, store_.newest_property())) {
      fuzz::require(state->property > last, "numbers grow");
      last = state->property;
      states.insert(part(state->text, R"("Topic":")") + " " + part(state->text, R"(["Source",")"));
    }
    fuzz::require(states == known_, "the events lead to the states");
  }

  int generations_[SENDERS] = {};
  size_t emitted_ = 0;
  std::set<std::string> known_;
  std::set<std::pair<std::string, std::string>> declared_;
  std::map<std::string, std::string> owners_; // of properties whose application is connected
  EventStore store_{[this](const receiver::SharedText &text, guint64) {
    on_event(std::string(receiver::shared_text_view(text)));
  }};
};

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  now_us = G_TIME_SPAN_SECOND;
  Run run;
  for (size_t at = 0; at + 3 <= size && at < 3000; at += 3)
    run.step(data[at], data[at + 1], data[at + 2]);
  run.finish();
  fuzz::require(receiver::shared_text_counted_bytes() == 0, "no text is left");
  return 0;
}
