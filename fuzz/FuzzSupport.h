#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Sentrel/platform/Ledger.h"

// What every harness shares: a scratch folder made once per process, which
// also serves as system root and holds the fake commands, and a fresh state
// database per input.
namespace SentrelFuzz {

using Loom::String;

String const &scratch();
// Writes `content` below the scratch folder and returns the full path.
String put(String const &name, String const &content);
// Writes an executable script below scratch/bin (first in PATH).
void command(String const &name, String const &body);
Ptr<Ledger::EntityManager> freshLedger();

}  // namespace SentrelFuzz

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size);
