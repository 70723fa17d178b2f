#include "temp_dir.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <random>

namespace fs = std::filesystem;

TempDir::TempDir() : previous_(fs::current_path()) {
  std::random_device random;
  do {
    path_ = fs::temp_directory_path() / ("tessera_test_" + std::to_string(random()));
  } while (!fs::create_directory(path_));
  fs::current_path(path_);
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::current_path(previous_, ignored);
  fs::remove_all(path_, ignored);
}

void TempDir::write(const std::string& name, const std::string& content) const {
  std::ofstream file(path_ / name, std::ios::binary | std::ios::trunc);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  file.close();
  ASSERT_TRUE(file.good()) << name;
}

std::string TempDir::read(const std::string& name) const {
  std::ifstream file(path_ / name, std::ios::binary);
  EXPECT_TRUE(file.good()) << name << " cannot be read";
  return std::string(std::istreambuf_iterator<char>(file), {});
}

bool TempDir::exists(const std::string& name) const { return fs::exists(path_ / name); }

void TempDir::makeDirectory(const std::string& name) const { fs::create_directory(path_ / name); }
