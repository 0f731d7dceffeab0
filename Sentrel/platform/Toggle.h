#pragma once

#include <map>
#include <optional>

#include "Sentrel/platform/Export.h"
#include "Sentrel/platform/String.h"

namespace Loom {

// The feature-toggle facility: the toggle `name` of the JSON file `file` in
// the toggle directory, or `defaultValue` when the file or name is absent.
// A malformed file gives the default and one diagnostic on standard error.
LOOM_API unsigned getToggleState(String const &name, String const &file, bool defaultValue);

// A toggle as this process has it: its value, its default, and the file it
// was read from.
struct ToggleInEffect {
   bool value;
   bool defaultValue;
   String file;
};
// Every toggle asked for so far, by name.
LOOM_API std::map<String, ToggleInEffect> const &togglesInEffect();

// The toggle directory: set explicitly, else $SENTREL_TOGGLES_DIR, else
// /etc/sentrel/toggles.
LOOM_API void toggleDirIs(String const &dir);
LOOM_API String toggleDir();
// nullopt when `dir` is a readable directory, else what is wrong with it.
LOOM_API std::optional<String> toggleDirProblem(String const &dir);
// How often a toggle has been asked for in this process.
LOOM_API unsigned toggleQueryCountForTest(String const &name);

}  // namespace Loom
