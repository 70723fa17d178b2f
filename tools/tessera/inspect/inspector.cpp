#include "inspect/inspector.h"

#include <filesystem>
#include <mutex>
#include <system_error>
#include <vector>

#include "failure.h"
#include "inspect/confined_command.h"
#include "inspect/extractor_process.h"
#include "inspect/starter.h"

namespace tool {

namespace {

std::string defaultExtractor() {
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  return (self.parent_path().parent_path() / "libexec" / "tessera" / "tessera-extract").string();
}

}  // namespace

// The extractors that have nothing to do, and how to start others.
class Inspector::Pool {
 public:
  explicit Pool(const Settings& settings)
      : settings_(settings),
        program_(settings.extractor.empty() ? defaultExtractor() : settings.extractor),
        namespaces_(settings.namespaces) {}

  std::unique_ptr<ExtractorProcess> take() {
    {
      const std::lock_guard lock(mutex_);
      if (!idle_.empty()) {
        auto taken = std::move(idle_.back());
        idle_.pop_back();
        return taken;
      }
    }
    return start();
  }

  void giveBack(std::unique_ptr<ExtractorProcess> extractor) {
    if (extractor->documents() >= settings_.documents_per_extractor) return;
    const std::lock_guard lock(mutex_);
    idle_.push_back(std::move(extractor));
  }

  // Of an extractor that runs.
  std::string confinement(const ExtractorProcess& extractor) {
    const std::lock_guard lock(mutex_);
    return (namespaces_ ? "namespaces, " : "") + extractor.confinement();
  }

 private:
  std::unique_ptr<ExtractorProcess> start() {
    std::unique_ptr<ExtractorProcess> started;
    starter_.run([&] { started = startConfined(); });
    return started;
  }

  // In namespaces, unless the first could not be started so: many systems do not allow
  // them. Where they do, nothing that goes wrong later makes do without. Called by one
  // thread at a time.
  std::unique_ptr<ExtractorProcess> startConfined() {
    if (namespaces_) {
      try {
        auto started = std::make_unique<ExtractorProcess>(confinedCommand(program_),
                                                          settings_.limits, settings_.given_up);
        namespaces_work_ = true;
        return started;
      } catch (const NoExtractor&) {
        if (namespaces_work_) throw;
        // The same without them tells whether it was for them.
      }
    }
    auto started = std::make_unique<ExtractorProcess>(std::vector<std::string>{program_},
                                                      settings_.limits, settings_.given_up);
    const std::lock_guard lock(mutex_);
    namespaces_ = false;
    return started;
  }

  const Settings settings_;
  const std::string program_;
  Starter starter_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<ExtractorProcess>> idle_;  // guarded by mutex_
  bool namespaces_;               // written by the starter's thread only, guarded by mutex_
  bool namespaces_work_ = false;  // of the starter's thread
};

Inspector::Inspector(const Settings& settings) : pool_(std::make_unique<Pool>(settings)) {}

Inspector::~Inspector() = default;

void Inspector::inspect(int file, std::string_view name,
                        const std::function<void(Part&&)>& deliver) {
  constexpr int kAttempts = 3;
  for (int attempt = 1;; ++attempt) {
    try {
      auto extractor = pool_->take();
      if (extractor->inspect(file, name, deliver)) pool_->giveBack(std::move(extractor));
      return;
    } catch (const NoExtractor& failure) {
      // One that died while it had nothing to do is no document's fault.
      if (attempt == kAttempts) {
        throw Failure(std::string("cannot start an extractor: ") + failure.what());
      }
    }
  }
}

std::string Inspector::confinement() const {
  try {
    auto extractor = pool_->take();
    std::string confinement = pool_->confinement(*extractor);
    pool_->giveBack(std::move(extractor));
    return confinement;
  } catch (const NoExtractor& failure) {
    throw Failure(std::string("cannot start an extractor: ") + failure.what());
  }
}

}  // namespace tool
