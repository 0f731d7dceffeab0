#pragma once

#include <chrono>

#include "host/Options.h"

namespace SentrelHost {

// What a run is asked to do: the command line with the environment it
// falls back on, checked as a whole before anything is loaded.
struct Configuration {
   Options options;
   unsigned traceLevels = 0;  // of the facility Sentrel
   std::chrono::duration<double> commandTimeout{10};
};

// Reads the environment variables behind the options and checks both;
// throws UsageError naming the option or variable and what is wrong.
Configuration configure(Options options);

}  // namespace SentrelHost
