#pragma once

#include <optional>

#include "attest/QuoteChecks.h"

// An AttestResponse in protobuf's JSON mapping: what --save writes and
// --response reads (either field-name style; bytes in base64).
namespace SentrelAttest {

// Fills `response` from `json`; why not, otherwise. Unknown fields are an error.
std::optional<String> responseFromJson(String const &json, AttestResponse &response);

// The response with the proto's own field names, one field a line; none
// when protobuf cannot write it (a string field that is not UTF-8).
std::optional<String> responseToJson(AttestResponse const &response);

}  // namespace SentrelAttest
