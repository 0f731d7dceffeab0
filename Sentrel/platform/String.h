#pragma once

#include <string>

namespace Loom {

// The framework's string value: bytes, NULs included.
using String = std::string;

}  // namespace Loom
