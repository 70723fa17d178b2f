// Programs that turn documents into text, and what becomes of those that misbehave.
#include "extract/formats/helper_program.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>

#include "archives.h"
#include "extract/budget.h"
#include "extract/descriptor.h"
#include "extract/formats/zip_members.h"
#include "extract/helper_starter.h"

namespace {

using namespace tool;

// A document that only has limits.
class LimitedDocument final : public Document {
 public:
  explicit LimitedDocument(const Limits& limits) : budget_(limits) {}

  void text(std::string_view) override {}
  void encodedText(std::string_view, std::string_view) override {}
  void member(std::string_view, std::string_view, std::string_view) override {}
  void lostMember(std::string_view, Reason, const std::string&) override {}
  void expectMember(uint64_t bytes, uint64_t compressed) const override {
    budget_.checkExpansion(bytes, compressed);
  }
  void countExpanded(uint64_t bytes) override { budget_.countExpanded(bytes); }
  uint64_t memberRoom() const override { return budget_.memberRoom(); }
  std::string_view baseName() const override { return "document"; }
  std::string_view charset() const override { return ""; }
  const Limits& limits() const override { return budget_.limits(); }
  void checkTime() const override { budget_.checkTime(); }
  unsigned secondsLeft() const override { return budget_.secondsLeft(); }

