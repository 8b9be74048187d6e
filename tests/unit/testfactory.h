/* SPDX-License-Identifier: MIT */
/* A source factory that a test controls, and the checks of what a factory under test returns. */
#pragma once

#include "sourcefactory.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

G_DECLARE_FINAL_TYPE(TestFactory, test_factory, TEST, FACTORY, GObject)

using CreateSource = std::function<GstElement *(GHashTable *params, GError **error)>;

/* @create_source runs on the threads that call the factory. */
TestFactory *test_factory_new(CreateSource create_source);

namespace testfactory
{

using Params = std::vector<std::pair<std::string, std::string>>;

/* A request's parameters as a factory gets them. The caller owns the table. */
GHashTable *make_params(const Params &params);

/* What a factory returns for one request. This object owns the source and has sunk its floating reference. */
class Result
{
public:
  Result(SourceFactory *factory, const Params &params);
  ~Result();
  Result(const Result &) = delete;
  Result &operator=(const Result &) = delete;

  /* A property of the source as text. */
  std::string property(const char *name) const;

  GstElement *source = nullptr;
  GError *error = nullptr;
};

/* The factory returns neither a source nor an error. */
void expect_declined(SourceFactory *factory, const Params &params);

/* The factory fails with @text and logs it as one warning. */
void expect_refused(SourceFactory *factory, const Params &params, GQuark domain, const std::string &text);

/* A parameter that a log line must not contain as it is, and its form in the log. */
struct HostileValue {
  std::string value;
  std::string logged;
};

const std::vector<HostileValue> &hostile_values();

/* Each hostile value of the parameter @key fails: the error has the value, the log its escaped form. */
void expect_hostile_values_refused(SourceFactory *factory, const std::string &key, GQuark domain,
                                   const std::string &problem);

/* The type is a plain GObject of this name that implements the factory interface. */
void expect_plain_factory(GType type, const char *name);

/* The name of the factory that made an element. */
std::string factory_name(GstElement *element);

/* The pad "src" of @from is linked to the pad "sink" of @to. */
void expect_linked(GstElement *from, GstElement *to);

/* The bin has one pad, "src", a ghost of the one of @last. */
void expect_ghost_pad(GstElement *bin, GstElement *last);

} // namespace testfactory
