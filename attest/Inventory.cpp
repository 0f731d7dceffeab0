#include "attest/Inventory.h"

#include <filesystem>
#include <set>

#include "attest/VerifyOptions.h"
#include "host/JsonTree.h"
#include "host/UsageError.h"

namespace SentrelAttest {

using SentrelHost::JsonNode;
using SentrelHost::UsageError;

namespace {

UsageError at(String const &file, std::size_t offset, String const &problem) {
   return UsageError(file + ": byte " + std::to_string(offset) + ": " + problem);
}

class Reader {
 public:
   Reader(String const &path) : path_(path), dir_(std::filesystem::absolute(path).parent_path().string()) {}

   Inventory read(JsonNode const &doc) {
      Inventory inv;
      expect(doc, JsonNode::Object, "an object with \"switches\" and \"models\"");
      JsonNode const *switches = nullptr;
      for (auto const &[key, value] : doc.members) {
         if (key.text == "models") {
            expect(value, JsonNode::Object, "an object of models");
            for (auto const &[model, m] : value.members) readModel(inv, model, m);
         } else if (key.text == "switches") {
            expect(value, JsonNode::Array, "an array of switches");
            switches = &value;
         } else {
            throw at(path_, key.offset, "unknown member \"" + key.text + "\"");
         }
      }
      if (!switches) throw at(path_, doc.offset, "no \"switches\"");
      std::set<String> names;
      for (auto const &s : switches->items) {
         inv.switches.push_back(readSwitch(s));
         auto const &sw = inv.switches.back();
         if (!names.insert(sw.name).second) throw at(path_, s.offset, "switch \"" + sw.name + "\" is listed twice");
         if (sw.model && !inv.modelBaseline.count(*sw.model)) {
            throw at(path_, s.offset, "switch \"" + sw.name + "\" is of model \"" + *sw.model + "\", not in \"models\"");
         }
      }
      return inv;
   }

 private:
   void expect(JsonNode const &n, JsonNode::Type type, char const *what) const {
      if (n.type != type) throw at(path_, n.offset, String("expected ") + what + ", not " + n.typeName());
   }
   String text(JsonNode const &n, String const &member) const {
      if (n.type != JsonNode::Str || n.text.empty()) {
         throw at(path_, n.offset, member + ": expected a string that is not empty, not " + n.typeName());
      }
      return n.text;
   }
   String file(JsonNode const &n, String const &member) const {
      String f = text(n, member);
      return f.front() == '/' ? f : dir_ + "/" + f;
   }

   void readModel(Inventory &inv, JsonNode const &name, JsonNode const &m) {
      expect(m, JsonNode::Object, "an object of the model's files");
      std::optional<String> baseline;
      for (auto const &[key, value] : m.members) {
         if (key.text != "baseline") throw at(path_, key.offset, "unknown member \"" + key.text + "\" of a model");
         baseline = file(value, "baseline");
      }
      inv.modelBaseline[name.text] = baseline;
   }

   InventorySwitch readSwitch(JsonNode const &s) {
      expect(s, JsonNode::Object, "an object for a switch");
      InventorySwitch sw{{}, {}, {}, {}, {}, s.offset};
      for (auto const &[key, value] : s.members) {
         if (key.text == "name") {
            sw.name = text(value, "name");
            if (!isSwitchName(sw.name)) {
               throw at(path_, value.offset,
                        "name \"" + sw.name + "\" is not letters, digits, '.', '_', '-' and ':' only");
            }
         } else if (key.text == "address") {
            sw.address = text(value, "address");
            if (!splitAddress(sw.address)) throw at(path_, value.offset, "address \"" + sw.address + "\" is not HOST:PORT");
         } else if (key.text == "model") {
            sw.model = text(value, "model");
         } else if (key.text == "ak") {
            sw.akFile = file(value, "ak");
         } else if (key.text == "akPem") {
            sw.akPem = text(value, "akPem");
         } else {
            throw at(path_, key.offset, "unknown member \"" + key.text + "\" of a switch");
         }
      }
      if (sw.name.empty()) throw at(path_, s.offset, "a switch without a \"name\"");
      if (sw.address.empty()) throw at(path_, s.offset, "switch \"" + sw.name + "\" has no \"address\"");
      if (sw.akFile && sw.akPem) throw at(path_, s.offset, "switch \"" + sw.name + "\" has both \"ak\" and \"akPem\"");
      return sw;
   }

   String const &path_;
   String const dir_;
};

}  // namespace

Inventory parseInventory(String const &path, String const &text) {
   SentrelHost::JsonError err;
   auto doc = SentrelHost::parseJson(text, err);
   if (!doc) throw at(path, err.offset, err.message);
   return Reader(path).read(*doc);
}

}  // namespace SentrelAttest
