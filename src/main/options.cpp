#include "main/options.h"

#include <cstdlib>
#include <optional>

#include "util/log.h"

#ifndef SKERIR_VERSION
#define SKERIR_VERSION "unknown"
#endif

namespace skerir {
namespace {

Options fail(std::string message) {
  Options o;
  o.action = Options::Action::kFail;
  o.message = "skerir: " + std::move(message);
  return o;
}

Options reply(Options::Action action, std::string text) {
  Options o;
  o.action = action;
  o.message = std::move(text);
  return o;
}

// The informational options, understood wherever they stand.
std::optional<Options> informational(const std::string& arg) {
  if (arg == "-h" || arg == "--help") return reply(Options::Action::kHelp, usage_text());
  if (arg == "--version") {
    return reply(Options::Action::kVersion, std::string("skerir ") + SKERIR_VERSION);
  }
  return std::nullopt;
}

}  // namespace

std::string usage_text() {
  return R"(Usage: skerir <maximal buffer size in bytes> [options]
       skerir -h | --help | --version

Serves HLS presentations as single MPEG transport streams over HTTP. The buffer size is how
many bytes of each stream are fetched ahead of its client.

Options:
  --listen ADDR:PORT      accept clients on this address: IPv4 (0.0.0.0:7744) or IPv6 in
                          brackets ([::]:7744); repeat for several; default 0.0.0.0:7744
  --map-token TOKEN       /update-cache-map changes the maps only with token=TOKEN (else 403)
  --upstream-allow LIST   connect only to these upstreams: comma-separated host names,
                          host:port, addresses ([2001:db8::1]:80) and networks (10.0.0.0/8)
  -h, --help              print this help and exit
  --version               print the version and exit

Endpoints:
  /stream?url=URL[&startFrom=N]   the presentation at URL as one MPEG-TS body (or /stream.ts)
  /stats.json                     speed, buffer and variant figures of the latest segment
  /streams.json                   one entry per running stream
  /metrics                        counters in the Prometheus text format
  /update-cache-map?chunk=MAP&playlist=MAP[&token=TOKEN]   replace the cache-server maps
  /watchdog                       liveness probe

SIGTERM or SIGINT ends every stream and exits; a second one exits at once.)";
}

Options Options::parse(const std::vector<std::string>& args) {
  if (args.empty()) {
    Options o;
    o.action = Action::kFail;
    o.message = "Specify maximal buffer size";
    return o;
  }
  if (auto info = informational(args[0])) return *info;

  Options o;
  // No validation by design: "abc" gives 0 and a negative number wraps to a huge size.
  o.max_buffer_size = static_cast<unsigned long>(std::atol(args[0].c_str()));
  std::string allow_list;
  for (size_t i = 1; i < args.size(); ++i) {
    if (auto info = informational(args[i])) return *info;
    std::string name = args[i];
    std::optional<std::string> value;
    if (const size_t eq = name.find('='); name.starts_with("--") && eq != std::string::npos) {
      value = name.substr(eq + 1);
      name.resize(eq);
    }
    if (name != "--listen" && name != "--map-token" && name != "--upstream-allow") {
      if (name.starts_with("-")) return fail("unknown option '" + name + "' (see skerir --help)");
      return fail("unexpected argument '" + name +
                  "': options come after the buffer size (see skerir --help)");
    }
    if (!value) {
      if (i + 1 == args.size()) return fail(name + " needs a value");
      value = args[++i];
    }
    if (name == "--listen") {
      std::optional<ListenAddress> a = ListenAddress::parse(*value);
      if (!a) {
        return fail("--listen '" + *value +
                    "': expected an IPv4 address or a bracketed IPv6 address, a colon and a port");
      }
      o.listen.push_back(std::move(*a));
    } else if (name == "--map-token") {
      if (value->empty()) return fail("--map-token needs a non-empty value");
      o.map_token = *value;
    } else {
      // Each occurrence is checked on its own, so the message names the one at fault.
      try {
        UpstreamPolicy::parse(*value);
      } catch (const UpstreamPolicyError& e) {
        return fail("--upstream-allow: " + std::string(e.what()));
      }
      allow_list += (allow_list.empty() ? "" : ",") + *value;
    }
  }
  if (!allow_list.empty()) o.upstream = UpstreamPolicy::parse(allow_list);
  return o;
}

}  // namespace skerir
