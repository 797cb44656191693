// Writes the status line and the fixed header block of a reply, composed in memory and sent
// with one write(). Every reply is HTTP/1.0 with "Connection: close" and no Content-Length; a
// body, if any, is written by the endpoint afterwards. Never closes the socket; write errors
// are ignored.
#pragma once

#include <string>
#include <string_view>

namespace skerir {

class Response {
 public:
  Response(int socket, int code, std::string message, std::string content_type);
  void send();

  // The exact header block send() writes.
  std::string header_block() const;

 private:
  int socket_;
  int code_;
  std::string message_;
  std::string content_type_;
};

// Writes all of `body` (after the header block), in as many writes as the socket takes;
// stops silently at the first failed write.
void send_body(int socket, std::string_view body);

}  // namespace skerir
