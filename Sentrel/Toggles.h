#pragma once

#include <initializer_list>

#include "Sentrel/platform/Reason.h"

// Feature toggles, each asked for once per process.
bool toggleSentrelImaEnabled();
bool togglePcrMultibankEnabled();
bool toggleSentrelMfgExpectedConfigCheckEnabled();
bool togglePlatformFirstInstructionSecurityEnabled();

namespace Sentrel {

// Why facts are left empty when the toggle `name` of `file` is off.
Loom::String toggleOffText(char const *name, char const *file);

// The reason for facts of `entity` when the toggle is off. An absent entity
// has no facts to explain: nothing is touched.
template <class E>
void toggleOffReason(Ptr<E> const &entity, std::initializer_list<typename E::Attr::Number> attrs, char const *name,
                     char const *file) {
   if (entity) Loom::reasonIs(*entity, attrs, toggleOffText(name, file));
}

}  // namespace Sentrel
