/* SPDX-License-Identifier: MIT */
#include "testfailingelements.h"

#include "testelements.h"

#include <array>
#include <map>
#include <mutex>

/* The class that a failing or unusable type derives from. */
static GObjectClass *
usable_class(gpointer instance)
{
  return G_OBJECT_CLASS(g_type_class_peek_parent(G_OBJECT_GET_CLASS(instance)));
}

/* Failures of state changes. */

namespace
{

using testelements::StateFailure;

std::mutex lock;

/* Both under the lock: the failure of new elements of a type, and the failures of the living elements. */
std::map<GType, StateFailure> failures_of_types;
std::map<GstElement *, StateFailure> failures_of_elements;

/* Whether this change fails. @works is set to that of the failure. */
bool
take_state_failure(GstElement *element, GstStateChange change, bool *works)
{
  std::lock_guard guard(lock);
  StateFailure &failure = failures_of_elements.at(element);

  *works = failure.works;
  if (failure.change != change || failure.times == 0) {
    return false;
  }
  failure.times -= failure.times != testelements::FOR_EVER ? 1 : 0;
  return true;
}

} // namespace

static void
failing_constructed(GObject *object)
{
  usable_class(object)->constructed(object);

  std::lock_guard guard(lock);
  failures_of_elements[GST_ELEMENT(object)] = failures_of_types.at(G_OBJECT_TYPE(object));
}

static void
failing_finalize(GObject *object)
{
  {
    std::lock_guard guard(lock);
    failures_of_elements.erase(GST_ELEMENT(object));
  }
  usable_class(object)->finalize(object);
}

static GstStateChangeReturn
failing_change_state(GstElement *element, GstStateChange change)
{
  bool works = true;
  const bool fails = take_state_failure(element, change, &works);
  GstStateChangeReturn result = GST_STATE_CHANGE_FAILURE;

  if (!fails || works) {
    result = GST_ELEMENT_CLASS(usable_class(element))->change_state(element, change);
  }
  return fails ? GST_STATE_CHANGE_FAILURE : result;
}

static void
failing_class_init(gpointer klass, gpointer)
{
  G_OBJECT_CLASS(klass)->constructed = failing_constructed;
  G_OBJECT_CLASS(klass)->finalize = failing_finalize;
  GST_ELEMENT_CLASS(klass)->change_state = failing_change_state;
  gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Failing", "Test", "Failing", "tests");
}

/* Elements that cannot be used. */

static GstPadLinkReturn
refuse_link(GstPad *, GstObject *, GstPad *)
{
  return GST_PAD_LINK_REFUSED;
}

static void
unlinkable_constructed(GObject *object)
{
  usable_class(object)->constructed(object);

  for (GList *pad = GST_ELEMENT(object)->pads; pad != nullptr; pad = pad->next) {
    gst_pad_set_link_function(GST_PAD(pad->data), refuse_link);
  }
}

static void
without_source_pad_constructed(GObject *object)
{
  GstElement *element = GST_ELEMENT(object);
  usable_class(object)->constructed(object);

  while (element->srcpads != nullptr) {
    gst_element_remove_pad(element, GST_PAD(element->srcpads->data));
  }
}

static void
taken_constructed(GObject *object)
{
  usable_class(object)->constructed(object);

  /* A bin checks only whether there is a parent, so any object will do. */
  GST_OBJECT_PARENT(object) = GST_OBJECT(gst_registry_get());
}

static void
ended_constructed(GObject *object)
{
  GstFlowReturn result = GST_FLOW_ERROR;
  usable_class(object)->constructed(object);

  g_signal_emit_by_name(object, "end-of-stream", &result);
}

static void
never_waiting_constructed(GObject *object)
{
  usable_class(object)->constructed(object);

  g_object_set(object, "async", FALSE, nullptr);
}

static void
unusable_dispose(GObject *object)
{
  GST_OBJECT_PARENT(object) = nullptr;

  usable_class(object)->dispose(object);
}

