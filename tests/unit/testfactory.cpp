#include "testfactory.h"

#include <utility>

struct _TestFactory {
  GObject parent_instance;

  CreateSource *create_source;
};

static void test_factory_iface_init(SourceFactoryInterface *iface);

G_DEFINE_TYPE_WITH_CODE(TestFactory, test_factory, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(SOURCE_TYPE_FACTORY, test_factory_iface_init))

static void
test_factory_init(TestFactory *self)
{
  self->create_source = new CreateSource;
}

static void
test_factory_finalize(GObject *object)
{
  delete TEST_FACTORY(object)->create_source;

  G_OBJECT_CLASS(test_factory_parent_class)->finalize(object);
}

static void
test_factory_class_init(TestFactoryClass *klass)
{
  G_OBJECT_CLASS(klass)->finalize = test_factory_finalize;
}

static GstElement *
test_factory_create_source(SourceFactory *factory, GHashTable *params, GError **error)
{
  return (*TEST_FACTORY(factory)->create_source)(params, error);
}

static void
test_factory_iface_init(SourceFactoryInterface *iface)
{
  iface->create_source = test_factory_create_source;
}

TestFactory *
test_factory_new(CreateSource create_source)
{
  auto *self = TEST_FACTORY(g_object_new(test_factory_get_type(), nullptr));

  *self->create_source = std::move(create_source);
  return self;
}
