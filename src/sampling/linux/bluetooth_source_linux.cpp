// Batteries of connected Bluetooth devices from BlueZ: one GetManagedObjects call on the system
// bus through libdbus, opened at run time (a machine without it, or without BlueZ, has none). The
// call runs off the sampler's queue and never starts BlueZ.

#include <dbus/dbus.h>
#include <dlfcn.h>

#include <string>
#include <vector>

#include "sampling/bluetooth_reader.hpp"

namespace vistrel {
namespace {

constexpr int kCallTimeoutMs = 2000;

struct DBus {
  void* library = nullptr;
#define VISTREL_DBUS(name) decltype(&::name) name = nullptr;
#define VISTREL_DBUS_ALL                                  \
  VISTREL_DBUS(dbus_error_init)                           \
  VISTREL_DBUS(dbus_error_free)                           \
  VISTREL_DBUS(dbus_bus_get_private)                      \
  VISTREL_DBUS(dbus_connection_set_exit_on_disconnect)    \
  VISTREL_DBUS(dbus_connection_close)                     \
  VISTREL_DBUS(dbus_connection_unref)                     \
  VISTREL_DBUS(dbus_message_new_method_call)              \
  VISTREL_DBUS(dbus_message_set_auto_start)               \
  VISTREL_DBUS(dbus_connection_send_with_reply_and_block) \
  VISTREL_DBUS(dbus_message_unref)                        \
  VISTREL_DBUS(dbus_message_iter_init)                    \
  VISTREL_DBUS(dbus_message_iter_get_arg_type)            \
  VISTREL_DBUS(dbus_message_iter_recurse)                 \
  VISTREL_DBUS(dbus_message_iter_next)                    \
  VISTREL_DBUS(dbus_message_iter_get_basic)
  VISTREL_DBUS_ALL
#undef VISTREL_DBUS

  bool load() {
    library = ::dlopen("libdbus-1.so.3", RTLD_NOW | RTLD_LOCAL);
    if (!library) return false;
    bool all = true;
    auto get = [&](auto& fn, const char* name) {
      fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(::dlsym(library, name));
      all = all && fn != nullptr;
    };
#define VISTREL_DBUS(name) get(name, #name);
    VISTREL_DBUS_ALL
#undef VISTREL_DBUS
    return all;
  }
};
#undef VISTREL_DBUS_ALL

// The variant's value when it holds a string, a boolean or a byte.
struct Value {
  std::optional<std::string> text;
  std::optional<bool> flag;
  std::optional<int> byte;
};

class BlueZ {
 public:
  std::vector<BluetoothDevice> devices() {
    if (!loaded_) {
      loaded_ = true;
      ok_ = dbus_.load();
    }
    if (!ok_) return {};
    DBusError error;
    dbus_.dbus_error_init(&error);
    // A private connection: the shared one belongs to whoever else in the process uses the bus.
    DBusConnection* bus = dbus_.dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
    dbus_.dbus_error_free(&error);
    if (!bus) return {};
    dbus_.dbus_connection_set_exit_on_disconnect(bus, FALSE);
    std::vector<BlueZDevice> found;
    DBusMessage* call = dbus_.dbus_message_new_method_call(
        "org.bluez", "/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects");
    if (call) {
      dbus_.dbus_message_set_auto_start(call, FALSE);  // never start BlueZ for us
      dbus_.dbus_error_init(&error);
      DBusMessage* reply =
          dbus_.dbus_connection_send_with_reply_and_block(bus, call, kCallTimeoutMs, &error);
      dbus_.dbus_error_free(&error);
      dbus_.dbus_message_unref(call);
      if (reply) {
        walkObjects(reply, found);
        dbus_.dbus_message_unref(reply);
      }
    }
    dbus_.dbus_connection_close(bus);
    dbus_.dbus_connection_unref(bus);
    return bluetoothFromBlueZ(found);
  }