namespace testelements
{
namespace
{

struct UnusableKind {
  const char *prefix;
  void (*constructed)(GObject *object);
};

/* In the order of Unusable. */
constexpr std::array UNUSABLE_KINDS = {
    UnusableKind{"TestUnlinkable", unlinkable_constructed},
    UnusableKind{"TestWithoutSourcePad", without_source_pad_constructed},
    UnusableKind{"TestTaken", taken_constructed},
    UnusableKind{"TestEnded", ended_constructed},
    UnusableKind{"TestNeverWaiting", never_waiting_constructed},
};

void
unusable_class_init(gpointer klass, gpointer user_data)
{
  G_OBJECT_CLASS(klass)->constructed = static_cast<const UnusableKind *>(user_data)->constructed;
  G_OBJECT_CLASS(klass)->dispose = unusable_dispose;
  gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Unusable", "Test", "Unusable", "tests");
}

/* A type derived from @usable with this class initialiser. */
GType
derived_type(GType usable, const std::string &prefix, GClassInitFunc class_init, gconstpointer class_data)
{
  const std::string name = prefix + g_type_name(usable);
  const GType known = g_type_from_name(name.c_str());
  if (known != G_TYPE_INVALID) {
    return known;
  }
  GTypeQuery query = {};
  g_type_query(usable, &query);
  const GTypeInfo info = {
      .class_size = static_cast<guint16>(query.class_size),
      .class_init = class_init,
      .class_data = class_data,
      .instance_size = static_cast<guint16>(query.instance_size),
  };

  return g_type_register_static(usable, name.c_str(), &info, static_cast<GTypeFlags>(0));
}

GType
unusable_type(GType usable, Unusable kind)
{
  const UnusableKind &description = UNUSABLE_KINDS.at(static_cast<gsize>(kind));

  return derived_type(usable, description.prefix, unusable_class_init, &description);
}

GType
failing_type(GType usable, const StateFailure &failure)
{
  const GType type = derived_type(usable, "TestFailing", failing_class_init, nullptr);
  std::lock_guard guard(lock);

  failures_of_types[type] = failure;
  return type;
}

/* The type of the elements that a factory makes. */
GType
type_made_by(const char *factory_name)
{
  g_autoptr(GstElementFactory) known = gst_element_factory_find(factory_name);
  g_autoptr(GstPluginFeature) loaded = gst_plugin_feature_load(GST_PLUGIN_FEATURE(known));

  return gst_element_factory_get_element_type(GST_ELEMENT_FACTORY(loaded));
}

} // namespace

GstElement *
make_failing_source(Behaviour behaviour, const StateFailure &failure, bool live)
{
  return make_source_of_type(failing_type(source_type(), failure), behaviour, live);
}

std::vector<GstElement *>
failing_elements()
{
  std::lock_guard guard(lock);
  std::vector<GstElement *> elements;

  elements.reserve(failures_of_elements.size());
  for (const auto &failing : failures_of_elements) {
    elements.push_back(failing.first);
  }
  return elements;
}

gsize
release_failing_elements()
{
  {
    std::lock_guard guard(lock);
    for (auto &failing : failures_of_elements) {
      failing.second.times = 0;
    }
  }

  const std::vector<GstElement *> elements = failing_elements();
  for (GstElement *element : elements) {
    gst_element_set_state(element, GST_STATE_NULL);
    gst_object_unref(element);
  }
  return elements.size();
}

GstElement *
make_unusable(Unusable kind)
{
  return GST_ELEMENT(g_object_new(unusable_type(GST_TYPE_ELEMENT, kind), nullptr));
}

WithoutFactory::WithoutFactory(const char *name)
    : feature_(gst_registry_lookup_feature(gst_registry_get(), name))
{
  g_assert(feature_ != nullptr);
  gst_registry_remove_feature(gst_registry_get(), feature_);
}

WithoutFactory::~WithoutFactory()
{
  gst_registry_add_feature(gst_registry_get(), feature_);
  gst_object_unref(feature_);
}

ReplacedFactory::ReplacedFactory(const char *name, Unusable kind)
    : ReplacedFactory(name, unusable_type(type_made_by(name), kind))
{
}

ReplacedFactory::ReplacedFactory(const char *name, const StateFailure &failure)
    : ReplacedFactory(name, failing_type(type_made_by(name), failure))
{
}

ReplacedFactory::ReplacedFactory(const char *name, GType type) : without_(name), name_(name)
{
  gst_element_register(nullptr, name, GST_RANK_NONE, type);
}

ReplacedFactory::~ReplacedFactory()
{
  g_autoptr(GstPluginFeature) replacement = gst_registry_lookup_feature(gst_registry_get(), name_);

  gst_registry_remove_feature(gst_registry_get(), replacement);
}

} // namespace testelements
