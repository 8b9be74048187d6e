/* What the tests of both factories of scenes stand on: a producer configuration, a producer list, a bus with
 * the capture service, and the looks of a bin and of a sample frame.
 */
#pragma once

#include "analyticsproducerlist.h"

#include "testbus.h"
#include "testelements.h"
#include "testfactory.h"
#include "testhost.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace testscenes
{

/* An element of a document. One with a text has no children. */
struct Node {
  std::string name;
  std::vector<std::pair<std::string, std::string>> attributes;
  std::vector<Node> children = {};
  std::string text = "";
  std::string end_of_empty_tag = "/>";
};

/* The document pretty-printed with two blanks per level of depth, and joined into one line. */
std::string print_in_one_line(const Node &root);

/* The sample frame of @producer, whose object shows @more_appearance behind its shape. */
Node sample_frame(const std::string &producer, const std::vector<Node> &more_appearance);

/* Whether the text is one element, in which every tag is closed. Namespaces are not looked at. */
bool is_well_formed(const std::string &text);

/* The names in a bin. Those of source and converter are their factories' too. */
struct BinNames {
  const char *bin;
  const char *source;
  const char *filter;
  const char *converter;
};

void expect_bin(GstElement *bin, const BinNames &names, const std::string &caps);

/* What a factory says when its bin cannot be built. */
struct BuildTexts {
  const char *no_source;
  const char *no_filter;
  const char *no_converter;
  const char *converter_not_added;
  const char *filter_not_added;
  const char *source_not_added;
  const char *not_linked;
  const char *no_ghost_pad;
};

constexpr const char *ROTATION_90 = "(<{'rotation': <uint32 90>}>,)";

class Fixture : public testhost::Fixture
{
protected:
  static void SetUpTestSuite();

  /* The tracker supports the channels 1, 2 and 5. It is enabled on channel 1 as "front door", and on channel
   * 5 as "yard". */
  void set_up(const std::string &tracker);
  void TearDown() override;

  /* The factory under test, which the fixture takes over. */
  void set_factory(gpointer factory);
  void release_factory();

  AnalyticsProducerList *producers() const;
  AnalyticsProducer *dup_producer() const;
  testbus::Service &capture();

  /* The producer is a built-in one, and nobody but the list keeps it. */
  void expect_published(const char *nice_name) const;
  void expect_supported_channels(const std::vector<guint32> &supported,
                                 const std::vector<guint32> &others) const;
  void expect_left_to_the_list();

  /* What the producer shows as a sample, @length characters, is @root and has no line breaks. */
  void expect_sample_frame(gsize length, const Node &root) const;

  void stop_capture();
  void stop_bus();

  testfactory::Answer ask(const testfactory::Params &params) const;
  void expect_declined(const testfactory::Params &params) const;
  void expect_refused(const testfactory::Params &params, GQuark domain, const std::string &text) const;
  void expect_hostile_values_refused(const std::string &key, GQuark domain, const std::string &problem) const;

  /* With too few descriptors to ask the capture service the factory passes the shortage on, and logs nothing.
   */
  void expect_shortage(const testfactory::Params &params);

  /* A request that is cancelled while the capture service does not reply fails, and logs nothing. */
  void expect_cancelled_while_asking(const testfactory::Params &params);

  /* @params make a bin when nothing is in the way. */
  void expect_failures_to_make(const testfactory::Params &params, const BinNames &names,
                               const BuildTexts &texts) const;
  void expect_failures_to_add(const testfactory::Params &params, const BinNames &names,
                              const BuildTexts &texts) const;
  void expect_failures_to_link(const testfactory::Params &params, const BinNames &names,
                               const BuildTexts &texts) const;
  void expect_failure_to_add_ghost_pad(const testfactory::Params &params, const BinNames &names,
                                       const BuildTexts &texts) const;

private:
  void expect_build_failure(const testfactory::Params &params, const char *text) const;

  std::string tracker_;
  std::string configuration_;
  AnalyticsProducerList *producers_ = nullptr;
  SourceFactory *factory_ = nullptr;
  std::optional<testbus::Bus> bus_;
  std::optional<testbus::Service> capture_;
};

} // namespace testscenes
