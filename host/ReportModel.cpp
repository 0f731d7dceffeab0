#include "host/ReportModel.h"

#include "Sentrel/platform/Toggle.h"
#include "Sentrel/types/HardwareSentrelConfig.h"
#include "Sentrel/types/StateTree.h"
#include "Sentrel/types/TarnSecurebootStatus.h"
#include "host/Session.h"

namespace SentrelHost {

namespace {

using Sb = Tarn::Secureboot::Status;
using Defaults = Hardware::Sentrel::Config;

std::vector<EntityReport> entities(Session const &session) {
   auto const &reasons = session.reasons();
   auto const *sb = Sentrel::stateTreeEntryOf(Sb::typeInfo());
   auto const *defaults = Sentrel::stateTreeEntryOf(Defaults::typeInfo());
   std::vector<EntityReport> out;
   for (auto const &entry : Sentrel::stateTree()) {
      auto const e = session.ledger().lookup(entry.path);
      EntityReport r{entry.path, entry.status, e != nullptr, reasons.of(entry, kWholeEntity), &entry == defaults, {}};
      if (e) {
         auto const &attrs = e->typeData().attrs;
         for (unsigned i = 0; i < attrs.size(); ++i) {
            if (attrs[i].kind == Loom::Kind::Ref) continue;
            bool const inInputs = &entry == sb && (i == Sb::Attr::supported || i == Sb::Attr::statusFlags ||
                                                   i == Sb::Attr::enabledPcrBank);
            r.facts.push_back({String(attrs[i].name), attrs[i].get(*e), reasons.of(entry, i), inInputs});
         }
      }
      out.push_back(std::move(r));
   }
   return out;
}

String onOff(bool on) { return on ? "on" : "off"; }

std::vector<InputReport> inputs(Session const &session) {
   auto const &em = session.ledger();
   auto const &reasons = session.reasons();
   auto const &sbEntry = *Sentrel::stateTreeEntryOf(Sb::typeInfo());
   std::vector<InputReport> lines;
   auto const sb = Sentrel::stateTreeEntity<Sb const>(em);
   if (!sb || !sb->ready()) {
      String const why = String("unknown (") + sbEntry.path + (sb ? " is not filled in)" : " is absent)");
      lines = {{"secure boot", why, {}}, {"measured boot", why, {}}, {"enabled PCR banks", why, {}}};
   } else {
      String banks;
      for (auto const &b : sb->enabledPcrBank()) banks += (banks.empty() ? "" : ", ") + b;
      lines = {{"secure boot", onOff(!(sb->statusFlags() & Sb::secureBootDisabledBit)),
                reasons.ofBits(sbEntry, Sb::Attr::statusFlags, Sb::secureBootDisabledBit)},
               {"measured boot", onOff(sb->statusFlags() & Sb::measuredBootEnabledBit),
                reasons.ofBits(sbEntry, Sb::Attr::statusFlags, Sb::measuredBootEnabledBit)},
               {"enabled PCR banks", banks.empty() ? "none" : banks, reasons.of(sbEntry, Sb::Attr::enabledPcrBank)}};
   }
   auto const config = Sentrel::stateTreeEntity<Defaults const>(em);
   if (!config) {
      lines.push_back({"manufacturing defaults", "none: nothing is compared with them",
                       reasons.of(*Sentrel::stateTreeEntryOf(Defaults::typeInfo()), kWholeEntity)});
   } else if (!config->configReady()) {
      lines.push_back({"manufacturing defaults", "not filled in: nothing is compared with them", {}});
   } else {
      lines.push_back({"manufacturing defaults", "secure boot " + onOff(config->secureBootEnabled()) +
                                                    ", measured boot " + onOff(config->measuredBootEnabled()),
                       {}});
   }
   return lines;
}

}  // namespace

std::size_t ReportModel::unknownCount() const {
   std::size_t n = 0;
   for (auto const &e : entities) {
      n += e.unknown.has_value();
      for (auto const &f : e.facts) n += f.unknown.has_value();
   }
   return n;
}

ReportModel entitiesModel(Session const &session) {
   ReportModel m;
   m.entities = entities(session);
   return m;
}

ReportModel reportModel(Session const &session, bool withRun) {
   ReportModel m = entitiesModel(session);
   if (withRun) m.run = thisRun();
   for (auto const &slot : session.machines()) {
      MachineReport r{String(slot.name), slot.machine != nullptr, {}};
      if (slot.machine) {
         for (auto const &a : slot.machine->typeData().attrs) {
            if (a.kind != Loom::Kind::Ref) r.attrs.emplace_back(String(a.name), a.get(*slot.machine));
         }
      }
      m.machines.push_back(std::move(r));
   }
   m.log = session.logs();
   m.traces = session.traces();
   for (auto const &[name, t] : Loom::togglesInEffect()) m.toggles.push_back({name, t.value, t.defaultValue, t.file});
   m.inputs = inputs(session);
   return m;
}

}  // namespace SentrelHost
