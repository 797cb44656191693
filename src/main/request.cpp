#include "main/request.h"

#include <openssl/crypto.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "main/response.h"
#include "resources/connection_registry.h"
#include "resources/resource_metrics.h"
#include "resources/resource_stats.h"
#include "resources/resource_stream.h"
#include "resources/resource_streams.h"
#include "resources/resource_updatecachemap.h"
#include "resources/watchdog.h"
#include "util/log.h"
#include "util/strings.h"
#include "util/thread_priority.h"

namespace skerir {

Param::Param(std::string n, std::string v) : name(std::move(n)), value(std::move(v)) {}

Request::Request(int s, unsigned long max_buffer, Stats* st, Watchdog* wd)
    : socket(s), max_buffer_size(max_buffer), stats(st), watchdog(wd) {}

int Request::process() { return pthread_create(&thread, nullptr, do_request_start, this); }

void* do_request_start(void* arg) {
  std::unique_ptr<Request> request(static_cast<Request*>(arg));
  lower_thread_priority();
  pthread_detach(pthread_self());
  try {
    request->start();
  } catch (...) {
    // start() contains every failure itself; this is the last line of defence for the process.
  }
  return nullptr;
}

void Request::start() {
  {
    // Registered for shutdown while served, and unregistered before the close below, so
    // shutdown never touches the descriptor number once it can be reused.
    ConnectionRegistry::Connection registered(ConnectionRegistry::process(), socket);
    try {
      parse_resource();
      skip_headers();
      route();
    } catch (const Http406& e) {
      respond_406(e.what());
    } catch (const std::exception& e) {
      // A failure inside an endpoint ends this request only.
      log_err("Excep: ", e.what());
    } catch (...) {
      log_err("Excep: unknown");
    }
  }
  ::close(socket);
}

void Request::route() {
  const bool head = method == 1;
  if (resource == "/stream" || resource == "/stream.ts") {
    if (head) {
      reply_header_only(200, "Will try to stream...", "application/octet-stream");
    } else {
      serve_stream();
    }
  } else if (resource == "/update-cache-map") {
    update_cache_map();  // HEAD updates too: the method is not looked at on this path
  } else if (resource == "/stats.json") {
    if (head) {
      reply_header_only(200, "OK", "application/json");
    } else {
      ResourceStats(socket, stats).serve();
    }
  } else if (resource == "/watchdog") {
    Response reply(socket, 200, "OK", "application/json");
    if (!head) watchdog->ping();
    reply.send();
  } else if (resource == "/metrics") {
    if (head) {
      reply_header_only(200, "OK", kMetricsContentType);
    } else {
      ResourceMetrics(socket, stats, &ConnectionRegistry::process()).serve();
    }
  } else if (resource == "/streams.json") {
    if (head) {
      reply_header_only(200, "OK", "application/json");
    } else {
      ResourceStreams(socket, &ConnectionRegistry::process()).serve();
    }
  } else {
    log_err("not found");
    respond_404(resource);
  }
}

void Request::update_cache_map() {
  if (map_token != nullptr && !map_token->empty()) {
    const std::string* token = get_param("token");
    // Compared in constant time, so the reply time tells nothing about how much matched.
    if (token == nullptr || token->size() != map_token->size() ||
        CRYPTO_memcmp(token->data(), map_token->data(), token->size()) != 0) {
      log_err("update-cache-map refused: ", token == nullptr ? "no token" : "wrong token");
      Response(socket, 403, "Forbidden", "plain/text").send();
      return;
    }
  }
  ResourceUpdateCacheMap(socket, get_param("chunk"), get_param("playlist")).serve();
}

void Request::serve_stream() {
  const std::string* start = get_param("startFrom");
  // No validation: non-numeric text gives 0, a leading number is taken as far as it goes.
  const int startFrom = start ? static_cast<int>(std::strtol(start->c_str(), nullptr, 10)) : 0;
  ResourceStream(get_param("url"), socket, max_buffer_size, stats, startFrom).serve();
}

void Request::reply_header_only(int code, const std::string& message, const std::string& type) {
  Response(socket, code, message, type).send();
}

void Request::respond_404(std::string path) {
  Response(socket, 404, path + " Not Found", "plain/text").send();
}

void Request::respond_406(std::string message) {
  Response(socket, 406, std::move(message), "plain/text").send();
}

int64_t Request::readline(std::string* line, int size) {
  line->clear();
  int64_t count = 1;
  if (size < 2) return 1;
  for (;;) {
    char c = 0;
    const ssize_t r = ::read(socket, &c, 1);
    if (r == 0) return count == 1 ? 0 : count;
    if (r == 1 && c == '\n') return count;
    // A failed read (time-out included) and a carriage return only count towards the limit.
    if (r == 1 && c != '\r') line->push_back(c);
    if (++count >= size) return count;
  }
}

void Request::parse_resource() {
  std::string line;
  readline(&line, kRequestLineLimit);
  const std::vector<std::string> tokens = split(line, ' ');
  if (tokens.size() < 3) throw Http406("Invalid Request");
  method = tokens[0] == "GET" ? 0 : tokens[0] == "HEAD" ? 1 : 2;
  parse_url(tokens[1]);
  version = tokens[2] == "HTTP/1.1" ? 0 : 1;
}

void Request::skip_headers() {
  std::string line;
  do {
    readline(&line, kRequestLineLimit);
  } while (!line.empty());
}

void Request::parse_url(std::string target) {
  // One scan with three states: path, parameter name, parameter value. Position n is a virtual
  // end that closes whatever token is open; an empty last token is never processed.
  enum { kPath, kName, kValue } state = kPath;
  const size_t n = target.size();
  size_t t = 0;
  for (size_t i = 0; i <= n && t < n; ++i) {
    const bool end = i == n;
    const char c = end ? '\0' : target[i];
    if (state == kPath && (c == '?' || end)) {
      resource = target.substr(t, i - t);
      url_decode(&resource);
      t = i + 1;
      state = kName;
    } else if (state == kName && (c == '=' || end)) {
      params.emplace_back(target.substr(t, i - t), "");
      t = i + 1;
      state = kValue;
    } else if (state == kValue && (c == '&' || end)) {
      std::string value = target.substr(t, i - t);
      url_decode(&value);
      params.back().value = std::move(value);
      t = i + 1;
      state = kName;
    }
  }
}

std::string* Request::get_param(std::string name) {
  for (Param& p : params) {
    if (p.name == name) return &p.value;
  }
  return nullptr;
}

int64_t Request::writeline(std::string* line) {
  int64_t written = 0;
  while (static_cast<size_t>(written) < line->size()) {
    const ssize_t w = ::write(socket, line->data() + written, line->size() - written);
    if (w <= 0) break;
    written += w;
  }
  return written;
}

}  // namespace skerir
