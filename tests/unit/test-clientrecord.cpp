/* SPDX-License-Identifier: MIT */
#include "clientrecord.h"

#include "testhost.h"

#include <atomic>
#include <memory>
#include <thread>

namespace
{

constexpr pid_t PID = 1234;
constexpr uid_t UID = 1000;

struct RecordClose {
  void operator()(ClientRecord *record) const
  {
    client_record_close(record);
  }
};

using Record = std::unique_ptr<ClientRecord, RecordClose>;

class ClientRecordTest : public testhost::Fixture
{
protected:
  /* The totals grow over all tests of the process. */
  void SetUp() override
  {
    Fixture::SetUp();
    list();
    before_ = totals_;
  }

  void TearDown() override
  {
    EXPECT_EQ(list().size(), 0U);
    Fixture::TearDown();
  }

  static Record make(const std::map<std::string, std::string> &request = {})
  {
    g_autoptr(GHashTable) params = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);

    for (const auto &[key, value] : request) {
      g_hash_table_insert(params, g_strdup(key.c_str()), g_strdup(value.c_str()));
    }
    return Record(client_record_new(PID, UID, params));
  }

  /* The present clients, without their requests. */
  std::vector<ClientSnapshot> list()
  {
    g_autoptr(GPtrArray) clients = client_record_list(&totals_);
    std::vector<ClientSnapshot> snapshots;

    for (guint i = 0; i < clients->len; i++) {
      snapshots.push_back(*static_cast<ClientSnapshot *>(g_ptr_array_index(clients, i)));
      snapshots.back().request = nullptr;
    }
    return snapshots;
  }

  ClientTotals totals_ = {};
  ClientTotals before_ = {};
};

std::map<std::string, std::string>
request_of_first()
{
  ClientTotals totals = {};
  g_autoptr(GPtrArray) clients = client_record_list(&totals);
  auto *request = static_cast<ClientSnapshot *>(g_ptr_array_index(clients, 0))->request;
  std::map<std::string, std::string> values;
  GHashTableIter iter;
  gpointer key = nullptr;
  gpointer value = nullptr;

  g_hash_table_iter_init(&iter, request);
  while (g_hash_table_iter_next(&iter, &key, &value)) {
    values[static_cast<const gchar *>(key)] = static_cast<const gchar *>(value);
  }
  return values;
}

} // namespace

TEST_F(ClientRecordTest, TellsWhoAClientIs)
{
  const Record record = make();
  const auto clients = list();

  ASSERT_EQ(clients.size(), 1U);
  EXPECT_EQ(clients[0].id, before_.clients + 1);
  EXPECT_EQ(clients[0].pid, PID);
  EXPECT_EQ(clients[0].uid, UID);
  EXPECT_FALSE(clients[0].is_streaming);
  EXPECT_EQ(clients[0].documents, 0U);
  EXPECT_EQ(clients[0].queue_items, 0U);
  EXPECT_GE(clients[0].age_us, 0);
  EXPECT_EQ(clients[0].last_document_age_us, -1);
}

TEST_F(ClientRecordTest, KeepsTheKeysThatHaveAMeaning)
{
  const Record record = make({{"event", "1"}, {"video_channel", "2"}, {"other", "3"}, {"ptz", ""}});

  EXPECT_EQ(request_of_first(),
            (std::map<std::string, std::string>{{"event", "1"}, {"video_channel", "2"}, {"ptz", ""}}));
}

TEST_F(ClientRecordTest, LimitsTheLengthOfAValue)
{
  const std::string longest(CLIENT_RECORD_MAX_VALUE_BYTES + 1, 'x');
  const Record record = make({{"event_topic", longest + "y"}, {"event_content", "\xff"}});

  EXPECT_EQ(request_of_first(),
            (std::map<std::string, std::string>{{"event_topic", longest}, {"event_content", "\xff"}}));
}

TEST_F(ClientRecordTest, CountsDocuments)
{
  const Record record = make();

  client_record_set_streaming(record.get());
  client_record_add_documents(record.get(), 1, 100);
  client_record_add_documents(record.get(), 3, 20);
  const auto clients = list();

  EXPECT_TRUE(clients[0].is_streaming);
  EXPECT_EQ(clients[0].documents, 4U);
  EXPECT_EQ(clients[0].bytes, 120U);
  EXPECT_GE(clients[0].last_document_age_us, 0);
  EXPECT_LE(clients[0].last_document_age_us, clients[0].age_us);
}

TEST_F(ClientRecordTest, ShowsTheQueueUntilItsClose)
{
  g_autoptr(GstElement) queue = GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("queue", nullptr)));
  g_autoptr(GstPad) pad = gst_element_get_static_pad(queue, "sink");
  GstSegment segment;
  Record record = make();

  client_record_set_queue(record.get(), queue);
  gst_segment_init(&segment, GST_FORMAT_TIME);
  gst_pad_set_active(pad, TRUE);
  gst_pad_send_event(pad, gst_event_new_stream_start("test"));
  gst_pad_send_event(pad, gst_event_new_segment(&segment));
  EXPECT_EQ(gst_pad_chain(pad, gst_buffer_new_allocate(nullptr, 7, nullptr)), GST_FLOW_OK);
  EXPECT_EQ(gst_pad_chain(pad, gst_buffer_new_allocate(nullptr, 8, nullptr)), GST_FLOW_OK);
  const auto clients = list();

  EXPECT_EQ(clients[0].queue_items, 2U);
  EXPECT_EQ(clients[0].queue_bytes, 15U);
  EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(queue), 2);
  record.reset();
  EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(queue), 1);
  gst_pad_set_active(pad, FALSE);
}

TEST_F(ClientRecordTest, ForgetsAClientButNotItsCounts)
{
  Record first = make();
  const Record second = make();

  client_record_add_documents(first.get(), 1, 100);
  client_record_add_documents(second.get(), 1, 10);
  list();
  const ClientTotals with_both = totals_;
  first.reset();
  const auto clients = list();

  ASSERT_EQ(clients.size(), 1U);
  EXPECT_EQ(clients[0].id, before_.clients + 2);
  for (const ClientTotals &totals : {with_both, totals_}) {
    EXPECT_EQ(totals.clients, before_.clients + 2);
    EXPECT_EQ(totals.documents, before_.documents + 2);
    EXPECT_EQ(totals.bytes, before_.bytes + 110);
  }
}

/* An element that never stops can count after its client has left. */
TEST_F(ClientRecordTest, CanBeCountedAfterItsClose)
{
  Record record = make();
  ClientRecord *held = client_record_ref(record.get());

  record.reset();
  client_record_add_documents(held, 1, 100);
  client_record_unref(held);
  list();
  EXPECT_EQ(totals_.documents, before_.documents);
}

TEST_F(ClientRecordTest, NeverDecreasesItsTotals)
{
  constexpr guint ROUNDS = 2000;
  std::atomic<bool> ended = false;

  std::thread client([&ended] {
    for (guint i = 0; i < ROUNDS; i++) {
      const Record record = make();
      client_record_add_documents(record.get(), 1, 5);
    }
    ended = true;
  });
  ClientTotals last = before_;
  while (!ended) {
    list();
    EXPECT_GE(totals_.documents, last.documents);
    EXPECT_GE(totals_.bytes, last.bytes);
    EXPECT_GE(totals_.clients, last.clients);
    last = totals_;
  }
  client.join();
  list();
  EXPECT_EQ(totals_.documents, before_.documents + ROUNDS);
  EXPECT_EQ(totals_.bytes, before_.bytes + 5 * ROUNDS);
  EXPECT_EQ(totals_.clients, before_.clients + ROUNDS);
}
