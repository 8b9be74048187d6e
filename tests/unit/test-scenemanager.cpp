/* SPDX-License-Identifier: MIT */
#include "scenemanager.h"

#include "systembus.h"
#include "testbus.h"
#include "testhost.h"

#include <thread>

using testbus::Service;
using testhost::Texts;

namespace
{

constexpr const char *SCENE_MANAGER = "com.quon.VideoSceneManager1";
constexpr gint TIMEOUT_MS = 1000;

gboolean
is_running()
{
  g_autoptr(GError) error = nullptr;
  const gboolean result = scene_manager_is_provider_running(TIMEOUT_MS, nullptr, &error);

  EXPECT_EQ(error, nullptr);
  return result;
}

class SceneManagerTest : public testbus::Fixture
{
};

} // namespace

TEST_F(SceneManagerTest, RequestsTheNumberOfChannels)
{
  Service manager(SCENE_MANAGER, testbus::reply("(1,)"));

  EXPECT_TRUE(is_running());
  EXPECT_EQ(manager.take_calls(), (Texts{"/com/quon/VideoSceneManager1 "
                                         "com.quon.VideoSceneManager1.Scene.GetNumberOfChannels ()"}));
}

TEST_F(SceneManagerTest, FindsAProviderWithAtLeastOneChannel)
{
  Service manager(SCENE_MANAGER, testbus::refuse());

  for (const char *body : {"(1,)", "(2147483647,)", "(4, 'more')"}) {
    manager.set_answer(testbus::reply(body));
    EXPECT_TRUE(is_running()) << body;
  }
  for (const char *body : {"(0,)", "(-1,)", "(-2147483648,)"}) {
    manager.set_answer(testbus::reply(body));
    EXPECT_FALSE(is_running()) << body;
  }
}

TEST_F(SceneManagerTest, FindsNoProviderInAReplyOfAnotherType)
{
  Service manager(SCENE_MANAGER, testbus::refuse());

  for (const char *body : {"()", "(uint32 1,)", "(int64 1,)", "('1',)", "(true,)", "(<1>,)", "((1,),)",
                           "([1],)", "('more', 1)"}) {
    manager.set_answer(testbus::reply(body));
    EXPECT_FALSE(is_running()) << body;
  }
}

TEST_F(SceneManagerTest, FindsNoProviderWithoutAReply)
{
  EXPECT_FALSE(is_running()) << "no service";
  {
    const Service manager(SCENE_MANAGER, testbus::refuse());
    EXPECT_FALSE(is_running()) << "an error";
  }
  bus_.reset();
  EXPECT_FALSE(is_running()) << "no bus";
}

TEST_F(SceneManagerTest, WaitsNoLongerThanTheTimeout)
{
  Service manager(SCENE_MANAGER, testbus::reply("(1,)"));
  manager.set_slow(true);
  g_autoptr(GError) error = nullptr;

  EXPECT_FALSE(scene_manager_is_provider_running(0, nullptr, &error));
  EXPECT_FALSE(scene_manager_is_provider_running(1, nullptr, &error));
  EXPECT_EQ(error, nullptr);
}

TEST_F(SceneManagerTest, FailsWithAnErrorWhenItIsCancelled)
{
  Service manager(SCENE_MANAGER, testbus::reply("(1,)"));
  manager.set_slow(true);
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  g_autoptr(GError) error = nullptr;
  std::thread caller([&] { EXPECT_FALSE(scene_manager_is_provider_running(-1, cancellable, &error)); });

  EXPECT_TRUE(testhost::spin_until([&] { return manager.calls_size() == 1; }));
  g_cancellable_cancel(cancellable);
  caller.join();
  EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
}

TEST_F(SceneManagerTest, FailsWithAnErrorWhenTooFewDescriptorsAreFree)
{
  const testhost::FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + SYSTEM_BUS_CALL_DESCRIPTORS - 1);
  g_autoptr(GError) error = nullptr;

  EXPECT_FALSE(scene_manager_is_provider_running(TIMEOUT_MS, nullptr, &error));
  EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES));
}
