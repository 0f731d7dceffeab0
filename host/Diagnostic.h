#pragma once

#include "Sentrel/platform/String.h"

namespace SentrelHost {

using Loom::String;

// Why a fact is unknown: something could not be read. An empty attribute
// stands for the whole entity, which is absent.
struct Diagnostic {
   String entity;
   String attribute;
   String reason;
   String hint;
};

}  // namespace SentrelHost
