// Runs a fuzzer over its corpus, and over mutations of it that are the same every time.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

constexpr int mutationsPerFile = 3000;

void run(const std::string& text) {
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

std::string mutated(const std::vector<std::string>& corpus, std::string text, std::mt19937& random) {
  for (unsigned change = 1 + random() % 4; change > 0; --change) {
    const std::size_t at = text.empty() ? 0 : random() % text.size();
    switch (random() % 5) {
      case 0:
        text.insert(at, 1, static_cast<char>(random()));
        break;
      case 1:
        text.erase(at, 1 + random() % 8);
        break;
      case 2:
        if (!text.empty()) {
          text[at] = static_cast<char>(random());
        }
        break;
      case 3:
        text.insert(at, text.substr(0, std::min<std::size_t>(text.size(), random() % 64)));
        break;
      default: {
        const std::string& other = corpus[random() % corpus.size()];
        text = text.substr(0, at) + other.substr(other.empty() ? 0 : random() % other.size());
        break;
      }
    }
  }
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "one argument: the folder of the corpus\n");
    return 2;
  }
  std::vector<std::string> names;
  for (const auto& file : std::filesystem::directory_iterator(argv[1])) {
    names.push_back(file.path().string());
  }
  std::sort(names.begin(), names.end());
  std::vector<std::string> corpus;
  for (const std::string& name : names) {
    std::ifstream in(name, std::ios::binary);
    corpus.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  if (corpus.empty()) {
    std::fprintf(stderr, "%s: no corpus\n", argv[1]);
    return 1;
  }
  std::mt19937 random(1);
  std::size_t inputs = 0;
  for (const std::string& text : corpus) {
    run(text);
    ++inputs;
    for (int count = 0; count < mutationsPerFile; ++count, ++inputs) {
      run(mutated(corpus, text, random));
    }
  }
  std::printf("%zu inputs from %zu files\n", inputs, corpus.size());
  return 0;
}
