/* A source factory whose answers a test gives, and what a factory under test answers. */
#pragma once

#include "sourcefactory.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

G_DECLARE_FINAL_TYPE(TestFactory, test_factory, TEST, FACTORY, GObject)

using CreateSource = std::function<GstElement *(GHashTable *params, GError **error)>;

/* @create_source runs on the threads that ask the factory. */
TestFactory *test_factory_new(CreateSource create_source);

namespace testfactory
{

using Params = std::vector<std::pair<std::string, std::string>>;

/* A request's parameters as a factory gets them. The caller owns the table. */
GHashTable *make_params(const Params &params);

/* The answer of a factory to one request. The test owns the source, which no longer floats. */
class Answer
{
public:
  Answer(SourceFactory *factory, const Params &params);
  ~Answer();
  Answer(const Answer &) = delete;
  Answer &operator=(const Answer &) = delete;

  /* A property of the source as text. */
  std::string property(const char *name) const;

  GstElement *source = nullptr;
  GError *error = nullptr;
};

/* The factory has nothing to contribute. */
void expect_declined(SourceFactory *factory, const Params &params);

/* The factory fails with @text, which is also the one line that it logs, as a warning. */
void expect_refused(SourceFactory *factory, const Params &params, GQuark domain, const std::string &text);

/* A text of a client's that no line of the log may hold as it is, and what stands there in its place. */
struct HostileValue {
  std::string value;
  std::string logged;
};

const std::vector<HostileValue> &hostile_values();

/* Whether each hostile value of the parameter @key fails as it is, and with a fit line of the log. */
void expect_hostile_values_refused(SourceFactory *factory, const std::string &key, GQuark domain,
                                   const std::string &problem);

/* The name of the factory that made an element. */
std::string factory_name(GstElement *element);

/* Whether the pad "src" of one is linked to the pad "sink" of the other. */
void expect_linked(GstElement *from, GstElement *to);

/* Whether the bin has one pad, "src", which shows that of @last. */
void expect_ghost_pad(GstElement *bin, GstElement *last);

} // namespace testfactory
