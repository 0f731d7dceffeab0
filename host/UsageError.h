#pragma once

#include <stdexcept>

namespace SentrelHost {

// A usage error or an unusable input: one line on standard error, exit 2.
struct UsageError : std::runtime_error {
   using std::runtime_error::runtime_error;
};

}  // namespace SentrelHost
