#include "host/Session.h"

#include <cstdio>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Sentrel/platform/Printable.h"
#include "Sentrel/platform/Reason.h"
#include "Sentrel/platform/RunCommand.h"
#include "Sentrel/platform/Sysroot.h"
#include "Sentrel/platform/Toggle.h"
#include "host/LiveInputs.h"
#include "host/OutputFile.h"
#include "host/evidence/Evidence.h"
#include "host/StateFile.h"
#include "host/UsageError.h"

namespace SentrelHost {

namespace {

// The factory's name as the linker knows it: Sentrel::agentFactory(Loom::String).
char const *const kFactorySymbol =
   "_ZN7Sentrel12agentFactoryENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";

// A library of the private folder beside the executable, where the
// installed and the build tree alike keep the agent and the evidence module.
String besideExecutable(char const *relative) {
   char buf[4096];
   ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
   if (n <= 0) return relative;
   String exe(buf, static_cast<std::size_t>(n));
   return exe.substr(0, exe.rfind('/') + 1) + relative;
}

}  // namespace

Session::Session(Configuration const &config) : config_(config) {
   auto const &o = config.options;
   if (o.toggles) Loom::toggleDirIs(*o.toggles);
   if (o.sysroot) Loom::sysrootIs(*o.sysroot);
   Loom::commandTimeoutIs(config.commandTimeout);
   Loom::traceLevelsIs("Sentrel", config.traceLevels);
   Loom::traceSinkIs([this](Loom::TraceRecord const &r) {
      if (config_.options.format == Format::Json) {
         traces_.push_back(r);
      } else {
         std::fprintf(stderr, "%s:%d %s [%s/%d] %s\n", r.source, r.line, r.function, r.facility.c_str(), r.level,
                      Loom::printable(r.text).c_str());
      }
   });
   Loom::logSinkIs([this](Loom::LogRecord const &r) { logs_.push_back(r); });
   Loom::reasonSinkIs([this](Loom::ReasonRecord const &r) {
      if (reasons_) reasons_->received(r);
   });
   Loom::logSyslogIs(o.syslog, "Sentrel");
   struct stat st {};
   if (o.syslog && (stat("/dev/log", &st) != 0 || !S_ISSOCK(st.st_mode))) {
      std::fputs("sentrel: no system log socket (/dev/log): warnings are in the report only\n", stderr);
   }
}

Session::~Session() {
   agent_ = nullptr;
   reasons_ = nullptr;
   em_ = nullptr;
   Loom::traceSinkIs(nullptr);
   Loom::logSinkIs(nullptr);
   Loom::reasonSinkIs(nullptr);
}

void Session::loadAgent() {
   String const path = config_.options.agentPath.empty() ? besideExecutable(SENTREL_INSTALLED_AGENT) : config_.options.agentPath;
   // Never unloaded: the agent's statics (log handles) live until exit.
   void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
   if (!handle) throw UsageError("cannot load the agent " + path + ": " + dlerror());
   void *sym = dlsym(handle, kFactorySymbol);
   if (!sym) throw UsageError("the agent " + path + " has no Sentrel::agentFactory");
   factory_ = reinterpret_cast<Factory>(sym);
}

void Session::seedLedger() {
   em_ = Loom::make<Ledger::EntityManager>();
   reasons_ = std::make_unique<Reasons>(*em_);
   Sentrel::stateTreeSeed(*em_);
}

void Session::applyLive() { readLiveInputs(*em_); }

void Session::applyEvidence() {
   auto const &o = config_.options;
   // No TPM 2.0: no evidence to weigh, which the inputs already say; and no
   // module loaded, which costs a millisecond.
   if (!o.eventLog && !tpm2Present()) {
      if (o.writeBaseline) throw UsageError("--write-baseline " + *o.writeBaseline + ": this machine has no TPM 2.0 "
                                            "event log; name a collected one with --event-log");
      return;
   }
   String const path = besideExecutable(SENTREL_INSTALLED_EVIDENCE);
   // Never unloaded, like the agent.
   void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
   if (!handle) throw UsageError("cannot load the evidence module " + path + ": " + dlerror());
   auto *evidence = reinterpret_cast<decltype(&sentrelMeasuredBootEvidence)>(dlsym(handle, "sentrelMeasuredBootEvidence"));
   if (!evidence) throw UsageError("the evidence module " + path + " has no sentrelMeasuredBootEvidence");
   EvidenceOptions const options{o.eventLog, o.tcti, o.baseline, o.writeBaseline.has_value(),
                                 std::chrono::duration_cast<std::chrono::milliseconds>(config_.commandTimeout)};
   EvidenceResult result;
   evidence(em_.ptr(), &options, &result);
   if (!o.writeBaseline) return;
   if (!result.baseline) throw UsageError("--write-baseline " + *o.writeBaseline + ": " + result.baselineProblem);
   writeFileAtomically(*o.writeBaseline, *result.baseline);
}

void Session::applyState(String const &path, String const &text) {
   // What the file sets is known: earlier reasons for it no longer hold.
   applyStateFile(*em_, path, text, [this](auto const &entry, unsigned attr) { reasons_->stated(entry, attr); });
}

void Session::startAgent() {
   agent_ = Loom::ptrCast<Loom::CAgent>(factory_("Sentrel"));
   Loom::startAgent(*agent_, em_);
}

void Session::stopAgent() { agent_ = nullptr; }

bool Session::shutDown() {
   agent_ = nullptr;
   reasons_ = nullptr;
   em_ = nullptr;
   bool clean = true;
   for (auto const *t : Loom::AllocationTracker::all()) {
      if (t->live() != 0) {
         std::fprintf(stderr, "sentrel: %lld %s still alive after the agent was destroyed\n",
                      static_cast<long long>(t->live()), t->typeName());
         clean = false;
      }
   }
   return clean;
}

Ptr<Loom::Entity> Session::agentEntity() const { return agent_; }

std::vector<MachineSlot> Session::machines() const {
   std::vector<MachineSlot> out;
   if (!agent_) return out;
   for (auto const &a : agent_->typeData().attrs) {
      if (a.kind != Loom::Kind::Ref || !a.refType || a.refType().machine.empty()) continue;
      out.push_back({a.refType().machine, std::get<Loom::Object const *>(a.get(*agent_))});
   }
   return out;
}

}  // namespace SentrelHost
