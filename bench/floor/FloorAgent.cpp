// An agent that only asks its framework for lscpu's output.
#include <string>

std::string floorRun(char const *command);

__attribute__((visibility("default"))) std::size_t floorAgent() { return floorRun("lscpu").size(); }
