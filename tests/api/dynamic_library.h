// A library that a test loads and unloads itself.
#pragma once

#include <string>

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#else
#include <dlfcn.h>
#endif

class DynamicLibrary {
 public:
#ifdef _WIN32
  explicit DynamicLibrary(const std::string& path) : handle_(LoadLibraryA(path.c_str())) {}
  ~DynamicLibrary() {
    if (handle_) FreeLibrary(handle_);
  }
  void* address(const char* name) const {
    return reinterpret_cast<void*>(GetProcAddress(handle_, name));
  }
#else
  explicit DynamicLibrary(const std::string& path)
      : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}
  ~DynamicLibrary() {
    if (handle_) dlclose(handle_);
  }
  void* address(const char* name) const { return dlsym(handle_, name); }
#endif
  DynamicLibrary(const DynamicLibrary&) = delete;
  DynamicLibrary& operator=(const DynamicLibrary&) = delete;

  bool loaded() const { return handle_ != nullptr; }

  // The function `name`, typed by its declaration: function<decltype(Name)>("Name").
  template <typename Function>
  Function* function(const char* name) const {
    return reinterpret_cast<Function*>(address(name));
  }

 private:
#ifdef _WIN32
  const HMODULE handle_;
#else
  void* const handle_;
#endif
};
