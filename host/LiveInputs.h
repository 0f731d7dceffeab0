#pragma once

#include <map>
#include <vector>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/Reason.h"
#include "host/JsonTree.h"

namespace SentrelHost {

// The two inputs that other agents write on a switch.
inline constexpr char kSbStatus[] = "tarn/sb/status";
inline constexpr char kDefaults[] = "hardware/sentrel/config/sentrel";
inline constexpr char kDefaultsFile[] = "/etc/sentrel/defaults.json";

// What the running Linux system says of the inputs, read below the system
// root as the writers on a switch would: a state document of the shape of
// --state ({"entities": {...}}), the reasons for what is unknown, and notes
// that qualify every reason of an entity (a virtual machine, say).
struct LiveInputs {
   JsonNode document;
   std::vector<Loom::ReasonRecord> reasons;
   std::map<String, String> notes;
   // The inputs that are unknown, by the name the text report gives them
   // ("secure boot", "measured boot", "enabled PCR banks", "manufacturing
   // defaults"): the reason and hint.
   std::map<String, std::pair<String, String>> unknownInputs;
};

// The operator's view of the inputs, for the text report: one line each for
// secure boot, measured boot, the enabled PCR banks and the manufacturing
// defaults, saying on, off or unknown and why. `unknown` is what the live
// inputs could not read (empty when the inputs came from elsewhere).
String inputsText(Ledger::EntityManager const &em,
                  std::map<String, std::pair<String, String>> const &unknown);

// Whether the reason for this fact of an input is told by inputsText.
bool inInputsBlock(String const &entity, String const &attribute);

// Reads the inputs; a malformed or oversized defaults file is a UsageError
// naming it and the byte offset.
LiveInputs readLiveInputs();

}  // namespace SentrelHost
