#include "server/http/request_reader.h"

#include <algorithm>
#include <cctype>
#include <vector>

namespace saffra::server::http {

namespace {

constexpr std::size_t kMaxHeaders = 128;
constexpr std::size_t kMaxChunkLine = 1024;

bool isTokenChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) ||
         std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), isTokenChar);
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

/// True when a comma-separated header value lists `token`.
bool listsToken(std::string_view value, std::string_view token) {
  while (!value.empty()) {
    std::size_t comma = value.find(',');
    if (equalsIgnoringCase(trim(value.substr(0, comma)), token)) return true;
    if (comma == std::string_view::npos) break;
    value.remove_prefix(comma + 1);
  }
  return false;
}

/// A field value may hold visible characters, spaces, tabs and bytes above 127.
bool isFieldValue(std::string_view value) {
  return std::none_of(value.begin(), value.end(), [](char c) {
    auto u = static_cast<unsigned char>(c);
    return (u < 0x20 && c != '\t') || u == 0x7F;
  });
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

RequestReader::Progress RequestReader::fail(int status, std::string reason) {
  state_ = State::Failed;
  failureStatus_ = status;
  failureReason_ = std::move(reason);
  return Progress::Failed;
}

RequestReader::Progress RequestReader::read() {
  switch (state_) {
    case State::Head: {
      // Empty lines before a request line are allowed and skipped.
      while (buffer_.compare(offset_, 2, "\r\n") == 0) offset_ += 2;
      std::size_t end = buffer_.find("\r\n\r\n", offset_);
      if (end == std::string::npos) {
        if (buffer_.size() - offset_ > limits_.maxHeadBytes) {
          return fail(431, "the request's head is too large");
        }
        compact();
        return Progress::NeedMore;
      }
      if (end - offset_ > limits_.maxHeadBytes) return fail(431, "the request's head is too large");
      std::string_view head(buffer_.data() + offset_, end - offset_);
      offset_ = end + 4;
      return parseHead(head);
    }
    case State::Done:
      return Progress::Complete;
    case State::Failed:
      return Progress::Failed;
    default:
      return readBody();
  }
}

RequestReader::Progress RequestReader::parseHead(std::string_view head) {
  std::vector<std::string_view> lines;
  while (true) {
    std::size_t end = head.find("\r\n");
    lines.push_back(head.substr(0, end));
    if (end == std::string_view::npos) break;
    head.remove_prefix(end + 2);
  }
  if (lines.size() > kMaxHeaders + 1) return fail(431, "the request has too many headers");

  // The request line: METHOD SP target SP HTTP/1.x
  std::string_view line = lines[0];
  std::size_t first = line.find(' ');
  std::size_t last = line.rfind(' ');
  if (first == std::string_view::npos || first == last) return fail(400, "malformed request line");
  std::string_view method = line.substr(0, first);
  std::string_view target = line.substr(first + 1, last - first - 1);
  std::string_view version = line.substr(last + 1);
  if (!isToken(method) || method.size() > 32) return fail(400, "malformed method");
  if (version != "HTTP/1.1" && version != "HTTP/1.0") {
    if (version.substr(0, 5) == "HTTP/") return fail(505, "unsupported HTTP version");
    return fail(400, "malformed request line");
  }
  if (target.empty() || target.front() != '/' ||
      std::any_of(target.begin(), target.end(), [](char c) {
        auto u = static_cast<unsigned char>(c);
        return u <= 0x20 || u == 0x7F;
      })) {
    return fail(400, "malformed request target");
  }
  request_.method = method;
  request_.version = version;
  request_.target = target;
  std::size_t question = target.find('?');
  std::optional<std::string> path = percentDecode(target.substr(0, question), false);
  if (!path) return fail(400, "malformed request path");
  request_.path = std::move(*path);
  if (question != std::string_view::npos) {
    parseQueryText(target.substr(question + 1), request_.params);
  }

  for (std::size_t i = 1; i < lines.size(); ++i) {
    std::string_view header = lines[i];
    std::size_t colon = header.find(':');
    if (colon == std::string_view::npos || !isToken(header.substr(0, colon))) {
      return fail(400, "malformed header");
    }
    std::string_view value = trim(header.substr(colon + 1));
    if (!isFieldValue(value)) return fail(400, "malformed header value");
    request_.headers.emplace(std::string(header.substr(0, colon)), std::string(value));
  }

  keepAlive_ = version == "HTTP/1.1";
  for (auto [at, end] = request_.headers.equal_range("Connection"); at != end; ++at) {
    if (listsToken(at->second, "close")) keepAlive_ = false;
    if (listsToken(at->second, "keep-alive") && !listsToken(at->second, "close")) {
      keepAlive_ = true;
    }
  }
  if (request_.has_header("Expect")) {
    if (!equalsIgnoringCase(request_.get_header_value("Expect"), "100-continue")) {
      return fail(417, "unsupported expectation");
    }
    expectsContinue_ = version == "HTTP/1.1";
  }

  const bool hasLength = request_.has_header("Content-Length");
  if (request_.has_header("Transfer-Encoding")) {
    if (hasLength) return fail(400, "both Content-Length and Transfer-Encoding");
    if (request_.headers.count("Transfer-Encoding") > 1 ||
        !equalsIgnoringCase(request_.get_header_value("Transfer-Encoding"), "chunked")) {
      return fail(501, "unsupported transfer coding");
    }
    if (version != "HTTP/1.1") return fail(400, "chunked body in an HTTP/1.0 request");
    state_ = State::ChunkSize;
    return Progress::HeadReady;
  }
  std::size_t length = 0;
  if (hasLength) {
    bool firstValue = true;
    for (auto [at, end] = request_.headers.equal_range("Content-Length"); at != end; ++at) {
      const std::string& text = at->second;
      if (text.empty() || text.size() > 18 ||
          !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return fail(400, "malformed Content-Length");
      }
      std::size_t value = std::stoull(text);
      if (!firstValue && value != length) return fail(400, "conflicting Content-Length");
      length = value;
      firstValue = false;
    }
  }
  if (length > limits_.maxBodyBytes) return fail(413, "the body is too large");
  if (length == 0) {
    state_ = State::Done;
    expectsContinue_ = false;
    return Progress::Complete;
  }
  remaining_ = length;
  request_.body.reserve(length);
  state_ = State::FixedBody;
  return Progress::HeadReady;
}

bool RequestReader::takeLine(std::string_view& line, std::size_t maxLength, bool& tooLong) {
  std::size_t end = buffer_.find("\r\n", offset_);
  if (end == std::string::npos) {
    tooLong = buffer_.size() - offset_ > maxLength;
    return false;
  }
  tooLong = end - offset_ > maxLength;
  line = std::string_view(buffer_.data() + offset_, end - offset_);
  offset_ = end + 2;
  return true;
}

RequestReader::Progress RequestReader::readBody() {
  while (true) {
    const std::size_t available = buffer_.size() - offset_;
    switch (state_) {
      case State::FixedBody:
      case State::ChunkData: {
        std::size_t take = std::min(available, remaining_);
        request_.body.append(buffer_, offset_, take);
        offset_ += take;
        remaining_ -= take;
        if (remaining_ > 0) {
          compact();
          return Progress::NeedMore;
        }
        if (state_ == State::FixedBody) {
          state_ = State::Done;
          compact();
          return Progress::Complete;
        }
        state_ = State::ChunkDataEnd;
        break;
      }
      case State::ChunkDataEnd:
        if (available < 2) return Progress::NeedMore;
        if (buffer_.compare(offset_, 2, "\r\n") != 0) return fail(400, "malformed chunk");
        offset_ += 2;
        state_ = State::ChunkSize;
        break;
      case State::ChunkSize: {
        std::string_view line;
        bool tooLong = false;
        if (!takeLine(line, kMaxChunkLine, tooLong)) {
          if (tooLong) return fail(400, "malformed chunk size");
          compact();
          return Progress::NeedMore;
        }
        if (tooLong) return fail(400, "malformed chunk size");
        std::string_view digits = trim(line.substr(0, line.find(';')));
        if (digits.empty() || digits.size() > 16) return fail(400, "malformed chunk size");
        std::size_t size = 0;
        for (char c : digits) {
          int value = hexValue(c);
          if (value < 0) return fail(400, "malformed chunk size");
          size = size * 16 + static_cast<std::size_t>(value);
        }
        if (size > limits_.maxBodyBytes - request_.body.size()) {
          return fail(413, "the body is too large");
        }
        if (size == 0) {
          state_ = State::Trailers;
        } else {
          remaining_ = size;
          state_ = State::ChunkData;
        }
        break;
      }
      case State::Trailers: {
        std::string_view line;
        bool tooLong = false;
        if (!takeLine(line, limits_.maxHeadBytes, tooLong)) {
          if (tooLong) return fail(431, "the request's trailers are too large");
          return Progress::NeedMore;
        }
        trailerBytes_ += line.size() + 2;
        if (tooLong || trailerBytes_ > limits_.maxHeadBytes) {
          return fail(431, "the request's trailers are too large");
        }
        if (line.empty()) {
          state_ = State::Done;
          compact();
          return Progress::Complete;
        }
        break;
      }
      default:
        return read();
    }
  }
}

void RequestReader::compact() {
  if (offset_ == 0) return;
  if (offset_ == buffer_.size()) {
    buffer_.clear();
    offset_ = 0;
  } else if (offset_ > (64 << 10)) {
    buffer_.erase(0, offset_);
    offset_ = 0;
  }
}

Request RequestReader::takeRequest() {
  Request done = std::move(request_);
  request_ = Request();
  state_ = State::Head;
  remaining_ = 0;
  trailerBytes_ = 0;
  expectsContinue_ = false;
  keepAlive_ = true;
  compact();
  if (buffer_.empty() && buffer_.capacity() > (256 << 10)) std::string().swap(buffer_);
  return done;
}

}  // namespace saffra::server::http
