#include "host/Host.h"

#include <cerrno>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "Sentrel/platform/Printable.h"
#include "Sentrel/platform/RunCommand.h"
#include "Sentrel/platform/Sysroot.h"
#include "Sentrel/platform/Toggle.h"
#include "Sentrel/types/StateTree.h"
#include "host/LiveInputs.h"
#include "host/ValueJson.h"

namespace SentrelHost {

namespace {

// The factory's name as the linker knows it: Sentrel::agentFactory(Loom::String).
char const *const kFactorySymbol =
   "_ZN7Sentrel12agentFactoryENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";

String besideExecutable(char const *relative) {
   char buf[4096];
   ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
   if (n <= 0) return relative;
   String exe(buf, static_cast<std::size_t>(n));
   return exe.substr(0, exe.rfind('/') + 1) + relative;
}

// Where a diagnostic stands in the report: state tree order, then the
// attribute's order in its type, the whole entity first.
std::size_t rank(Diagnostic const &d) {
   auto const &tree = Sentrel::stateTree();
   for (std::size_t i = 0; i < tree.size(); ++i) {
      if (d.entity != tree[i].path) continue;
      std::size_t a = 0;
      if (auto const *type = Loom::findType(tree[i].typeName); type && !d.attribute.empty()) {
         while (a < type->attrs.size() && type->attrs[a].name != d.attribute) ++a;
         ++a;
      }
      return i * 1000 + a;
   }
   return tree.size() * 1000;
}

// The agent beside the executable, where the installed and the build tree
// alike keep it.
String defaultAgentPath() { return besideExecutable(SENTREL_INSTALLED_AGENT); }

// nullopt when `dir` is a folder, else what is wrong with it.
std::optional<String> folderProblem(String const &dir) {
   struct stat st {};
   if (stat(dir.c_str(), &st) != 0) return String(std::strerror(errno));
   if (!S_ISDIR(st.st_mode)) return String("not a folder");
   return std::nullopt;
}

// Seconds as an operator writes them: 10, 2.5. Above 0 and at most a day.
std::optional<double> parseSeconds(String const &text) {
   if (text.empty() || text.find_first_not_of("0123456789.") != String::npos ||
       text.find('.') != text.rfind('.') || text.front() == '.' || text.back() == '.') {
      return std::nullopt;
   }
   double const s = std::strtod(text.c_str(), nullptr);
   if (!(s > 0) || s > 86400) return std::nullopt;
   return s;
}

String at(String const &file, std::size_t offset, String const &problem) {
   return file + ": byte " + std::to_string(offset) + ": " + problem;
}

// An attribute's value; nullopt for a missing entity, and a value that
// never changes for the whole entity when it exists.
std::optional<Loom::Value> factValue(Ledger::EntityManager const &em, String const &path, String const &attr) {
   auto e = em.lookup(path);
   if (!e) return std::nullopt;
   auto const *a = attr.empty() ? nullptr : e->typeData().attr(attr);
   return a ? a->get(*e) : Loom::Value{};
}

// Sets an attribute from a JSON value: sets and maps take every element.
std::optional<String> assign(Loom::Object &o, Loom::AttrInfo const &attr, Loom::Value const &v) {
   if (attr.kind == Loom::Kind::StringSet) {
      for (auto const &s : std::get<std::vector<String>>(v)) {
         if (auto e = attr.insert(o, s)) return e;
      }
      return std::nullopt;
   }
   if (attr.kind == Loom::Kind::StringU32Map) return attr.insert(o, v);
   if (!attr.set) return "cannot be set";
   return attr.set(o, v);
}

}  // namespace

Host::Host(Options options) : options_(std::move(options)) {
   if (options_.toggles) {
      if (auto p = Loom::toggleDirProblem(*options_.toggles)) {
         throw UsageError("--toggles " + *options_.toggles + ": " + *p);
      }
      Loom::toggleDirIs(*options_.toggles);
   } else if (char const *env = std::getenv("SENTREL_TOGGLES_DIR")) {
      if (auto p = Loom::toggleDirProblem(env)) throw UsageError(String("SENTREL_TOGGLES_DIR ") + env + ": " + *p);
   }
   // A system root that is not there would make every file of it missing,
   // and every reason made up.
   if (options_.sysroot) {
      if (!options_.sysroot->empty()) {
         if (auto p = folderProblem(*options_.sysroot)) throw UsageError("--sysroot " + *options_.sysroot + ": " + *p);
      }
      Loom::sysrootIs(*options_.sysroot);
   } else if (char const *env = std::getenv("SENTREL_SYSROOT"); env && *env) {
      if (auto p = folderProblem(env)) throw UsageError(String("SENTREL_SYSROOT ") + env + ": " + *p);
   }
   std::optional<String> timeout = options_.commandTimeout;
   char const *timeoutSource = "--command-timeout";
   if (!timeout && std::getenv("SENTREL_COMMAND_TIMEOUT")) {
      timeout = std::getenv("SENTREL_COMMAND_TIMEOUT"), timeoutSource = "SENTREL_COMMAND_TIMEOUT";
   }
   std::optional<double> seconds = timeout ? parseSeconds(*timeout) : 10.0;
   if (!seconds) {
      throw UsageError(String(timeoutSource) + " takes seconds above 0 and at most 86400, such as 10 or 2.5, not '" +
                       *timeout + "'");
   }
   Loom::commandTimeoutIs(std::chrono::duration<double>(*seconds));
   std::optional<String> levels = options_.trace;
   char const *source = "--trace";
   if (!levels && std::getenv("SENTREL_TRACE")) levels = std::getenv("SENTREL_TRACE"), source = "SENTREL_TRACE";
   if (levels) {
      auto mask = Loom::parseTraceLevels(*levels);
      if (!mask) throw UsageError(String(source) + " takes levels 0 to 9 such as 2, 2,7 or 0-9, not '" + *levels + "'");
      userTraceLevels_ = *mask;
   }
   Loom::traceLevelsIs("Sentrel", userTraceLevels_);
   Loom::traceSinkIs([this](Loom::TraceRecord const &r) {
      if (options_.format == Format::Json) {
         traces_.push_back(r);
      } else {
         std::fprintf(stderr, "%s:%d %s [%s/%d] %s\n", r.source, r.line, r.function, r.facility.c_str(), r.level,
                      Loom::printable(r.text).c_str());
      }
   });
   Loom::logSinkIs([this](Loom::LogRecord const &r) { logs_.push_back(r); });
   Loom::reasonSinkIs([this](Loom::ReasonRecord const &r) { reasonReceived(r); });
   Loom::logSyslogIs(options_.syslog, "Sentrel");
   struct stat st {};
   if (options_.syslog && (stat("/dev/log", &st) != 0 || !S_ISSOCK(st.st_mode))) {
      std::fputs("sentrel: no system log socket (/dev/log): warnings are in the report only\n", stderr);
   }
}

Host::~Host() {
   agent_ = nullptr;
   em_ = nullptr;
   Loom::traceSinkIs(nullptr);
   Loom::traceLevelsIs("Sentrel", userTraceLevels_);
   Loom::logSinkIs(nullptr);
   Loom::reasonSinkIs(nullptr);
}

void Host::loadAgent() {
   String const path = options_.agentPath.empty() ? defaultAgentPath() : options_.agentPath;
   // Never unloaded: the agent's statics (log handles) live until exit.
   void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
   if (!handle) throw UsageError("cannot load the agent " + path + ": " + dlerror());
   void *sym = dlsym(handle, kFactorySymbol);
   if (!sym) throw UsageError("the agent " + path + " has no Sentrel::agentFactory");
   factory_ = reinterpret_cast<Factory>(sym);
}

void Host::seedLedger() {
   em_ = Loom::make<Ledger::EntityManager>();
   Sentrel::stateTreeSeed(*em_);
}

void Host::applyLive() {
   LiveInputs live = readLiveInputs();
   applyDocument(kDefaultsFile, live.document, "/");
   // Reported once the values stand, so each reason holds the value it explains.
   for (auto const &r : live.reasons) reasonReceived(r);
   notes_ = std::move(live.notes);
   unknownInputs_ = std::move(live.unknownInputs);
}

void Host::reasonReceived(Loom::ReasonRecord const &r) {
   String path = r.path;
   if (r.entity) {
      for (auto const &e : Sentrel::stateTree()) {
         if (em_->lookup(e.path).ptr() == r.entity) {
            path = e.path;
            break;
         }
      }
   }
   if (path.empty()) return;  // an entity outside the state tree: nowhere to show it
   auto add = [&](String const &attr) {
      auto value = factValue(*em_, path, attr);
      std::erase_if(findings_, [&](Finding const &f) {
         return f.diagnostic.entity == path && f.diagnostic.attribute == attr;
      });
      findings_.push_back({{path, attr, r.reason, r.hint}, std::move(value)});
   };
   if (r.attributes.empty()) add("");
   for (auto const &a : r.attributes) add(a);
}

bool Host::anyUnknown() const {
   return std::any_of(findings_.begin(), findings_.end(), [&](Finding const &f) {
      return factValue(*em_, f.diagnostic.entity, f.diagnostic.attribute) == f.value;
   });
}

std::vector<Diagnostic> Host::diagnostics() const {
   // Ranked once each, then sorted by rank.
   std::vector<std::pair<std::size_t, Diagnostic>> ranked;
   for (auto const &f : findings_) {
      auto const &d = f.diagnostic;
      // Set since by --state, a script or a later reading: no longer unknown.
      if (factValue(*em_, d.entity, d.attribute) != f.value) continue;
      ranked.emplace_back(rank(d), d);
      if (auto note = notes_.find(d.entity); note != notes_.end()) {
         ranked.back().second.reason = note->second + "; " + d.reason;
      }
   }
   std::stable_sort(ranked.begin(), ranked.end(), [](auto const &a, auto const &b) { return a.first < b.first; });
   std::vector<Diagnostic> out;
   out.reserve(ranked.size());
   for (auto &r : ranked) out.push_back(std::move(r.second));
   return out;
}

void Host::applyState(String const &path, String const &text) {
   JsonError err;
   auto root = parseJson(text, err);
   if (!root) throw UsageError(at(path, err.offset, err.message));
   String const dir = std::filesystem::absolute(path).parent_path().string();
   applyDocument(path, *root, dir);
}

void Host::applyDocument(String const &path, JsonNode const &doc, String const &dir) {
   // What the document sets is known: earlier reasons for it no longer hold.
   auto stated = [this](String const &entity, String const &attr) {
      std::erase_if(findings_, [&](Finding const &f) {
         return f.diagnostic.entity == entity && (attr.empty() || f.diagnostic.attribute == attr);
      });
      if (entity == kDefaults) unknownInputs_.erase("manufacturing defaults");
      if (entity == kSbStatus && (attr.empty() || attr == "statusFlags")) {
         unknownInputs_.erase("secure boot");
         unknownInputs_.erase("measured boot");
      }
      if (entity == kSbStatus && (attr.empty() || attr == "enabledPcrBank")) unknownInputs_.erase("enabled PCR banks");
   };
   auto const *root = &doc;
   if (root->type != JsonNode::Object) throw UsageError(at(path, root->offset, "expected an object with \"entities\""));
   std::set<String> nulled;
   for (auto const &[key, entities] : root->members) {
      if (key.text != "entities") throw UsageError(at(path, key.offset, "unknown member \"" + key.text + "\""));
      if (entities.type != JsonNode::Object) throw UsageError(at(path, entities.offset, "expected an object of entities"));
      for (auto const &[pathKey, attrs] : entities.members) {
         auto const *entry = Sentrel::stateTreeEntry(pathKey.text);
         if (!entry) throw UsageError(at(path, pathKey.offset, "unknown entity path \"" + pathKey.text + "\""));
         if (attrs.type == JsonNode::Null) {
            em_->entityDel(entry->path);
            nulled.insert(entry->path);
            stated(entry->path, "");
            continue;
         }
         if (attrs.type != JsonNode::Object) {
            throw UsageError(at(path, attrs.offset, "expected an object of attributes or null"));
         }
         auto entity = em_->lookup(entry->path);
         if (!entity && !nulled.count(entry->path)) {
            // Made absent by the live inputs: the state file brings it back,
            // at its defaults.
            em_->entityIs(entry->path, Loom::ptrCast<Loom::Entity>(Loom::findType(entry->typeName)->create()));
            entity = em_->lookup(entry->path);
            stated(entry->path, "");
         }
         if (!entity) throw UsageError(at(path, attrs.offset, "entity \"" + pathKey.text + "\" was made absent above"));
         for (auto const &[attrKey, value] : attrs.members) {
            auto const *attr = entity->typeData().attr(attrKey.text);
            if (!attr || attr->kind == Loom::Kind::Ref) {
               throw UsageError(at(path, attrKey.offset, "unknown attribute \"" + attrKey.text + "\" of " + pathKey.text));
            }
            auto c = valueFromJson(*attr, value, true);
            if (c.error) throw UsageError(at(path, c.error->offset, attrKey.text + ": " + c.error->message));
            auto *s = std::get_if<String>(&c.value);
            if (s && attr->name.ends_with("FilePath") && !s->empty() && s->front() != '/') *s = dir + "/" + *s;
            if (auto e = assign(*entity, *attr, c.value)) throw UsageError(at(path, value.offset, attrKey.text + ": " + *e));
            stated(entry->path, attrKey.text);
         }
      }
   }
}

void Host::startAgent() {
   agent_ = Loom::ptrCast<Loom::CAgent>(factory_("Sentrel"));
   Loom::startAgent(*agent_, em_);
}

void Host::stopAgent() { agent_ = nullptr; }

bool Host::shutDown() {
   agent_ = nullptr;
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

Loom::Object *Host::stateMachine(String const &name) const {
   if (!agent_) return nullptr;
   auto const *attr = agent_->typeData().attr(name + "Sm");
   if (!attr || attr->kind != Loom::Kind::Ref) return nullptr;
   return const_cast<Loom::Object *>(std::get<Loom::Object const *>(attr->get(*agent_)));
}

}  // namespace SentrelHost
