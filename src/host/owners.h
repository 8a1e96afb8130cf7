// The owners of what the library, its tools, benchmarks and tests acquire from the system: one
// small move-only type per kind of resource, each releasing what it holds exactly once.
// (The hook engine stands alone and keeps its own two: the engine lock and the thread freeze.)
#pragma once
#include <windows.h>
#include <objbase.h>

template <typename Traits>
class Owner {
 public:
  using Value = typename Traits::Value;
  Owner() = default;
  explicit Owner(Value v) : v_(v) {}
  ~Owner() { reset(); }
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;
  Owner(Owner&& other) noexcept : v_(other.release()) {}
  Owner& operator=(Owner&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  bool ok() const { return Traits::valid(v_); }
  Value get() const { return v_; }
  Value operator->() const { return v_; }
  // For an out-parameter: releases what is held, then lends the slot.
  Value* put() {
    reset();
    return &v_;
  }
  void** put_void() { return reinterpret_cast<void**>(put()); }
  Value release() {
    const Value v = v_;
    v_ = Traits::none();
    return v;
  }
  void reset(Value v = Traits::none()) {
    if (Traits::valid(v_)) Traits::close(v_);
    v_ = v;
  }

 private:
  Value v_ = Traits::none();
};

namespace owner_traits {
struct Handle {  // kernel objects; null and INVALID_HANDLE_VALUE both mean none
  using Value = HANDLE;
  static Value none() { return nullptr; }
  static bool valid(Value v) { return v != nullptr && v != INVALID_HANDLE_VALUE; }
  static void close(Value v) { CloseHandle(v); }
};
struct Find {
  using Value = HANDLE;
  static Value none() { return INVALID_HANDLE_VALUE; }
  static bool valid(Value v) { return v != INVALID_HANDLE_VALUE && v != nullptr; }
  static void close(Value v) { FindClose(v); }
};
struct Module {
  using Value = HMODULE;
  static Value none() { return nullptr; }
  static bool valid(Value v) { return v != nullptr; }
  static void close(Value v) { FreeLibrary(v); }
};
struct Global {
  using Value = HGLOBAL;
  static Value none() { return nullptr; }
  static bool valid(Value v) { return v != nullptr; }
  static void close(Value v) { GlobalFree(v); }
};
struct View {  // a mapped view of a file mapping
  using Value = void*;
  static Value none() { return nullptr; }
  static bool valid(Value v) { return v != nullptr; }
  static void close(Value v) { UnmapViewOfFile(v); }
};
template <typename T>
struct Com {
  using Value = T*;
  static Value none() { return nullptr; }
  static bool valid(Value v) { return v != nullptr; }
  static void close(Value v) { v->Release(); }
};
template <typename T>
struct TaskMem {
  using Value = T*;
  static Value none() { return nullptr; }
  static bool valid(Value v) { return v != nullptr; }
  static void close(Value v) { CoTaskMemFree(v); }
};
}  // namespace owner_traits

using OwnedHandle = Owner<owner_traits::Handle>;    // CloseHandle
using OwnedFind = Owner<owner_traits::Find>;        // FindClose
using OwnedModule = Owner<owner_traits::Module>;    // FreeLibrary
using OwnedGlobal = Owner<owner_traits::Global>;    // GlobalFree
using OwnedView = Owner<owner_traits::View>;        // UnmapViewOfFile
template <typename T>
using ComRef = Owner<owner_traits::Com<T>>;         // one reference: Release
template <typename T>
using CoTaskMem = Owner<owner_traits::TaskMem<T>>;  // shell-allocated memory: CoTaskMemFree

// Sockets, for the files that use Winsock (which include winsock2.h before windows.h).
#ifdef _WINSOCK2API_
namespace owner_traits {
struct Socket {
  using Value = SOCKET;
  static Value none() { return INVALID_SOCKET; }
  static bool valid(Value v) { return v != INVALID_SOCKET; }
  static void close(Value v) { closesocket(v); }
};
}  // namespace owner_traits
using OwnedSocket = Owner<owner_traits::Socket>;  // closesocket
#endif
