/* SPDX-License-Identifier: MIT */
#pragma once

#include <functional>
#include <glib.h>
#include <map>
#include <string>
#include <string_view>

/* The present states of properties. Not for several threads at once. */

namespace mqtt
{

class StateTable
{
public:
  using StateFunction = std::function<void(const std::string &topic, const std::string &payload)>;

  bool has(const std::string &topic) const;
  bool fits(const std::string &topic, const std::string &payload) const;
  bool set(const std::string &topic, const std::string &payload, bool is_initial);
  void mark_all_unseen();
  void delete_unseen(const StateFunction &on_deleted);
  void add_waiting(const std::string &topic);
  void mark_sent(const std::string &topic);
  void drop_waiting(const std::string &topic);
  void drop_all_waiting();
  void forget_unsent(const std::string &topic);
  void foreach (const StateFunction &function) const;

private:
  struct State {
    std::string payload;  /* empty if the property is deleted */
    bool is_seen = true;  /* in the daemon's present stream */
    bool is_sent = false; /* the broker may have it, or another state of the property */
    guint waiting = 0;    /* messages of the property that the broker has not acknowledged */
  };
  using States = std::map<std::string, State>;

  void replace_payload(States::value_type *entry, const std::string &payload);
  void forget_if_over(States::iterator entry);
  void erase(States::iterator entry);

  States states_;
  gsize bytes_ = 0;
};

} // namespace mqtt
