// Replays a fuzz corpus (files or folders given on the command line) through
// LLVMFuzzerTestOneInput without libFuzzer, so `make test` runs every corpus.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static int RunFile(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return 1;
}

int main(int argc, char** argv) {
  int n = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path p(argv[i]);
    if (std::filesystem::is_directory(p)) {
      for (auto& e : std::filesystem::recursive_directory_iterator(p))
        if (e.is_regular_file()) n += RunFile(e.path());
    } else if (std::filesystem::exists(p)) {
      n += RunFile(p);
    }
  }
  std::printf("replayed %d inputs without a crash\n", n);
  return 0;
}
