#include "attest/Addresses.h"

#include <arpa/inet.h>
#include <charconv>
#include <cmath>

namespace SentrelAttest {

bool isLoopback(std::string const &host) {
   if (host == "localhost") return true;
   if (host.size() > 2 && host.front() == '[') {
      in6_addr a{};
      return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &a) == 1 && IN6_IS_ADDR_LOOPBACK(&a);
   }
   in_addr a{};
   return inet_pton(AF_INET, host.c_str(), &a) == 1 && (ntohl(a.s_addr) >> 24) == 127;
}

std::optional<double> secondsOf(std::string_view text) {
   double seconds = 0;
   auto const *end = text.data() + text.size();
   auto const [ptr, ec] = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
   if (text.empty() || ec != std::errc() || ptr != end || !std::isfinite(seconds)) return std::nullopt;
   return seconds;
}

}  // namespace SentrelAttest
