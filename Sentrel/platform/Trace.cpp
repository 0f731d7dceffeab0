#include "Sentrel/platform/Trace.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <map>

namespace Loom {

namespace {

struct Facility {
   unsigned mask = 0;
   bool explicitlySet = false;
};

std::map<String, Facility> &facilities() {
   static auto *f = new std::map<String, Facility>;
   return *f;
}

std::function<void(TraceRecord const &)> &sink() {
   static auto *s = new std::function<void(TraceRecord const &)>;
   return *s;
}

Facility &facility(String const &name) {
   auto [it, added] = facilities().try_emplace(name);
   if (added) {
      String env;
      for (char c : name) env += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      env += "_TRACE";
      if (char const *v = std::getenv(env.c_str())) {
         if (auto m = parseTraceLevels(v)) it->second.mask = *m;
      }
   }
   return it->second;
}

}  // namespace

std::optional<unsigned> parseTraceLevels(String const &text) {
   unsigned mask = 0;
   std::size_t i = 0;
   auto digit = [&](unsigned &out) {
      if (i >= text.size() || !std::isdigit(static_cast<unsigned char>(text[i]))) return false;
      out = static_cast<unsigned>(text[i++] - '0');
      return true;
   };
   while (i < text.size()) {
      unsigned lo = 0, hi = 0;
      if (!digit(lo)) return std::nullopt;
      hi = lo;
      if (i < text.size() && text[i] == '-') {
         ++i;
         if (!digit(hi) || hi < lo) return std::nullopt;
      }
      for (unsigned l = lo; l <= hi; ++l) mask |= 1u << l;
      if (i < text.size()) {
         if (text[i] != ',') return std::nullopt;
         if (++i == text.size()) return std::nullopt;
      }
   }
   return mask;
}

void traceLevelsIs(String const &name, unsigned mask) {
   auto &f = facility(name);
   f.mask = mask;
   f.explicitlySet = true;
}

void traceSinkIs(std::function<void(TraceRecord const &)> s) { sink() = std::move(s); }

TraceHandle::TraceHandle(char const *name, bool) : facility_(name), mask_(&facility(name).mask) {}

void TraceHandle::emit(int level, char const *source, int line, char const *function,
                       String text) const {
   TraceRecord r{facility_, level, source, line, function, std::move(text)};
   if (auto const &s = sink()) {
      s(r);
   } else {
      std::fprintf(stderr, "%s:%d %s [%s/%d] %s\n", source, line, function, facility_.c_str(), level,
                   r.text.c_str());
   }
}

}  // namespace Loom
