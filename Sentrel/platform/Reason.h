#pragma once

#include <functional>
#include <initializer_list>
#include <vector>

#include "Sentrel/platform/Export.h"
#include "Sentrel/platform/String.h"

namespace Loom {

class Entity;
struct FileText;

// Why facts could not be read, reported where the reading fails: the agent's
// machines name the entity they publish, an input provider names a path.
// Whoever hosts the agent prints them; the framework only passes them on.
struct ReasonRecord {
   Entity const *entity = nullptr;  // or, for an entity that may be absent:
   String path;
   std::vector<String> attributes;  // empty: the whole entity
   String reason;
   String hint;  // what to do about it, when there is something to do
};

LOOM_API void reasonSinkIs(std::function<void(ReasonRecord const &)> sink);
LOOM_API void reasonIs(Entity const &entity, std::initializer_list<char const *> attributes, String reason,
                       String hint = {});
LOOM_API void reasonAt(String const &path, std::initializer_list<char const *> attributes, String reason,
                       String hint = {});

// "cannot open FILE: No such file or directory", naming the file as given.
LOOM_API String openFailure(String const &file, int err);
// Why reading FILE whole gave nothing usable: "cannot open FILE: ...",
// "FILE is a folder, not a file", "FILE is larger than 16 MiB".
LOOM_API String readFailure(String const &file, FileText const &read);
// The hint for an open failure: "run as root" for a permission error, else empty.
LOOM_API String openFailureHint(int err);

}  // namespace Loom

namespace Loom {
// What to do about a missing device of the kernel module `module`: load it
// where modules can be loaded, else say that the kernel cannot.
LOOM_API String kernelModuleHint(char const *module);
}  // namespace Loom
