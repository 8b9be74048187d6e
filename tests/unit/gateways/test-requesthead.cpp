/* SPDX-License-Identifier: MIT */
#include "requesthead.h"

#include "testhost.h"

namespace
{

class RequestHeadTest : public testhost::Fixture
{
};

std::string
head(const std::string &headers, const std::string &line_end = "\r\n")
{
  return "GET / HTTP/1.1" + line_end + "Host: a" + line_end + headers + line_end;
}

/* Whether each way to cut the text into two pieces, and into single bytes, lets it reach the engine. */
void
expect_accepted(const std::string &text, bool is_accepted)
{
  for (gsize cut = 0; cut <= text.size(); cut++) {
    view::RequestHead pieces;
    EXPECT_EQ(pieces.append(text.substr(0, cut)) && pieces.append(text.substr(cut)), is_accepted)
        << text << cut;
  }
  view::RequestHead bytes;
  EXPECT_EQ(std::all_of(text.begin(), text.end(),
                        [&](const char &byte) {
                          return bytes.append({&byte, 1});
                        }),
            is_accepted)
      << text;
}

} // namespace

TEST_F(RequestHeadTest, AcceptsAKnownLength)
{
  for (const char *headers : {"", "Content-Length: 10\r\n", "Transfer-Encoding: chunked\r\n",
                              "Transfer-Encoding: chunked\r\nContent-Length: x\r\n", "Content-Lengthy: x\r\n",
                              "A: b\r\n Transfer-Encoding: x\r\n", "Content-Length : x\r\n"}) {
    expect_accepted(head(headers), true);
  }
}

TEST_F(RequestHeadTest, RefusesAnUnknownLength)
{
  for (const char *headers :
       {"Content-Length: x\r\n", "Content-Length: 1 0\r\n", "content-length:\r\n 1x\r\n",
        "Transfer-Encoding: gzip\r\n", "transfer-encoding: gzip, chunked\r\n",
        "A: b\r\nContent-Length: 10\r\nTransfer-Encoding: gzip\r\n"}) {
    expect_accepted(head(headers), false);
  }
}

TEST_F(RequestHeadTest, FindsTheEndOfTheHead)
{
  const std::string refused = "Transfer-Encoding: gzip";
  expect_accepted(head(refused + "\n", "\n"), false);
  expect_accepted(head(refused + "\n", "\r\n"), false);
  expect_accepted("\r\n\n\r\n" + head(refused + "\r\n"), false);
  expect_accepted("\n" + head("") + refused + "\r\n\r\n", true);
  expect_accepted(head("") + head(refused + "\r\n"), true);
}

TEST_F(RequestHeadTest, LeavesToTheEngineWhatIsNoRequest)
{
  expect_accepted("", true);
  expect_accepted("\n\n\n\n", true);
  expect_accepted("GET\r\nTransfer-Encoding: gzip\r\n\r\n", true);
  expect_accepted("GET / HTTP/2.0\r\nTransfer-Encoding: gzip\r\n\r\n", true);
}

TEST_F(RequestHeadTest, TakesTheEndForTheEndOfTheHead)
{
  view::RequestHead refused;
  EXPECT_TRUE(refused.append("GET / HTTP/1.1\r\nTransfer-Encoding: gzip\r\n"));
  EXPECT_FALSE(refused.end());
  EXPECT_TRUE(refused.end());

  view::RequestHead accepted;
  EXPECT_TRUE(accepted.end());

  view::RequestHead complete;
  EXPECT_TRUE(complete.append(head("") + "Transfer-Encoding: gzip\r\n"));
  EXPECT_TRUE(complete.end());
}
