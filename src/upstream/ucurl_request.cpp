// Status line and header parsing, redirects, and the two retry loops: get_common (attempts
// within one request) and get (whole requests).
#include <chrono>
#include <cstdlib>
#include <thread>

#include "upstream/ucurl.h"
#include "upstream/url.h"
#include "util/log.h"
#include "util/metrics.h"
#include "util/strings.h"

namespace skerir {
namespace {

bool is_redirect(const std::string& code) {
  return code == "301" || code == "302" || code == "303" || code == "307" || code == "308";
}

bool equal_ignoring_case(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    const auto lower = [](char c) {
      return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

}  // namespace

const header* find_header(const std::vector<header>& headers, std::string_view name) {
  for (const header& h : headers) {
    if (equal_ignoring_case(h.name, name)) return &h;
  }
  return nullptr;
}

int UCurl::get_read_response_state(std::string* response) {
  // One read only: a status line that does not arrive in it is not waited for.
  response->append(receive(kHeaderReadSize, kStatusTimeoutSeconds));
  if (response->empty()) {
    log_out("socket is closed! no response!");
    return -1;
  }
  const size_t eol = response->find("\r\n");
  if (eol == std::string::npos) {
    log_err("Where is http state?");
    log_out(*response, " len:", response->size());
    return -1;
  }
  const std::string line = response->substr(0, eol);
  response->erase(0, eol + 2);
  if (line.empty()) {
    log_err("Empty http state?");
    return -1;
  }
  const std::vector<std::string> fields = split(line, ' ');
  if (!fields.empty() && fields[0] == "HTTP/1.1") {
    http11 = 1;
  } else if (!fields.empty() && fields[0] == "HTTP/1.0") {
    http11 = 0;
  } else {
    log_err("Not HTTP/1.x?");
    return -1;
  }
  status_line_ = line;
  if (fields.size() >= 2 && is_redirect(fields[1])) return kStatusRedirect;
  // Any 2xx (206 included) is success; a status line without a code counts as a refusal.
  if (fields.size() < 2 || fields[1].empty() || fields[1][0] != '2') {
    log_err("HTTP response first_line: ", line);
    return -2;
  }
  return 0;
}

bool UCurl::get_read_response_headers(std::string* response, std::vector<header>* out_headers) {
  // The status line's "\r\n" has been cut off already, so an answer without any header line
  // starts with the blank line itself.
  size_t head_len = 0;
  size_t body_at = 0;
  size_t search_from = 0;
  for (;;) {
    if (response->compare(0, 2, "\r\n") == 0) {
      body_at = 2;
      break;
    }
    const size_t end = response->find("\r\n\r\n", search_from);
    if (end != std::string::npos) {
      head_len = end;
      body_at = end + 4;
      break;
    }
    if (response->size() > kMaxHeaderBytes) {
      do_disconnect();
      throw UCurlExceptionRecvError("response headers too long");
    }
    search_from = response->size() < 3 ? 0 : response->size() - 3;
    const std::string chunk = receive(kHeaderReadSize, kHeaderTimeoutSeconds);
    if (chunk.empty()) {
      // The peer closed before the blank line: waiting longer cannot complete the headers.
      do_disconnect();
      throw UCurlExceptionRecvError("connection closed in headers");
    }
    response->append(chunk);
  }
  const std::string head = response->substr(0, head_len);
  response->erase(0, body_at);

  out_headers->clear();
  for (const std::string& line : split(head, '\n')) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string value = line.substr(colon + 1);
    out_headers->push_back({line.substr(0, colon), trim(value)});
  }
  return true;
}

bool UCurl::gave_up() const {
  if (refused_) return true;  // its line is logged already
  const char* why = WaitLimit::reached();
  if (why != nullptr) log_err("Excep: gave up: ", why);
  return why != nullptr;
}

UCurl::Outcome UCurl::request_once(std::string* url, std::string* response, bool keep_alive,
                                   unsigned long from_bytes, int* hops) {
  UpstreamAttempt counted;
  counted.outcome = UpstreamOutcome::kUrlError;
  try {
    parse_url(url);
  } catch (const std::exception& e) {
    log_err("Excep: ", e.what());
    do_disconnect();
    return Outcome::failed;
  }
  for (const auto& [name, value] : extra_headers) {
    if (std::string why = unsafe_header_reason(name, value); !why.empty()) {
      log_err("Excep: ", why);
      do_disconnect();
      return Outcome::failed;
    }
  }
  counted.outcome = UpstreamOutcome::kConnectError;
  if (!do_connect(host, port)) {
    log_out("Trying to reconnect when connecting");
    do_disconnect();
    return Outcome::failed;
  }
  if (from_bytes != 0) log_err("DEBUG: from bytes specified! ", from_bytes);
  const int default_port = https == 1 ? kDefaultHttpsPort : kDefaultHttpPort;
  if (!send_data(build_request(path, host, port, keep_alive, from_bytes, default_port,
                               extra_headers, range_end))) {
    counted.outcome = UpstreamOutcome::kSendError;
    log_out("Trying to reconnect when send data");
    do_disconnect();
    return Outcome::failed;
  }
  counted.outcome = UpstreamOutcome::kReceiveError;
  int state = 0;
  try {
    state = get_read_response_state(response);
  } catch (const UCurlExceptionRecvError& e) {
    // A cache server that takes the connection and never answers has failed as surely as one
    // that refuses it: the ring moves on. A plain host's silence still ends the call.
    if (cache_kind == 0) throw;
    log_err("Excep: ", e.what());
    invalidate_current_cache_server();
    return Outcome::failed;
  }
  if (state == kStatusRedirect) {
    get_read_response_headers(response, &headers);
    const header* location = find_header(headers, "Location");
    if (location != nullptr && !location->value.empty() && *hops < kMaxRedirects) {
      ++*hops;
      *url = resolve_url(*url, location->value);
      drop_redirect_body(response, keep_alive);
      log_out("redirect to: ", *url);
      effective_url = *url;
      counted.outcome = UpstreamOutcome::kOk;
      return Outcome::redirected;
    }
    // One hop too many, or nowhere to go: refused like any other non-2xx status, but without
    // leaving its body in front of the next call's answer.
    log_err("HTTP response first_line: ", status_line_);
    response->clear();
    state = -2;
  }
  if (state == -2) {
    // Despite its words, a refusal ends the call: asking again would get the same answer.
    log_out("Trying to reconnect when http != 200");
    do_disconnect();
    counted.outcome = UpstreamOutcome::kHttpError;
    return Outcome::refused;
  }
  if (state == -1) {
    log_out("Trying to reconnect when read response failed");
    do_disconnect();
    return Outcome::failed;
  }
  get_read_response_headers(response, &headers);
  counted.outcome = UpstreamOutcome::kOk;
  return Outcome::answered;
}

void UCurl::drop_redirect_body(std::string* response, bool keep_alive) {
  const header* length = find_header(headers, "Content-Length");
  const long long size = length != nullptr ? std::strtoll(length->value.c_str(), nullptr, 10) : -1;
  const bool framed = http11 == 1 && find_header(headers, "Transfer-Encoding") == nullptr &&
                      size >= 0 && size <= kMaxRedirectBody;
  // Bounded by the size (at most kMaxRedirectBody) and by each receive's time-out.
  while (keep_alive && framed && static_cast<long long>(response->size()) < size) {
    const std::string more = receive(kHeaderReadSize, kBodyTimeoutSeconds);
    if (more.empty()) break;
    response->append(more);
  }
  // Anything but exactly the body (bytes missing, or bytes beyond it) leaves the connection in
  // an unknown state.
  if (!keep_alive || !framed || static_cast<long long>(response->size()) != size) do_disconnect();
  response->clear();
}

bool UCurl::get_common(std::string url, std::string* response, bool keep_alive,
                       unsigned long from_bytes) {
  effective_url = url;
  int hops = 0;
  for (int attempt = 0; attempt < kCommonAttempts; ++attempt) {
    if (refused_ || WaitLimit::reached() != nullptr) return false;  // no attempt can help
    if (attempt >= 2) {
      // cache_kind is what the previous attempt's parse_url left: a cache server that failed
      // twice is dropped so this attempt's parse_url picks another one.
      if (cache_kind != 0) {
        invalidate_current_cache_server();
      } else {
        WaitLimit::sleep(std::chrono::seconds(1));
      }
    }
    // Bounded: every redirect counts a hop, and hop kMaxRedirects + 1 is refused.
    Outcome outcome;
    while ((outcome = request_once(&url, response, keep_alive, from_bytes, &hops)) ==
           Outcome::redirected) {
    }
    if (outcome == Outcome::answered) return true;
    if (outcome == Outcome::refused) return false;
  }
  return false;
}

bool UCurl::get(std::string url, std::string* out) {
  // One response string for all calls: leftovers of a failed call stay in front of the next
  // answer, as they always have.
  std::string response;
  try {
    refused_ = false;
    for (int call = 1;; ++call) {
      if (get_common(url, &response, false, 0)) break;
      if (gave_up()) {
        do_disconnect();
        return false;
      }
      log_err("get common failed - retry ", call);
      if (call == kGetCalls) {
        do_disconnect();
        return false;
      }
    }
    unsigned long received = 0;
    if (get_read_body(&response, out, nullptr, &received, "", nullptr, false)) {
      do_disconnect();
      return true;
    }
    if (received == 0) invalidate_current_cache_server();
    do_disconnect();
    return false;
  } catch (const UCurlExceptionRecvError& e) {
    log_err("Excep: ", e.what());
    do_disconnect();
    return false;
  }
}

}  // namespace skerir
