// Replays fuzz inputs without libFuzzer: runs LLVMFuzzerTestOneInput once over every regular file
// of the directories (or files) named on the command line, in name order, so that a corpus runs
// as an ordinary test in every build, gcc and the sanitizer builds included. A broken invariant
// aborts inside the target; this program then dies with it and the test fails.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

std::vector<std::filesystem::path> inputs_of(const std::filesystem::path& arg) {
  std::vector<std::filesystem::path> files;
  if (std::filesystem::is_directory(arg)) {
    for (const auto& entry : std::filesystem::directory_iterator(arg)) {
      if (entry.is_regular_file()) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
  } else {
    files.push_back(arg);
  }
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <corpus dir or file>...\n", argv[0]);
    return 2;
  }
  size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::exists(argv[i])) {
      std::fprintf(stderr, "no such corpus: %s\n", argv[i]);
      return 2;
    }
    for (const auto& file : inputs_of(argv[i])) {
      std::ifstream in(file, std::ios::binary);
      const std::string bytes((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
      std::fprintf(stderr, "replaying %s (%zu bytes)\n", file.c_str(), bytes.size());
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      ++replayed;
    }
  }
  std::fprintf(stderr, "replayed %zu inputs\n", replayed);
  // An empty corpus would make the test pass without testing anything.
  return replayed > 0 ? 0 : 1;
}
