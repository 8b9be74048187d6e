/* A source factory whose answers a test gives. */
#pragma once

#include "sourcefactory.h"

#include <functional>

G_DECLARE_FINAL_TYPE(TestFactory, test_factory, TEST, FACTORY, GObject)

using CreateSource = std::function<GstElement *(GHashTable *params, GError **error)>;

/* @create_source runs on the threads that ask the factory. */
TestFactory *test_factory_new(CreateSource create_source);
