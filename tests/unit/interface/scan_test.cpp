// The scanner of tessera_scan.h beside the list that the generator makes of a text.
#include "tessera_scan.h"

#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>
#include <thread>

#include "documents.h"
#include "fail_point.h"
#include "temp_dir.h"
#include "tessera.h"

namespace {

using Bytes = std::array<unsigned char, 8>;

Bytes bytesOf(const unsigned char (&signature)[8]) {
  Bytes bytes;
  std::copy_n(signature, 8, bytes.begin());
  return bytes;
}

int collect(const tessera_window* window, void* context) {
  static_cast<std::multiset<Bytes>*>(context)->insert(bytesOf(window->signature));
  return 0;
}

std::multiset<Bytes> scan(const std::string& text) {
  std::multiset<Bytes> found;
  EXPECT_EQ(TESSERA_SCAN_DONE, tessera_scan_text(text.data(), text.size(), collect, &found));
  return found;
}

std::set<Bytes> listOf(std::string text) {
  unsigned char(*list)[8] = nullptr;
  int count = 0;
  EXPECT_EQ(0, GenerateSignature4Text(text.data(), static_cast<int>(text.size()), &list, &count));
  std::set<Bytes> signatures;
  for (int i = 0; i < count; ++i) signatures.insert(bytesOf(list[i]));
  FreeSignature(list);
  return signatures;
}

TEST(ScanText, FindsTheSignaturesOfTheClientsList) {
  TempDir dir;
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
  for (const size_t length : {0, 60, 61, 100, 5000, 300000}) {
    const std::string text = documents::words(length, 11);
    const std::multiset<Bytes> found = scan(text);
    EXPECT_EQ(listOf(text), std::set<Bytes>(found.begin(), found.end())) << length;
    EXPECT_GE(found.size(), length / 300) << length;
  }
  EXPECT_EQ(0, ExitSignatureGenerator());
}

// The place of a window is a passage that has, all by itself, its signature.
TEST(ScanText, APassageAloneBearsTheSignatureOfItsWindow) {
  TempDir dir;
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
  const std::string text = documents::words(20000, 12);
  std::vector<tessera_window> windows;
  const auto keep = [](const tessera_window* window, void* context) {
    static_cast<std::vector<tessera_window>*>(context)->push_back(*window);
    return 0;
  };
  ASSERT_EQ(TESSERA_SCAN_DONE, tessera_scan_text(text.data(), text.size(), keep, &windows));
  ASSERT_GT(windows.size(), 50u);
  for (const tessera_window& window : windows) {
    EXPECT_EQ(std::set<Bytes>{bytesOf(window.signature)},
              listOf(text.substr(window.begin, window.end - window.begin)));
  }
  EXPECT_EQ(0, ExitSignatureGenerator());
}

// Nothing that a generator sets up or takes down is looked at.
TEST(ScanText, RunsBesideAGeneratorThatComesAndGoes) {
  TempDir dir;
  const std::string text = documents::words(50000, 13);
  const std::multiset<Bytes> expected = scan(text);
  std::thread scanner([&] {
    for (int i = 0; i < 20; ++i) EXPECT_EQ(expected, scan(text));
  });
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
    EXPECT_EQ(0, ExitSignatureGenerator());
  }
  scanner.join();
}

TEST(ScanText, TellsWhyItEnded) {
  std::multiset<Bytes> found;
  EXPECT_EQ(TESSERA_SCAN_DONE, tessera_scan_text(nullptr, 0, collect, &found));
  EXPECT_EQ(TESSERA_SCAN_FAILED, tessera_scan_text(nullptr, 1, collect, &found));
  EXPECT_EQ(TESSERA_SCAN_FAILED, tessera_scan_text("", 0, nullptr, &found));
  const std::string text(100, '\x89');
  const auto stop = [](const tessera_window*, void*) { return 1; };
  EXPECT_EQ(TESSERA_SCAN_STOPPED, tessera_scan_text(text.data(), text.size(), stop, nullptr));
  FailPoint point;
  point.fail(Call::kAllocate, 1);
  EXPECT_EQ(TESSERA_SCAN_FAILED, tessera_scan_text(text.data(), text.size(), collect, &found));
  EXPECT_TRUE(found.empty());
}

}  // namespace
