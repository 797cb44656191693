// One client connection, from the accepted socket to its close.
//
// The listener creates a Request and calls process(), which hands it to a new detached thread
// (do_request_start). From then on only that thread touches the Request: it parses the request
// line, skips the headers, routes on the decoded path, runs the endpoint or writes an error
// reply, closes the socket and destroys the Request. Endpoints write their own header block and
// body but never close the socket.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <exception>
#include <string>
#include <vector>

namespace skerir {

struct Stats;
class Watchdog;

// One query parameter: the name as it stood in the query, the value URL-decoded.
struct Param {
  Param(std::string name, std::string value);
  std::string name;
  std::string value;
};

// Thrown by parse_resource for a line that is not a request line; answered with a 406.
class Http406 : public std::exception {
 public:
  explicit Http406(std::string text) : message(std::move(text)) {}
  const char* what() const noexcept override { return message.c_str(); }
  std::string message;
};

// Longest line readline() takes in one call, plus one.
inline constexpr int kRequestLineLimit = 4096;

class Request {
 public:
  Request(int socket, unsigned long max_buffer_size, Stats* stats, Watchdog* watchdog);

  // Starts the connection thread. Returns pthread_create's result; on failure the caller still
  // owns the Request and the socket.
  int process();

  // Parses, routes, replies and closes the socket. Runs on the connection thread.
  void start();

  // Reads one line into *line, consuming at most size - 1 bytes (failed reads and carriage
  // returns count too). Carriage returns are dropped anywhere; the line feed ends the line and
  // is not stored. Returns 0 when the peer closed before any byte, otherwise the count.
  int64_t readline(std::string* line, int size);

  // Reads the request line; fills method, version, resource and params.
  // Throws Http406("Invalid Request") when it has fewer than three blank-separated tokens.
  void parse_resource();

  // Reads and drops lines up to and including the first empty one (or the peer's close).
  void skip_headers();

  // Splits a request target into the decoded path and the query parameters (appended).
  void parse_url(std::string target);

  // The value of the first parameter named exactly `name`, or nullptr. Valid while the
  // Request lives and params is not changed.
  std::string* get_param(std::string name);

  // Writes all of *line; returns the bytes written (stops at the first failed write).
  int64_t writeline(std::string* line);

  void respond_404(std::string path);
  void respond_406(std::string message);

  pthread_t thread{};
  int socket;
  unsigned long max_buffer_size;
  int version = 1;  // 0 for "HTTP/1.1", 1 otherwise; kept, never read
  int method = 0;   // 0 GET, 1 HEAD, 2 any other method
  std::string resource;
  std::vector<Param> params;
  Stats* stats;
  Watchdog* watchdog;
  // When not null and not empty, "/update-cache-map" needs "token=" with this value. Owned by
  // the listener, which outlives every connection.
  const std::string* map_token = nullptr;

 private:
  void route();
  void serve_stream();
  void update_cache_map();
  void reply_header_only(int code, const std::string& message, const std::string& type);
};

// Thread entry for a connection: lowers the priority, detaches, runs start() and frees the
// Request. Nothing thrown inside escapes it.
void* do_request_start(void* request);

}  // namespace skerir
