#pragma once

#include "Sentrel/platform/Ledger.h"

namespace SentrelBench {

using Loom::String;

// A temporary directory, removed with everything in it.
class ScratchDir {
 public:
   ScratchDir();
   ScratchDir(ScratchDir const &) = delete;
   ScratchDir &operator=(ScratchDir const &) = delete;
   ~ScratchDir();
   String const &path() const { return path_; }
   // Writes `content` to `name` (parent folders made) and returns its path.
   String file(String const &name, String const &content) const;

 private:
   String path_;
};

// A file of the sample switch under examples/switch.
String sampleSwitch(char const *name);

// Points the process at the sample Intel switch: its fake lscpu and
// BootGuardUtil first in PATH, its system root (/proc/cmdline, MSR 0x13A)
// and its toggles; syslog off. Once per process.
void useSampleSwitch();

// A fresh entity manager holding the state tree, filled in as the sample
// switch's state.json has it, with `featuresFile` as the features file.
Ptr<Ledger::EntityManager> sampleLedger(String const &featuresFile);

}  // namespace SentrelBench
