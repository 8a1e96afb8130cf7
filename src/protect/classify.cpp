#include "protect/classify.h"

#include <cstdlib>
#include <cwchar>

namespace {
constexpr DWORD kDescriptorBytes = 551;

class WindowsStorageProvider final : public StorageProvider {
 public:
  UINT DriveType(const wchar_t* drive) override { return GetDriveTypeW(drive); }
  HANDLE OpenVolume(const wchar_t* volume_name) override {
    return CreateFileW(volume_name, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                       nullptr);
  }
  BOOL QueryDescriptor(HANDLE volume, STORAGE_DEVICE_DESCRIPTOR* descriptor) override {
    return QueryStorageDescriptor(volume, descriptor);
  }
  void CloseVolume(HANDLE volume) override { CloseHandle(volume); }
};
}  // namespace

StorageProvider& windows_storage_provider() {
  static WindowsStorageProvider provider;  // stateless; constructed without any system call
  return provider;
}

BOOL QueryStorageDescriptor(HANDLE volume, STORAGE_DEVICE_DESCRIPTOR* descriptor) {
  STORAGE_PROPERTY_QUERY query = {};
  query.PropertyId = StorageDeviceProperty;
  query.QueryType = PropertyStandardQuery;
  DWORD returned = 0;
  return DeviceIoControl(volume, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof query, descriptor, descriptor->Size,
                         &returned, nullptr);
}

DestinationClass ClassifyDestination(const wchar_t* path, StorageProvider& provider) {
  if (path == nullptr) return kDestinationLocal;
  if (path[0] == L'\\' && path[1] == L'\\') return kDestinationNetwork;

  wchar_t name[256] = {};
  wcsncpy(name, path, 2);  // the drive letter and colon, no trailing backslash
  if (provider.DriveType(name) == DRIVE_REMOVABLE) return kDestinationRemovable;

  std::wmemset(name, 0, 256);
  name[0] = L'\\';
  name[1] = L'\\';
  name[2] = L'?';
  name[3] = L'\\';
  name[4] = path[0];
  name[5] = L':';
  HANDLE volume = provider.OpenVolume(name);
  if (volume == INVALID_HANDLE_VALUE) return kDestinationLocal;

  auto* descriptor = static_cast<STORAGE_DEVICE_DESCRIPTOR*>(std::calloc(1, kDescriptorBytes));
  if (descriptor == nullptr) {
    provider.CloseVolume(volume);
    return kDestinationLocal;
  }
  descriptor->Size = kDescriptorBytes;
  DestinationClass result = kDestinationLocal;
  if (provider.QueryDescriptor(volume, descriptor) && descriptor->BusType == BusTypeUsb) result = kDestinationRemovable;
  std::free(descriptor);
  provider.CloseVolume(volume);
  return result;
}
