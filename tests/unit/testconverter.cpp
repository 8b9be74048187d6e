/* SPDX-License-Identifier: MIT */
#include "testconverter.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <gst/gst.h>
#include <mutex>
#include <utility>

using testconverter::Behaviour;
using testconverter::Input;

namespace
{

constexpr guint PROP_SAMPLE_FRAME = 1;
constexpr const char *CAPS = "application/x-onvif-metadata";

std::atomic<Behaviour> next_behaviour = Behaviour::CONVERT;

std::mutex lock;
std::condition_variable changed;
std::vector<Input> inputs;
bool held;
GWeakRef last_made;
unsigned waiting_count;
unsigned most_waiting_count;

} // namespace

struct TestConverter {
  GstElement parent_instance;

  Behaviour behaviour;
  gboolean sample_frame;
  GstPad *src;
};

struct TestConverterClass {
  GstElementClass parent_class;
};

GType test_converter_get_type();
G_DEFINE_TYPE(TestConverter, test_converter, GST_TYPE_ELEMENT)

static TestConverter *
test_converter(gpointer instance)
{
  return G_TYPE_CHECK_INSTANCE_CAST(instance, test_converter_get_type(), TestConverter);
}

namespace
{

std::string
text_of(GstBuffer *buffer)
{
  std::string text(gst_buffer_get_size(buffer), '\0');

  gst_buffer_extract(buffer, 0, text.data(), text.size());
  return text;
}

GstBuffer *
make_buffer(const std::vector<std::string> &parts)
{
  GstBuffer *buffer = gst_buffer_new();

  for (const std::string &part : parts) {
    g_autoptr(GstBuffer) more = gst_buffer_new_memdup(part.data(), part.size());
    gst_buffer_append_memory(buffer, gst_buffer_get_all_memory(more));
  }
  return buffer;
}

void
wait_while_held()
{
  std::unique_lock guard(lock);

  waiting_count++;
  most_waiting_count = std::max(most_waiting_count, waiting_count);
  changed.wait(guard, [] { return !held; });
  waiting_count--;
}

GstFlowReturn
push(TestConverter *self, const std::vector<std::string> &parts)
{
  return gst_pad_push(self->src, make_buffer(parts));
}

GstFlowReturn
convert(TestConverter *self, const std::string &text)
{
  const std::string xml = testconverter::converted(text);

  switch (self->behaviour) {
  case Behaviour::SWALLOW:
    return GST_FLOW_OK;
  case Behaviour::FAIL:
    return GST_FLOW_ERROR;
  case Behaviour::EMPTY:
    return push(self, {});
  case Behaviour::BYTES:
    return push(self, {testconverter::BYTES});
  case Behaviour::BAD_TEXT:
    return push(self, {std::string(text.size(), '\xff')});
  case Behaviour::IN_PIECES:
    return push(self, {testconverter::XML_START, text, testconverter::XML_END});
  case Behaviour::CONVERT_TWICE:
    push(self, {xml});
    return push(self, {"<other/>"});
  case Behaviour::HOLD:
    wait_while_held();
    return push(self, {xml});
  default:
    return push(self, {xml});
  }
}

} // namespace

static GstFlowReturn
test_converter_chain(GstPad *, GstObject *parent, GstBuffer *buffer)
{
  TestConverter *self = test_converter(parent);
  const std::string text = text_of(buffer);
  {
    std::lock_guard guard(lock);
    inputs.push_back({text, gst_buffer_n_memory(buffer), self->sample_frame != FALSE});
  }
  gst_buffer_unref(buffer);
  return convert(self, text);
}

/* In each state, a pipeline with one such element gives the answer of that element. */
static GstStateChangeReturn
test_converter_change_state(GstElement *element, GstStateChange transition)
{
  const Behaviour behaviour = test_converter(element)->behaviour;

  if ((behaviour == Behaviour::REFUSE_TO_WAKE && transition == GST_STATE_CHANGE_NULL_TO_READY) ||
      (behaviour == Behaviour::REFUSE_TO_START && transition == GST_STATE_CHANGE_READY_TO_PAUSED)) {
    return GST_STATE_CHANGE_FAILURE;
  }
  const auto result = GST_ELEMENT_CLASS(test_converter_parent_class)->change_state(element, transition);
  const bool upward = GST_STATE_TRANSITION_NEXT(transition) > GST_STATE_TRANSITION_CURRENT(transition);
  if (behaviour == Behaviour::LIVE && upward && transition != GST_STATE_CHANGE_NULL_TO_READY) {
    return GST_STATE_CHANGE_NO_PREROLL;
  }
  return result;
}

