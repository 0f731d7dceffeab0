#pragma once

// The framework is one shared library used by the host and by agents built
// with hidden visibility: its types and functions stay visible to both.
#define LOOM_API __attribute__((visibility("default")))
