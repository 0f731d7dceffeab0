#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <vector>

#include "Sentrel/platform/Export.h"
#include "Sentrel/platform/Ptr.h"
#include "Sentrel/platform/String.h"

namespace Loom {

class Entity;
struct FileText;
struct TypeInfo;

// Why facts could not be read, reported where the reading fails. A fact is
// an attribute of an entity type, by its number in the type's one
// declaration; the state tree holds one entity of each type, so the type
// names the entity. Whoever hosts the agent prints them; the framework only
// passes them on.
struct ReasonRecord {
   TypeInfo const *type = nullptr;
   // The entity the reason is about; null when it is absent (an input that
   // could not be read at all).
   Entity const *entity = nullptr;
   std::vector<unsigned> attributes;  // empty: the whole entity
   // Of a bit-field attribute, the bits the reason is about; 0: all of it.
   std::uint64_t bits = 0;
   String reason;
   String hint;  // what to do about it, when there is something to do
   // Not a reason but what qualifies every reason of the type (a virtual
   // machine, say): said once in front of each.
   bool note = false;
};

LOOM_API void reasonSinkIs(std::function<void(ReasonRecord const &)> sink);
LOOM_API void reasonSend(ReasonRecord record);

// The typed ways in: attributes are the type's own Attr numbers, so a fact
// of another type, or a misspelt one, does not compile.
template <class E>
ReasonRecord factsOf(E const &entity, std::initializer_list<typename E::Attr::Number> attrs) {
   return {&E::typeInfo(), &entity, {attrs.begin(), attrs.end()}, 0, {}, {}};
}
// Sends `facts` (from factsOf) with the reason.
LOOM_API void reasonIs(ReasonRecord facts, String reason, String hint = {});
template <class E>
void reasonIs(E const &entity, std::initializer_list<typename E::Attr::Number> attrs, String reason,
              String hint = {}) {
   reasonIs(factsOf(entity, attrs), std::move(reason), std::move(hint));
}
// About some bits of one attribute, such as one flag of a status word.
template <class E>
void reasonIs(E const &entity, typename E::Attr::Number attr, std::uint64_t bits, String reason, String hint = {}) {
   reasonSend({&E::typeInfo(), &entity, {attr}, bits, std::move(reason), std::move(hint)});
}
// About the entity of type E, which is absent because it could not be read.
template <class E>
void reasonAbsent(String reason, String hint = {}) {
   reasonSend({&E::typeInfo(), nullptr, {}, 0, std::move(reason), std::move(hint)});
}
template <class E>
void noteIs(String note) {
   reasonSend({&E::typeInfo(), nullptr, {}, 0, std::move(note), {}, true});
}

// "cannot open FILE: No such file or directory", naming the file as given.
LOOM_API String openFailure(String const &file, int err);
// Why reading FILE whole gave nothing usable: "cannot open FILE: ...",
// "FILE is a folder, not a file", "FILE is larger than 16 MiB".
LOOM_API String readFailure(String const &file, FileText const &read);
// The hint for an open failure: "run as root" for a permission error, else empty.
LOOM_API String openFailureHint(int err);

// What to do about a missing device of the kernel module `module`: load it
// where modules can be loaded, else say that the kernel cannot.
LOOM_API String kernelModuleHint(char const *module);

}  // namespace Loom
