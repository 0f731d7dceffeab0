#include "attest/ResponseJson.h"

#include <google/protobuf/util/json_util.h>

namespace SentrelAttest {

std::optional<String> responseFromJson(String const &json, AttestResponse &response) {
   google::protobuf::util::JsonParseOptions options;
   options.ignore_unknown_fields = false;
   auto const status = google::protobuf::util::JsonStringToMessage(json, &response, options);
   if (status.ok()) return std::nullopt;
   // Its first line: the rest echoes the input.
   String const message(status.message());
   return "not an AttestResponse in protobuf's JSON mapping: " + message.substr(0, message.find('\n'));
}

std::optional<String> responseToJson(AttestResponse const &response) {
   google::protobuf::util::JsonPrintOptions options;
   options.add_whitespace = true;
   options.preserve_proto_field_names = true;
   String json;
   if (!google::protobuf::util::MessageToJsonString(response, &json, options).ok()) return std::nullopt;
   return json;
}

}  // namespace SentrelAttest
