#include "base/user_defaults.hpp"

namespace vistrel {

std::optional<bool> UserDefaults::boolean(std::string_view key) {
  auto v = get(key);
  if (!v || !v->is_boolean()) return std::nullopt;
  return v->get<bool>();
}

std::optional<int64_t> UserDefaults::integer(std::string_view key) {
  auto v = get(key);
  if (!v || !v->is_number_integer()) return std::nullopt;
  return v->get<int64_t>();
}

std::optional<double> UserDefaults::number(std::string_view key) {
  auto v = get(key);
  if (!v || !v->is_number()) return std::nullopt;
  return v->get<double>();
}

std::optional<std::string> UserDefaults::string(std::string_view key) {
  auto v = get(key);
  if (!v || !v->is_string()) return std::nullopt;
  return v->get<std::string>();
}

std::optional<std::vector<std::string>> UserDefaults::strings(std::string_view key) {
  auto v = get(key);
  if (!v || !v->is_array()) return std::nullopt;
  std::vector<std::string> out;
  for (const auto& item : *v) {
    if (item.is_string()) out.push_back(item.get<std::string>());
  }
  return out;
}

std::optional<std::vector<uint8_t>> UserDefaults::data(std::string_view key) {
  auto v = get(key);
  if (!v || !v->is_binary()) return std::nullopt;
  const auto& bytes = v->get_binary();
  return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

void UserDefaults::setData(std::string_view key, const std::vector<uint8_t>& bytes) {
  set(key, nlohmann::json::binary(bytes));
}

std::optional<nlohmann::json> MemoryUserDefaults::get(std::string_view key) {
  std::lock_guard lock(mutex_);
  auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

void MemoryUserDefaults::set(std::string_view key, nlohmann::json value) {
  std::lock_guard lock(mutex_);
  if (value.is_null()) {
    if (auto it = values_.find(key); it != values_.end()) values_.erase(it);
    return;
  }
  values_.insert_or_assign(std::string(key), std::move(value));
}

}  // namespace vistrel
