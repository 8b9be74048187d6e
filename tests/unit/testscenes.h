/* SPDX-License-Identifier: MIT */
/* The fixture of the tests of both scene factories: a producer configuration, a producer list and a bus with
 * the capture service. For each factory, its names and texts.
 */
#pragma once

#include "analyticsproducerlist.h"

#include "testbus.h"
#include "testelements.h"
#include "testfactory.h"
#include "testhost.h"

#include <optional>
#include <string>

namespace testscenes
{

/* The names in a bin. Source and converter are named like the factories that make them. */
struct BinNames {
  const char *bin;
  const char *source;
  const char *filter;
  const char *converter;
};

/* The errors of a factory whose bin cannot be built. */
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

struct Kind {
  const char *tracker;
  const char *media_type;
  const char *converter_settings; /* between polygon and rotation */
  BinNames names;
  BuildTexts texts;
};

/* Of scenes and of radar scenes. */
extern const Kind VIDEO;
extern const Kind RADAR;

constexpr gint32 MOVE_CAPABILITIES = -9;

constexpr const char *ROTATION_90 = "(<{'rotation': <uint32 90>}>,)";

class Fixture : public testbus::Fixture
{
protected:
  static void SetUpTestSuite();

  /* The tracker supports the channels 1, 2 and 5. It is enabled on channel 1 as "front door", and on channel
   * 5 as "yard". */
  void set_up(const Kind &kind);
  void TearDown() override;

  /* The factory under test, which the fixture takes over. */
  void set_factory(gpointer factory);
  void release_factory();

  const Kind &kind() const;
  AnalyticsProducerList *producers() const;
  AnalyticsProducer *dup_producer() const;
  testbus::Service &capture();

  void stop_capture();

  testfactory::Result request(const testfactory::Params &params) const;
  void expect_declined(const testfactory::Params &params) const;
  void expect_refused(const testfactory::Params &params, GQuark domain, const std::string &text) const;
  void expect_hostile_values_refused(const std::string &key, GQuark domain, const std::string &problem) const;

  /* What the converter of a bin without PTZ is set to. */
  std::string converter_settings(bool polygon, guint rotation, const std::string &source_name) const;

  /* The request succeeds with a bin of source, caps filter and converter with these settings. */
  void expect_bin(const testfactory::Params &params, bool polygon, gint32 channel, guint rotation,
                  const std::string &source_name) const;

private:
  const Kind *kind_ = nullptr;
  std::string configuration_;
  AnalyticsProducerList *producers_ = nullptr;
  SourceFactory *factory_ = nullptr;
  std::optional<testbus::Service> capture_;
};

} // namespace testscenes
