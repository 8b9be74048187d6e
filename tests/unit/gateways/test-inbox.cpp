/* SPDX-License-Identifier: MIT */
#include "inbox.h"

#include "testhost.h"
#include "viewlimits.h"

#include <atomic>
#include <thread>

namespace
{

class InboxTest : public testhost::Fixture
{
protected:
  static std::vector<view::StreamItem> item_of(const std::string &text)
  {
    return {{view::ItemKind::EVENT, "", std::make_shared<std::string>(text), nullptr}};
  }

  void spin_until(gsize count)
  {
    ASSERT_TRUE(testhost::spin_until([this, count]() { return received.size() >= count; }));
  }

  testhost::Texts received;
  view::Inbox inbox{[this](const std::vector<view::StreamItem> &items) {
    for (const view::StreamItem &item : items) {
      received.push_back(*item.text);
    }
  }};
};

} // namespace

TEST_F(InboxTest, HandsItemsOverInTheirOrder)
{
  inbox.open();
  std::thread writer([this]() {
    for (int number = 0; number < 100; number++) {
      inbox.push(item_of(std::to_string(number)));
    }
  });
  spin_until(100);
  writer.join();
  for (int number = 0; number < 100; number++) {
    EXPECT_EQ(received[static_cast<gsize>(number)], std::to_string(number));
  }
}

TEST_F(InboxTest, LetsTheWriterWaitWhileItIsFull)
{
  const std::string big(VIEW_INBOX_BYTES_MAX + 1, 'x');
  std::atomic<int> pushed = 0;
  inbox.open();
  std::thread writer([this, &big, &pushed]() {
    for (int number = 0; number < 5; number++) {
      inbox.push(item_of(big));
      pushed++;
    }
  });
  gsize most = 0;
  while (received.size() < 5) {
    const gsize before = received.size();
    g_main_context_iteration(nullptr, TRUE);
    most = std::max(most, received.size() - before);
  }
  writer.join();
  EXPECT_EQ(pushed, 5);
  EXPECT_EQ(most, 1U);
}

TEST_F(InboxTest, LetsTheWriterGoOnWhenItIsClosed)
{
  const std::string big(VIEW_INBOX_BYTES_MAX + 1, 'x');
  std::atomic<bool> has_begun = false;
  inbox.open();
  std::thread writer([this, &big, &has_begun]() {
    inbox.push(item_of(big));
    has_begun = true;
    inbox.push(item_of(big));
  });
  while (!has_begun) {
    std::this_thread::yield();
  }
  inbox.close();
  writer.join();
  EXPECT_EQ(received, testhost::Texts{});
}

TEST_F(InboxTest, DropsWhatComesWhileItIsClosed)
{
  inbox.push(item_of("early"));
  inbox.open();
  inbox.push(item_of("dropped"));
  inbox.close();
  inbox.push(item_of("late"));
  inbox.open();
  inbox.push(item_of("again"));
  spin_until(1);
  EXPECT_EQ(received, testhost::Texts{"again"});
}