 private:
  // a{oa{sa{sv}}}
  void walkObjects(DBusMessage* reply, std::vector<BlueZDevice>& found) {
    DBusMessageIter top, objects;
    if (!dbus_.dbus_message_iter_init(reply, &top)) return;
    if (dbus_.dbus_message_iter_get_arg_type(&top) != DBUS_TYPE_ARRAY) return;
    dbus_.dbus_message_iter_recurse(&top, &objects);
    while (dbus_.dbus_message_iter_get_arg_type(&objects) == DBUS_TYPE_DICT_ENTRY) {
      DBusMessageIter entry, interfaces;
      dbus_.dbus_message_iter_recurse(&objects, &entry);
      dbus_.dbus_message_iter_next(&entry);  // past the object path
      if (dbus_.dbus_message_iter_get_arg_type(&entry) == DBUS_TYPE_ARRAY) {
        dbus_.dbus_message_iter_recurse(&entry, &interfaces);
        BlueZDevice device;
        bool isDevice = false;
        std::string alias, name, address;
        while (dbus_.dbus_message_iter_get_arg_type(&interfaces) == DBUS_TYPE_DICT_ENTRY) {
          DBusMessageIter iface, props;
          dbus_.dbus_message_iter_recurse(&interfaces, &iface);
          const char* interfaceName = nullptr;
          if (dbus_.dbus_message_iter_get_arg_type(&iface) == DBUS_TYPE_STRING) {
            dbus_.dbus_message_iter_get_basic(&iface, &interfaceName);
          }
          dbus_.dbus_message_iter_next(&iface);
          const std::string interface = interfaceName ? interfaceName : "";
          if (dbus_.dbus_message_iter_get_arg_type(&iface) == DBUS_TYPE_ARRAY) {
            dbus_.dbus_message_iter_recurse(&iface, &props);
            while (dbus_.dbus_message_iter_get_arg_type(&props) == DBUS_TYPE_DICT_ENTRY) {
              auto [key, value] = property(&props);
              if (interface == "org.bluez.Device1") {
                isDevice = true;
                if (key == "Connected" && value.flag) device.connected = *value.flag;
                if (key == "Alias" && value.text) alias = *value.text;
                if (key == "Name" && value.text) name = *value.text;
                if (key == "Address" && value.text) address = *value.text;
              } else if (interface == "org.bluez.Battery1" && key == "Percentage" && value.byte) {
                device.percentage = *value.byte;
              }
              dbus_.dbus_message_iter_next(&props);
            }
          }
          dbus_.dbus_message_iter_next(&interfaces);
        }
        device.name = !alias.empty() ? alias : !name.empty() ? name : address;
        if (isDevice) found.push_back(std::move(device));
      }
      dbus_.dbus_message_iter_next(&objects);
    }
  }

  // One {sv} entry.
  std::pair<std::string, Value> property(DBusMessageIter* entryIter) {
    DBusMessageIter entry, variant;
    dbus_.dbus_message_iter_recurse(entryIter, &entry);
    const char* key = nullptr;
    if (dbus_.dbus_message_iter_get_arg_type(&entry) == DBUS_TYPE_STRING) {
      dbus_.dbus_message_iter_get_basic(&entry, &key);
    }
    dbus_.dbus_message_iter_next(&entry);
    Value value;
    if (dbus_.dbus_message_iter_get_arg_type(&entry) == DBUS_TYPE_VARIANT) {
      dbus_.dbus_message_iter_recurse(&entry, &variant);
      switch (dbus_.dbus_message_iter_get_arg_type(&variant)) {
        case DBUS_TYPE_STRING: {
          const char* s = nullptr;
          dbus_.dbus_message_iter_get_basic(&variant, &s);
          if (s) value.text = s;
          break;
        }
        case DBUS_TYPE_BOOLEAN: {
          dbus_bool_t b = FALSE;
          dbus_.dbus_message_iter_get_basic(&variant, &b);
          value.flag = b != FALSE;
          break;
        }
        case DBUS_TYPE_BYTE: {
          unsigned char y = 0;
          dbus_.dbus_message_iter_get_basic(&variant, &y);
          value.byte = y;
          break;
        }
        default:
          break;
      }
    }
    return {key ? key : "", value};
  }

  DBus dbus_;
  bool loaded_ = false;
  bool ok_ = false;
};

}  // namespace

std::unique_ptr<BluetoothSource> makeBluetoothSource() {
  auto bluez = std::make_shared<BlueZ>();
  return std::make_unique<BackgroundBluetoothReader>([bluez] { return bluez->devices(); });
}

}  // namespace vistrel
