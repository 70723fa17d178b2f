// The command's side of the extractors: real ones, and ones that a document has taken
// over (hostile_extractor.cpp), which must harm neither the command nor the system.
#include "inspect/inspector.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "extract/descriptor.h"
#include "extract/protocol.h"
#include "failure.h"
#include "temp_dir.h"

namespace {

using namespace tool;

using Parts = std::vector<Part>;

size_t openDescriptors() {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/proc/self/fd"), closedir);
  size_t count = 0;
  while (readdir(directory.get())) ++count;
  return count;
}

// Processes whose parent is this one, dead or alive.
std::vector<pid_t> children() {
  std::vector<pid_t> found;
  const std::unique_ptr<DIR, int (*)(DIR*)> processes(opendir("/proc"), closedir);
  while (const dirent* entry = readdir(processes.get())) {
    std::ifstream file(std::string("/proc/") + entry->d_name + "/stat");
    std::string line;
    if (!std::getline(file, line)) continue;
    const size_t behind_name = line.rfind(')');
    if (std::stol(line.substr(behind_name + 4)) == getpid()) found.push_back(std::stoi(line));
  }
  return found;
}

// Whether a process of this name (15 characters are kept) or with this command line runs
// anywhere; one that is dead and waits for its parent does not.
bool isRunning(const std::string& program, const std::string& command) {
  const std::unique_ptr<DIR, int (*)(DIR*)> processes(opendir("/proc"), closedir);
  while (const dirent* entry = readdir(processes.get())) {
    const std::string process = std::string("/proc/") + entry->d_name;
    std::ifstream file(process + "/stat");
    std::string line;
    std::getline(file, line);
    const size_t found = line.find(std::string("(").append(program).append(") "));
    if (found != std::string::npos && line[line.rfind(')') + 2] != 'Z') return true;
    std::ifstream arguments(process + "/cmdline");
    std::string words;
    std::getline(arguments, words);
    std::replace(words.begin(), words.end(), '\0', ' ');
    if (words == command) return true;
  }
  return false;
}

// For which a helper program is needed. It has no table of its objects: that is made good.
constexpr char kPdf[] =
    "%PDF-1.4\n"
    "1 0 obj <</Type /Catalog /Pages 2 0 R>> endobj\n"
    "2 0 obj <</Type /Pages /Kids [3 0 R] /Count 1>> endobj\n"
    "3 0 obj <</Type /Page /Parent 2 0 R /MediaBox [0 0 300 300] /Contents 4 0 R\n"
    "  /Resources <</Font <</F1 5 0 R>>>>>> endobj\n"
    "4 0 obj <</Length 41>> stream\n"
    "BT /F1 24 Tf 50 100 Td (Hello world) Tj ET\n"
    "endstream endobj\n"
    "5 0 obj <</Type /Font /Subtype /Type1 /BaseFont /Helvetica>> endobj\n"
    "trailer <</Root 1 0 R>>\n"
    "%%EOF\n";

class InspectorTest : public testing::Test {
 protected:
  Parts inspect(Inspector* inspector, const std::string& content,
                const std::string& name = "document") const {
    dir_.write(name, content);
    const Descriptor file(open(dir_.path(name).c_str(), O_RDONLY | O_CLOEXEC));
    Parts parts;
    inspector->inspect(file.get(), name, [&](Part&& part) { parts.push_back(std::move(part)); });
    return parts;
  }

