// Runs each case of tests/cases/*.json as a test of its own: the built host on
// a switch made from the case, reporting in JSON, and the report checked.
//
// A case: {"name": "...", and any of
//   "root":     {PATH: CONTENT} below the system root,
//   "files":    {PATH: CONTENT} beside the state file (where relative paths lead),
//   "commands": {NAME: OUT | {"ARGS": OUT, "out": OUT, "exit": N} | null} in PATH
//               (alone there: a command left null is not found; calls are noted),
//   "toggles":  {FILE: {NAME: bool}}, "state": {ENTITIES} or raw TEXT,
//   "script":   TEXT, "args": [extra arguments, after --format json --trace 2,7],
//   "expect":   {"exit": N (0), "exits": {"EXTRA ARGS": N}, "err": [FRAGMENTS],
//                "lines": [the output before the report, or all without one: TEXT, or {JSON subset}],
//                "log": [TEXT or {subset of the record}] (all, in order),
//                "trace": {"machine": "FooSm", "2": [TEXTS], "7": [TEXTS]} (that machine's, in order),
//                "diagnostics": {PREFIX: [each line starting with PREFIX, by its start after it]},
//                "calls": {NAME: [ARGS]}, and any other member: a subset of that member of the report}}
// A subset lists some members of the report's objects, down to an entity's
// attributes, whose values are compared whole.
// CONTENT is text, null (removed), anything for a PATH ending in "/" (a folder),
// or bytes: {"size": N, "fill": BYTE, "at": {"OFFSET": "HEX BYTES"}}.
// "${sw}" is the switch's folder, "${NAME}" a text of names.json.
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <sys/resource.h>

#include "TestSupport.h"

using namespace SentrelTest;
using rapidjson::Value;
using Strings = std::vector<String>;
namespace fs = std::filesystem;