static void
test_converter_get_property(GObject *object, guint, GValue *value, GParamSpec *)
{
  g_value_set_boolean(value, test_converter(object)->sample_frame);
}

static void
test_converter_set_property(GObject *object, guint, const GValue *value, GParamSpec *)
{
  test_converter(object)->sample_frame = g_value_get_boolean(value);
}

static void
test_converter_init(TestConverter *self)
{
  g_weak_ref_set(&last_made, self);
  GstElementClass *klass = GST_ELEMENT_GET_CLASS(self);
  GstPad *sink = gst_pad_new_from_template(gst_element_class_get_pad_template(klass, "sink"), "sink");

  self->behaviour = next_behaviour;
  self->src = gst_pad_new_from_template(gst_element_class_get_pad_template(klass, "src"), "src");
  gst_pad_set_chain_function(sink, test_converter_chain);
  gst_element_add_pad(GST_ELEMENT(self), sink);
  gst_element_add_pad(GST_ELEMENT(self), self->src);
}

static void
test_converter_class_init(TestConverterClass *klass)
{
  g_autoptr(GstCaps) any = gst_caps_new_any();
  g_autoptr(GstCaps) caps = gst_caps_from_string(CAPS);
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);

  object_class->get_property = test_converter_get_property;
  object_class->set_property = test_converter_set_property;
  element_class->change_state = test_converter_change_state;
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, any));
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_element_class_set_static_metadata(element_class, "Test converter", "Converter", "Driven by a test",
                                        "tests");
  g_object_class_install_property(
      object_class, PROP_SAMPLE_FRAME,
      g_param_spec_boolean("sample-frame", "Sample frame", "Sample frame", FALSE, G_PARAM_READWRITE));
}

namespace testconverter
{

void
install()
{
  gst_element_register(nullptr, "json2xml", GST_RANK_NONE, test_converter_get_type());
}

void
set_behaviour(Behaviour behaviour)
{
  next_behaviour = behaviour;
}

Hold::Hold()
{
  std::lock_guard guard(lock);

  held = true;
  most_waiting_count = 0;
}

Hold::~Hold()
{
  std::lock_guard guard(lock);

  held = false;
  changed.notify_all();
}

unsigned
Hold::waiting() const
{
  std::lock_guard guard(lock);

  return waiting_count;
}

unsigned
Hold::most_waiting() const
{
  std::lock_guard guard(lock);

  return most_waiting_count;
}

std::ostream &
operator<<(std::ostream &stream, Behaviour behaviour)
{
  constexpr std::array<const char *, 12> NAMES = {"CONVERT", "CONVERT_TWICE",  "IN_PIECES",       "EMPTY",
                                                  "BYTES",   "BAD_TEXT",       "SWALLOW",         "HOLD",
                                                  "FAIL",    "REFUSE_TO_WAKE", "REFUSE_TO_START", "LIVE"};

  return stream << NAMES.at(static_cast<gsize>(behaviour));
}

bool
stop_left_pipeline()
{
  g_autoptr(GstObject) element = GST_OBJECT(g_weak_ref_get(&last_made));
  g_autoptr(GstObject) pipeline = element != nullptr ? gst_object_get_parent(element) : nullptr;

  return pipeline != nullptr &&
         gst_element_set_state(GST_ELEMENT(pipeline), GST_STATE_NULL) == GST_STATE_CHANGE_SUCCESS;
}

std::string
converted(const std::string &text)
{
  return XML_START + text + XML_END;
}

std::ostream &
operator<<(std::ostream &stream, const Input &input)
{
  return stream << input.text << " in " << input.memories << " memories"
                << (input.sample_frame ? ", a sample frame" : "");
}

std::vector<Input>
take_inputs()
{
  std::lock_guard guard(lock);

  return std::exchange(inputs, {});
}

} // namespace testconverter
