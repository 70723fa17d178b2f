// The command's side of the extractors: real ones, and ones that misbehave.
#include "inspect/inspector.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "extract/descriptor.h"
#include "temp_dir.h"

namespace {

using namespace tool;

class InspectorTest : public testing::Test {
 protected:
  std::vector<Part> inspect(Inspector* inspector, const std::string& content,
                            const std::string& name = "document") {
    dir_.write(name, content);
    const Descriptor file(open(dir_.path(name).c_str(), O_RDONLY | O_CLOEXEC));
    std::vector<Part> parts;
    inspector->inspect(file.get(), name, [&](Part&& part) { parts.push_back(std::move(part)); });
    return parts;
  }

  TempDir dir_;
};

TEST_F(InspectorTest, ATextComesBackAsText) {
  Inspector inspector({});
  const auto parts = inspect(&inspector, "The quick brown fox.\n");
  ASSERT_EQ(1u, parts.size());
  EXPECT_EQ("The quick brown fox.\n", parts[0].content);
  EXPECT_EQ(Form::kText, parts[0].form);
  EXPECT_EQ("text/plain", parts[0].type);
  EXPECT_EQ(21u, parts[0].size);
  EXPECT_EQ(Reason::kNone, parts[0].reason);
}

}  // namespace