 private:
  Budget budget_;
};

HelperResult run(const std::vector<std::string>& command, const std::string& input = "",
                 const Limits& limits = {}) {
  return runHelper(command, input, LimitedDocument(limits));
}

template <typename Call>
Reason reasonOf(const Call& call) {
  try {
    call();
  } catch (const NotInspected& failure) {
    return failure.reason;
  }
  return Reason::kNone;
}

TEST(HelperProgram, GetsNoCopyThatIsLargerThanTheMemory) {
  Limits limits;
  limits.memory_bytes = 1000;
  EXPECT_EQ(Reason::kMemoryLimit, reasonOf([&] { run({"cat"}, std::string(1001, 'x'), limits); }));
  EXPECT_EQ(Reason::kNone, reasonOf([&] { run({"cat"}, std::string(1000, 'x'), limits); }));
}

TEST(HelperProgram, GetsTheDocumentOnItsStandardInput) {
  EXPECT_EQ("text", run({"cat"}, "text").output);
}

TEST(HelperProgram, MayOpenTheDocumentByName) {
  const std::string large(3 << 20, 'x');
  EXPECT_TRUE(large == run({"cat", kHelperInput}, large).output);
}

TEST(HelperProgram, TellsHowItEndedAndWhatItComplainedAbout) {
  const HelperResult result = run({"sh", "-c", "echo out; echo err >&2; exit 3"});
  EXPECT_EQ(3, result.exit_status);
  EXPECT_EQ("out\n", result.output);
  EXPECT_EQ("err\n", result.errors);
  EXPECT_EQ(128 + 9, run({"sh", "-c", "kill -9 $$"}).exit_status);
}

TEST(HelperProgram, MayComplainAtLength) {
  const HelperResult result = run({"sh", "-c", "head -c 1000000 /dev/zero >&2; echo out"});
  EXPECT_EQ("out\n", result.output);
  EXPECT_EQ(4096u, result.errors.size());
}

TEST(HelperProgram, ThatFindsNoMemoryIsToldFromOneThatFails) {
  const auto lacksMemory = [](const std::string& script) {
    return ranOutOfMemory(run({"sh", "-c", script}));
  };
  EXPECT_TRUE(lacksMemory("echo Out of memory >&2; kill -ABRT $$"));
  EXPECT_TRUE(lacksMemory("echo \"what():  std::bad_alloc\" >&2; kill -ABRT $$"));
  EXPECT_TRUE(lacksMemory("echo 'Out of memory!' >&2; exit 1"));
  EXPECT_FALSE(lacksMemory("echo Bogus memory allocation size >&2; kill -ABRT $$"));
  EXPECT_FALSE(lacksMemory("kill -ABRT $$"));
  EXPECT_FALSE(lacksMemory("echo Out of memory >&2"));
}

TEST(HelperProgram, ThatIsMissingIsAVerdict) {
  EXPECT_EQ(Reason::kUnsupported, reasonOf([] { run({"no-such-program"}); }));
}

// --- when the user may have no more processes ---

void setProcesses(rlim_t count) {
  rlimit processes;
  getrlimit(RLIMIT_NPROC, &processes);
  processes.rlim_cur = count;
  setrlimit(RLIMIT_NPROC, &processes);
}

// In a starter of its own. Nobody else is this user, and root is not bound.
void haveNoProcesses() {
  constexpr uid_t kUser = 0x70000001;
  if (setresuid(kUser, kUser, kUser) != 0) errno = 0;
  setProcesses(0);
}

TEST(HelperProgramDeathTest, WithoutAProcessIsAVerdictOfItsOwn) {
  const auto start = [] {
    startHelperStarter({haveNoProcesses, {}});
    _exit(static_cast<int>(reasonOf([] { run({"true"}); })));
  };
  EXPECT_EXIT(start(), testing::ExitedWithCode(static_cast<int>(Reason::kProcessLimit)), "");
}

TEST(HelperProgramDeathTest, WaitsForAProcess) {
  const auto start = [] {
    startHelperStarter({[] {
                          haveNoProcesses();
                          std::signal(SIGALRM, [](int) { setProcesses(100); });
                          ualarm(300'000, 0);
                        },
                        {}});
    const auto begun = std::chrono::steady_clock::now();
    const int status = run({"sh", "-c", "exit 7"}).exit_status;
    const auto waited = std::chrono::steady_clock::now() - begun;
    _exit(waited > std::chrono::milliseconds(100) ? status : 1);
  };
  EXPECT_EXIT(start(), testing::ExitedWithCode(7), "");
}

TEST(HelperProgram, ThatWritesWithoutEndIsStopped) {
  Limits limits;
  limits.total_bytes = 100'000;
  EXPECT_EQ(Reason::kSizeLimit, reasonOf([&] { run({"yes"}, "", limits); }));
  EXPECT_EQ(Reason::kNone, reasonOf([&] {
              run({"head", "-c", "100000", "/dev/zero"}, "", limits);
            }));
}

TEST(HelperProgram, ThatHangsIsStopped) {
  Limits limits;
  limits.seconds = 1;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Reason::kTimeLimit, reasonOf([&] { run({"sleep", "100"}, "", limits); }));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(HelperProgram, InheritsNothingElse) {
  const Descriptor inherited(dup(0));                              // not close-on-exec
  EXPECT_EQ("0\n1\n2\n3\n", run({"ls", "/proc/self/fd"}).output);  // the last is the directory
}

// --- the members of a zip by name ---

TEST(ZipMembers, AreReadInAnyOrder) {
  const std::string zip = archives::zip({{"a", "1"}, {"d/", "", AE_IFDIR}, {"b", "2"}, {"a", "3"}});
  LimitedDocument document({});
  ZipMembers members(zip, document);
  EXPECT_EQ((std::vector<std::string>{"a", "b", "a"}), members.names());
  EXPECT_EQ("3", members.read(2));
  EXPECT_EQ("2", members.read("b"));
  EXPECT_EQ("1", members.read("a"));
  EXPECT_EQ("1", members.read(0));
  EXPECT_FALSE(members.read("c").has_value());
  EXPECT_FALSE(members.find("d/").has_value());
}

TEST(ZipMembers, AreHeldToTheLimits) {
  const std::string zip =
      archives::zip({{"a", std::string(600, 'a')}, {"b", std::string(600, 'b')}});
  Limits limits;
  limits.total_bytes = 1000;
  LimitedDocument document(limits);
  ZipMembers members(zip, document);
  EXPECT_EQ(600u, members.read(0).size());
  EXPECT_EQ(Reason::kSizeLimit, reasonOf([&] { members.read(1); }));
  limits.members = 1;
  LimitedDocument small(limits);
  EXPECT_EQ(Reason::kMemberLimit, reasonOf([&] { ZipMembers(zip, small); }));
}

TEST(ZipMembers, OfDamagedOrEncryptedArchivesAreVerdicts) {
  LimitedDocument document({});
  EXPECT_EQ(Reason::kDamaged, reasonOf([&] { ZipMembers("no zip at all", document); }));
  const std::string zip = archives::zip({{"a", "1"}}, "zip:encryption=aes256");
  ZipMembers members(zip, document);
  EXPECT_EQ(Reason::kEncrypted, reasonOf([&] { members.read(0); }));
}

}  // namespace
