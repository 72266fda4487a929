// Plays the files of a folder to a fuzzer, once each: what a fuzzer has found must stay
// mended, with any compiler and without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int count, char** arguments) {
  if (count != 2) return 2;
  int played = 0;
  for (const auto& file : std::filesystem::directory_iterator(arguments[1])) {
    std::ifstream input(file.path(), std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(input), {}};
    std::vector<std::uint8_t> data(bytes.begin(), bytes.end());
    (void)LLVMFuzzerTestOneInput(data.data(), data.size());
    ++played;
  }
  std::printf("%d inputs\n", played);
  return played > 0 ? 0 : 1;
}
