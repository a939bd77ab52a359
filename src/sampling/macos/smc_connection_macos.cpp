// The AppleSMC user client: one struct in, one struct out, through the controller's event selector.

#include <IOKit/IOKitLib.h>
#include <mach/mach.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "sampling/smc.hpp"

namespace vistrel {
namespace {

// The controller's request and reply, 80 bytes, laid out as the kernel's user client expects.
struct SMCVersion {
  uint8_t major, minor, build, reserved;
  uint16_t release;
};
struct SMCPLimitData {
  uint16_t version, length;
  uint32_t cpuPLimit, gpuPLimit, memPLimit;
};
struct SMCKeyInfoData {
  uint32_t dataSize;
  uint32_t dataType;
  uint8_t dataAttributes;
};
struct SMCParamStruct {
  uint32_t key;
  SMCVersion vers;
  SMCPLimitData pLimitData;
  SMCKeyInfoData keyInfo;
  uint8_t result;
  uint8_t status;
  uint8_t data8;
  uint32_t data32;
  uint8_t bytes[32];
};
static_assert(sizeof(SMCParamStruct) == 80, "the AppleSMC user client takes 80-byte requests");
static_assert(offsetof(SMCParamStruct, keyInfo) == 28);
static_assert(offsetof(SMCParamStruct, result) == 40);
static_assert(offsetof(SMCParamStruct, data8) == 42);
static_assert(offsetof(SMCParamStruct, bytes) == 48);

constexpr uint32_t kSMCHandleYPCEvent = 2;  // the user client's selector for every request
constexpr uint8_t kSMCReadKey = 5;
constexpr uint8_t kSMCGetKeyInfo = 9;
constexpr uint8_t kSMCSuccess = 0;

class MacSMCConnection final : public SMCConnection {
 public:
  ~MacSMCConnection() override {
    if (connection_ != IO_OBJECT_NULL) IOServiceClose(connection_);
  }

  bool open() override {
    io_service_t service =
        IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching("AppleSMC"));
    if (service == IO_OBJECT_NULL) return false;
    const kern_return_t result = IOServiceOpen(service, mach_task_self(), 0, &connection_);
    IOObjectRelease(service);
    if (result != KERN_SUCCESS) connection_ = IO_OBJECT_NULL;
    return connection_ != IO_OBJECT_NULL;
  }

  std::optional<SMCKeyInfo> keyInfo(uint32_t key) override {
    SMCParamStruct in{};
    in.key = key;
    in.data8 = kSMCGetKeyInfo;
    SMCParamStruct out{};
    if (!call(in, out)) return std::nullopt;
    return SMCKeyInfo{out.keyInfo.dataSize, out.keyInfo.dataType};
  }

  std::optional<std::vector<uint8_t>> readBytes(uint32_t key, const SMCKeyInfo& info) override {
    if (info.dataSize == 0 || info.dataSize > sizeof(SMCParamStruct::bytes)) return std::nullopt;
    SMCParamStruct in{};
    in.key = key;
    in.keyInfo.dataSize = info.dataSize;
    in.data8 = kSMCReadKey;
    SMCParamStruct out{};
    if (!call(in, out)) return std::nullopt;
    return std::vector<uint8_t>(out.bytes, out.bytes + info.dataSize);
  }

 private:
  bool call(const SMCParamStruct& in, SMCParamStruct& out) {
    if (connection_ == IO_OBJECT_NULL) return false;
    size_t outSize = sizeof out;
    const kern_return_t result =
        IOConnectCallStructMethod(connection_, kSMCHandleYPCEvent, &in, sizeof in, &out, &outSize);
    return result == KERN_SUCCESS && out.result == kSMCSuccess;
  }

  io_connect_t connection_ = IO_OBJECT_NULL;
};

}  // namespace

std::unique_ptr<SMCConnection> makeSMCConnection() {
  return std::make_unique<MacSMCConnection>();
}

}  // namespace vistrel
