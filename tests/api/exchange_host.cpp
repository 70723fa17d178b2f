// A host for the exchange between platforms: exchange_host SEED STEP... does
// steps of scenario.h in the current directory.
//
//   generate  prints the signature lists, "generate NAME HEX" a line
//   create    makes the index
//   grow      opens it for one more session
//   match     prints the answers, "match ANSWER" a line
//
// exchange.py builds a story from these steps and compares what they leave.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "scenario.h"

namespace {

std::string hex(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
    text += digits;
  }
  return text;
}

int run(const std::string& step, uint64_t seed) {
  if (step == "generate") {
    for (const auto& [name, list] : scenario::signatureLists(seed)) {
      std::printf("generate %s %s\n", name.c_str(), hex(list).c_str());
    }
  } else if (step == "create") {
    scenario::createIndex(seed);
  } else if (step == "grow") {
    scenario::growIndex(seed);
  } else if (step == "match") {
    for (const std::string& answer : scenario::matchIndex(seed)) {
      std::printf("match %s\n", answer.c_str());
    }
  } else {
    std::fprintf(stderr, "unknown step %s\n", step.c_str());
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: exchange_host SEED generate|create|grow|match...\n");
    return 2;
  }
  try {
    int status = 0;
    for (int i = 2; i < argc && status == 0; ++i) {
      status = run(argv[i], std::strtoull(argv[1], nullptr, 0));
    }
    return status;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "exchange_host: %s\n", failure.what());
    return 1;
  }
}
