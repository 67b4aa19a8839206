#include "server/http/request_reader.h"

#include <gtest/gtest.h>

namespace saffra::server::http {
namespace {

using Progress = RequestReader::Progress;

constexpr RequestLimits kLimits{1024, 64};

/// Feeds `bytes` in pieces of `step` bytes; returns the progress after the last piece.
Progress feed(RequestReader& reader, std::string_view bytes, std::size_t step) {
  Progress progress = Progress::NeedMore;
  for (std::size_t at = 0; at < bytes.size(); at += step) {
    reader.append(bytes.substr(at, step));
    do {
      progress = reader.read();
    } while (progress == Progress::HeadReady);
    if (progress == Progress::Failed) break;
  }
  return progress;
}

TEST(RequestReaderTest, ReadsBodiesWholeHoweverTheBytesArrive) {
  struct Case {
    const char* name;
    std::string bytes;
    std::string body;
  };
  const Case cases[] = {
      {"declared length", "POST /a HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello", "hello"},
      {"chunks with an extension and a trailer",
       "POST /a HTTP/1.1\r\nTransfer-Encoding: Chunked\r\n\r\n3;x=y\r\nhel\r\n2\r\nlo\r\n"
       "0\r\nX-Sum: 1\r\n\r\n",
       "hello"},
      {"no body, after empty lines", "\r\n\r\nGET /a?x=1 HTTP/1.1\r\nHost: h\r\n\r\n", ""},
      {"body exactly at the limit",
       "POST /a HTTP/1.1\r\nContent-Length: 64\r\n\r\n" + std::string(64, 'b'),
       std::string(64, 'b')},
  };
  for (const Case& c : cases) {
    for (std::size_t step : {c.bytes.size(), std::size_t{1}, std::size_t{7}}) {
      SCOPED_TRACE(std::string(c.name) + ", pieces of " + std::to_string(step));
      RequestReader reader(kLimits);
      ASSERT_EQ(feed(reader, c.bytes, step), Progress::Complete);
      Request request = reader.takeRequest();
      EXPECT_EQ(request.body, c.body);
      EXPECT_EQ(request.path, "/a");
      EXPECT_TRUE(reader.keepAlive());
      EXPECT_FALSE(reader.started());
    }
  }
}

TEST(RequestReaderTest, KeepsPipelinedRequestsApartAndDecodesTheTarget) {
  RequestReader reader(kLimits);
  reader.append(
      "GET /b/a%2Fb/c?apiKey=k%20y&x=1+2&x=3 HTTP/1.1\r\nhost: h\r\n\r\n"
      "POST /second HTTP/1.0\r\nContent-Length: 2\r\nExpect: 100-continue\r\n\r\nok");
  ASSERT_EQ(reader.read(), Progress::Complete);
  Request first = reader.takeRequest();
  EXPECT_EQ(first.target, "/b/a%2Fb/c?apiKey=k%20y&x=1+2&x=3");
  EXPECT_EQ(first.path, "/b/a/b/c");
  EXPECT_EQ(first.get_param_value("apiKey"), "k y");
  EXPECT_EQ(first.params.count("x"), 2u);
  EXPECT_EQ(first.get_param_value("x"), "1 2");
  EXPECT_EQ(first.get_header_value("Host"), "h");
  EXPECT_TRUE(reader.started());

  // HTTP/1.0 neither keeps the connection nor waits for "100 Continue".
  ASSERT_EQ(reader.read(), Progress::HeadReady);
  EXPECT_FALSE(reader.expectsContinue());
  ASSERT_EQ(reader.read(), Progress::Complete);
  EXPECT_FALSE(reader.keepAlive());
  EXPECT_EQ(reader.takeRequest().body, "ok");

  RequestReader waiting(kLimits);
  waiting.append("PUT /u HTTP/1.1\r\nExpect: 100-Continue\r\nContent-Length: 3\r\n\r\n");
  EXPECT_EQ(waiting.read(), Progress::HeadReady);
  EXPECT_TRUE(waiting.expectsContinue());
  EXPECT_EQ(waiting.read(), Progress::NeedMore);
}

TEST(RequestReaderTest, RefusesWhatIsNotAnAcceptableRequest) {
  struct Case {
    const char* name;
    std::string bytes;
    int status;
  };
  const std::string chunk = "20\r\n" + std::string(32, 'c') + "\r\n";
  const Case cases[] = {
      {"chunks adding up past the limit",
       "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk + chunk + "1\r\nc\r\n", 413},
      {"one huge chunk",
       "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nffffffffffffffff\r\n", 413},
      {"declared length over the limit", "POST / HTTP/1.1\r\nContent-Length: 65\r\n\r\n", 413},
      {"head over the limit", "GET / HTTP/1.1\r\nX: " + std::string(1100, 'x'), 431},
      {"length and chunks",
       "POST / HTTP/1.1\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n", 400},
      {"conflicting lengths", "POST / HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\n",
       400},
      {"signed length", "POST / HTTP/1.1\r\nContent-Length: +3\r\n\r\n", 400},
      {"other coding", "POST / HTTP/1.1\r\nTransfer-Encoding: gzip, chunked\r\n\r\n", 501},
      {"chunk size not hex", "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n", 400},
      {"chunk without its CRLF", "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nabXY",
       400},
      {"folded header", "GET / HTTP/1.1\r\nX: a\r\n b\r\n\r\n", 400},
      {"space before colon", "GET / HTTP/1.1\r\nX : a\r\n\r\n", 400},
      {"control byte in a value", std::string("GET / HTTP/1.1\r\nX: a\x01\r\n\r\n"), 400},
      {"encoded NUL in the path", "GET /a%00b HTTP/1.1\r\n\r\n", 400},
      {"bad escape in the path", "GET /a%zz HTTP/1.1\r\n\r\n", 400},
      {"absolute target", "GET http://h/ HTTP/1.1\r\n\r\n", 400},
      {"no version", "GET /\r\n\r\n", 400},
      {"newer version", "GET / HTTP/2.0\r\n\r\n", 505},
      {"unknown expectation", "POST / HTTP/1.1\r\nExpect: magic\r\n\r\n", 417},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RequestReader reader(kLimits);
    EXPECT_EQ(feed(reader, c.bytes, c.bytes.size()), Progress::Failed);
    EXPECT_EQ(reader.failureStatus(), c.status) << reader.failureReason();
  }
}

}  // namespace
}  // namespace saffra::server::http
