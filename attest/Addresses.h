#pragma once

#include <optional>
#include <string>
#include <string_view>

// What the switch's service and the owner's verifier both read from their
// command lines: who is on this machine, and seconds.
namespace SentrelAttest {

// Whether `host` ("127.0.0.1", "[::1]", "localhost": brackets kept around
// IPv6) is this machine's loopback: localhost, 127.0.0.0/8, ::1. Plaintext
// goes nowhere else.
bool isLoopback(std::string const &host);

// Seconds as an operator writes them: 10, 2.5; none for any other text.
std::optional<double> secondsOf(std::string_view text);

}  // namespace SentrelAttest
