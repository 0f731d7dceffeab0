#include "attest/VerifyReport.h"

#include <algorithm>

#include "Sentrel/platform/Json.h"
#include "Sentrel/platform/Printable.h"
#include "host/JsonTree.h"

namespace SentrelAttest {

namespace {

using SentrelEvidence::concat;
using SentrelEvidence::Findings;

constexpr Verdict kVerdicts[] = {Verdict::Trusted, Verdict::Untrusted, Verdict::Unreachable};

std::size_t count(VerifyReport const &report, Verdict v) {
   return static_cast<std::size_t>(std::count_if(report.switches.begin(), report.switches.end(),
                                                 [v](SwitchReport const &s) { return s.judgement.verdict == v; }));
}

String joined(std::vector<String> const &set) {
   String out;
   for (auto const &s : set) out += (out.empty() ? "" : ", ") + Loom::printable(s);
   return out.empty() ? "none" : out;
}

void line(String &out, char const *label, String const &value) {
   out += "  ";
   out += label;
   out.append(std::max<std::size_t>(22 - std::string_view(label).size(), 1), ' ');
   out += value + "\n";
}

void evidenceText(String &out, Findings const &f) {
   line(out, "event log",
        concat(f.eventLogFormat, ", ", f.eventCount, f.eventCount == 1 ? " event" : " events", ", banks ",
               joined(f.logBank), "; replayed ", joined(f.replayedBank)));
   for (auto const &m : f.mismatchedPcr) line(out, "mismatched PCR", Loom::printable(m));
   for (auto const &b : f.unextendedBank) line(out, "unextended bank", Loom::printable(b));
   for (auto const &b : f.unverifiedBank) line(out, "unverified bank", Loom::printable(b));
   for (auto const &d : f.baselineDifference) line(out, "baseline difference", Loom::printable(d.text));
}

template <class Writer>
void string(Writer &w, std::string_view s) {
   auto const q = SentrelHost::jsonQuote(s);
   w.RawValue(q.c_str(), q.size(), rapidjson::kStringType);
}

template <class Writer>
void strings(Writer &w, char const *name, std::vector<String> const &set) {
   string(w, name);
   w.StartArray();
   for (auto const &s : set) string(w, s);
   w.EndArray();
}

template <class Writer>
void evidenceJson(Writer &w, Findings const &f) {
   w.StartObject();
   string(w, "eventLogFormat");
   string(w, f.eventLogFormat);
   string(w, "eventCount");
   w.Uint64(f.eventCount);
   strings(w, "logBank", f.logBank);
   strings(w, "replayedBank", f.replayedBank);
   strings(w, "mismatchedPcr", f.mismatchedPcr);
   strings(w, "unextendedBank", f.unextendedBank);
   strings(w, "unverifiedBank", f.unverifiedBank);
   std::vector<String> differences;
   for (auto const &d : f.baselineDifference) differences.push_back(d.text);
   strings(w, "baselineDifference", differences);
   w.EndObject();
}

// A label value in the exposition format: backslash, quote and newline escaped.
String labelValue(std::string_view s) {
   String out;
   for (char c : s) {
      if (c == '\\') {
         out += "\\\\";
      } else if (c == '"') {
         out += "\\\"";
      } else if (c == '\n') {
         out += "\\n";
      } else {
         out += c;
      }
   }
   return out;
}

}  // namespace

String summaryLine(VerifyReport const &report) {
   return concat(count(report, Verdict::Trusted), " trusted, ", count(report, Verdict::Untrusted), " untrusted, ",
                 count(report, Verdict::Unreachable), " unreachable");
}

int exitStatus(VerifyReport const &report) {
   if (count(report, Verdict::Untrusted) > 0) return 1;
   if (count(report, Verdict::Unreachable) > 0) return 4;
   return 0;
}

String textReport(VerifyReport const &report) {
   String out;
   for (auto const &s : report.switches) {
      out += Loom::printable(s.name);
      if (!s.address.empty()) out += "  " + Loom::printable(s.address);
      out += "\n";
      auto const &j = s.judgement;
      line(out, "verdict", verdictName(j.verdict));
      if (!j.reason.empty()) line(out, "reason", Loom::printable(j.reason));
      if (j.evidence) evidenceText(out, *j.evidence);
      out += "\n";
   }
   return out + summaryLine(report) + "\n";
}

String jsonReport(VerifyReport const &report) {
   rapidjson::StringBuffer buf;
   rapidjson::PrettyWriter<rapidjson::StringBuffer> w(buf);
   w.SetIndent(' ', 2);
   w.SetFormatOptions(rapidjson::kFormatSingleLineArray);
   w.StartObject();
   string(w, "run");
   w.StartObject();
   for (auto const &[k, v] : {std::pair{"version", report.run.version}, std::pair{"host", report.run.host},
                              std::pair{"time", SentrelHost::rfc3339(report.run.time)}}) {
      string(w, k);
      string(w, v);
   }
   w.EndObject();
   string(w, "switches");
   w.StartArray();
   for (auto const &s : report.switches) {
      w.StartObject();
      string(w, "name");
      string(w, s.name);
      string(w, "address");
      string(w, s.address);
      string(w, "verdict");
      string(w, verdictName(s.judgement.verdict));
      string(w, "reason");
      string(w, s.judgement.reason);
      string(w, "evidence");
      if (s.judgement.evidence) {
         evidenceJson(w, *s.judgement.evidence);
      } else {
         w.Null();
      }
      w.EndObject();
   }
   w.EndArray();
   w.EndObject();
   return String(buf.GetString(), buf.GetSize()) + "\n";
}

String metricsReport(VerifyReport const &report) {
   String out =
      "# HELP sentrel_attestation Verdict of the switch's attestation: 1 for the verdict it had, 0 for the others.\n"
      "# TYPE sentrel_attestation gauge\n";
   for (auto const &s : report.switches) {
      for (Verdict v : kVerdicts) {
         out += concat("sentrel_attestation{switch=\"", labelValue(s.name), "\",verdict=\"", verdictName(v), "\"} ",
                       s.judgement.verdict == v ? 1 : 0, "\n");
      }
   }
   out += concat(
      "# HELP sentrel_attestation_run_timestamp_seconds When the verifier attested the switches, in seconds since the "
      "epoch.\n"
      "# TYPE sentrel_attestation_run_timestamp_seconds gauge\n"
      "sentrel_attestation_run_timestamp_seconds ",
      std::max<std::int64_t>(report.run.time, 0), "\n");
   return out;
}

}  // namespace SentrelAttest
