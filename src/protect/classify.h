// Which kind of storage a path lies on: local fixed, removable/USB, or network.
#pragma once
#include <windows.h>
#include <winioctl.h>

#include <cstdint>

// 0 local, 1 removable or USB-attached, 2 network path. Bit 1 << class in g_audit_dest_mask.
using DestinationClass = int32_t;
constexpr DestinationClass kDestinationLocal = 0;
constexpr DestinationClass kDestinationRemovable = 1;
constexpr DestinationClass kDestinationNetwork = 2;

// The three questions a classification asks the system; tests substitute their own answers.
class StorageProvider {
 public:
  virtual ~StorageProvider() = default;
  // GetDriveTypeW of a two-character drive string such as L"E:".
  virtual UINT DriveType(const wchar_t* drive) = 0;
  // Opens a volume name such as L"\\?\E:"; INVALID_HANDLE_VALUE when it cannot be opened.
  virtual HANDLE OpenVolume(const wchar_t* volume_name) = 0;
  // Fills the device descriptor (its Size field holds the buffer length); non-zero on success.
  virtual BOOL QueryDescriptor(HANDLE volume, STORAGE_DEVICE_DESCRIPTOR* descriptor) = 0;
  virtual void CloseVolume(HANDLE volume) = 0;
};

// The provider that asks Windows (GetDriveTypeW, CreateFileW, QueryStorageDescriptor).
StorageProvider& windows_storage_provider();

// Classifies any path, a copy's first source as well as its destination (the class is what the
// policy's destination mask selects, hence the name), by the path's first characters: "\\" at the start gives 2 without asking anything
// (the long-path prefix included); a removable drive type gives 1; otherwise the volume's bus
// type: USB gives 1, anything else or any failure 0. A null path gives 0.
DestinationClass ClassifyDestination(const wchar_t* path, StorageProvider& provider = windows_storage_provider());

// IOCTL_STORAGE_QUERY_PROPERTY (StorageDeviceProperty, standard query) into `descriptor`,
// whose Size field gives the buffer length. Returns the DeviceIoControl result.
BOOL QueryStorageDescriptor(HANDLE volume, STORAGE_DEVICE_DESCRIPTOR* descriptor);
