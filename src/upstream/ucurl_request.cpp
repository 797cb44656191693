// Status line and header parsing, and the two retry loops: get_common (attempts within one
// request) and get (whole requests).
#include <chrono>
#include <thread>

#include "upstream/ucurl.h"
#include "util/log.h"
#include "util/metrics.h"
#include "util/strings.h"

namespace skerir {

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

bool UCurl::get_common(std::string url, std::string* response, bool keep_alive,
                       unsigned long from_bytes) {
  for (int attempt = 0; attempt < kCommonAttempts; ++attempt) {
    if (attempt >= 2) {
      // cache_kind is what the previous attempt's parse_url left: a cache server that failed
      // twice is dropped so this attempt's parse_url picks another one.
      if (cache_kind != 0) {
        invalidate_current_cache_server();
      } else {
        std::this_thread::sleep_for(std::chrono::seconds(1));
      }
    }
    UpstreamAttempt counted;
    try {
      parse_url(&url);
    } catch (const std::exception& e) {
      log_err("Excep: ", e.what());
      do_disconnect();
      counted.outcome = UpstreamOutcome::kUrlError;
      continue;
    }
    if (!do_connect(host, port)) {
      log_out("Trying to reconnect when connecting");
      do_disconnect();
      counted.outcome = UpstreamOutcome::kConnectError;
      continue;
    }
    if (from_bytes != 0) log_err("DEBUG: from bytes specified! ", from_bytes);
    if (!send_data(build_request(path, host, port, keep_alive, from_bytes))) {
      log_out("Trying to reconnect when send data");
      do_disconnect();
      counted.outcome = UpstreamOutcome::kSendError;
      continue;
    }
    const int state = get_read_response_state(response);
    if (state == -2) {
      // Despite its words, a refusal ends the call: asking again would get the same answer.
      log_out("Trying to reconnect when http != 200");
      do_disconnect();
      counted.outcome = UpstreamOutcome::kHttpError;
      return false;
    }
    if (state == -1) {
      log_out("Trying to reconnect when read response failed");
      do_disconnect();
      continue;
    }
    get_read_response_headers(response, &headers);
    counted.outcome = UpstreamOutcome::kOk;
    return true;
  }
  return false;
}

bool UCurl::get(std::string url, std::string* out) {
  // One response string for all calls: leftovers of a failed call stay in front of the next
  // answer, as they always have.
  std::string response;
  try {
    for (int call = 1;; ++call) {
      if (get_common(url, &response, false, 0)) break;
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
