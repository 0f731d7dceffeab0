#pragma once

#include <initializer_list>

namespace Loom {
class Entity;
}

// Feature toggles, each asked for once per process.
bool toggleSentrelImaEnabled();
bool togglePcrMultibankEnabled();
bool toggleSentrelMfgExpectedConfigCheckEnabled();
bool togglePlatformFirstInstructionSecurityEnabled();

namespace Sentrel {

// The reason for facts of `entity` when the toggle `name` of `file` is off.
void toggleOffReason(Loom::Entity const &entity, std::initializer_list<char const *> attrs, char const *name,
                     char const *file);

}  // namespace Sentrel
