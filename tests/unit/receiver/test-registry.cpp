/* SPDX-License-Identifier: MIT */
#include "receiver/error.h"
#include "receiver/receiverlimits.h"
#include "receiver/registry.h"
#include "testhost.h"
#include "testpipes.h"

#include <optional>
#include <syslog.h>

using receiver::Caller;
using receiver::Description;
using receiver::Error;
using testhost::SyslogLines;
using testpipes::Descriptor;

namespace
{

const Caller APPLICATION = {":1.1", 1000};
const Caller SAME_USER = {":1.2", 1000};
const Caller OTHER_USER = {":1.3", 1001};

Description
description(const std::string &name)
{
  return {.name = name, .nice_name = "Nice", .channels = {1, 2}, .sample_frame = "{}"};
}

class RegistryTest : public testhost::Fixture
{
protected:
  void TearDown() override
  {
    registry_.reset();
    testhost::dispatch_ready(); /* the objects' notifications */
    testhost::take_syslog();
    testhost::Fixture::TearDown();
  }

  bool add(const Caller &caller, const std::string &name)
  {
    return registry_->register_producer(caller, description(name), nullptr);
  }

  void expect_refused(const Caller &caller, const Description &wrong, Error code)
  {
    g_autoptr(GError) error = nullptr;
    EXPECT_FALSE(registry_->register_producer(caller, wrong, &error));
    EXPECT_TRUE(g_error_matches(error, receiver::error_quark(), static_cast<gint>(code))) << error->message;
  }

  Error refusal_of_channel(const Caller &caller, const std::string &name)
  {
    g_autoptr(GError) error = nullptr;
    EXPECT_EQ(registry_->open_channel(caller.sender, name, 1, &error), -1);
    return static_cast<Error>(error->code);
  }

  receiver::Directory directory_;
  std::optional<receiver::Registry> registry_{&directory_};
};

TEST_F(RegistryTest, NamesAreUnique)
{
  EXPECT_TRUE(add(APPLICATION, "Mine"));

  expect_refused(APPLICATION, description("Mine"), Error::NAME_TAKEN);
  expect_refused(SAME_USER, description("Mine"), Error::NAME_TAKEN);
  expect_refused(OTHER_USER, description("Mine"), Error::NAME_TAKEN);
  EXPECT_TRUE(add(OTHER_USER, "Other"));
}

TEST_F(RegistryTest, RefusesInvalidDescriptions)
{
  const auto with = [](auto change) {
    Description changed = description("Mine");
    change(&changed);
    return changed;
  };

  expect_refused(APPLICATION, with([](Description *it) { it->name = ""; }), Error::INVALID_NAME);
  expect_refused(APPLICATION, with([](Description *it) { it->name = "a.b"; }), Error::INVALID_NAME);
  expect_refused(APPLICATION,
                 with([](Description *it) { it->name = std::string(RECEIVER_MAX_NAME_BYTES + 1, 'x'); }),
                 Error::INVALID_NAME);
  expect_refused(APPLICATION, with([](Description *it) { it->nice_name = std::string(1025, 'x'); }),
                 Error::INVALID_NICE_NAME);
  expect_refused(APPLICATION, with([](Description *it) { it->channels = {}; }), Error::INVALID_CHANNELS);
  expect_refused(APPLICATION, with([](Description *it) { it->channels = {1, 0}; }), Error::INVALID_CHANNELS);
  expect_refused(APPLICATION, with([](Description *it) { it->channels = {1, 1}; }), Error::INVALID_CHANNELS);
  expect_refused(APPLICATION, with([](Description *it) { it->channels = {1U << 31}; }),
                 Error::INVALID_CHANNELS);
  expect_refused(APPLICATION, with([](Description *it) { it->sample_frame = ""; }),
                 Error::INVALID_SAMPLE_FRAME);
  expect_refused(APPLICATION, with([](Description *it) { it->sample_frame = "}{"; }),
                 Error::INVALID_SAMPLE_FRAME);
  EXPECT_TRUE(registry_->register_producer(
      APPLICATION, with([](Description *it) { it->sample_frame = "\n{} "; }), nullptr));
}

TEST_F(RegistryTest, OnlyTheOwnerCanUseAProducer)
{
  add(APPLICATION, "Mine");

  EXPECT_EQ(refusal_of_channel(OTHER_USER, "Mine"), Error::NOT_OWNER);
  EXPECT_EQ(refusal_of_channel(SAME_USER, "Mine"), Error::NOT_OWNER);
  EXPECT_EQ(refusal_of_channel(APPLICATION, "Other"), Error::UNKNOWN_PRODUCER);
  EXPECT_FALSE(registry_->unregister_producer(OTHER_USER.sender, "Mine", nullptr));
  const Descriptor writer(registry_->open_channel(APPLICATION.sender, "Mine", 1, nullptr));
  EXPECT_GE(writer.fd(), 0);
  EXPECT_TRUE(registry_->unregister_producer(APPLICATION.sender, "Mine", nullptr));
  EXPECT_FALSE(registry_->has_producer_of(APPLICATION.sender));
}

TEST_F(RegistryTest, KeepsAProducerWithoutAnApplicationForItsUser)
{
  add(APPLICATION, "Mine");
  registry_->application_disconnected(APPLICATION.sender);

  EXPECT_FALSE(registry_->has_producer_of(APPLICATION.sender));
  EXPECT_EQ(refusal_of_channel(APPLICATION, "Mine"), Error::NOT_OWNER);
  expect_refused(OTHER_USER, description("Mine"), Error::NAME_TAKEN);
  EXPECT_TRUE(add(SAME_USER, "Mine"));
  EXPECT_TRUE(registry_->has_producer_of(SAME_USER.sender));
}

TEST_F(RegistryTest, OneApplicationEndsAlone)
{
  add(APPLICATION, "Mine");
  add(SAME_USER, "Other");
  registry_->application_disconnected(APPLICATION.sender);

  EXPECT_TRUE(registry_->has_producer_of(SAME_USER.sender));
}

TEST_F(RegistryTest, LogsRegistrationsAndDisconnections)
{
  add(APPLICATION, "Mine");
  registry_->application_disconnected(APPLICATION.sender);
  add(SAME_USER, "Mine");
  registry_->unregister_producer(SAME_USER.sender, "Mine", nullptr);

  EXPECT_EQ(testhost::take_syslog(),
            SyslogLines({{LOG_INFO, "Producer Mine is registered by :1.1 of user 1000"},
                         {LOG_INFO, "The application of producer Mine has gone"},
                         {LOG_INFO, "Producer Mine is registered again, by :1.2 of user 1000"},
                         {LOG_INFO, "Producer Mine is unregistered"}}));
}

TEST_F(RegistryTest, ReservesTheLastPlacesForUsersWithoutAProducer)
{
  int count = 0;
  while (add(APPLICATION, "P" + std::to_string(count))) {
    count++;
  }
  EXPECT_EQ(count, RECEIVER_MAX_PRODUCERS - RECEIVER_PRODUCERS_KEPT);
  expect_refused(APPLICATION, description("Another"), Error::LIMIT_EXCEEDED);

  for (guint user = 2000; user < 2000 + RECEIVER_PRODUCERS_KEPT; user++) {
    EXPECT_TRUE(add({":1.4", user}, "U" + std::to_string(user)));
  }
  expect_refused(OTHER_USER, description("Another"), Error::LIMIT_EXCEEDED);
}

} // namespace
