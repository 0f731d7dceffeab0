#include "Sentrel/Toggles.h"

#include "Sentrel/platform/Toggle.h"

namespace Sentrel {

Loom::String toggleOffText(char const *name, char const *file) {
   return Loom::String("the feature toggle ") + name + " is off (" + Loom::toggleDir() + "/" + file + ")";
}

}  // namespace Sentrel

bool toggleSentrelImaEnabled() {
   static bool const on = Loom::getToggleState("SentrelIma", "Halyard.json", true) & 1u;
   return on;
}

bool togglePcrMultibankEnabled() {
   static bool const on = Loom::getToggleState("PcrMultibank", "SecureBoot.json", true) & 1u;
   return on;
}

bool toggleSentrelMfgExpectedConfigCheckEnabled() {
   static bool const on = Loom::getToggleState("SentrelMfgExpectedConfigCheck", "Sentrel.json", true) & 1u;
   return on;
}

bool togglePlatformFirstInstructionSecurityEnabled() {
   static bool const on = Loom::getToggleState("PlatformFirstInstructionSecurity", "Sentrel.json", true) & 1u;
   return on;
}
