#include "ami_stream_single.h"

#include "platform.h"
#include "tpie_log.h"

namespace {

constexpr char kCurrentDirectoryTwice[] = {'.', platform::kSeparator, '|',
                                           '.', platform::kSeparator, '\0'};

constinit AMI_device default_device;

struct Initialiser {
  Initialiser() { initialiseDefaultDevice(&default_device); }
} initialiser;

}  // namespace

void initialiseDefaultDevice(AMI_device* device) {
  if (!device->read_environment(kSingleDeviceVariable) &&
      !device->read_environment(kTemporaryDirectoryVariable) &&
      !device->set_to_path(kCurrentDirectoryTwice)) {
    TPIE_LOG_ALWAYS("Unable to initialize the default device description for AMI single streams.");
  }
  TPIE_LOG("Default device description for AMI single streams:" + device->description());
}

AMI_device& defaultDevice() { return default_device; }
