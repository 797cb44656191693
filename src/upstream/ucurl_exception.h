// The two failures the upstream client throws. Both are thrown by value and caught by
// reference. Neither derives from the other on purpose: a handler for URL problems must not
// swallow a receive failure, which has to reach `get` / `get_stream` with the connection
// already closed.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace skerir {

// A URL the client cannot use: unknown scheme, or no cache server for a placeholder host.
// what() is the message exactly as it is logged after "Excep: ".
class UCurlException : public std::exception {
 public:
  explicit UCurlException(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

// A receive that timed out or failed ("recv timeout1", "recv timeout2", "recv error"). The
// thrower has closed the connection before throwing.
class UCurlExceptionRecvError : public std::exception {
 public:
  explicit UCurlExceptionRecvError(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

}  // namespace skerir
