// Signature generation against its twin, which hashes every window afresh: equal
// lists on both platforms, with both hashes, for texts and for binary contents.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "fpeSigGenTable.h"
#include "fpeSignatureGenerator.h"
#include "generator_twin.h"
#include "harness.h"
#include "input.h"
#include "scoped.h"
#include "text_kernel.h"
#include "text_signatures.h"

namespace {

constexpr size_t kLongestText = 12288;  // a client's list is full from about 10100 on

// Some 137 windows make one signature, and pieces are 1024 windows long: an input
// that is the text itself has few of either. So it may also tell how to make one.
std::string madeText(Input* input) {
  const uint32_t kind = input->below(4);
  std::string text;
  if (kind == 0) return input->rest();
  const size_t length = input->number<uint16_t>() % kLongestText;
  if (kind == 1) {  // one byte again and again: no window is selected, or every one
    text.assign(length, static_cast<char>(input->byte()));
  } else if (kind == 2) {  // letters
    uint32_t state = input->number<uint32_t>();
    for (size_t i = 0; i < length; ++i) {
      state = state * 1664525 + 1013904223;
      text += static_cast<char>('a' + (state >> 24) % 26);
    }
  } else {  // a passage again and again
    const std::string passage = input->bytes(1 + input->below(200));
    while (text.size() < length && !passage.empty()) text += passage;
  }
  // Changes at some places.
  while (!input->empty() && !text.empty()) {
    const size_t at = input->number<uint16_t>() % text.size();
    const std::string patch = input->bytes(1 + input->below(16));
    text.replace(at, patch.size(), patch);
  }
  return text;
}

// With a sink attached, as here, the library goes window by window; so the kernels are
// called by themselves.
void checkKernels(bool is_server, const char* content, int length, const twin::List& expected,
                  int expected_length) {
  for (const TextKernel* const kernel : supportedKernels()) {
    Signature* list = nullptr;
    int count = -1;
    int normalized_length = 0;
    FUZZ_EQUAL(0, signText(*kernel, is_server ? kServer : kClient,
                           reinterpret_cast<const unsigned char*>(content), length, &list, &count,
                           &normalized_length));
    const MallocArray<Signature> owner(list);
    FUZZ_EQUAL(expected.size(), count);
    FUZZ_CHECK((list == nullptr) == (count == 0));
    for (size_t i = 0; i < expected.size(); ++i) {
      FUZZ_EQUAL(0, std::memcmp(expected[i].data(), list[i].bytes, 8));
    }
    FUZZ_EQUAL(expected_length, normalized_length);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static constexpr int kMaxima[] = {1 << 20, 1024, 61, 60, 1, 1084, 2048, 5000};
  fuzz::freshSystem();
  Input input(data, size);
  const uint8_t choice = input.byte();
  const bool is_server = (choice & 1) != 0;
  const bool is_binary = (choice & 6) == 6;
  const auto family = (choice & 8) != 0 ? twin::Family::kAdler : twin::Family::kKarpRabin;
  const int maximum = kMaxima[choice >> 4 & 7];
  const std::string text = madeText(&input);
  // Of exactly this size, so that a byte too many is seen.
  const std::unique_ptr<char[]> content(new char[text.size()]);
  std::memcpy(content.get(), text.data(), text.size());
  const int length = static_cast<int>(text.size());

  FUZZ_EQUAL(0, initTextSignaturer(is_server ? kServer : kClient, 3));
  setMaxContentSize(maximum);
  Signature* list = nullptr;
  int count = -1;
  int normalized_length = -1;
  const int type = is_binary ? kBinaryContent : kTextContent;
  const auto generate =
      family == twin::Family::kAdler ? generateVornetSignature_Adler : generateVornetSignature_KR;
  FUZZ_EQUAL(0, generate(content.get(), length, &list, &count, type, &normalized_length));
  const MallocArray<Signature> owner(list);

  const auto bound = static_cast<size_t>(maximum);
  twin::List expected;
  int expected_length = 0;
  if (is_binary && length > 0) {
    expected = twin::binary(text);
  } else if (length > 0) {
    expected = is_server ? twin::server(family, text, bound) : twin::client(family, text, bound);
    if (length >= 61) expected_length = static_cast<int>(twin::normalised(text, bound).size());
  }
  FUZZ_EQUAL(expected.size(), count);
  FUZZ_CHECK((list == nullptr) == (count == 0));
  for (size_t i = 0; i < expected.size(); ++i) {
    FUZZ_EQUAL(0, std::memcmp(expected[i].data(), list[i].bytes, 8));
  }
  FUZZ_EQUAL(expected_length, normalized_length);
  if (!is_binary && family == twin::Family::kKarpRabin) {
    checkKernels(is_server, content.get(), length, expected, expected_length);
  }
  FUZZ_CHECK(std::memcmp(content.get(), text.data(), text.size()) == 0);
  releaseTextSignaturer();
  return 0;
}
