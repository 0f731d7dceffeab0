#pragma once

#include <optional>
#include <vector>

#include "Sentrel/platform/Log.h"
#include "Sentrel/platform/Trace.h"
#include "Sentrel/platform/TypeInfo.h"
#include "host/Reasons.h"
#include "host/Version.h"

namespace SentrelHost {

class Session;

// What a report says, built once after the run from the session: every
// renderer (text, JSON, OpenMetrics) is a function of this alone, so each
// can be tested on a model built by hand.

struct FactReport {
   String name;
   Loom::Value value;
   std::optional<Unknown> unknown;  // set: the value is not the fact's
   bool inInputs = false;           // its reason is told by the inputs summary
};

struct EntityReport {
   String path;
   bool status = false;  // a status entity (the others are inputs)
   bool present = false;
   std::optional<Unknown> unknown;  // of the whole entity
   bool inInputs = false;           // that reason is told by the inputs summary
   std::vector<FactReport> facts;   // every attribute but references, in declared order
};

struct MachineReport {
   String name;
   bool present = false;
   std::vector<std::pair<String, Loom::Value>> attrs;
};

// One line of the operator's view of the inputs: secure boot, measured
// boot, the enabled PCR banks, the manufacturing defaults.
struct InputReport {
   String label;
   String value;
   std::optional<Unknown> unknown;
};

struct ToggleReport {
   String name;
   bool value = false;
   bool defaultValue = false;
   String file;
};

struct ReportModel {
   std::optional<RunInfo> run;        // where and when, for the formats that print it
   std::vector<EntityReport> entities;  // in state tree order
   std::vector<MachineReport> machines;
   std::vector<Loom::LogRecord> log;
   std::vector<Loom::TraceRecord> traces;
   std::vector<ToggleReport> toggles;
   std::vector<InputReport> inputs;

   // Facts and entities with a reason.
   std::size_t unknownCount() const;
};

// The whole report; the run's identity only when `withRun`.
ReportModel reportModel(Session const &session, bool withRun);
// The entities alone, as a script's show prints them.
ReportModel entitiesModel(Session const &session);

}  // namespace SentrelHost