namespace {

String const kCases = SENTREL_SOURCE_DIR "/tests/cases";

String str(Value const &v) { return String(v.GetString(), v.GetStringLength()); }

String serialized(Value const &v) {
   rapidjson::StringBuffer b;
   rapidjson::Writer<rapidjson::StringBuffer> w(b);
   v.Accept(w);
   return String(b.GetString(), b.GetSize());
}

Strings split(String const &text, char delim) {
   Strings out;
   Loom::Pieces pieces(text, delim);
   for (std::string_view p; pieces.next(p);) out.emplace_back(p);
   return out;
}

Strings strs(Value const &v) {
   Strings out;
   for (auto const &i : v.GetArray()) out.push_back(str(i));
   return out;
}

// A member of an object, or an empty object where there is none.
Value const &at(Value const &o, char const *name) {
   static Value const none(rapidjson::kObjectType);
   return o.IsObject() && o.HasMember(name) ? o[name] : none;
}

rapidjson::Document load(String const &path) {
   rapidjson::Document d;
   if (d.Parse(slurp(path).c_str()).HasParseError()) throw std::runtime_error(path + ": not JSON");
   return d;
}

// Every case as its JSON text, named "<file>_<name>".
std::vector<std::pair<String, String>> cases() {
   std::vector<std::pair<String, String>> out;
   std::vector<fs::path> files(fs::directory_iterator(kCases), fs::directory_iterator{});
   std::sort(files.begin(), files.end());
   for (auto const &f : files) {
      auto const d = load(f);
      if (f.filename() == "names.json") continue;
      for (auto const &c : d.GetArray()) out.emplace_back(f.stem().string() + "_" + str(c["name"]), serialized(c));
   }
   return out;
}

String content(Value const &v) {
   if (v.IsString()) return str(v);
   char const fill = static_cast<char>(v.HasMember("fill") ? v["fill"].GetUint() : 0);
   String out(v.HasMember("size") ? v["size"].GetUint() : 0, fill);
   for (auto const &[offset, hex] : at(v, "at").GetObject()) {
      String bytes, h = str(hex);
      std::erase(h, ' ');
      for (std::size_t i = 0; i < h.size(); i += 2) bytes += static_cast<char>(std::stoi(h.substr(i, 2), nullptr, 16));
      std::size_t const begin = std::stoul(str(offset), nullptr, 0);
      if (out.size() < begin + bytes.size()) out.resize(begin + bytes.size(), fill);
      out.replace(begin, bytes.size(), bytes);
   }
   return out;
}

void place(TempDir const &dir, String const &below, Value const &files) {
   for (auto const &[name, v] : files.GetObject()) {
      fs::path const p = dir.path() + "/" + below + str(name);
      if (v.IsNull()) fs::remove(p);
      else if (str(name).ends_with("/")) fs::create_directories(p);
      else dir.file(below + str(name), content(v));
   }
}

// A command that answers by its arguments and notes each call.
void command(TempDir const &sw, String const &name, Value const &v) {
   if (v.IsNull()) return fs::remove(sw.path() + "/bin/" + name), void();
   String answers, fallback, code = "0";
   auto const answer = [&](String const &args, Value const &out) {
      String const file = sw.file("out/" + name + std::to_string(answers.size() + fallback.size()), str(out));
      (args == "out" ? fallback : answers) += (args == "out" ? "*" : "'" + args + "'") + ") /bin/cat '" + file + "';;\n";
   };
   if (v.IsString()) answer("out", v);
   for (auto const &[args, out] : (v.IsObject() ? v : at(v, "")).GetObject()) {
      if (str(args) == "exit") code = std::to_string(out.GetInt());
      else answer(str(args), out);
   }
   sw.script("bin/" + name, "echo \"$*\" >>'" + sw.path() + "/calls-" + name + "'\ncase \"$*\" in\n" + answers +
                               fallback + "esac\nexit " + code + "\n");
}

// Each trace record belongs to the machine of the last entry (level 7) before it.
std::map<String, Strings> traces(Value const &records, String const &machine) {
   std::map<String, Strings> out;
   String current;
   for (auto const &r : records.GetArray()) {
      String const text = str(r["text"]);
      if (auto const b = text.find("Sentrel::"); r["level"].GetInt() == 7 && b != String::npos) {
         current = text.substr(b + 9, text.find("::", b + 9) - b - 9);
      }
      if (current == machine) out[std::to_string(r["level"].GetInt())].push_back(text);
   }
   return out;
}

// Objects list some members, down to an entity's attributes, whose values are
// compared whole; a text wanted for a record is its "text".
void expectSubset(Value const &want, Value const &got, String const &where, int depth = 0) {
   if (want.IsString() && got.IsObject() && got.HasMember("text")) {
      expectSubset(want, got["text"], where, depth);
   } else if (want.IsObject() && got.IsObject() && depth < 2) {
      for (auto const &[k, v] : want.GetObject()) {
         if (got.HasMember(k)) expectSubset(v, got[k], where + "/" + str(k), depth + 1);
         else ADD_FAILURE() << where << "/" << str(k) << " is missing";
      }
   } else if (want.IsArray() && got.IsArray() && want.Size() == got.Size()) {
      for (unsigned i = 0; i < want.Size(); ++i) expectSubset(want[i], got[i], where + "/" + std::to_string(i), depth + 1);
   } else {
      EXPECT_EQ(serialized(want), serialized(got)) << where;
   }
}

class Host : public testing::TestWithParam<std::pair<String, String>> {};

TEST_P(Host, Runs) {
   rlimit const noCore{0, RLIM_INFINITY};  // designed aborts leave no core file behind
   setrlimit(RLIMIT_CORE, &noCore);
   FakeSwitch s;
   String json = GetParam().second;
   auto const names = load(kCases + "/names.json");
   for (std::size_t b; (b = json.find("${")) != String::npos;) {
      String const name = json.substr(b + 2, json.find('}', b) - b - 2), text = serialized(at(names, name.c_str()));
      ASSERT_TRUE(name == "sw" || names.HasMember(name.c_str())) << "no name " << name;
      json.replace(b, name.size() + 3, name == "sw" ? s.sw.path() : text.substr(1, text.size() - 2));
   }
   rapidjson::Document c;
   ASSERT_FALSE(c.Parse(json.c_str(), json.size()).HasParseError()) << json;
   place(s.sw, "root/", at(c, "root"));
   place(s.sw, "", at(c, "files"));
   for (auto const &[file, t] : at(c, "toggles").GetObject()) s.toggles.file(str(file), serialized(t));
   for (auto const &[name, v] : at(c, "commands").GetObject()) command(s.sw, str(name), v);
   Strings args{"--format", "json", "--trace", "2,7"};
   if (c.HasMember("state")) {
      String const st = c["state"].IsString() ? str(c["state"]) : R"({"entities": )" + serialized(c["state"]) + "}";
      args.insert(args.end(), {"--state", s.sw.file("state.json", st)});
   }
   if (c.HasMember("script")) args.insert(args.end(), {"--script", s.sw.file("script", str(c["script"]))});
   if (c.HasMember("args")) for (auto const &a : strs(c["args"])) args.push_back(a);
   auto const run = [&](Strings extra) {
      extra.insert(extra.begin(), args.begin(), args.end());
      return s.run(extra, {"PATH=" + s.sw.path() + "/bin"});
   };
   auto const r = run({});
   Value const &expect = at(c, "expect");
   EXPECT_EQ(r.exitCode, expect.HasMember("exit") ? expect["exit"].GetInt() : 0) << r.err;
   std::size_t const start = r.out.starts_with("{\n") ? 0 : std::min(r.out.find("\n{\n"), r.out.size() - 1) + 1;
   rapidjson::Document report;
   report.Parse(r.out.c_str() + start);
   for (auto const &[key, want] : expect.GetObject()) {
      String const k = str(key);
      SCOPED_TRACE(k);
      if (k == "exits") {
         for (auto const &[extra, code] : want.GetObject()) {
            EXPECT_EQ(run(split(str(extra), ' ')).exitCode, code.GetInt()) << str(extra);
         }
      } else if (k == "err") {
         for (auto const &f : strs(want)) EXPECT_NE(r.err.find(f), String::npos) << f << "\nin\n" << r.err;
      } else if (k == "calls") {
         for (auto const &[name, calls] : want.GetObject()) {
            EXPECT_EQ(split(slurp(s.sw.path() + "/calls-" + str(name)), '\n'), strs(calls)) << str(name);
         }
      } else if (k == "lines") {
         Strings const got = split(r.out.substr(0, start), '\n');
         ASSERT_EQ(got.size(), want.Size()) << r.out;
         for (unsigned i = 0; i < got.size(); ++i) {
            if (!want[i].IsString()) expectSubset(want[i], parseJson(got[i]), "line", -1);
            else EXPECT_EQ(got[i], str(want[i]));
         }
      } else if (k != "exit" && (!report.IsObject() || !report.HasMember(key))) {
         ADD_FAILURE() << "no " << k << " in\n" << r.out << r.err;
      } else if (k == "trace") {
         auto got = traces(report["trace"], str(want["machine"]));
         for (auto const &[level, texts] : want.GetObject()) {
            if (str(level) != "machine") {
               EXPECT_EQ(got[str(level)], strs(texts)) << "level " << str(level);
            }
         }
      } else if (k == "diagnostics") {
         for (auto const &[prefix, starts] : want.GetObject()) {
            Strings got;
            for (auto const &d : report["diagnostics"].GetArray()) {
               got.push_back(str(d["entity"]) + " " + str(d["attribute"]) + ": " + str(d["reason"]) + " [" +
                             str(d["hint"]) + "]");
               if (!got.back().starts_with(str(prefix))) got.pop_back();
            }
            EXPECT_EQ(got.size(), starts.Size()) << testing::PrintToString(got);
            for (unsigned i = 0; i < std::min<std::size_t>(got.size(), starts.Size()); ++i) {
               EXPECT_TRUE(got[i].starts_with(str(prefix) + str(starts[i]))) << got[i];
            }
         }
      } else if (k != "exit") {
         expectSubset(want, report[key], k);
      }
   }
}

INSTANTIATE_TEST_SUITE_P(Cases, Host, testing::ValuesIn(cases()), [](auto const &info) { return info.param.first; });

}  // namespace
