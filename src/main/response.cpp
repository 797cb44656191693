#include "main/response.h"

#include <unistd.h>

#include <utility>

#include "util/log.h"

namespace skerir {

Response::Response(int socket, int code, std::string message, std::string content_type)
    : socket_(socket),
      code_(code),
      message_(std::move(message)),
      content_type_(std::move(content_type)) {}

std::string Response::header_block() const {
  return compose("HTTP/1.0 ", code_, " ", message_, "\r\n", "Content-Type: ", content_type_, "\r\n",
                 "Connection: close\r\n", "Allow: GET, HEAD\r\n", "Cache-Control: no-cache\r\n",
                 "Access-Control-Allow-Origin: *\r\n", "\r\n");
}

void Response::send() {
  const std::string block = header_block();
  // One write by design: a short write or an error leaves the rest unsent, unreported.
  [[maybe_unused]] ssize_t n = ::write(socket_, block.data(), block.size());
}

void send_body(int socket, std::string_view body) {
  while (!body.empty()) {
    const ssize_t n = ::write(socket, body.data(), body.size());
    if (n <= 0) return;
    body.remove_prefix(static_cast<size_t>(n));
  }
}

}  // namespace skerir
