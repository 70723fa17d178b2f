#include "ami_device.h"

#include <algorithm>
#include <cstring>

#include "platform.h"

bool AMI_device::set_to_path(const char* path) {
  arity_ = 0;
  const size_t bytes = std::strlen(path) + 1;
  text_ = mallocArray<char>(bytes);
  if (!text_) return false;
  std::replace_copy(path, path + bytes, text_.get(), '|', '\0');
  arity_ = static_cast<size_t>(std::count(text_.get(), text_.get() + bytes, '\0'));
  return true;
}

bool AMI_device::read_environment(const char* name) {
  const char* const path = platform::current().environment(name);
  return path != nullptr && set_to_path(path);
}

const char* AMI_device::operator[](size_t index) const {
  const char* component = text_.get();
  for (; index > 0; --index) component += std::strlen(component) + 1;
  return component;
}

std::string AMI_device::description() const {
  std::string lines;
  for (size_t i = 0; i < arity_; ++i) lines += "\n  " + std::string((*this)[i]);
  return lines;
}
