// The directories that single streams use unless they are told otherwise.
// Tests: tests/unit/store/ami_device_test.cpp.
#pragma once

#include "ami_device.h"

// Takes the list from AMI_SINGLE_DEVICE, else from TMPDIR, else from the
// current directory, given twice. Run once at load.
void initialiseDefaultDevice(AMI_device* device);

AMI_device& defaultDevice();