  TempDir dir_;
};

TEST_F(InspectorTest, ATextComesBackAsText) {
  Inspector inspector({});
  const Parts parts = inspect(&inspector, "The quick brown fox.\n");
  ASSERT_EQ(1u, parts.size());
  EXPECT_EQ("The quick brown fox.\n", parts[0].content);
  EXPECT_EQ(Form::kText, parts[0].form);
  EXPECT_EQ("text/plain", parts[0].type);
  EXPECT_EQ(21u, parts[0].size);
  EXPECT_EQ(0x3d, parts[0].sha256[0]);
  EXPECT_EQ(Reason::kNone, parts[0].reason);
}

TEST_F(InspectorTest, AnEmptyFileIsAnEmptyText) {
  Inspector inspector({});
  const Parts parts = inspect(&inspector, "");
  ASSERT_EQ(1u, parts.size());
  EXPECT_EQ("", parts[0].content);
  EXPECT_EQ(Reason::kNone, parts[0].reason);
}

TEST_F(InspectorTest, LargeContentComesWhole) {
  std::string content;
  while (content.size() < (20u << 20)) content += std::to_string(content.size()).append(" words\n");
  Inspector inspector({});
  const Parts parts = inspect(&inspector, content);
  ASSERT_EQ(1u, parts.size());
  EXPECT_TRUE(parts[0].content == content);
}

TEST_F(InspectorTest, WhatIsNoRegularFileIsUnreadable) {
  Inspector inspector({});
  const Descriptor directory(open(dir_.path().c_str(), O_RDONLY | O_CLOEXEC));
  Parts parts;
  inspector.inspect(directory.get(), "x", [&](Part&& part) { parts.push_back(std::move(part)); });
  ASSERT_EQ(1u, parts.size());
  EXPECT_EQ(Reason::kUnreadable, parts[0].reason);
}

TEST_F(InspectorTest, TheDescriptorIsReadFromItsBeginning) {
  Inspector inspector({});
  dir_.write("document", "0123456789");
  const Descriptor file(open(dir_.path("document").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(5, lseek(file.get(), 5, SEEK_SET));
  inspector.inspect(file.get(), "document",
                    [](Part&& part) { EXPECT_EQ("0123456789", part.content); });
}

TEST_F(InspectorTest, AnExtractorIsReplacedAfterItsDocuments) {
  Inspector::Settings settings;
  settings.documents_per_extractor = 2;
  Inspector inspector(settings);
  inspect(&inspector, "one");
  const auto first = children();
  ASSERT_EQ(1u, first.size());
  inspect(&inspector, "two");
  EXPECT_TRUE(children().empty());
  inspect(&inspector, "three");
  ASSERT_EQ(1u, children().size());
  EXPECT_NE(first, children());
}

TEST_F(InspectorTest, AnExtractorThatDiedIdleIsReplacedWithoutAWord) {
  Inspector inspector({});
  inspect(&inspector, "one");
  for (const pid_t child : children()) kill(child, SIGKILL);
  usleep(200'000);  // what it has started dies after it
  const Parts parts = inspect(&inspector, "two");
  ASSERT_EQ(1u, parts.size());
  EXPECT_EQ("two", parts[0].content);
}

TEST_F(InspectorTest, ManyThreadsGetTheirOwnAnswers) {
  Inspector::Settings settings;
  settings.documents_per_extractor = 7;
  Inspector inspector(settings);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([this, thread, &inspector] {
      for (int i = 0; i < 20; ++i) {
        const std::string text = std::string("document ").append(std::to_string(100 * thread + i));
        const Parts parts =
            inspect(&inspector, text, std::string("t").append(std::to_string(thread)));
        ASSERT_EQ(1u, parts.size());
        EXPECT_EQ(text, parts[0].content);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// A thread's extractors go on when it ends: others take them over.
TEST_F(InspectorTest, AnExtractorOutlivesTheThreadThatAskedForIt) {
  Inspector inspector({});
  std::thread([&] { inspect(&inspector, "one"); }).join();
  const auto before = children();
  ASSERT_EQ(1u, before.size());
  usleep(50'000);
  EXPECT_EQ("two", inspect(&inspector, "two").at(0).content);
  EXPECT_EQ(before, children());
}

TEST_F(InspectorTest, NothingIsLeftBehind) {
  const size_t before = openDescriptors();
  {
    Inspector inspector({});
    for (int i = 0; i < 5; ++i) inspect(&inspector, "text");
  }
  EXPECT_EQ(before, openDescriptors());
  EXPECT_TRUE(children().empty());
}

TEST_F(InspectorTest, WhatTheTakerThrowsComesOutAndTheNextDocumentIsFine) {
  Inspector inspector({});
  dir_.write("document", "text");
  const Descriptor file(open(dir_.path("document").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_THROW(inspector.inspect(file.get(), "document", [](Part&&) { throw Failure("full"); }),
               Failure);
  EXPECT_EQ("other", inspect(&inspector, "other").at(0).content);
}

TEST_F(InspectorTest, WithoutExtractorThereIsAMessage) {
  Inspector::Settings settings;
  settings.extractor = dir_.path("nothing");
  Inspector inspector(settings);
  try {
    inspect(&inspector, "text");
    FAIL() << "no failure";
  } catch (const Failure& failure) {
    EXPECT_NE(std::string::npos, std::string(failure.what()).find("nothing")) << failure.what();
  }
  EXPECT_THROW(inspector.confinement(), Failure);
  EXPECT_TRUE(children().empty());
}

TEST_F(InspectorTest, WhateverIsNoExtractorIsToldSo) {
  Inspector::Settings settings;
  settings.extractor = "/usr/bin/true";
  Inspector inspector(settings);
  EXPECT_THROW(inspect(&inspector, "text"), Failure);
}

TEST_F(InspectorTest, TheConfinementIsTold) {
  Inspector inspector({});
  const std::string confinement = inspector.confinement();
  EXPECT_NE(std::string::npos, confinement.find("seccomp")) << confinement;
  EXPECT_NE(std::string::npos, confinement.find("rlimits")) << confinement;
}

// --- extractors that have been taken over ---

// Started in namespaces, where the system allows them, and without.
class HostileExtractorTest : public InspectorTest, public testing::WithParamInterface<bool> {
 protected:
  HostileExtractorTest() {
    settings_.extractor = HOSTILE_EXTRACTOR;
    settings_.namespaces = GetParam();
    settings_.limits.members = 100;
  }

  Parts run(const std::string& deed) {
    Inspector inspector(settings_);
    return inspect(&inspector, "x", deed);
  }

  // What it could do.
  void expectDetail(const std::string& deed, const std::string& detail) {
    const Parts parts = run(deed);
    ASSERT_EQ(1u, parts.size()) << deed;
    EXPECT_EQ(detail, parts[0].detail) << deed;
    EXPECT_EQ(Reason::kNone, parts[0].reason) << deed;
  }

  void expectLast(const std::string& deed, Reason reason, const std::string& name = "") {
    Inspector inspector(settings_);
    const Parts parts = inspect(&inspector, "x", deed);
    ASSERT_FALSE(parts.empty()) << deed;
    EXPECT_EQ(reason, parts.back().reason) << deed << ": " << parts.back().detail;
    EXPECT_EQ(name, parts.back().name) << deed;
    EXPECT_NE("", parts.back().detail) << deed;
    EXPECT_TRUE(children().empty()) << deed;
    // The command goes on with another one.
    EXPECT_EQ(0u, inspect(&inspector, "x", "nothing").size()) << deed;
  }

  Inspector::Settings settings_;
};

INSTANTIATE_TEST_SUITE_P(Started, HostileExtractorTest, testing::Bool(), [](const auto& test) {
  return test.param ? "InNamespaces" : "WithoutNamespaces";
});

TEST_P(HostileExtractorTest, SystemCallsThatItDoesNotNeedAreRefused) {
  for (const char* deed : {"socket",        "unix-socket",    "socket-pair",
                           "create",        "write-null",     "read-write-null",
                           "truncate",      "unlink",         "rename",
                           "mkdir",         "chmod",          "mount",
                           "ptrace",        "kill",           "new-namespace",
                           "bpf",           "keyctl",         "io-uring",
                           "new-session",   "be-root",        "signal-by-descriptor",
                           "choose-signal", "outlive-parent", "sibling",
                           "fork"}) {
    expectDetail(deed, "refused");
  }
}

#ifdef __x86_64__
TEST_P(HostileExtractorTest, OtherNumbersOfSystemCallsAreRefused) {
  expectDetail("x32-call", "refused");
  expectDetail("32-bit-call", "refused");
}
#endif

TEST_P(HostileExtractorTest, ProgramsThatItStartsAreHeldLikeItself) {
  std::filesystem::remove_all("/tmp/tessera-extract-was-here");  // of a run that failed
  expectDetail("program", "refused");
  EXPECT_NE(0, access("/tmp/tessera-extract-was-here", F_OK));
}

TEST_P(HostileExtractorTest, ProgramsThatItStartsMayStartNone) {
  expectDetail("fork-in-program", "refused");
}

TEST_P(HostileExtractorTest, AForkBombIsStoppedAndGone) {
  expectDetail("fork-bomb", "stopped");
  EXPECT_TRUE(children().empty());
}

// Not even while it lives, and it may do what it likes after its document.
TEST_P(HostileExtractorTest, AForkBombTakesNoProcessFromOtherDocuments) {
  Inspector::Settings other_settings;
  other_settings.namespaces = GetParam();
  Inspector others(other_settings);
  inspect(&others, "started before the bomb");
  Inspector hostile(settings_);
  EXPECT_EQ("stopped", inspect(&hostile, "x", "fork-bomb").at(0).detail);
  const Parts parts = inspect(&others, kPdf);
  ASSERT_EQ(1u, parts.size());
  EXPECT_EQ(Reason::kNone, parts[0].reason) << parts[0].detail;
  EXPECT_NE(std::string::npos, parts[0].content.find("Hello")) << parts[0].content;
}

TEST_P(HostileExtractorTest, NonsenseForTheStarterEndsTheExtractor) {
  expectLast("talk-nonsense-to-starter", Reason::kCrashed);
}

#ifndef TESSERA_SANITIZE
TEST_P(HostileExtractorTest, MemoryIsLimited) {
  expectDetail("memory", "stopped");
  expectDetail("shared-memory", "stopped");
}

TEST_P(HostileExtractorTest, ItsEnvironmentHasNoSecrets) {
  setenv("TESSERA_TEST_SECRET", "secret", 1);
  const Parts parts = run("environment");
  ASSERT_EQ(1u, parts.size());
  EXPECT_EQ(std::string::npos, parts[0].detail.find("SECRET")) << parts[0].detail;
  EXPECT_NE(std::string::npos, parts[0].detail.find("LC_ALL=C.UTF-8")) << parts[0].detail;
}
#endif

TEST_P(HostileExtractorTest, ItInheritsNoFiles) {
  const Descriptor inherited(dup(0));  // not close-on-exec
  const Parts parts = run("descriptors");
  ASSERT_EQ(1u, parts.size());
  // Its socket, two to write to, whoever starts helper programs, and the document.
  EXPECT_EQ("0 1 2 3 4 ", parts[0].detail);
}

TEST_P(HostileExtractorTest, InNamespacesThereAreOnlyProgramsAndLibraries) {
  Inspector inspector(settings_);
  const bool confined = inspector.confinement().find("namespaces") != std::string::npos;
  EXPECT_EQ(confined ? "refused" : "allowed", inspect(&inspector, "x", "users").at(0).detail);
}

TEST_P(HostileExtractorTest, DyingIsAVerdictThatNamesTheMember) {
  expectLast("segfault", Reason::kCrashed, "inner!member");
  expectLast("exit", Reason::kCrashed, "inner");
  expectLast("no-memory", Reason::kMemoryLimit, "inner");
}

TEST_P(HostileExtractorTest, DyingBeforeAWordIsTriedAgainAndThenAFailure) {
  EXPECT_THROW(run("die-before-answer"), Failure);
  EXPECT_TRUE(children().empty());
}

TEST_P(HostileExtractorTest, AnAnswerThatMakesNoSenseIsAVerdict) {
  for (const char* deed : {"garbage", "huge-frame", "huge-content", "huge-name", "no-such-reason",
                           "content-without-part", "more-content-than-announced",
                           "empty-content-for-ever", "parts-for-ever", "half-a-frame", "bad-end"}) {
    expectLast(deed, Reason::kCrashed);
  }
}

TEST_P(HostileExtractorTest, AllPartsTogetherAreLimited) {
  settings_.limits.total_bytes = kMaximalPayload;
  expectLast("large-parts", Reason::kSizeLimit);
}

TEST_P(HostileExtractorTest, HangingIsEndedAtTheTimeLimit) {
  settings_.limits.seconds = 0;  // and the grace
  // A name of its own, by which what the extractor leaves behind is found.
  const std::string program = std::string("hang").append(std::to_string(getpid()));
  std::filesystem::copy_file(HOSTILE_EXTRACTOR, dir_.path(program));
  settings_.extractor = dir_.path(program);
  for (const char* deed : {"hang", "spin", "hang-in-program"}) {
    const auto start = std::chrono::steady_clock::now();
    expectLast(deed, Reason::kTimeLimit);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << deed;
    const auto isLeft = [&] { return isRunning(program, "sleep 86397 "); };
    for (int i = 0; i < 500 && isLeft(); ++i) usleep(10'000);
    EXPECT_FALSE(isLeft()) << deed;
  }
}

TEST_P(HostileExtractorTest, WhatItHasStartedEndsWithIt) {
  const std::string program = std::string("fork").append(std::to_string(getpid()));
  std::filesystem::copy_file(HOSTILE_EXTRACTOR, dir_.path(program));
  settings_.extractor = dir_.path(program);
  expectLast("die-but-for-a-child", Reason::kCrashed);
  usleep(100'000);
  EXPECT_FALSE(isRunning(program, "no command line"));
}

// One that fails to start in them later must not lead to extractors that are held less.
TEST_F(InspectorTest, NamespacesThatWereThereAreNotDoneWithout) {
  const std::string program = dir_.path("extractor");
  std::filesystem::create_symlink(HOSTILE_EXTRACTOR, program);
  Inspector::Settings settings;
  settings.extractor = program;
  settings.documents_per_extractor = 1;
  Inspector inspector(settings);
  if (inspector.confinement().find("namespaces") == std::string::npos) GTEST_SKIP();
  // Nothing of this directory is seen inside.
  std::filesystem::remove(program);
  dir_.write("extractor", "#!/bin/sh\n[ -e " + program + " ] && exec " HOSTILE_EXTRACTOR "\n");
  std::filesystem::permissions(program, std::filesystem::perms::owner_all);
  inspect(&inspector, "x", "nothing");  // by the one that runs already
  EXPECT_THROW(inspect(&inspector, "x", "nothing"), Failure);
}

TEST_P(HostileExtractorTest, WhatItSaysIsFitForATerminal) {
  const Parts parts = run("escape-codes");
  ASSERT_EQ(1u, parts.size());
  EXPECT_EQ("a?[31m", parts[0].name);
  EXPECT_EQ("b?c", parts[0].detail);
}

// Whatever ends the command, by force even, ends its extractors.
TEST_P(HostileExtractorTest, ExtractorsDieWithTheCommand) {
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  const pid_t command = fork();
  if (command == 0) {
    Inspector inspector(settings_);
    inspector.confinement();
    std::string list;
    for (const pid_t child : children()) list.append(std::to_string(child)).append(" ");
    if (write(ends[1], list.data(), list.size()) < 0) _exit(1);
    pause();
    _exit(0);
  }
  close(ends[1]);
  char list[100] = {};
  ASSERT_GT(read(ends[0], list, sizeof list - 1), 0);
  close(ends[0]);
  const pid_t extractor = std::stoi(list);
  ASSERT_EQ(0, kill(extractor, 0));
  kill(command, SIGKILL);
  waitpid(command, nullptr, 0);
  for (int i = 0; i < 500 && kill(extractor, 0) == 0; ++i) usleep(10'000);
  EXPECT_NE(0, kill(extractor, 0));
}

}  // namespace
