// A host that loads the agent beside it with dlopen, as sentrel does, runs it
// and prints the size of what it read. Exit 0 only when lscpu printed something.
#include <cstdio>
#include <dlfcn.h>
#include <string>

int main(int, char **argv) {
   std::string path = argv[0];
   path = path.substr(0, path.rfind('/') + 1) + FLOOR_AGENT;
   void *agent = dlopen(path.c_str(), RTLD_NOW);
   if (agent == nullptr) return 2;
   auto run = reinterpret_cast<std::size_t (*)()>(dlsym(agent, "_Z10floorAgentv"));
   if (run == nullptr) return 2;
   std::size_t const size = run();
   std::printf("%zu\n", size);
   return size > 0 ? 0 : 1;
}
