/* SPDX-License-Identifier: MIT */
#pragma once

#include "applications.h"
#include "directory.h"
#include "producer.h"

namespace receiver
{

/* The registered producers and their owners. Main thread only. */
class Registry
{
public:
  explicit Registry(Directory *directory);
  ~Registry();
  Registry(const Registry &) = delete;
  Registry &operator=(const Registry &) = delete;

  bool register_producer(const Caller &caller, const Description &description, GError **error);
  int open_channel(const std::string &sender, const std::string &name, guint32 channel, GError **error);
  bool unregister_producer(const std::string &sender, const std::string &name, GError **error);
  void application_disconnected(const std::string &sender);
  bool has_producer_of(const std::string &sender) const;
  Budget *budget();

private:
  struct Registered {
    std::shared_ptr<Producer> producer;
    std::string sender; /* empty while the producer has no application */
    guint32 user;
    guint grace; /* the timeout, or 0 */
  };

  struct Grace;

  static gboolean on_grace_over(gpointer user_data);

  bool check_place(const Caller &caller, GError **error) const;
  bool add(const Caller &caller, const Description &description, GError **error);
  bool take_over(Registered *registered, const Caller &caller, const Description &description,
                 GError **error);
  void list(const std::shared_ptr<Producer> &producer);
  Registered *find_owned(const std::string &sender, const std::string &name, GError **error);
  void begin_grace(Registered *registered);
  void remove(const std::string &name);

  Directory *directory_;
  Budget budget_;
  std::map<std::string, Registered> producers_;
  std::vector<std::shared_ptr<Producer>> finishing_; /* not listed any more, with open streams */
};

} // namespace receiver
