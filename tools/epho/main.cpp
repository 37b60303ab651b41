// epho: the command-line face of the library. Each command lives in its own
// source file and registers itself (registry.h); Main parses and dispatches.
#include "registry.h"

int main(int argc, char** argv) { return epho_tool::Main(argc, argv); }
